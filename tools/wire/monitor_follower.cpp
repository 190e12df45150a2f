#include "monitor_follower.h"

#include <gio/gio.h>

#include <algorithm>
#include <utility>

#include "driver_socket.h"

namespace ptzctl {

namespace {

constexpr guint first_retry_ms = 100, longest_retry_ms = 2000;
constexpr guint longest_wait_ms = 1000;  // of a retry: signals wait meanwhile
constexpr int most_rounds = 5;

// A process may have the id of one that has ended.
std::string instance_of(GVariant *figures) {
  gint32 pid = 0;
  gint64 since = 0;
  g_variant_lookup(figures, "pid", "i", &pid);
  g_variant_lookup(figures, "since", "x", &since);
  return std::to_string(pid) + " " + std::to_string(since);
}

guint64 lost_in(GVariant *figures) {
  guint64 lost = 0;
  g_variant_lookup(figures, "lost", "t", &lost);
  return lost;
}

}  // namespace

MonitorFollower::MonitorFollower(Settings settings, OnFrame on_frame, OnChange on_change)
    : settings_(std::move(settings)), on_frame_(std::move(on_frame)), on_change_(std::move(on_change)) {
  make_monitor();
}

MonitorFollower::~MonitorFollower() {
  stop();
  drop_monitor();
}

void MonitorFollower::make_monitor() {
  monitor_.reset(ptz_kit_monitor_new(settings_.path.c_str()));
  g_signal_connect(monitor_.get(), "frame", G_CALLBACK(on_frame), this);
  g_signal_connect(monitor_.get(), "closed", G_CALLBACK(on_closed), this);
}

void MonitorFollower::drop_monitor() {
  g_signal_handlers_disconnect_by_data(monitor_.get(), this);
  monitor_.reset();
}

void MonitorFollower::stop() {
  g_signal_handlers_disconnect_by_data(monitor_.get(), this);
  is_subscribed_ = false;
  if (retry_ != 0) g_source_remove(std::exchange(retry_, 0));
}

tools::Variant MonitorFollower::figures(guint timeout_ms, tools::Error &error) const {
  return tools::Variant(ptz_kit_monitor_get_figures(monitor_.get(), timeout_ms, nullptr, tools::out(error)));
}

tools::Variant MonitorFollower::connect(tools::Error &error) {
  if (ptz_kit_monitor_open(monitor_.get(), tools::out(error)) == FALSE) return nullptr;
  tools::Variant told = figures(settings_.timeout_ms, error);
  if (told != nullptr) instance_ = instance_of(told.get());
  return told;
}

bool MonitorFollower::subscribe(bool with_past, tools::Error &error) {
  if (ptz_kit_monitor_subscribe(monitor_.get(), with_past ? TRUE : FALSE, tools::out(error)) == FALSE) return false;
  // The answer comes after the driver has met the subscription.
  if (figures(settings_.timeout_ms, error) == nullptr) return false;
  is_subscribed_ = true;
  return true;
}

// A later frame tells what was lost before it, so the figures count only if no frame came after them.
guint64 MonitorFollower::catch_up() {
  for (int round = 0; is_subscribed_ && round < most_rounds; ++round) {
    tools::Error error;
    const tools::Variant told = figures(std::min(settings_.timeout_ms, longest_wait_ms), error);
    const guint64 before = frames_;
    guint64 reported = 0;
    do {
      reported = frames_;
      g_main_context_iteration(nullptr, FALSE);
    } while (frames_ != reported);
    if (told == nullptr) return 0;
    if (frames_ == before) return lost_in(told.get());
  }
  return 0;
}

void MonitorFollower::on_frame(PTZKitMonitor *, const PTZKitMonitorFrame *frame, gpointer follower) {
  auto &self = *static_cast<MonitorFollower *>(follower);
  ++self.frames_;
  self.on_frame_(*frame);
}

// A connection that a retry has made may end before it is subscribed.
void MonitorFollower::on_closed(PTZKitMonitor *, gpointer follower) {
  auto &self = *static_cast<MonitorFollower *>(follower);
  if (!std::exchange(self.is_subscribed_, false)) return;
  self.was_busy_ = false;
  self.next_retry_ms_ = first_retry_ms;
  self.on_change_(Following::ended);
  self.retry_later();
}

void MonitorFollower::retry_later() {
  if (retry_ != 0) return;
  retry_ = g_timeout_add(next_retry_ms_, on_retry, this);
  next_retry_ms_ = std::min(2 * next_retry_ms_, longest_retry_ms);
}

void MonitorFollower::find_socket() {
  if (settings_.driver.empty()) return;
  std::string problem;
  const tools::RegistryEntry entry = tools::driver_named(settings_.driver.c_str(), problem);
  if (entry == nullptr || settings_.path == entry->socket_path) return;
  settings_.path = entry->socket_path;
  drop_monitor();
  make_monitor();
}

bool MonitorFollower::reconnect(tools::Error &error) {
  find_socket();
  if (ptz_kit_monitor_open(monitor_.get(), tools::out(error)) == FALSE) return false;
  const tools::Variant told = figures(std::min(settings_.timeout_ms, longest_wait_ms), error);
  if (told == nullptr) return false;
  // The frames that the same run has kept were reported already.
  const bool is_other = instance_of(told.get()) != instance_;
  if (ptz_kit_monitor_subscribe(monitor_.get(), is_other ? TRUE : FALSE, tools::out(error)) == FALSE) return false;
  instance_ = instance_of(told.get());
  is_subscribed_ = true;
  on_change_(is_other ? Following::restarted : Following::resumed);
  return true;
}

gboolean MonitorFollower::on_retry(gpointer follower) {
  auto &self = *static_cast<MonitorFollower *>(follower);
  self.retry_ = 0;
  tools::Error error;
  if (self.reconnect(error)) return G_SOURCE_REMOVE;
  const bool is_busy = g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_BUSY) != FALSE;
  if (is_busy && !std::exchange(self.was_busy_, true)) self.on_change_(Following::busy);
  self.retry_later();
  return G_SOURCE_REMOVE;
}

}  // namespace ptzctl
