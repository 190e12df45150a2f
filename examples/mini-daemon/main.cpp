// mini-daemon - a daemon with one driver: asks it from the main loop, or from a worker thread, through its restarts.
#include <glib-unix.h>
#include <syslog.h>

#include <clocale>
#include <cstdlib>
#include <optional>

#include "interruption.h"
#include "poll.h"
#include "terminal.h"
#include "tour.h"

namespace {

using namespace example;

using Loop = Owned<GMainLoop, g_main_loop_unref>;
using OptionContext = Owned<GOptionContext, g_option_context_free>;

constexpr int exit_usage = 2;
constexpr double tour_driver_limit_s = 10;
constexpr double most_driver_limit_s = 1e6;

struct Options {
  char *socket = nullptr;
  char *cue = nullptr;
  gboolean tour = FALSE;
  gint pan_limit = G_MININT;
  double driver_limit_s = -1;
  gint interval_ms = 500;

  Options() = default;
  Options(const Options &) = delete;
  ~Options() {
    g_free(socket);
    g_free(cue);
  }
  [[nodiscard]] guint driver_limit_ms() const {
    if (driver_limit_s >= 0) return static_cast<guint>(driver_limit_s * 1000);
    return tour != FALSE ? static_cast<guint>(tour_driver_limit_s * 1000) : 0;
  }
};

struct Daemon {
  const Options &options;
  Object<PTZKitLink> link = Object<PTZKitLink>(ptz_kit_link_new(options.socket));
  Terminal terminal = {};
  Interruption interruption = {};
  bool done_well = true;
  Loop loop = Loop(g_main_loop_new(nullptr, FALSE));
};

bool parse(Options &options, int argc, char **argv) {
  const GOptionEntry entries[] = {
      {"socket", 's', G_OPTION_FLAG_NONE, G_OPTION_ARG_FILENAME, &options.socket, "The driver's socket", "PATH"},
      {"interval", 'i', G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &options.interval_ms,
       "Ask for the position this often (default: 500)", "MS"},
      {"timeout", 't', G_OPTION_FLAG_NONE, G_OPTION_ARG_DOUBLE, &options.driver_limit_s,
       "Give up when no driver listens for so long; 0: never (default: 0, with --tour 10)", "SECONDS"},
      {"tour", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &options.tour, "Make a tour of the driver, then end", nullptr},
      {"cue", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_FILENAME, &options.cue,
       "In the tour, write this file when the driver, which keeps its presets, is to be killed and started again",
       "FILE"},
      {"pan-limit", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &options.pan_limit,
       "In the tour, fail unless pan ends here, in hundredths of a degree", "N"},
      {}};
  const OptionContext context(g_option_context_new("- a daemon that uses one pan-tilt-zoom driver"));
  g_option_context_add_main_entries(context.get(), entries, nullptr);
  Problem problem;
  const bool parsed = g_option_context_parse(context.get(), &argc, &argv, problem.out()) != FALSE;
  if (parsed && argc == 1 && options.socket != nullptr && options.interval_ms >= 1 &&
      options.driver_limit_s <= most_driver_limit_s) {
    return true;
  }
  g_printerr("mini-daemon: %s; see --help\n",
             parsed ? "it takes --socket PATH and nothing beside its options" : problem.get()->message);
  return false;
}

gboolean on_end_signal(gpointer user_data) {
  auto &daemon = *static_cast<Daemon *>(user_data);
  if (daemon.options.tour == FALSE) {
    g_main_loop_quit(daemon.loop.get());
  } else {
    daemon.interruption.interrupt();
    ptz_kit_link_close(daemon.link.get());  // the worker's call fails at once; the worker ends, and the loop with it
  }
  return G_SOURCE_CONTINUE;
}

// The worker thread. Its requests wait for their replies, which the main loop must never do.
gpointer make_tour(gpointer user_data) {
  auto &daemon = *static_cast<Daemon *>(user_data);
  const Options &options = daemon.options;
  Tour tour(
      daemon.link.get(), daemon.terminal, daemon.interruption,
      {options.cue != nullptr ? options.cue : "",
       options.pan_limit == G_MININT ? std::nullopt : std::optional(options.pan_limit), options.driver_limit_ms()});
  daemon.done_well = tour.run();
  g_idle_add_once([](gpointer loop) { g_main_loop_quit(static_cast<GMainLoop *>(loop)); }, daemon.loop.get());
  return nullptr;
}

void run_tour(Daemon &daemon) {
  ptz_kit_link_open(daemon.link.get());
  GThread *const worker = g_thread_new("worker", make_tour, &daemon);
  g_main_loop_run(daemon.loop.get());
  g_thread_join(worker);
}

void run_poll(Daemon &daemon) {
  const auto give_up = [&daemon] {
    daemon.done_well = false;
    g_main_loop_quit(daemon.loop.get());
  };
  const Poll poll(daemon.link.get(), daemon.terminal,
                  {static_cast<guint>(daemon.options.interval_ms), daemon.options.driver_limit_ms()}, give_up);
  ptz_kit_link_open(daemon.link.get());
  g_main_loop_run(daemon.loop.get());
}

}  // namespace

int main(int argc, char **argv) {
  setlocale(LC_CTYPE, "");
  Options options;
  if (!parse(options, argc, argv)) return exit_usage;
  openlog("mini-daemon", LOG_PID, LOG_DAEMON);
  Daemon daemon{options};
  g_unix_signal_add(SIGTERM, on_end_signal, &daemon);
  g_unix_signal_add(SIGINT, on_end_signal, &daemon);
  if (options.tour != FALSE) {
    run_tour(daemon);
  } else {
    run_poll(daemon);
  }
  ptz_kit_link_close(daemon.link.get());
  return daemon.done_well ? EXIT_SUCCESS : EXIT_FAILURE;
}
