// body_reader.h - reads a message body from a peer that may have sent anything.
#pragma once
#include <glib.h>

#include <string>

namespace example {

// The ptz_deserialize_* functions end the process when a body is too short for what they are to read, so a body must be
// measured before each of them. This reader does: once something is missing it stays failed and returns zeroes.
//
// Read everything first, ask finished() once, and only then act on what was read:
//
//   BodyReader request(body);
//   const guint32 number = request.u32();
//   const std::string name = request.text();
//   if (!request.finished()) return refuse();
class BodyReader {
  GArray *body_;
  guint32 cursor_ = 0;
  bool failed_ = false;

  bool has(guint64 size);

 public:
  explicit BodyReader(GArray *body) : body_(body) {}

  guint8 u8();
  guint16 u16();
  guint32 u32();
  gint32 i32() { return static_cast<gint32>(u32()); }
  std::string text();  // fails, too, for what is no UTF-8 or holds a NUL
  // The count of a list whose elements take at least this many bytes each. Fails for one that cannot be: a loop over
  // the count never runs longer than the body allows.
  guint32 count(guint32 smallest_element);

  [[nodiscard]] bool failed() const { return failed_; }
  // All that was read was there, and nothing is left over.
  [[nodiscard]] bool finished() const { return !failed_ && cursor_ == body_->len; }
};

}  // namespace example
