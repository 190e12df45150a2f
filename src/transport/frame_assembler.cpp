#include "transport/frame_assembler.h"

#include <algorithm>
#include <cstring>

namespace ptz::frame {

std::span<guint8> FrameAssembler::wanted() const {
  if (*fill_ >= PTZ_SOCKET_FRAME_MAX) return {};
  const gsize room = PTZ_SOCKET_FRAME_MAX - *fill_;
  if (awaits_length()) return {buffer_ + *fill_, std::min<gsize>(room, length_size)};
  if (!can_be_length(*expected_) || *fill_ >= *expected_) return {};
  return {buffer_ + *fill_, std::min<gsize>(room, *expected_ - *fill_)};
}

FrameAssembler::Progress FrameAssembler::take(gsize count) {
  *fill_ += static_cast<guint32>(count);
  return progress();
}

FrameAssembler::Progress FrameAssembler::resume(std::span<const guint8> partial_frame) {
  reset();
  const gsize length = std::min<gsize>(partial_frame.size(), PTZ_SOCKET_FRAME_MAX);
  if (length > 0) std::memcpy(buffer_, partial_frame.data(), length);
  *fill_ = static_cast<guint32>(length);
  return progress();
}

FrameAssembler::Progress FrameAssembler::progress() {
  if (awaits_length()) {
    if (*fill_ < length_size) return Progress::incomplete;
    *expected_ = length_of(buffer_);
    if (!can_be_length(*expected_)) return Progress::malformed;
  }
  return *fill_ == *expected_ ? Progress::complete : Progress::incomplete;
}

}  // namespace ptz::frame
