// src/transport/frame_writer.h - writes a frame in two pieces, and says what a partial write means.
#pragma once
#include <glib.h>

#include "transport/frame_header.h"

namespace ptz::frame {

enum class FrameSent {
  whole,        // also if the write operation reported 0: an endpoint that is not open takes everything
  nothing,      // the stream is as it was before
  header_only,  // contract: a frame without a body counts as a failure, although its header was sent
  fragment,     // the peer takes whatever follows for the rest of this frame: nothing may follow
};

// `write_piece` (data, length) is the write operation of the endpoint: the count, or a negative number.
template <typename WritePiece>
[[nodiscard]] FrameSent write_frame(guint32 message_id, gconstpointer body, guint32 length, WritePiece write_piece) {
  const auto is_part = [](gssize sent, gsize whole) { return sent > 0 && static_cast<gsize>(sent) < whole; };
  const guint32 header[] = {static_cast<guint32>(length + header_size), message_id};
  const gssize header_sent = write_piece(header, sizeof header);
  if (header_sent < 0) return FrameSent::nothing;
  if (is_part(header_sent, sizeof header)) return FrameSent::fragment;
  const gssize body_sent = write_piece(body, length);
  if (is_part(body_sent, length)) return FrameSent::fragment;
  if (body_sent >= 0) return FrameSent::whole;
  return length == 0 ? FrameSent::header_only : FrameSent::fragment;
}

}  // namespace ptz::frame
