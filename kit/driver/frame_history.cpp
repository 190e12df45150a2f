#include "driver/frame_history.h"

#include <cstring>

namespace ptz_kit {
namespace {

constexpr guint32 bytes_per_frame = sizeof(Frame) + 8;  // at least, with its body

guint32 needed_for(std::size_t body_length) {
  return static_cast<guint32>((sizeof(Frame) + body_length + alignof(Frame) - 1) & ~(alignof(Frame) - 1));
}

}  // namespace

void FrameHistory::allocate() {
  capacity_ = static_cast<guint32>(limit_bytes_ / (bytes_per_frame + sizeof(guint32)));
  size_ = static_cast<guint32>((limit_bytes_ - capacity_ * sizeof(guint32)) & ~(alignof(Frame) - 1));
  offsets_ = std::make_unique_for_overwrite<guint32[]>(capacity_);
  buffer_ = std::make_unique_for_overwrite<guint8[]>(size_);
}

void FrameHistory::set_limit_bytes(gsize limit_bytes) {
  clear();
  limit_bytes_ = limit_bytes;
  buffer_.reset();
  offsets_.reset();
}

void FrameHistory::evict() { at(first_++)->client->unref(); }

void FrameHistory::clear() {
  while (!is_empty()) evict();
  tail_ = 0;
}

void FrameHistory::make_room(guint32 needed) {
  if (size_ - tail_ < needed) {
    while (!is_empty() && offset_of(first_) >= tail_) evict();
    tail_ = 0;
  }
  while (!is_empty() &&
         (end_ - first_ == capacity_ || (offset_of(first_) >= tail_ && offset_of(first_) - tail_ < needed))) {
    evict();
  }
}

void FrameHistory::add(Frame frame, std::span<const guint8> body) {
  if (limit_bytes_ != 0 && !buffer_) allocate();
  const guint32 needed = needed_for(body.size());
  if (limit_bytes_ == 0 || needed > size_ || capacity_ == 0) {
    clear();
    first_ = ++end_;
    return;
  }
  make_room(needed);
  offsets_[end_ % capacity_] = tail_;
  frame.body_length = static_cast<guint16>(body.size());
  frame.client->ref();
  auto *entry = new (buffer_.get() + tail_) Frame(frame);
  if (!body.empty()) std::memcpy(entry + 1, body.data(), body.size());
  tail_ += needed;
  ++end_;
}

std::span<const guint8> FrameHistory::body(guint64 number) const {
  return {reinterpret_cast<const guint8 *>(at(number) + 1), at(number)->body_length};
}

}  // namespace ptz_kit
