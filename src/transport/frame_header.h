// src/transport/frame_header.h - the two words at the head of a frame, in host byte order.
#pragma once
#include <glib.h>
#include <cstring>

#include "ptz_socket_frame.h"

namespace ptz::frame {

inline constexpr gsize header_size = PTZ_SOCKET_FRAME_HEADER_SIZE;
inline constexpr gsize length_size = sizeof(guint32);  // of the first word, which says how much to read

[[nodiscard]] inline guint32 word_at(const guint8 *bytes) {
  guint32 word;
  std::memcpy(&word, bytes, sizeof word);
  return word;
}

[[nodiscard]] inline guint32 length_of(const guint8 *frame) { return word_at(frame); }
[[nodiscard]] inline guint32 message_id_of(const guint8 *frame) { return word_at(frame + length_size); }
[[nodiscard]] inline bool can_be_length(guint32 length) {
  return length >= header_size && length <= PTZ_SOCKET_FRAME_MAX;
}

}  // namespace ptz::frame
