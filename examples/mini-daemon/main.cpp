// mini-daemon - a daemon with one driver: asks it from a worker thread and from the main loop, and outlives it.
#include <glib-unix.h>
#include <syslog.h>

#include <clocale>
#include <cstdlib>

#include "driver_link.h"
#include "reply.h"
#include "terminal.h"
#include "tour.h"

namespace {

using namespace example;

constexpr int exit_usage = 2;
constexpr double tour_driver_limit_s = 10;
constexpr double most_driver_limit_s = 1e6;

struct Daemon {
  DriverLink link;
  TourOptions options;
  bool tour;
  std::chrono::milliseconds interval;
  Terminal terminal = {};
  bool done_well = false;  // the worker's result, once it was joined
  Loop loop = Loop(g_main_loop_new(nullptr, FALSE));
};

// Asks for the position again and again until interrupted. False when no driver came within the limit.
bool poll_position(Daemon &daemon) {
  DriverLink &link = daemon.link;
  while (link.wait_until_connected(daemon.options.driver_limit)) {
    Answer answer = link.ask(make_body(PTZ_COMMAND_GET_DRIVER_NAME));
    if (const auto name = read_reply<Name>(answer, PTZ_COMMAND_GET_DRIVER_NAME)) {
      daemon.terminal.line("connected to " + name->text);
    }
    while (answer.outcome == Outcome::answered || answer.outcome == Outcome::timed_out) {
      answer = link.ask(make_body(PTZ_COMMAND_QUERY_POSITION));
      if (const auto positions = read_reply<Positions>(answer, PTZ_COMMAND_QUERY_POSITION)) {
        daemon.terminal.live(in_columns(positions->position) + (positions->idle() ? "  idle" : "  moving"));
      } else if (!link.closed()) {
        daemon.terminal.line(describe_failure(answer));
      }
      if (!link.sleep(daemon.interval)) return true;
    }
  }
  if (!link.closed()) daemon.terminal.bad("no driver listens");
  return link.closed();
}

// The worker thread. Its requests wait for their replies, which the main loop must never do.
gpointer work(gpointer user_data) {
  auto &daemon = *static_cast<Daemon *>(user_data);
  daemon.done_well = daemon.tour ? Tour(daemon.link, daemon.terminal, daemon.options).run() : poll_position(daemon);
  g_idle_add_once([](gpointer loop) { g_main_loop_quit(static_cast<GMainLoop *>(loop)); }, daemon.loop.get());
  return nullptr;
}

gboolean on_end_signal(gpointer link) {
  static_cast<DriverLink *>(link)->close();  // the worker then ends, and the loop with it
  return G_SOURCE_CONTINUE;
}

int run(Daemon &daemon) {
  g_unix_signal_add(SIGTERM, on_end_signal, &daemon.link);
  g_unix_signal_add(SIGINT, on_end_signal, &daemon.link);
  daemon.link.search();
  GThread *const worker = g_thread_new("worker", work, &daemon);
  g_main_loop_run(daemon.loop.get());
  g_thread_join(worker);
  daemon.link.close();
  return daemon.done_well ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char **argv) {
  setlocale(LC_CTYPE, "");
  char *path_option = nullptr;
  char *cue_option = nullptr;
  gboolean tour = FALSE;
  gint pan_limit = G_MININT;
  double driver_limit_s = -1;
  gint interval_ms = 500;
  const GOptionEntry entries[] = {
      {"socket", 's', G_OPTION_FLAG_NONE, G_OPTION_ARG_FILENAME, &path_option, "The driver's socket", "PATH"},
      {"interval", 'i', G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &interval_ms,
       "Ask for the position this often (default: 500)", "MS"},
      {"timeout", 't', G_OPTION_FLAG_NONE, G_OPTION_ARG_DOUBLE, &driver_limit_s,
       "Give up when no driver listens for so long; 0: never (default: 0, with --tour 10)", "SECONDS"},
      {"tour", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &tour, "Make a tour of the driver, then end", nullptr},
      {"cue", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_FILENAME, &cue_option,
       "In the tour, write this file when the driver, which keeps its presets, is to be killed and started again",
       "FILE"},
      {"pan-limit", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &pan_limit,
       "In the tour, fail unless pan ends here, in hundredths of a degree", "N"},
      {}};
  const Options options(g_option_context_new("- a daemon that uses one pan-tilt-zoom driver"));
  g_option_context_add_main_entries(options.get(), entries, nullptr);
  GError *error = nullptr;
  const bool parsed = g_option_context_parse(options.get(), &argc, &argv, &error) != FALSE;
  const Text path(path_option);
  const Text cue(cue_option);
  if (!parsed || argc > 1 || !path || interval_ms < 1 || driver_limit_s > most_driver_limit_s) {
    g_printerr("mini-daemon: %s; see --help\n",
               error != nullptr ? error->message : "it takes --socket PATH and nothing beside its options");
    g_clear_error(&error);
    return exit_usage;
  }
  if (driver_limit_s < 0) driver_limit_s = tour != FALSE ? tour_driver_limit_s : 0;
  openlog("mini-daemon", LOG_PID, LOG_DAEMON);
  Daemon daemon{DriverLink(path.get()),
                {cue ? cue.get() : "", pan_limit == G_MININT ? std::nullopt : std::optional(pan_limit),
                 std::chrono::milliseconds(static_cast<gint64>(driver_limit_s * 1000))},
                tour != FALSE,
                std::chrono::milliseconds(interval_ms)};
  return run(daemon);
}
