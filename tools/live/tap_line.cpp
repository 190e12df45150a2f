#include "tap_line.h"

#include <glib.h>

#include <algorithm>

#include "colours.h"
#include "plain_text.h"

namespace ptzctl {

namespace {

constexpr gint64 ns_per_us = 1000, ns_per_ms = 1'000'000, ns_per_s = 1'000'000'000;

using Time = tools::Handle<GDateTime, g_date_time_unref>;

std::string base_name(const std::string &path) {
  return path.substr(path.rfind('/') + 1);
}  // all of it without a slash

std::string time_of_day(gint64 time_ns) {
  const Time local(g_date_time_new_from_unix_local(time_ns / ns_per_s));
  const tools::Text before(local != nullptr ? g_date_time_format(local.get(), "%H:%M:%S") : g_strdup("--:--:--"));
  const tools::Text text(g_strdup_printf("%s.%06d", before.get(), static_cast<int>(time_ns % ns_per_s / ns_per_us)));
  return text.get();
}

std::string client_text(const FrameView &frame) {
  const std::string program = frame.program.empty() ? "unknown" : tools::plain_text(base_name(frame.program));
  const std::string pid = frame.pid > 0 ? "[" + std::to_string(frame.pid) + "]" : "";
  return "#" + std::to_string(frame.client) + " " + program + pid;
}

}  // namespace

bool TapFilter::takes(const FrameView &frame, const FrameText &text) const {
  if (only_errors && !text.is_error && !frame.unsent) return false;
  if (!commands.empty() && std::ranges::find(commands, command_of_frame(frame)) == commands.end()) return false;
  return client.empty() || client == std::to_string(frame.client) || client == std::to_string(frame.pid) ||
         client == frame.program || client == base_name(frame.program);
}

std::string duration_text(gint64 nanoseconds) {
  const auto value = static_cast<double>(nanoseconds);
  const tools::Text text(nanoseconds < ns_per_ms  ? g_strdup_printf("%.0f µs", value / ns_per_us)
                         : nanoseconds < ns_per_s ? g_strdup_printf("%.1f ms", value / ns_per_ms)
                                                  : g_strdup_printf("%.2f s", value / ns_per_s));
  return text.get();
}

std::string tap_line(const FrameView &frame, const FrameText &text) {
  std::string result = text.fields;
  if (result.empty() && frame.is_reply) result = "ok";
  std::string line = time_of_day(frame.time_ns) + "  " + client_text(frame) + (frame.is_reply ? " ← " : " → ") +
                     painted(Look::heading, text.command);
  if (!result.empty()) line += "  " + (text.is_error ? painted(Look::bad, result) : result);
  if (frame.is_reply) line += "  (" + duration_text(frame.latency_ns) + ")";
  if (frame.unsent) line += "  " + painted(Look::bad, "not sent");
  if (frame.past) line += "  (past)";
  return line;
}

}  // namespace ptzctl
