#include "tap_line.h"

#include <glib.h>

#include <algorithm>

#include "colours.h"
#include "plain_text.h"
#include "time_text.h"

namespace ptzctl {

namespace {

std::string base_name(const std::string &path) {
  return path.substr(path.rfind('/') + 1);
}  // all of it without a slash

}  // namespace

bool TapFilter::takes(const FrameView &frame, const FrameText &text) const {
  if (only_errors && !text.is_error && !frame.unsent) return false;
  if (!commands.empty() && std::ranges::find(commands, command_of_frame(frame)) == commands.end()) return false;
  return client.empty() || client == std::to_string(frame.client) || client == std::to_string(frame.pid) ||
         client == frame.program || client == base_name(frame.program);
}

std::string tap_line(const FrameView &frame, const FrameText &text) {
  std::string result = text.fields;
  if (result.empty() && frame.is_reply) result = "ok";
  std::string line = tools::clock_text(frame.time_ns) + "  " + client_text(frame) + (frame.is_reply ? " ← " : " → ") +
                     painted(Look::heading, text.command);
  if (!result.empty()) line += "  " + (text.is_error ? painted(Look::bad, result) : result);
  if (frame.is_reply) line += "  (" + tools::duration_text(static_cast<double>(frame.latency_ns) / 1000) + ")";
  if (frame.unsent) line += "  " + painted(Look::bad, "not sent");
  if (frame.past) line += "  (past)";
  return line;
}

}  // namespace ptzctl
