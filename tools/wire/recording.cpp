#include "recording.h"

#include <algorithm>
#include <cstring>

namespace ptzctl {

guint32 RecordedFrame::length() const {
  guint32 length = 0;
  std::memcpy(&length, bytes.data(), sizeof length);
  return length;
}

guint32 RecordedFrame::message_id() const {
  guint32 id = 0;
  std::memcpy(&id, bytes.data() + sizeof id, sizeof id);
  return id;
}

std::vector<guint8> frame_of(guint32 message_id, std::span<const guint8> body) {
  const auto length = static_cast<guint32>(frame_header_size + body.size());
  std::vector<guint8> frame(length);
  std::memcpy(frame.data(), &length, sizeof length);
  std::memcpy(frame.data() + sizeof length, &message_id, sizeof message_id);
  std::ranges::copy(body, frame.begin() + frame_header_size);
  return frame;
}

}  // namespace ptzctl
