// visca-sim - a simulated pan-tilt-zoom camera that speaks VISCA on a pseudo-terminal, UDP and TCP.
#include <glib-unix.h>
#include <signal.h>

#include <clocale>
#include <cstdio>
#include <memory>

#include "server.h"

namespace {

using visca_sim::Server;
using visca_sim::ServerOptions;

struct Options {
  char *host = nullptr, *pty = nullptr, *log = nullptr;
  char **quirks = nullptr;
  int udp = -1, udp_raw = -1, tcp = -1, cameras = 1, loss = 0, duplicate = 0, reorder = 0, power_on_ms = 1000,
      ack_delay_ms = 0;
  double speed_factor = 1;
  gboolean standby = FALSE, list_quirks = FALSE, version = FALSE;

  Options() = default;
  Options(const Options &) = delete;
  ~Options() {
    for (char *text : {host, pty, log}) g_free(text);
    g_strfreev(quirks);
  }
};

bool parse(int argc, char **argv, Options &options) {
  const GOptionEntry entries[] = {
      {"pty", 0, 0, G_OPTION_ARG_FILENAME, &options.pty, "Serve a pseudo-terminal, and link this path to it", "LINK"},
      {"udp", 0, 0, G_OPTION_ARG_INT, &options.udp, "Serve datagrams with a header at this port; 0 for any", "PORT"},
      {"udp-raw", 0, 0, G_OPTION_ARG_INT, &options.udp_raw, "Serve datagrams without a header at this port", "PORT"},
      {"tcp", 0, 0, G_OPTION_ARG_INT, &options.tcp, "Serve TCP connections at this port", "PORT"},
      {"host", 0, 0, G_OPTION_ARG_STRING, &options.host, "Listen at this address; default 127.0.0.1", "ADDRESS"},
      {"cameras", 0, 0, G_OPTION_ARG_INT, &options.cameras, "Cameras on the pseudo-terminal, 1 to 7", "N"},
      {"quirk", 'q', 0, G_OPTION_ARG_STRING_ARRAY, &options.quirks, "Be odd in this way; may be given again", "NAME"},
      {"list-quirks", 0, 0, G_OPTION_ARG_NONE, &options.list_quirks, "List the quirks and end", nullptr},
      {"speed-factor", 0, 0, G_OPTION_ARG_DOUBLE, &options.speed_factor, "Move this many times as fast", "X"},
      {"standby", 0, 0, G_OPTION_ARG_NONE, &options.standby, "Begin in standby", nullptr},
      {"power-on-ms", 0, 0, G_OPTION_ARG_INT, &options.power_on_ms, "How long powering on takes", "MS"},
      {"ack-delay-ms", 0, 0, G_OPTION_ARG_INT, &options.ack_delay_ms, "Delay of every reply", "MS"},
      {"loss", 0, 0, G_OPTION_ARG_INT, &options.loss, "Lose this share of the datagrams, each way", "PERCENT"},
      {"duplicate", 0, 0, G_OPTION_ARG_INT, &options.duplicate, "Double this share of the datagrams", "PERCENT"},
      {"reorder", 0, 0, G_OPTION_ARG_INT, &options.reorder, "Delay this share of the sent datagrams", "PERCENT"},
      {"version", 0, 0, G_OPTION_ARG_NONE, &options.version, "Print the version, and end", nullptr},
      {"log", 0, 0, G_OPTION_ARG_FILENAME, &options.log, "Append every packet to this file", "FILE"},
      {}};
  GOptionContext *const context = g_option_context_new("- simulated VISCA camera");
  g_option_context_add_main_entries(context, entries, nullptr);
  g_option_context_set_description(
      context,
      "It prints a line for each way that it serves, such as \"udp 52381\" or \"pty /dev/pts/3\".\n\n"
      "Examples:\n"
      "  visca-sim --udp 52381\n"
      "  visca-sim --pty /tmp/camera --cameras 2 --quirk no-ack\n\n"
      "Exit status:\n"
      "  0  it was asked to end\n"
      "  1  it cannot serve\n"
      "  2  wrong usage");
  GError *error = nullptr;
  const bool parsed = g_option_context_parse(context, &argc, &argv, &error) != FALSE;
  if (!parsed) fprintf(stderr, "visca-sim: %s\n", error->message);
  g_clear_error(&error);
  g_option_context_free(context);
  return parsed;
}

bool fill(const Options &options, ServerOptions &server) {
  if (options.cameras < 1 || options.cameras > 7 || options.speed_factor <= 0) {
    fprintf(stderr, "visca-sim: --cameras is 1 to 7, --speed-factor above 0\n");
    return false;
  }
  for (char **name = options.quirks; name != nullptr && *name != nullptr; ++name) {
    if (server.camera.quirks.add(*name)) continue;
    fprintf(stderr, "visca-sim: there is no quirk \"%s\"; see --list-quirks\n", *name);
    return false;
  }
  server.camera.speed_factor = options.speed_factor;
  server.camera.starts_on = options.standby == FALSE;
  server.camera.power_on_us = std::int64_t{1000} * options.power_on_ms;
  server.camera.ack_delay_us = std::int64_t{1000} * options.ack_delay_ms;
  server.cameras = static_cast<unsigned>(options.cameras);
  server.loss_percent = options.loss;
  server.duplicate_percent = options.duplicate;
  server.reorder_percent = options.reorder;
  if (options.log != nullptr) server.log_file = options.log;
  return true;
}

bool open_all(Server &server, const Options &options) {
  const char *const host = options.host != nullptr ? options.host : "127.0.0.1";
  if (options.pty == nullptr && options.udp < 0 && options.udp_raw < 0 && options.tcp < 0) {
    fprintf(stderr, "visca-sim: give --pty, --udp, --udp-raw or --tcp; see --help\n");
    return false;
  }
  return (options.pty == nullptr || server.open_terminal(options.pty)) &&
         (options.udp < 0 || server.open_udp(host, options.udp, true)) &&
         (options.udp_raw < 0 || server.open_udp(host, options.udp_raw, false)) &&
         (options.tcp < 0 || server.open_tcp(host, options.tcp));
}

gboolean quit(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop *>(loop));
  return G_SOURCE_CONTINUE;
}

}  // namespace

int main(int argc, char **argv) {
  setlocale(LC_CTYPE, "");  // so that GLib prints its own texts in UTF-8
  Options options;
  if (!parse(argc, argv, options)) return 2;
  if (options.version != FALSE) {
    printf("visca-sim %s\n", TOOLS_VERSION);
    return 0;
  }
  if (options.list_quirks != FALSE) {
    fputs(visca_sim::Quirks::list().c_str(), stdout);
    return 0;
  }
  ServerOptions server_options;
  if (!fill(options, server_options)) return 2;
  signal(SIGPIPE, SIG_IGN);
  GMainLoop *const loop = g_main_loop_new(nullptr, FALSE);
  for (const int number : {SIGTERM, SIGINT}) g_unix_signal_add(number, quit, loop);
  bool opened = false;
  {
    const auto server = std::make_unique<Server>(server_options);
    opened = open_all(*server, options);
    if (opened) g_main_loop_run(loop);
  }
  g_main_loop_unref(loop);
  return opened ? 0 : 1;
}
