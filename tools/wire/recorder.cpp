#include "recorder.h"

#include <glib-unix.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <utility>

#include "subcommand.h"

namespace ptzctl {

namespace {

constexpr guint retry_interval_ms = 100;

std::string text_in(GVariant *figures, const char *key) {
  const char *text = "";
  g_variant_lookup(figures, key, "&s", &text);
  return text;
}

// A process may have the id of one that has ended.
std::string instance_of(GVariant *figures) {
  gint32 pid = 0;
  gint64 since = 0;
  g_variant_lookup(figures, "pid", "i", &pid);
  g_variant_lookup(figures, "since", "x", &since);
  return std::to_string(pid) + " " + std::to_string(since);
}

RecordedFrame recorded(const PTZKitMonitorFrame &frame) {
  RecordedFrame made;
  made.time_ns = frame.time_ns;
  made.is_reply = frame.direction == PTZ_KIT_FRAME_REPLY;
  made.past = frame.past != FALSE;
  made.unsent = frame.unsent != FALSE;
  made.client = frame.client;
  made.pid = frame.pid;
  made.uid = frame.uid;
  gsize size = 0;
  const auto *const body = static_cast<const guint8 *>(g_bytes_get_data(frame.body, &size));
  made.bytes = frame_of(frame.message_id, {body, size});
  return made;
}

}  // namespace

Recorder::Recorder(RecorderSettings settings)
    : settings_(std::move(settings)), monitor_(ptz_kit_monitor_new(settings_.path.c_str())) {}

Recorder::~Recorder() {
  g_signal_handlers_disconnect_by_data(monitor_.get(), this);
  if (retry_ != 0) g_source_remove(retry_);
}

tools::Variant Recorder::figures(tools::Error &error) const {
  return tools::Variant(ptz_kit_monitor_get_figures(monitor_.get(), settings_.timeout_ms, nullptr, tools::out(error)));
}

std::string Recorder::problem_of(const tools::Error &error) const {
  const bool has_socket = access(settings_.path.c_str(), F_OK) == 0;
  if (!has_socket) return "no driver at " + settings_.path + ": " + g_strerror(ENOENT);
  if (g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_NOT_FOUND)) {
    return "the driver at " + settings_.path + " has no monitor socket: it is not written with this kit";
  }
  return "the driver at " + settings_.path + " cannot be recorded: " + tools::message_of(error, "no reason is known");
}

std::optional<RecordingOrigin> Recorder::connect(std::string &problem) {
  tools::Error error;
  tools::Variant told;
  if (ptz_kit_monitor_connect(monitor_.get(), tools::out(error)) != FALSE) told = figures(error);
  if (told == nullptr) {
    problem = problem_of(error);
    return std::nullopt;
  }
  instance_ = instance_of(told.get());
  RecordingOrigin origin;
  origin.driver = text_in(told.get(), "name");
  origin.program = text_in(told.get(), "program");
  origin.library_version = text_in(told.get(), "library-version");
  g_variant_lookup(told.get(), "protocol-version", "u", &origin.protocol_version);
  return origin;
}

std::string Recorder::comment_on(const RecordedFrame &frame) {
  std::string comment;
  if (std::exchange(is_restarted_, false)) comment = "the driver was started again before this frame";
  if (frame.lost > 0) {
    comment += (comment.empty() ? "" : "; ") + std::to_string(frame.lost) + " frames were lost before this one";
  }
  return comment;
}

void Recorder::take(const PTZKitMonitorFrame &frame) {
  lost_ += frame.lost;
  lost_before_next_ += frame.lost;
  if (settings_.client && frame.client != *settings_.client) return;
  RecordedFrame made = recorded(frame);
  made.client += first_client_;
  last_client_ = std::max(last_client_, made.client);
  made.lost = static_cast<guint32>(std::min<guint64>(std::exchange(lost_before_next_, 0), G_MAXUINT32));
  writer_->write(made, comment_on(made));
  if (writer_->error() == 0) ++written_;
  const bool is_enough = settings_.frames != 0 && written_ >= settings_.frames;
  if (!is_enough && writer_->error() == 0) return;
  g_signal_handlers_disconnect_by_data(monitor_.get(), this);  // further frames may have been read already
  g_main_loop_quit(loop_.get());
}

void Recorder::on_frame(PTZKitMonitor *, const PTZKitMonitorFrame *frame, gpointer recorder) {
  static_cast<Recorder *>(recorder)->take(*frame);
}

void Recorder::on_closed(PTZKitMonitor *, gpointer recorder) {
  auto &self = *static_cast<Recorder *>(recorder);
  complain("the driver has ended; waiting for its next start");
  if (self.retry_ == 0) self.retry_ = g_timeout_add(retry_interval_ms, on_retry, recorder);
}

bool Recorder::reconnect() {
  if (ptz_kit_monitor_connect(monitor_.get(), nullptr) == FALSE) return false;
  tools::Error error;
  const tools::Variant told = figures(error);
  if (told == nullptr) return false;
  // What a driver that still runs has kept is recorded already.
  const bool is_other = instance_of(told.get()) != instance_;
  if (ptz_kit_monitor_subscribe(monitor_.get(), is_other, nullptr) == FALSE) return false;
  if (is_other) {
    instance_ = instance_of(told.get());
    first_client_ = last_client_;
    is_restarted_ = true;
  }
  complain(is_other ? "the driver has started again" : "connected to the driver again");
  return true;
}

gboolean Recorder::on_retry(gpointer recorder) {
  auto &self = *static_cast<Recorder *>(recorder);
  if (!self.reconnect()) return G_SOURCE_CONTINUE;
  self.retry_ = 0;
  return G_SOURCE_REMOVE;
}

gboolean Recorder::on_end(gpointer recorder) {
  g_main_loop_quit(static_cast<Recorder *>(recorder)->loop_.get());
  return G_SOURCE_CONTINUE;
}

bool Recorder::record(RecordingWriter &writer, std::string &problem) {
  writer_ = &writer;
  g_signal_connect(monitor_.get(), "frame", G_CALLBACK(on_frame), this);
  g_signal_connect(monitor_.get(), "closed", G_CALLBACK(on_closed), this);
  tools::Error error;
  if (ptz_kit_monitor_subscribe(monitor_.get(), settings_.with_past ? TRUE : FALSE, tools::out(error)) == FALSE) {
    problem = tools::message_of(error, "no reason is known");
    return false;
  }
  // The answer comes after the driver has met the subscription: from here on, every request is recorded.
  if (figures(error) == nullptr) {
    problem = tools::message_of(error, "no reason is known");
    return false;
  }
  g_printerr("recording %s; SIGINT (Ctrl-C) ends it\n", settings_.path.c_str());
  std::vector<guint> sources = {g_unix_signal_add(SIGINT, on_end, this), g_unix_signal_add(SIGTERM, on_end, this)};
  if (settings_.seconds != 0) sources.push_back(g_timeout_add(settings_.seconds * 1000, on_end, this));
  if (writer.error() == 0) g_main_loop_run(loop_.get());
  for (const guint each : sources) g_source_remove(each);
  return true;
}

}  // namespace ptzctl
