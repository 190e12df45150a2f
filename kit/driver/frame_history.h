// kit/driver/frame_history.h - the last frames of a driver, in a buffer of a fixed size.
//
// Frames have consecutive numbers. A monitor that cannot be sent a frame finds it here later, unless newer frames have
// taken its place: it has then lost as many frames as the numbers tell.
//
// Main context. Adding a frame allocates nothing, but for the first one.
#pragma once
#include <memory>
#include <span>

#include "driver/accounting.h"

namespace ptz_kit {

struct Frame {
  gint64 time_ns = 0;  // of the monotonic clock
  gint64 latency_ns = 0;
  Identity *client = nullptr;  // referenced by the history
  guint32 message_id = 0;
  bool is_reply = false;
  bool is_unsent = false;
  guint16 body_length = 0;
};

// Invariants: the frames from first_ up to end_ are in the buffer, each at the offset that offsets_ has for its number,
// in order of their numbers but for one jump from the end of the buffer to its beginning.
class FrameHistory {
  gsize limit_bytes_;
  guint32 capacity_ = 0;  // frames
  guint32 size_ = 0;      // bytes
  std::unique_ptr<guint32[]> offsets_;
  std::unique_ptr<guint8[]> buffer_;
  guint64 first_ = 0, end_ = 0;
  guint32 tail_ = 0;

  [[nodiscard]] bool is_empty() const { return first_ == end_; }
  [[nodiscard]] guint32 offset_of(guint64 number) const { return offsets_[number % capacity_]; }
  [[nodiscard]] Frame *at(guint64 number) const { return reinterpret_cast<Frame *>(buffer_.get() + offset_of(number)); }
  void allocate();
  void evict();
  void clear();
  void make_room(guint32 needed);

 public:
  explicit FrameHistory(gsize limit_bytes) : limit_bytes_(limit_bytes) {}
  FrameHistory(const FrameHistory &) = delete;
  ~FrameHistory() { clear(); }

  [[nodiscard]] gsize limit_bytes() const { return limit_bytes_; }
  // Forgets all frames. 0 keeps none.
  void set_limit_bytes(gsize limit_bytes);
  void add(Frame frame, std::span<const guint8> body);

  [[nodiscard]] guint64 first() const { return first_; }
  [[nodiscard]] guint64 end() const { return end_; }  // the number of the next frame
  // From first() up to end().
  [[nodiscard]] const Frame &frame(guint64 number) const { return *at(number); }
  [[nodiscard]] std::span<const guint8> body(guint64 number) const;
};

}  // namespace ptz_kit
