// The whole main() of a driver.
#include <gio/gio.h>
#include <glib-unix.h>
#include <syslog.h>

#include <clocale>
#include <cstdlib>

#include "driver/driver_private.h"
#include "driver/service_manager.h"

namespace ptz_kit {
namespace {

using OptionContext = Handle<GOptionContext, g_option_context_free>;
using MainLoop = Handle<GMainLoop, g_main_loop_unref>;

constexpr gint not_given = G_MININT32;

struct Options {
  char *socket = nullptr;
  char *state = nullptr;
  char **config = nullptr;
  gint instance = not_given;
  gboolean check_settings = FALSE;
  gboolean verbose = FALSE;
  gboolean version = FALSE;

  Options() = default;
  Options(const Options &) = delete;
  ~Options() {
    g_free(socket);
    g_free(state);
    g_strfreev(config);
  }
};

// The arguments are copied: a caller in another language owns them.
bool parse(const DriverCore &core, gint argc, gchar **argv, Options &options, Error &error) {
  const GOptionEntry entries[] = {
      {"socket", 's', G_OPTION_FLAG_NONE, G_OPTION_ARG_FILENAME, &options.socket, "Listen on this socket", "PATH"},
      {"instance", 'i', G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &options.instance,
       "Publish the status, timings and a counter as the PTZ instance with this number", "N"},
      {"config", 'c', G_OPTION_FLAG_NONE, G_OPTION_ARG_FILENAME_ARRAY, &options.config,
       "Read settings from this file; may be given several times", "FILE"},
      {"state", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_FILENAME, &options.state,
       "Keep presets in this file; without it, they are lost when the driver ends", "FILE"},
      {"check-settings", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &options.check_settings,
       "Read the settings, tell what is wrong with them, and end", nullptr},
      {"verbose", 'v', G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &options.verbose, "Log every request", nullptr},
      {"version", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &options.version, "Print the version of the kit, and end",
       nullptr},
      {}};
  const OptionContext context(g_option_context_new("- driver of a pan-tilt-zoom head"));
  g_option_context_add_main_entries(context.get(), entries, nullptr);
  for (const GOptionEntry *more : core.option_entries) g_option_context_add_main_entries(context.get(), more, nullptr);
  const std::string exits =
      "\n\nExit status:\n  0  the driver was asked to end\n  1  the device or the socket cannot be opened\n"
      "  2  wrong usage or bad settings: starting it again does not help";
  g_option_context_set_description(context.get(), (core.settings.describe() + exits).c_str());
  GStrvBuilder *builder = g_strv_builder_new();
  for (gint index = 0; index < argc; ++index) g_strv_builder_add(builder, argv[index]);
  char **arguments = g_strv_builder_end(builder);
  g_strv_builder_unref(builder);
  const bool parsed = g_option_context_parse_strv(context.get(), &arguments, out(error)) != FALSE;
  const TextList left(arguments);
  if (!parsed) return false;
  const char *problem = g_strv_length(left.get()) > 1                           ? "it takes nothing beside its options"
                        : options.instance < 0 && options.instance != not_given ? "--instance is 0 or above"
                                                                                : nullptr;
  if (problem != nullptr) error.reset(g_error_new_literal(G_OPTION_ERROR, G_OPTION_ERROR_BAD_VALUE, problem));
  return problem == nullptr;
}

void apply(const Options &options, PTZKitDriver *driver) {
  if (options.socket != nullptr) g_object_set(driver, "socket-path", options.socket, nullptr);
  if (options.state != nullptr) g_object_set(driver, "preset-file", options.state, nullptr);
  if (options.instance >= 0) g_object_set(driver, "instance", static_cast<guint>(options.instance), nullptr);
  if (options.verbose != FALSE) g_object_set(driver, "verbose", TRUE, nullptr);
}

void complain(const DriverCore &core, const std::vector<std::string> &problems) {
  for (const std::string &problem : problems) g_printerr("%s: %s\n", core.name.c_str(), problem.c_str());
}

// Each line of the message is one problem.
bool check_settings(DriverCore &core) {
  Error error;
  if (core.check_settings(out(error))) return true;
  const TextList lines(g_strsplit(error->message, "\n", -1));
  for (char **line = lines.get(); *line != nullptr; ++line) complain(core, {*line});
  return false;
}

// Whether the driver may start. An older driver may have a newer file, so a key that it does not know is a warning.
bool load_settings(DriverCore &core, const Options &options) {
  if (options.config == nullptr) return true;
  const Problems problems = core.settings.load(options.config);
  complain(core, problems.bad.lines());
  complain(core, problems.unknown.lines());
  return problems.bad.empty() && (options.check_settings == FALSE || problems.unknown.empty());
}

gboolean on_end_signal(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop *>(loop));
  return G_SOURCE_CONTINUE;
}

int serve(DriverCore &core) {
  const MainLoop loop(g_main_loop_new(nullptr, FALSE));
  // Before the driver can be seen, and before there is a socket that would be left behind.
  const guint end_sources[] = {g_unix_signal_add(SIGTERM, on_end_signal, loop.get()),
                               g_unix_signal_add(SIGINT, on_end_signal, loop.get())};
  const gulong ended = g_signal_connect_swapped(core.object, "ended", G_CALLBACK(g_main_loop_quit), loop.get());
  Error error;
  int status = EXIT_SUCCESS;
  if (core.start(out(error))) {
    ServiceManager manager;
    manager.ready();
    g_main_loop_run(loop.get());
    manager.stopping();
    core.stop();
  } else {
    status = PTZ_KIT_EXIT_FAILURE;
  }
  if (error) complain(core, {error->message});
  g_signal_handler_disconnect(core.object, ended);
  for (const guint source : end_sources) g_source_remove(source);
  return status;
}

}  // namespace
}  // namespace ptz_kit

using namespace ptz_kit;

gint ptz_kit_driver_run(PTZKitDriver *self, gint argc, gchar **argv) {
  g_return_val_if_fail(PTZ_KIT_IS_DRIVER(self), PTZ_KIT_EXIT_USAGE);
  g_return_val_if_fail(argv != NULL || argc == 0, PTZ_KIT_EXIT_USAGE);
  const Object<PTZKitDriver> alive(static_cast<PTZKitDriver *>(g_object_ref(self)));
  DriverCore &core = core_of(self);
  setlocale(LC_CTYPE, "");
  Options options;
  Error error;
  bool good = parse(core, argc, argv, options, error);
  if (good && options.version != FALSE) {
    g_print("%s (ptznimbo-kit %s)\n", core.name.c_str(), PTZ_KIT_VERSION);
    return EXIT_SUCCESS;
  }
  if (good) apply(options, core.object);
  if (good && options.check_settings == FALSE && core.socket_path.empty()) {
    error.reset(g_error_new_literal(G_OPTION_ERROR, G_OPTION_ERROR_BAD_VALUE, "--socket PATH is missing"));
    good = false;
  }
  if (!good) {
    g_printerr("%s: %s; see --help\n", core.name.c_str(), error ? error->message : "wrong usage");
    return PTZ_KIT_EXIT_USAGE;
  }
  openlog(g_intern_string(core.name.c_str()), LOG_PID | LOG_PERROR, LOG_DAEMON);  // which keeps the pointer
  int status = load_settings(core, options) && check_settings(core) ? EXIT_SUCCESS : PTZ_KIT_EXIT_USAGE;
  if (status == EXIT_SUCCESS && options.check_settings == FALSE) status = serve(core);
  return status;
}
