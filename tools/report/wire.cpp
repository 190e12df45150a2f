// The last minute of the wire, decoded.
#include "exchange_text.h"
#include "report/report.h"

namespace ptzctl {

namespace {

using tools::Mood;

constexpr std::size_t most_rows = 500;  // of a driver

// "14:34:29.123456"
std::string clock_text(gint64 time_ns) {
  constexpr gint64 ns_per_s = 1'000'000'000;
  const tools::Handle<GDateTime, g_date_time_unref> time(g_date_time_new_from_unix_local(time_ns / ns_per_s));
  const tools::Text text(time != nullptr ? g_date_time_format(time.get(), "%H:%M:%S") : g_strdup("-"));
  const tools::Text fraction(g_strdup_printf(".%06d", static_cast<int>(time_ns % ns_per_s / 1000)));
  return std::string(text.get()) + fraction.get();
}

std::string client_text(const PTZKitMonitorFrame &frame) {
  const tools::Text base(g_path_get_basename(frame.program));
  const std::string name = *frame.program != '\0' ? base.get() : "unknown";
  return std::to_string(frame.client) + " " + name + "[" + std::to_string(frame.pid) + "]";
}

std::vector<tools::Cell> row_of(const PTZKitMonitorFrame &frame, const FrameView &view,
                                const MessageDescription &description, bool full) {
  const FrameText text = text_of_frame(view, description, full);
  std::string fields = text.fields;
  if (frame.unsent) fields += fields.empty() ? "could not be sent" : ", could not be sent";
  const Mood mood = text.is_error || frame.unsent ? Mood::bad : Mood::plain;
  return {{clock_text(frame.time_ns)},
          {client_text(frame)},
          {view.is_reply ? "reply" : "request"},
          {text.command, mood},
          {fields, mood},
          {view.is_reply ? tools::duration_text(static_cast<double>(frame.latency_ns) / 1000) : ""}};
}

void add_frames(const WatchedDriver &driver, bool full, tools::Section &section) {
  static const MessageDescription description;
  OpenRequests requests;
  tools::Table table = {
      label_of(driver.entry), {{"time"}, {"client"}, {""}, {"command"}, {"fields"}, {"latency", true}}, {}};
  std::size_t left_out = driver.dropped;
  for (std::size_t i = 0; i < driver.frames.size(); ++i) {
    const PTZKitMonitorFrame &frame = *driver.frames[i];
    FrameView view = view_of(frame);
    requests.look_at(view);
    if (driver.frames.size() - i > most_rows) {
      ++left_out;
      continue;
    }
    table.rows.push_back(row_of(frame, view, description, full));
  }
  if (table.rows.empty()) return;
  if (left_out > 0) table.caption += ", without the " + std::to_string(left_out) + " frames before";
  if (driver.lost > 0) {
    section.blocks.emplace_back(tools::Paragraph{
        label_of(driver.entry) + ": " + std::to_string(driver.lost) + " frames were lost", Mood::warning});
  }
  section.blocks.emplace_back(std::move(table));
}

}  // namespace

tools::Section wire_section(const Watch &watch, bool full) {
  tools::Section section = {"wire", "The last minute of the wire", {}};
  for (const auto &driver : watch.drivers) add_frames(*driver, full, section);
  if (section.blocks.empty()) section.blocks.emplace_back(tools::Paragraph{"No frames are known."});
  return section;
}

}  // namespace ptzctl
