// sim-driver - a driver process: serves the command channel of a simulated pan-tilt-zoom head on the GLib main loop.
#include <glib-unix.h>
#include <ptz_serialize.h>
#include <ptz_socket_server_command.h>
#include <sys/socket.h>
#include <syslog.h>

#include <clocale>
#include <cstdlib>
#include <memory>
#include <optional>

#include "driver.h"
#include "driver_settings.h"
#include "head_parameters.h"
#include "legacy_presets.h"
#include "published_status.h"
#include "reply_sender.h"

namespace {

using namespace example;

constexpr guint tick_ms = 20;
constexpr int exit_usage = 2;
constexpr gint64 finish_limit_ms = 5'000;

struct Service {
  Driver driver;
  std::optional<HeadParameters> parameters;
  bool verbose;
  std::unique_ptr<PublishedStatus> status = nullptr;
  guint tick = 0;  // id of the timer, 0 while the head stands still
  ReplySender replies = {};
  Loop loop = Loop(g_main_loop_new(nullptr, FALSE));
};

// A real head would be told where to be next, here.
gboolean on_tick(gpointer user_data) {
  auto &service = *static_cast<Service *>(user_data);
  Head &head = service.driver.head();
  head.advance(g_get_monotonic_time());
  if (head.moving()) return G_SOURCE_CONTINUE;
  if (service.verbose) {
    syslog(LOG_INFO, "at rest: pan %d, tilt %d, zoom %d", head.axis(pan).position(), head.axis(tilt).position(),
           head.axis(zoom).position());
  }
  if (service.parameters) service.parameters->keep(head.each(&Axis::position));
  service.tick = 0;
  return G_SOURCE_REMOVE;
}

void watch_motion(Service &service) {
  if (service.tick == 0 && service.driver.head().moving()) service.tick = g_timeout_add(tick_ms, on_tick, &service);
}

// As an order of the daemon's would be, and a later one replaces it.
void resume_position(Service &service) {
  const auto position = service.parameters ? service.parameters->position_to_resume() : std::nullopt;
  if (!position) return;
  Head &head = service.driver.head();
  head.advance(g_get_monotonic_time());
  for (std::size_t index = 0; index < axis_count; ++index) {
    head.axis(index).move_to((*position)[index], head.axis(index).range().max_speed);
  }
  watch_motion(service);
}

gboolean on_publish(gpointer user_data) {
  auto &service = *static_cast<Service *>(user_data);
  service.driver.head().advance(g_get_monotonic_time());
  service.status->publish(service.driver.head(), service.driver.going_to_preset());
  return G_SOURCE_CONTINUE;
}

void log_request(GArray *request, GArray *reply) {
  BodyReader asked(request);
  BodyReader answered(reply);
  const gint32 command = asked.i32();
  const bool refused = answered.i32() == PTZ_COMMAND_ERROR_REPLY;
  const guint32 code = refused ? answered.u32() : 0;
  syslog(LOG_INFO, "request %d of %u bytes: %s%s", command, request->len, refused ? "refused, code " : "served",
         refused ? std::to_string(code).c_str() : "");
}

gboolean on_request(gpointer user_data, gpointer reply_context, gpointer data, guint32 length) {
  auto &service = *static_cast<Service *>(user_data);
  PublishedStatus *const status = service.status.get();
  const pid_t peer = ReplySender::peer_of(reply_context);
  if (status != nullptr) status->request_begins();
  const Body request(ptz_serialize_create_array());
  ptz_serialize_blob(request.get(), data, length);
  const Body reply = service.driver.answer(request.get(), g_get_monotonic_time());
  if (service.verbose) log_request(request.get(), reply.get());
  if (status != nullptr) status->reply_begins();
  // Exactly once for each context, which this call frees.
  service.replies.send(reply_context, peer, reply->data, reply->len);
  if (status != nullptr) {
    status->request_ends();
    status->publish(service.driver.head(), service.driver.going_to_preset());
  }
  watch_motion(service);
  return TRUE;
}

gboolean on_end_signal(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop *>(loop));
  return G_SOURCE_CONTINUE;
}

int serve(const char *path, const char *dbus_name, gint instance, Driver driver,
          std::optional<HeadParameters> parameters, bool verbose) {
  Service service{std::move(driver), parameters, verbose};
  if (verbose) ptz_flag_types_list_all(&driver_capabilities);

  // Before anybody can know that this driver is there, and before there is a socket that would be left behind.
  g_unix_signal_add(SIGTERM, on_end_signal, service.loop.get());
  g_unix_signal_add(SIGINT, on_end_signal, service.loop.get());

  // Whoever can ask the driver finds its status.
  guint publish = 0;
  if (instance > 0) {
    service.status = std::make_unique<PublishedStatus>(static_cast<guint>(instance), service.driver.head(),
                                                       service.driver.settings());
    publish = g_timeout_add(1000 / PublishedStatus::updates_per_second, on_publish, &service);
  }

  const Object<PTZSocketServerCommand> server(ptz_socket_server_command_new(path, SOCK_STREAM));
  if (!server || PTZ_SOCKET(server.get())->fd < 0) {
    g_printerr("sim-driver: cannot listen on '%s'\n", path);
    return EXIT_FAILURE;
  }
  ptz_socket_server_register_callback(PTZ_SOCKET_SERVER(server.get()), on_request, &service);

  LegacyPresets configuration(service.driver);
  if (dbus_name != nullptr && !configuration.start(dbus_name)) {
    g_printerr("sim-driver: cannot serve presets as com.velk.PTZ.%s on the system bus\n", dbus_name);
    return EXIT_FAILURE;
  }
  resume_position(service);
  if (verbose) syslog(LOG_INFO, "serving on %s", path);
  g_main_loop_run(service.loop.get());
  if (publish != 0) g_source_remove(publish);
  if (service.tick != 0) {
    g_source_remove(service.tick);
    // The head stays where it is cut off.
    if (parameters) parameters->keep(service.driver.head().each(&Axis::position));
  }
  if (parameters) parameters->finish(finish_limit_ms);
  return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char **argv) {
  setlocale(LC_CTYPE, "");
  char *path_option = nullptr;
  char *state_option = nullptr;
  char *dbus_option = nullptr;
  char **config_option = nullptr;
  gint speed_factor = 1;
  gint parameters_index = -1;
  gint instance = 0;
  gboolean verbose = FALSE;
  const GOptionEntry entries[] = {
      {"socket", 's', G_OPTION_FLAG_NONE, G_OPTION_ARG_FILENAME, &path_option, "Listen on this socket", "PATH"},
      {"config", 'c', G_OPTION_FLAG_NONE, G_OPTION_ARG_FILENAME_ARRAY, &config_option,
       "Read limits, speeds and factory presets from this file; may be given several times", "FILE"},
      {"state", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_FILENAME, &state_option,
       "Keep presets in this file; without it, they are lost when the driver ends", "FILE"},
      {"dbus", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_STRING, &dbus_option,
       "Serve the presets as configuration of com.velk.PTZ.NAME on the system bus", "NAME"},
      {"parameters", 'p', G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &parameters_index,
       "Read limits and speed from the parameter tree, and leave the position there, as head number N", "N"},
      {"speed-factor", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &speed_factor,
       "Let the head move this many times as fast, 1 to 20", "N"},
      {"instance", 'i', G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &instance,
       "Publish the status, timings and a counter, which ptzctl shows, as the PTZ instance with this number", "N"},
      {"verbose", 'v', G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &verbose, "Log capabilities, requests and arrivals",
       nullptr},
      {}};
  const Options options(g_option_context_new("- driver of a simulated pan-tilt-zoom head"));
  g_option_context_add_main_entries(options.get(), entries, nullptr);
  GError *error = nullptr;
  const bool parsed = g_option_context_parse(options.get(), &argc, &argv, &error) != FALSE;
  const Text path(path_option);
  const Text state(state_option);
  const Text dbus_name(dbus_option);
  const Owned<char *, g_strfreev> config(config_option);
  if (!parsed || argc > 1 || !path || speed_factor < 1 || speed_factor > 20 || parameters_index < -1 || instance < 0) {
    g_printerr("sim-driver: %s; see --help\n",
               error != nullptr ? error->message : "it takes --socket PATH and nothing beside its options");
    g_clear_error(&error);
    return exit_usage;
  }
  // The library logs why it cannot listen, and so on; a driver that nobody sees would leave LOG_PERROR out.
  openlog("sim-driver", LOG_PID | LOG_PERROR, LOG_DAEMON);

  DriverSettings settings;
  if (config) {
    std::vector<std::string> complaints;
    const auto loaded = load_driver_settings({config.get(), config.get() + g_strv_length(config.get())}, complaints);
    for (const std::string &complaint : complaints) g_printerr("sim-driver: %s\n", complaint.c_str());
    if (!loaded) return EXIT_FAILURE;
    settings = *loaded;
  }
  PresetStore presets(settings.factory_presets);
  if (state) presets.open(state.get());  // without its stored presets, the driver is of use all the same
  std::optional<HeadParameters> parameters;
  if (parameters_index >= 0) {
    parameters.emplace(static_cast<guint>(parameters_index));
    if (parameters->open()) {
      settings.ranges = parameters->narrowed(settings.ranges);
    } else {
      parameters.reset();  // without the tree, too, the driver is of use
    }
  }
  return serve(path.get(), dbus_name.get(), instance, Driver(faster(settings.ranges, speed_factor), std::move(presets)),
               parameters, verbose != FALSE);
}
