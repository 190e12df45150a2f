#include "sim_driver.h"

#include <syslog.h>

#include <optional>

#include "bus_connection.h"
#include "driver_parameters.h"
#include "driver_settings.h"
#include "head_parameters.h"
#include "legacy_presets.h"

namespace sim {

namespace {

constexpr guint tick_ms = 20;
constexpr gint most_speed_factor = 20;
constexpr gint64 finish_limit_ms = 5'000;
constexpr gint no_parameters = -1;

}  // namespace

// Main context. The head and the message bus are there from open() on, what is served there from started() to close().
struct State {
  PTZKitDriver *driver;
  gint speed_factor = 1;
  gint parameters_number = no_parameters;
  char *dbus_name = nullptr;
  char *fault = nullptr;  // for --help: main() looks for it before
  std::array<GOptionEntry, 5> options;
  DriverSettings settings;
  std::optional<Head> head;
  std::optional<HeadParameters> parameters;
  LiveSettings live;
  std::optional<SettingWatch> filter;
  BusConnection bus;
  std::optional<LegacyPresets> presets;
  guint tick = 0;  // id of the timer, 0 while the head stands still

  explicit State(PTZKitDriver *owner);
  State(const State &) = delete;
  ~State();
  void report();
  void follow_motion();
  void resume();
  void leave();
};

namespace {

gboolean on_tick(gpointer user_data) {
  auto &state = *static_cast<State *>(user_data);
  state.report();
  if (state.head->moving()) return G_SOURCE_CONTINUE;
  const PerAxis place = state.head->each(&Axis::position);
  gboolean verbose = FALSE;
  g_object_get(state.driver, "verbose", &verbose, nullptr);
  if (verbose != FALSE) syslog(LOG_INFO, "at rest: pan %d, tilt %d, zoom %d", place[pan], place[tilt], place[zoom]);
  if (state.parameters) state.parameters->keep(place);
  state.tick = 0;
  return G_SOURCE_REMOVE;
}

}  // namespace

State::State(PTZKitDriver *owner)
    : driver(owner),
      options{{{"dbus", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_STRING, &dbus_name,
                "Serve the presets as configuration of com.velk.PTZ.NAME on the system bus", "NAME"},
               {"parameters", 'p', G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &parameters_number,
                "Read limits and speed from the parameter tree, and leave the position there, as head number N", "N"},
               {"speed-factor", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &speed_factor,
                "Let the head move this many times as fast, 1 to 20", "N"},
               {"fault", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_STRING, &fault,
                "Be wrong in one way, for tests of daemons; \"list\" lists the faults. Besides, it takes --socket, "
                "--instance and --speed-factor only",
                "NAME"},
               {}}} {}

State::~State() {
  g_free(dbus_name);
  g_free(fault);
}

void State::report() {
  head->advance(g_get_monotonic_time());
  for (std::size_t index = 0; index < axis_count; ++index) {
    const Axis &axis = head->axis(index);
    const auto id = static_cast<PTZKitAxis>(index);
    ptz_kit_driver_report_axis(driver, id, axis.position(), axis.moving());
    if (axis.moving()) ptz_kit_driver_report_speed(driver, id, axis.velocity());
  }
}

// The timer runs only while the head moves. The driver of a real head would tell it here where to be next.
void State::follow_motion() {
  report();
  if (tick == 0 && head->moving()) tick = g_timeout_add(tick_ms, on_tick, this);
}

// As an order of the daemon would, and a later one replaces it.
void State::resume() {
  const auto position = parameters ? parameters->position_to_resume() : std::nullopt;
  if (!position) return;
  head->advance(g_get_monotonic_time());
  for (std::size_t index = 0; index < axis_count; ++index) {
    head->axis(index).move_to((*position)[index], head->axis(index).range().max_speed);
  }
  follow_motion();
}

void State::leave() {
  presets.reset();
  filter.reset();
  if (tick == 0) return;
  g_source_remove(tick);
  tick = 0;
  // The head stays where it is cut off.
  if (parameters) parameters->keep(head->each(&Axis::position));
}

namespace {

struct SimDriver {
  PTZKitDriver parent_instance;
  State *state;
};
struct SimDriverClass {
  PTZKitDriverClass parent_class;
};
G_DEFINE_TYPE(SimDriver, sim_driver, PTZ_KIT_TYPE_DRIVER)

State &state_of(PTZKitDriver *driver) { return *reinterpret_cast<SimDriver *>(driver)->state; }

gboolean check_settings(PTZKitDriver *self, GError **error) {
  State &state = state_of(self);
  const char *const problem =
      state.speed_factor < 1 || state.speed_factor > most_speed_factor ? "--speed-factor is 1 to 20; see --help"
      : state.parameters_number < no_parameters                        ? "--parameters is 0 or above; see --help"
      : state.dbus_name != nullptr && !is_bus_name(state.dbus_name)
          ? "--dbus is a name of letters, digits and _ that begins with none of the digits; see "
            "--help"
          : nullptr;
  if (problem != nullptr) {
    g_set_error_literal(error, G_OPTION_ERROR, G_OPTION_ERROR_BAD_VALUE, problem);
    return FALSE;
  }
  auto settings = read_settings(self, error);
  if (!settings) return FALSE;
  state.settings = std::move(*settings);
  return TRUE;
}

void add_factory_presets(PTZKitDriver *driver, const DriverSettings &settings) {
  for (const auto &[number, preset] : settings.factory_presets) {
    const Owned<PTZKitSetPresetRequest, ptz_kit_set_preset_request_free> message(
        ptz_kit_set_preset_request_new(number, preset.name.c_str(), all_axes, preset.position.data()));
    ptz_kit_driver_add_factory_preset(driver, message.get());
  }
}

// The driver is of use without the parameter tree, too. Not without the bus that it was told to serve.
gboolean open(PTZKitDriver *self, GError **error) {
  State &state = state_of(self);
  if (state.dbus_name != nullptr && !state.bus.open(error)) return FALSE;
  HeadRanges ranges = state.settings.ranges;
  if (state.parameters_number != no_parameters) {
    state.parameters.emplace(static_cast<guint>(state.parameters_number));
    if (state.parameters->open()) {
      ranges = state.parameters->narrowed(ranges);
    } else {
      state.parameters.reset();
    }
  }
  ranges = faster(ranges, state.speed_factor);
  state.head.emplace(ranges);
  const PerAxis home = home_within(ranges);
  for (std::size_t axis = 0; axis < axis_count; ++axis) {
    ptz_kit_driver_set_axis(self, static_cast<PTZKitAxis>(axis), ranges[axis].minimum, ranges[axis].maximum,
                            ranges[axis].max_speed, home[axis]);
  }
  add_factory_presets(self, state.settings);
  state.filter.emplace(state.live, [self](const char *name, const GValue *value) {
    if (!g_str_equal(name, ir_cut_filter)) return;
    ptz_kit_driver_report_flag(self, PTZ_SC_PARAM_VARIOUS_IR_CUT_FILTER, g_value_get_boolean(value));
  });
  return TRUE;
}

void list_capabilities(PTZKitDriver *driver) {
  const gint32 command = PTZ_COMMAND_GET_CAPABILITIES;
  const Bytes request(g_bytes_new(&command, sizeof command));
  const Bytes body(ptz_kit_driver_answer(driver, request.get()));
  gsize length = 0;
  const auto *data = static_cast<const guint8 *>(g_bytes_get_data(body.get(), &length));
  const Owned<PTZKitGetCapabilitiesReply, ptz_kit_get_capabilities_reply_free> reply(
      ptz_kit_get_capabilities_reply_read(data, length, nullptr));
  if (!reply) return;
  const PTZDriverCapabilities words = {reply->move, reply->extra};
  ptz_flag_types_list_all(&words);
}

gboolean started(PTZKitDriver *self, GError **error) {
  State &state = state_of(self);
  gboolean verbose = FALSE;
  g_object_get(self, "verbose", &verbose, nullptr);
  if (verbose != FALSE) list_capabilities(self);
  if (state.bus.is_open()) {
    state.presets.emplace(self, *state.head, state.live);
    if (!state.presets->start(state.dbus_name)) {
      g_set_error(error, G_IO_ERROR, G_IO_ERROR_FAILED, "cannot serve presets as com.velk.PTZ.%s on the system bus",
                  state.dbus_name);
      return FALSE;
    }
  }
  state.resume();
  return TRUE;
}

void close_device(PTZKitDriver *self) {
  State &state = state_of(self);
  state.leave();
  if (state.parameters) state.parameters->finish(finish_limit_ms);
}

void update(PTZKitDriver *self) { state_of(self).report(); }

double share(double of, guint16 speed) { return of * speed / 100; }

void move(PTZKitDriver *self, const PTZKitMoveRequest *request, PTZKitReply *reply) {
  State &state = state_of(self);
  state.head->advance(g_get_monotonic_time());
  for (std::size_t index = 0; index < axis_count; ++index) {
    if ((request->axes & axis_bit(index)) == 0) continue;
    Axis &axis = state.head->axis(index);
    const double value = request->value[index];
    const double speed = share(axis.range().max_speed, request->speed);
    switch (request->kind) {
      case PTZ_MOVE_ABSOLUTE:
        axis.move_to(value, speed);
        break;
      case PTZ_MOVE_RELATIVE:
        axis.move_to(ptz_kit_driver_get_position(self, static_cast<PTZKitAxis>(index)) + value, speed);
        break;
      default:
        axis.run(share(value, request->speed));
    }
  }
  state.follow_motion();
  ptz_kit_reply_ok(reply);
}

void auxiliary(PTZKitDriver *self, const PTZKitAuxiliaryRequest *request, PTZKitReply *reply) {
  LiveSettings &live = state_of(self).live;
  if (!live.is_on(request->name)) {
    // The name is not repeated: a long one would not fit the reply together with this text.
    return ptz_kit_reply_error_literal(reply, PTZ_KIT_ERROR_CODE_NOT_FOUND, "there is no auxiliary of this name");
  }
  if (request->state != PTZ_ENABLE_NONE) live.switch_to(request->name, request->state == PTZ_ENABLE_ON);
  const bool on = live.is_on(request->name).value_or(false);
  const Owned<PTZKitAuxiliaryReply, ptz_kit_auxiliary_reply_free> answer(
      ptz_kit_auxiliary_reply_new(request->name, on ? PTZ_ENABLE_ON : PTZ_ENABLE_OFF));
  ptz_kit_reply_auxiliary(reply, answer.get());
}

void get_auxiliary(PTZKitDriver *self, PTZKitReply *reply) {
  const Owned<PTZKitGetAuxiliaryReply, ptz_kit_get_auxiliary_reply_free> answer(ptz_kit_get_auxiliary_reply_new());
  for (const LiveSetting &setting : live_settings) {
    const bool on = state_of(self).live.is_on(setting.name).value_or(false);
    const Owned<PTZKitAuxiliary, ptz_kit_auxiliary_free> entry(
        ptz_kit_auxiliary_new(setting.name, on ? PTZ_ENABLE_ON : PTZ_ENABLE_OFF));
    ptz_kit_get_auxiliary_reply_add_auxiliary(answer.get(), entry.get());
  }
  ptz_kit_reply_get_auxiliary(reply, answer.get());
}

void get_driver_parameters(PTZKitDriver *self, PTZKitReply *reply) {
  answer_driver_parameters(*state_of(self).head, state_of(self).live, reply);
}

void dispose(GObject *object) {
  state_of(PTZ_KIT_DRIVER(object)).leave();
  G_OBJECT_CLASS(sim_driver_parent_class)->dispose(object);
}

void finalize(GObject *object) {
  delete reinterpret_cast<SimDriver *>(object)->state;
  G_OBJECT_CLASS(sim_driver_parent_class)->finalize(object);
}

void sim_driver_class_init(SimDriverClass *klass) {
  G_OBJECT_CLASS(klass)->dispose = dispose;
  G_OBJECT_CLASS(klass)->finalize = finalize;
  PTZKitDriverClass &driver = klass->parent_class;
  driver.check_settings = check_settings;
  driver.open = open;
  driver.started = started;
  driver.close = close_device;
  driver.update = update;
  driver.move = move;
  driver.auxiliary = auxiliary;
  driver.get_auxiliary = get_auxiliary;
  driver.get_driver_parameters = get_driver_parameters;
}

void sim_driver_init(SimDriver *self) { self->state = new State(&self->parent_instance); }

}  // namespace

PTZKitDriver *new_driver() {
  const char *const types[] = {"Simulated head", nullptr};
  auto *const driver =
      PTZ_KIT_DRIVER(g_object_new(sim_driver_get_type(), "name", "sim-driver", "device-types", types, nullptr));
  declare_settings(driver);
  ptz_kit_driver_add_option_entries(driver, state_of(driver).options.data());
  return driver;
}

void set_speed_factor(PTZKitDriver *driver, gint factor) { state_of(driver).speed_factor = factor; }
Head &head_of(PTZKitDriver *driver) { return *state_of(driver).head; }
LiveSettings &live_settings_of(PTZKitDriver *driver) { return state_of(driver).live; }

}  // namespace sim
