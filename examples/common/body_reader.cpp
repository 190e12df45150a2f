#include "body_reader.h"

#include <ptz_serialize.h>

#include "owned.h"

namespace example {

bool BodyReader::has(guint64 size) {
  failed_ = failed_ || body_->len - cursor_ < size;
  return !failed_;
}

guint8 BodyReader::u8() { return has(sizeof(guint8)) ? ptz_deserialize_8bit(body_, &cursor_) : 0; }
guint16 BodyReader::u16() { return has(sizeof(guint16)) ? ptz_deserialize_16bit(body_, &cursor_) : 0; }
guint32 BodyReader::u32() { return has(sizeof(guint32)) ? ptz_deserialize_32bit(body_, &cursor_) : 0; }

std::string BodyReader::text() {
  if (!has(sizeof(guint16))) return {};
  guint32 ahead = cursor_;  // ptz_deserialize_string() reads the length itself
  const gsize length = ptz_deserialize_16bit(body_, &ahead);
  if (!has(sizeof(guint16) + length)) return {};
  const Text text(ptz_deserialize_string(body_, &cursor_));
  failed_ = g_utf8_validate_len(text.get(), length, nullptr) == FALSE;
  return failed_ ? std::string() : std::string(text.get(), length);
}

guint32 BodyReader::count(guint32 smallest_element) {
  const guint32 count = u32();
  return has(guint64{count} * smallest_element) ? count : 0;
}

}  // namespace example
