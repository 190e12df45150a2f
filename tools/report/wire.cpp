// The last minute of the wire, decoded.
#include "exchange_text.h"
#include "report/report.h"

namespace ptzctl {

namespace {

using tools::Mood;

constexpr std::size_t most_rows = 500;  // of a driver

std::vector<tools::Cell> row_of(const PTZKitMonitorFrame &frame, const FrameView &view,
                                const MessageDescription &description, bool full) {
  const FrameText text = text_of_frame(view, description, full);
  std::string fields = text.fields;
  if (frame.unsent) fields += fields.empty() ? "could not be sent" : ", could not be sent";
  const Mood mood = text.is_error || frame.unsent ? Mood::bad : Mood::plain;
  return {{tools::clock_text(frame.time_ns)},
          {client_text(view)},
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
