#include <glib-unix.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>

#include "commands.h"
#include "tap_line.h"
#include "wire/monitor_follower.h"

namespace ptzctl {

namespace {

constexpr guint answer_ms = 3000;

// Prints the frames of one driver, and of its successors.
class Tap {
  const Options &options_;
  const TapFilter filter_;
  const bool with_past_, full_;
  const gint count_;
  const MessageDescription description_;
  OpenRequests requests_;
  tools::Loop loop_{g_main_loop_new(nullptr, FALSE)};
  MonitorFollower follower_;
  gint shown_ = 0;

  [[nodiscard]] int status_of(const GError &error) const;
  void show(const PTZKitMonitorFrame &frame);
  void print_lost(gint64 time_ns, guint64 lost) const;
  void end_if_unheard();
  void report(Following change);

 public:
  Tap(const Options &options, TapFilter filter, bool with_past, bool full, gint count, const std::string &path)
      : options_(options),
        filter_(std::move(filter)),
        with_past_(with_past),
        full_(full),
        count_(count),
        follower_(
            {path, options.driver_name() != nullptr ? options.driver_name() : "", answer_ms},
            [this](const PTZKitMonitorFrame &frame) { show(frame); }, [this](Following change) { report(change); }) {}
  Tap(const Tap &) = delete;
  [[nodiscard]] int run(gint seconds);
};

int Tap::status_of(const GError &error) const {
  const bool is_absent = g_error_matches(&error, G_IO_ERROR, G_IO_ERROR_NOT_FOUND) ||
                         g_error_matches(&error, G_IO_ERROR, G_IO_ERROR_CONNECTION_REFUSED);
  if (!is_absent) {
    complain("the driver at %s cannot be watched: %s", follower_.path().c_str(), error.message);
    return error.domain == PTZ_KIT_ERROR ? exit_nobody : EXIT_FAILURE;
  }
  if (g_file_test(follower_.path().c_str(), G_FILE_TEST_EXISTS) != FALSE) {
    complain("the driver at %s has no monitor socket: it does not run, or its kit is older, or it has no kit: %s",
             follower_.path().c_str(), error.message);
  } else {
    complain("no driver at %s: %s", follower_.path().c_str(), error.message);
  }
  return exit_nobody;
}

// A reader that has gone needs no error message.
void Tap::end_if_unheard() {
  if (std::ferror(stdout) == 0) return;
  if (errno == EPIPE) std::clearerr(stdout);
  g_main_loop_quit(loop_.get());
}

void Tap::print_lost(gint64 time_ns, guint64 lost) const {
  if (options_.as_json()) {
    const JsonLine json;
    json.member("time", utc_text(time_ns));
    json.member("lost", static_cast<gint64>(lost));
    json.print();
    return;
  }
  const std::string text = std::to_string(lost) + (lost == 1 ? " frame was lost" : " frames were lost");
  std::printf("%s\n", painted(Look::notice, text).c_str());
  std::fflush(stdout);
}

void Tap::show(const PTZKitMonitorFrame &frame) {
  if (g_main_loop_is_running(loop_.get()) == FALSE) return;
  FrameView view = view_of(frame);
  requests_.look_at(view);
  if (view.lost > 0) print_lost(view.time_ns, view.lost);
  view.lost = 0;
  const FrameText text = text_of_frame(view, description_, full_);
  if (filter_.takes(view, text)) {
    if (options_.as_json()) {
      const JsonLine json;
      add_frame_to(json, view, description_, full_);
      json.print();
    } else {
      std::printf("%s\n", tap_line(view, text).c_str());
      std::fflush(stdout);
    }
    if (++shown_ == count_) g_main_loop_quit(loop_.get());
  }
  end_if_unheard();
}

void Tap::report(Following change) {
  const char *const path = follower_.path().c_str();
  switch (change) {
    case Following::ended:
      requests_ = {};
      return complain("the driver at %s has ended; waiting for the next", path);
    case Following::busy:
      return complain("the driver at %s serves as many monitors as it can; waiting until one of them ends", path);
    case Following::restarted:
      return complain("the driver at %s runs again", path);
    case Following::resumed:
      return complain("connected to the driver at %s again", path);
  }
}

int Tap::run(gint seconds) {
  tools::Error error;
  if (follower_.connect(error) == nullptr || !follower_.subscribe(with_past_, error)) return status_of(*error);
  const auto quit = [](gpointer loop) -> gboolean {
    g_main_loop_quit(static_cast<GMainLoop *>(loop));
    return G_SOURCE_CONTINUE;
  };
  const auto on_unheard = [](gint, GIOCondition, gpointer loop) -> gboolean {
    g_main_loop_quit(static_cast<GMainLoop *>(loop));
    return G_SOURCE_CONTINUE;
  };
  signal(SIGPIPE, SIG_IGN);
  std::vector<guint> sources = {g_unix_signal_add(SIGINT, quit, loop_.get()),
                                g_unix_signal_add(SIGTERM, quit, loop_.get()),
                                g_unix_fd_add(STDOUT_FILENO, G_IO_ERR, on_unheard, loop_.get())};
  if (seconds > 0) sources.push_back(g_timeout_add_seconds(static_cast<guint>(seconds), quit, loop_.get()));
  g_main_loop_run(loop_.get());
  for (const guint source : sources) g_source_remove(source);
  const bool is_cut_short = (count_ != 0 && shown_ >= count_) || std::ferror(stdout) != 0;
  const guint64 lost = is_cut_short ? 0 : follower_.catch_up();
  if (lost > 0) print_lost(g_get_real_time() * 1000, lost);
  return EXIT_SUCCESS;
}

// False if there is no such command; the user was told.
bool add_commands(const Options &options, char **names, TapFilter &filter) {
  const MessageDescription description;
  for (; names != nullptr && *names != nullptr; ++names) {
    const auto command = description.command(std::string(*names));
    if (!command) {
      Words all;
      for (const auto &each : description.commands()) all.emplace_back(each.name());
      options.misused("there is no command '%s'%s", *names, did_you_mean(*names, all).c_str());
      return false;
    }
    filter.commands.emplace_back(command->name());
  }
  return true;
}

}  // namespace

int run_tap(const std::string &words, int argc, char **argv) {
  char *client = nullptr, **commands = nullptr;
  gboolean only_errors = FALSE, with_past = FALSE, full = FALSE;
  gint count = 0, seconds = 0;
  Options options(
      words,
      {"",
       "Shows each request to a driver and each reply, as they pass, until it is interrupted. Values of parameters\n"
       "whose name has pass, key, secret or token in it are hidden.",
       " --driver sim-driver --command move --errors"},
      Asks::monitor,
      {{"client", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_STRING, &client,
        "Only of this client: number of its connection, process id, or program", "CLIENT"},
       {"command", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_STRING_ARRAY, &commands,
        "Only of this command; may be given several times", "NAME"},
       {"errors", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &only_errors,
        "Only error replies, malformed frames and replies that could not be sent", nullptr},
       {"with-past", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &with_past,
        "Begin with the last frames that the driver has kept", nullptr},
       {"full", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &full, "Hide no values, and show malformed bodies whole",
        nullptr},
       {"count", 'n', G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &count, "End after this many frames; 0 is no limit", "N"},
       {"seconds", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &seconds, "End after this time; 0 is no limit", "N"}});
  const auto given = options.parse(argc, argv);
  const tools::Text owned_client(client);
  const tools::TextList owned_commands(commands);
  TapFilter filter = {client != nullptr ? client : "", {}, only_errors != FALSE};
  if (!given || !options.is_within("--count", count, 0, G_MAXINT) ||
      !options.is_within("--seconds", seconds, 0, 1'000'000) || !add_commands(options, commands, filter)) {
    return exit_usage;
  }
  int status = EXIT_SUCCESS;
  const auto path = options.socket(status);
  if (!path) return status;
  return Tap(options, std::move(filter), with_past != FALSE, full != FALSE, count, *path).run(seconds);
}

}  // namespace ptzctl
