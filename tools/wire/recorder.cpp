#include "recorder.h"

#include <glib-unix.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <utility>

#include "figures.h"
#include "subcommand.h"

namespace ptzctl {

namespace {

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
    : settings_(std::move(settings)),
      follower_(
          settings_.driver, [this](const PTZKitMonitorFrame &frame) { take(frame); },
          [this](Following change) { report(change); }) {}

std::string Recorder::problem_of(const tools::Error &error) const {
  if (access(follower_.path().c_str(), F_OK) != 0) return "no driver at " + follower_.path() + ": " + g_strerror(errno);
  if (g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_NOT_FOUND)) {
    return "the driver at " + follower_.path() + " has no monitor socket: it is not written with this kit";
  }
  return "the driver at " + follower_.path() + " cannot be recorded: " + tools::message_of(error, "no reason is known");
}

std::optional<RecordingOrigin> Recorder::connect(std::string &problem) {
  tools::Error error;
  const tools::Variant told = follower_.connect(error);
  if (told == nullptr) {
    problem = problem_of(error);
    return std::nullopt;
  }
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
  follower_.stop();  // further frames may have been read already
  g_main_loop_quit(loop_.get());
}

void Recorder::report(Following change) {
  switch (change) {
    case Following::ended:
      return complain("the driver has ended; waiting for its next start");
    case Following::busy:
      return complain("the driver serves as many monitors as it can; waiting until one of them ends");
    case Following::resumed:
      return complain("connected to the driver again");
    case Following::restarted:
      first_client_ = last_client_;
      is_restarted_ = true;
      return complain("the driver has started again");
  }
}

gboolean Recorder::on_end(gpointer recorder) {
  g_main_loop_quit(static_cast<Recorder *>(recorder)->loop_.get());
  return G_SOURCE_CONTINUE;
}

bool Recorder::record(RecordingWriter &writer, std::string &problem) {
  writer_ = &writer;
  tools::Error error;
  if (!follower_.subscribe(settings_.with_past, error)) {
    problem = tools::message_of(error, "no reason is known");
    return false;
  }
  std::vector<guint> sources = {g_unix_signal_add(SIGINT, on_end, this), g_unix_signal_add(SIGTERM, on_end, this)};
  g_printerr("recording %s; SIGINT (Ctrl-C) ends it\n", follower_.path().c_str());
  if (settings_.seconds != 0) sources.push_back(g_timeout_add(settings_.seconds * 1000, on_end, this));
  if (writer.error() == 0) g_main_loop_run(loop_.get());
  for (const guint each : sources) g_source_remove(each);
  lost_ += follower_.catch_up();
  return true;
}

}  // namespace ptzctl
