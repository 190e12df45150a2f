#include <glib-unix.h>
#include <ptz_kit_monitor.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>

#include "commands.h"
#include "driver_socket.h"
#include "tap_line.h"

namespace ptzctl {

namespace {

constexpr guint retry_ms = 200;

// Prints the frames of one driver, and of its successors.
class Tap {
  const Options &options_;
  const TapFilter filter_;
  const bool with_past_, full_;
  const gint count_;
  std::string path_;
  const MessageDescription description_;
  OpenRequests requests_;
  tools::Loop loop_{g_main_loop_new(nullptr, FALSE)};
  tools::Object<PTZKitMonitor> monitor_;
  gint shown_ = 0;
  guint retry_source_ = 0;

  [[nodiscard]] bool connect(bool with_past, tools::Error &error);
  [[nodiscard]] int status_of(const GError &error) const;
  void show(const PTZKitMonitorFrame &frame);
  void print_lost(const FrameView &frame) const;
  void end_if_unheard();
  void wait_for_next();
  static void on_frame(Tap *self, const PTZKitMonitorFrame *frame) { self->show(*frame); }
  static void on_closed(Tap *self) { self->wait_for_next(); }
  [[nodiscard]] bool is_again_there();

 public:
  Tap(const Options &options, TapFilter filter, bool with_past, bool full, gint count, std::string path)
      : options_(options),
        filter_(std::move(filter)),
        with_past_(with_past),
        full_(full),
        count_(count),
        path_(std::move(path)) {}
  Tap(const Tap &) = delete;
  ~Tap();
  [[nodiscard]] int run(gint seconds);
};

Tap::~Tap() {
  if (retry_source_ != 0) g_source_remove(retry_source_);
  if (monitor_ != nullptr) g_signal_handlers_disconnect_by_data(monitor_.get(), this);
}

bool Tap::connect(bool with_past, tools::Error &error) {
  if (monitor_ != nullptr) g_signal_handlers_disconnect_by_data(monitor_.get(), this);
  monitor_.reset(ptz_kit_monitor_new(path_.c_str()));
  g_signal_connect_swapped(monitor_.get(), "frame", G_CALLBACK(on_frame), this);
  g_signal_connect_swapped(monitor_.get(), "closed", G_CALLBACK(on_closed), this);
  return ptz_kit_monitor_connect(monitor_.get(), tools::out(error)) != FALSE &&
         ptz_kit_monitor_subscribe(monitor_.get(), with_past ? TRUE : FALSE, tools::out(error)) != FALSE;
}

int Tap::status_of(const GError &error) const {
  const bool is_absent = g_error_matches(&error, G_IO_ERROR, G_IO_ERROR_NOT_FOUND) ||
                         g_error_matches(&error, G_IO_ERROR, G_IO_ERROR_CONNECTION_REFUSED);
  if (!is_absent) {
    complain("the driver at %s cannot be watched: %s", path_.c_str(), error.message);
    return EXIT_FAILURE;
  }
  if (g_file_test(path_.c_str(), G_FILE_TEST_EXISTS) != FALSE) {
    complain("the driver at %s has no monitor socket: it does not run, or its kit is older, or it has no kit: %s",
             path_.c_str(), error.message);
  } else {
    complain("no driver at %s: %s", path_.c_str(), error.message);
  }
  return exit_nobody;
}

// A reader that has gone needs no error message.
void Tap::end_if_unheard() {
  if (std::ferror(stdout) == 0) return;
  if (errno == EPIPE) std::clearerr(stdout);
  g_main_loop_quit(loop_.get());
}

void Tap::print_lost(const FrameView &frame) const {
  if (options_.as_json()) {
    const JsonLine json;
    json.member("time", utc_text(frame.time_ns));
    json.member("lost", static_cast<gint64>(frame.lost));
    json.print();
    return;
  }
  const std::string text = std::to_string(frame.lost) + (frame.lost == 1 ? " frame was lost" : " frames were lost");
  std::printf("%s\n", painted(Look::notice, text).c_str());
  std::fflush(stdout);
}

void Tap::show(const PTZKitMonitorFrame &frame) {
  if (g_main_loop_is_running(loop_.get()) == FALSE) return;
  FrameView view = view_of(frame);
  requests_.look_at(view);
  if (view.lost > 0) print_lost(view);
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

void Tap::wait_for_next() {
  if (retry_source_ != 0) return;
  complain("the driver at %s has ended; waiting for the next", path_.c_str());
  requests_ = {};
  const auto on_retry = [](gpointer self) -> gboolean {
    auto *const tap = static_cast<Tap *>(self);
    if (!tap->is_again_there()) return G_SOURCE_CONTINUE;
    tap->retry_source_ = 0;
    return G_SOURCE_REMOVE;
  };
  retry_source_ = g_timeout_add(retry_ms, on_retry, this);
}

// The successor of a driver that was named may have another socket.
bool Tap::is_again_there() {
  if (options_.driver_name() != nullptr) {
    std::string problem;
    const tools::RegistryEntry entry = tools::driver_named(options_.driver_name(), problem);
    if (entry == nullptr) return false;
    path_ = entry->socket_path;
  }
  tools::Error error;
  if (!connect(true, error)) return false;
  complain("the driver at %s runs again", path_.c_str());
  return true;
}

int Tap::run(gint seconds) {
  tools::Error error;
  if (!connect(with_past_, error)) return status_of(*error);
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
       {"count", 'n', G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &count, "End after this many frames; 0 is for ever", "N"},
       {"seconds", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &seconds, "End after this time; 0 is for ever", "N"}});
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
