// exchange_text.h - one frame between a client and a driver as text and as JSON.
#pragma once
#include <ptz_kit_monitor.h>

#include <map>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "json_line.h"
#include "message_description.h"

namespace ptzctl {

// The values of parameters whose name has pass, key, secret or token in it read "(hidden)", unless `full`.
struct FrameView {
  gint64 time_ns = 0, latency_ns = 0;
  guint64 lost = 0;
  guint32 client = 0;
  gint32 pid = 0;
  guint32 uid = 0;
  bool is_reply = false, past = false, unsent = false;
  guint32 message_id = 0;
  std::string program;
  std::span<const guint8> body;  // borrowed
  // Of a reply, from OpenRequests. An error reply does not tell which command it refuses, nor does the value of a
  // property tell its name: unless it is known to be harmless, it is hidden.
  std::optional<gint32> request_command;
  bool is_harmless = false;
};

// The body is that of the frame.
[[nodiscard]] FrameView view_of(const PTZKitMonitorFrame &frame);

// Remembers what the requests without a reply asked for. It sees each frame, in their order.
class OpenRequests {
  static constexpr std::size_t most = 4096;
  struct Request {
    gint32 command;
    bool is_harmless;
  };
  std::map<std::pair<guint32, guint32>, Request> requests_;  // by client and message

 public:
  // Completes a reply by what is known of its request.
  void look_at(FrameView &frame);
};

// "#3 mini-daemon[731]"
[[nodiscard]] std::string client_text(const FrameView &frame);

struct FrameText {
  std::string command;  // "Move"; "command 77" if the description has none of this number
  std::string fields;   // "kind=absolute pan=10.00° speed=50 %", "error 4 out_of_range: ...", "malformed: ..."
  bool is_error;        // an error reply, or malformed
};
[[nodiscard]] FrameText text_of_frame(const FrameView &frame, const MessageDescription &description, bool full);

// Members "time" to "unsent", and "fields", "error" or "malformed"; docs/json.md describes them.
void add_frame_to(const JsonLine &json, const FrameView &frame, const MessageDescription &description, bool full);

// The name of the command as the description has it, such as "query_position", or its number. Of an error reply, that
// of the request if it is known, or "error".
[[nodiscard]] std::string command_of_frame(const FrameView &frame);

// "2026-11-22T14:34:29.123456789Z"
[[nodiscard]] std::string utc_text(gint64 time_ns);

}  // namespace ptzctl
