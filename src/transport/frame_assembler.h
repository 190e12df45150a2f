// src/transport/frame_assembler.h - puts the frames of a byte stream together; used by both ends of the channel.
#pragma once
#include <glib.h>
#include <algorithm>
#include <cstring>
#include <span>

#include "transport/frame_header.h"

namespace ptz::frame {

// FrameAssembler says how many bytes it wants next, takes what the caller has read, and tells what that makes.
//
// States, by the public fields of the client or server that it works on:
//   length unknown   expected == PTZ_SOCKET_FRAME_UNKNOWN, fill < 4
//   partial frame    8 <= expected <= 2560, fill < expected
//   complete frame   fill == expected; the caller uses the frame, then calls reset()
//   malformed        fill >= 4, and expected is none of 8 to 2560; the caller reports it, then calls reset()
//
// Invariants: fill <= PTZ_SOCKET_FRAME_MAX; wanted() never reaches beyond the buffer, nor beyond the end of the frame,
// so bytes of the next frame stay in the stream.
//
// It holds no descriptor, no lock and no memory of its own. One thread at a time; the owner says which.
class FrameAssembler {
  guint8 *buffer_;  // PTZ_SOCKET_FRAME_MAX bytes, borrowed
  guint32 *fill_;   // borrowed, as are the next
  guint32 *expected_;

 public:
  enum class Progress { incomplete, complete, malformed };

  FrameAssembler(guint8 *buffer, guint32 *fill, guint32 *expected)
      : buffer_(buffer), fill_(fill), expected_(expected) {}

  // Once four bytes are here, a header that claims the unknown length is malformed like any other.
  [[nodiscard]] bool awaits_length() const { return *expected_ == PTZ_SOCKET_FRAME_UNKNOWN && *fill_ < length_size; }

  // The room for the next bytes. Empty while a complete or malformed frame awaits reset().
  // contract: four bytes while the length is unknown, even if some of them are here already. The surplus belongs to
  // the same frame, because the shortest frame has eight bytes.
  [[nodiscard]] std::span<guint8> wanted() const {
    const guint32 end = awaits_length()             ? *fill_ + static_cast<guint32>(length_size)
                        : can_be_length(*expected_) ? *expected_
                                                    : 0;
    if (*fill_ >= PTZ_SOCKET_FRAME_MAX || *fill_ >= end) return {};
    return {buffer_ + *fill_, std::min<gsize>(end, PTZ_SOCKET_FRAME_MAX) - *fill_};
  }

  // The caller has put this many bytes, at most wanted().size(), into wanted().
  [[nodiscard]] Progress take(gsize count) {
    *fill_ += static_cast<guint32>(count);
    return progress();
  }

  // Continues a partial frame that was saved with received().
  [[nodiscard]] Progress resume(std::span<const guint8> partial_frame) {
    reset();
    const gsize length = std::min<gsize>(partial_frame.size(), PTZ_SOCKET_FRAME_MAX);
    if (length > 0) std::memcpy(buffer_, partial_frame.data(), length);
    *fill_ = static_cast<guint32>(length);
    return progress();
  }

  void reset() {
    *fill_ = 0;
    *expected_ = PTZ_SOCKET_FRAME_UNKNOWN;
  }

  // The frame so far, header included.
  [[nodiscard]] std::span<guint8> received() const { return {buffer_, *fill_}; }
  // Of a frame that is not of unknown length; the length that the header claims, if the frame is malformed.
  [[nodiscard]] guint32 length() const { return *expected_; }
  // Of a complete frame.
  [[nodiscard]] guint32 message_id() const { return message_id_of(buffer_); }
  [[nodiscard]] std::span<guint8> body() const { return received().subspan(header_size); }

 private:
  [[nodiscard]] Progress progress() {
    if (awaits_length()) return Progress::incomplete;
    if (*expected_ == PTZ_SOCKET_FRAME_UNKNOWN) *expected_ = length_of(buffer_);
    if (!can_be_length(*expected_)) return Progress::malformed;
    return *fill_ == *expected_ ? Progress::complete : Progress::incomplete;
  }
};

}  // namespace ptz::frame
