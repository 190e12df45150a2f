#include "report/watch.h"

#include <ptz_enum_types.h>
#include <ptz_kit_body.h>

#include <algorithm>

#include "stored_values.h"

namespace ptzctl {

namespace {

constexpr guint sample_interval_ms = 50;
constexpr gint64 ns_per_us = 1000;
constexpr gint64 least_share_ms = 10;  // of the common time-out
constexpr gint64 kept_us = 60 * G_USEC_PER_SEC;

std::span<const guint8> bytes_of(const PTZKitMonitorFrame &frame) {
  gsize size = 0;
  const auto *const data = static_cast<const guint8 *>(g_bytes_get_data(frame.body, &size));
  return {data, size};
}

}  // namespace

WatchedDriver::WatchedDriver(const PTZKitRegistryEntry &of) : entry(of) {
  if (entry.instance != 0) status_.emplace(position_kind, entry.instance);
}

WatchedDriver::~WatchedDriver() {
  if (monitor_ != nullptr) g_signal_handlers_disconnect_by_data(monitor_.get(), this);
}

void WatchedDriver::ask(guint timeout_ms) {
  tools::Error error;
  last.reset(ptz_kit_monitor_get_figures(monitor_.get(), timeout_ms, nullptr, tools::out(error)));
  if (last == nullptr) problem = tools::message_of(error, "it gave no figures");
}

void WatchedDriver::begin(guint timeout_ms) {
  start_us_ = g_get_real_time();
  if (entry.liveness == PTZ_KIT_DRIVER_DEAD) {
    problem = "the driver is dead";
    return;
  }
  monitor_.reset(ptz_kit_monitor_new(entry.socket_path));
  const auto on_frame = +[](PTZKitMonitor *, const PTZKitMonitorFrame *frame, gpointer self) {
    static_cast<WatchedDriver *>(self)->add(frame);
  };
  g_signal_connect(monitor_.get(), "frame", G_CALLBACK(on_frame), this);
  tools::Error error;
  if (!ptz_kit_monitor_open(monitor_.get(), tools::out(error))) {
    problem = tools::message_of(error, "its monitor socket cannot be connected to");
    monitor_.reset();
    return;
  }
  ask(timeout_ms);
  if (last == nullptr) {
    monitor_.reset();
    return;
  }
  first.reset(g_variant_ref(last.get()));
  if (!ptz_kit_monitor_subscribe(monitor_.get(), TRUE, tools::out(error))) {
    problem = tools::message_of(error, "its frames cannot be watched");
  }
}

void WatchedDriver::add(const PTZKitMonitorFrame *frame) {
  lost += frame->lost;
  const gint64 time_us = frame->time_ns / ns_per_us;
  if (time_us < start_us_ - kept_us) return;
  const bool is_request = frame->direction == PTZ_KIT_FRAME_REQUEST;
  gint32 command = 0;
  const bool has_command =
      ptz_kit_body_get_command(bytes_of(*frame).data(), bytes_of(*frame).size(), &command) != FALSE;
  if (is_request) {
    if (time_us >= start_us_) motion.add_request(time_us, frame->message_id, bytes_of(*frame));
  } else if (!has_command || command != PTZ_COMMAND_QUERY_POSITION || (!status_ && time_us >= start_us_)) {
    // Published positions and answered ones need not agree, and a plot of both would jump.
    motion.add_reply(time_us, frame->message_id, bytes_of(*frame));
  }
  frames.emplace_back(ptz_kit_monitor_frame_copy(frame));
  if (frames.size() <= most_frames) return;
  frames.pop_front();
  ++dropped;
}

void WatchedDriver::sample() {
  if (!status_ || read_group(status_->name, status_->values) != Reading::done) return;
  has_status = true;
  const gint64 now = g_get_real_time(), age_us = status_->age_ms().value_or(0) * 1000;
  // A dead publisher leaves its last values: they are no motion of now.
  const gint64 time_us = now - age_us;
  if (time_us < start_us_ - kept_us || time_us <= last_sample_us_) return;
  last_sample_us_ = time_us;
  tools::MotionTrace::Sample sample = {std::max(time_us, start_us_), {}, {}};
  for (std::size_t axis = 0; axis < sample.position.size(); ++axis) {
    sample.position[axis] = static_cast<double>(status_->position(axis));
    sample.is_moving[axis] = status_->status(axis) == "moving";
  }
  motion.add_sample(sample);
}

void WatchedDriver::end(guint timeout_ms) {
  if (monitor_ == nullptr) return;
  ask(timeout_ms);
  // Frames that came while it waited. There may be no end of them.
  const gint64 deadline = g_get_monotonic_time() + sample_interval_ms * gint64{1000};
  while (g_get_monotonic_time() < deadline && g_main_context_iteration(nullptr, FALSE)) {
  }
}

Watch::Watch(const std::vector<const PTZKitRegistryEntry *> &entries, guint timeout_ms) : timeout_ms_(timeout_ms) {
  for (const auto *entry : entries) drivers.push_back(std::make_unique<WatchedDriver>(*entry));
}

// Each driver may take its share of the time that is left, and leaves what it does not need to the others.
void Watch::ask_each(void (WatchedDriver::*question)(guint timeout_ms)) {
  const gint64 end_us = g_get_monotonic_time() + timeout_ms_ * gint64{1000};
  auto left = static_cast<gint64>(drivers.size());
  for (const auto &driver : drivers) {
    const gint64 share_ms = (end_us - g_get_monotonic_time()) / 1000 / left--;
    (driver.get()->*question)(static_cast<guint>(std::max(share_ms, least_share_ms)));
  }
}

void Watch::run(guint seconds) {
  ask_each(&WatchedDriver::begin);
  const auto on_time = +[](gpointer self) -> gboolean {
    for (const auto &driver : static_cast<Watch *>(self)->drivers) driver->sample();
    return G_SOURCE_CONTINUE;
  };
  const tools::Loop loop(g_main_loop_new(nullptr, FALSE));
  on_time(this);
  const guint sampling = g_timeout_add(sample_interval_ms, on_time, this);
  const auto on_end = +[](gpointer end) -> gboolean {
    g_main_loop_quit(static_cast<GMainLoop *>(end));
    return G_SOURCE_REMOVE;
  };
  // Past frames arrive even if nothing is to be watched.
  g_timeout_add(seconds > 0 ? seconds * 1000 : sample_interval_ms, on_end, loop.get());
  g_main_loop_run(loop.get());
  g_source_remove(sampling);
  const gint64 end_us = g_get_real_time();
  gint64 start_us = end_us;
  for (const auto &driver : drivers) start_us = std::min(start_us, driver->start_us());
  for (const auto &driver : drivers) driver->motion.set_window(start_us, end_us);
  ask_each(&WatchedDriver::end);
}

}  // namespace ptzctl
