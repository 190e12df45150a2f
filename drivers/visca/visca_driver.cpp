#include "visca_driver.h"

#include <syslog.h>

#include "driver_state.h"

namespace visca {

namespace {

constexpr guint16 full_speed = 100;
constexpr guint start_limit_ms = 1500;

PTZKitAxis kit_axis(std::size_t axis) { return static_cast<PTZKitAxis>(axis); }

}  // namespace

State::State(PTZKitDriver *owner)
    : driver(owner),
      options{{{"device", 'd', G_OPTION_FLAG_NONE, G_OPTION_ARG_STRING, &device,
                "Where the camera is, instead of [Line] Address: serial:DEVICE?baud=N, udp:HOST:PORT, "
                "udp-raw:HOST:PORT or tcp:HOST:PORT",
                "ADDRESS"},
               {"trace", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_FILENAME, &trace,
                "Append every packet to and from the camera to this file", "FILE"},
               {}}} {}

State::~State() {
  // The links go before the heads that they tell.
  line.reset();
  g_free(device);
  g_free(trace);
}

void State::axis_is_at(std::size_t axis, std::int32_t position, bool moving) {
  if (is_open) ptz_kit_driver_report_axis(driver, kit_axis(axis), position, moving ? TRUE : FALSE);
}

void State::axis_is_unknown(std::size_t axis) {
  if (is_open) ptz_kit_driver_report_unknown(driver, kit_axis(axis));
}

void State::axis_runs(std::size_t axis, std::int32_t speed) {
  if (is_open) ptz_kit_driver_report_speed(driver, kit_axis(axis), speed);
}

void State::focus_mode_is(bool automatic) {
  auto_focus = automatic ? PTZ_ENABLE_ON : PTZ_ENABLE_OFF;
  ptz_kit_driver_report_flag(driver, PTZ_SC_PARAM_VARIOUS_AUTO_FOCUS, automatic ? TRUE : FALSE);
}

// Only announced: requests still go to the camera.
void State::head_lacks_focus() {
  if (camera.focus == "auto") ptz_kit_driver_remove_capabilities(driver, focus_capabilities, 0);
}

void State::begin_starting() {
  const auto run = [](gpointer state) -> gboolean {
    static_cast<State *>(state)->start_timer.ended();
    static_cast<State *>(state)->head_is_ready();
    return G_SOURCE_REMOVE;
  };
  start_timer.keep(g_timeout_add(start_limit_ms, run, this));
}

void State::head_is_ready() {
  if (!is_starting) return;
  is_starting = false;
  start_timer.stop();
  for (const auto &again : std::exchange(waiting, {})) again();
}

bool State::waits(PTZKitReply *reply, std::function<void(PTZKitReply *)> again) {
  if (!is_starting) return false;
  ptz_kit_reply_defer(reply);
  const std::shared_ptr<PTZKitReply> kept(static_cast<PTZKitReply *>(g_object_ref(reply)), g_object_unref);
  waiting.push_back([kept, again = std::move(again)] {
    if (ptz_kit_reply_is_answered(kept.get()) == FALSE) again(kept.get());
  });
  return true;
}

void refuse(PTZKitReply *reply, Outcome outcome) {
  ptz_kit_reply_error_literal(reply, PTZ_KIT_ERROR_CODE_DEVICE, text_of(outcome));
}

Done answer_later(PTZKitReply *reply) {
  ptz_kit_reply_defer(reply);
  // Shared, because a Done may be copied.
  const std::shared_ptr<PTZKitReply> kept(static_cast<PTZKitReply *>(g_object_ref(reply)), g_object_unref);
  return [kept](Outcome outcome) {
    if (ptz_kit_reply_is_answered(kept.get()) != FALSE) return;
    // An order that a later one replaced was accepted: its client need not know of the other.
    if (outcome == Outcome::done || outcome == Outcome::replaced) {
      ptz_kit_reply_ok(kept.get());
    } else {
      refuse(kept.get(), outcome);
    }
  };
}

namespace {

struct Instance {
  PTZKitDriver parent_instance;
  State *state;
};
struct Class {
  PTZKitDriverClass parent_class;
};
using ViscaDriver = Instance;
using ViscaDriverClass = Class;
G_DEFINE_TYPE(ViscaDriver, visca_driver, PTZ_KIT_TYPE_DRIVER)

gboolean check_settings(PTZKitDriver *self, GError **error) {
  State &state = state_of(self);
  state.settings = read_settings(self, state.device, error);
  if (state.settings && state.trace != nullptr) state.settings->line.trace_file = state.trace;
  return state.settings ? TRUE : FALSE;
}

void set_axes(State &state) {
  const Profile &profile = state.camera.head.profile;
  for (const std::size_t axis : {pan_axis, tilt_axis}) {
    const AxisScale &scale = axis == pan_axis ? profile.pan : profile.tilt;
    ptz_kit_driver_set_axis(state.driver, kit_axis(axis), scale.hundredths_of(scale.minimum),
                            scale.hundredths_of(scale.maximum), static_cast<gint32>(scale.max_speed * 100), 0);
  }
  if (state.camera.head.has_zoom) {
    ptz_kit_driver_set_axis(state.driver, PTZ_KIT_AXIS_ZOOM, profile.zoom.least(), profile.zoom.most(),
                            profile.zoom_speed(), profile.zoom.least());
  }
  for (std::size_t axis = 0; axis < (state.camera.head.has_zoom ? axis_count : zoom_axis); ++axis) {
    ptz_kit_driver_report_unknown(state.driver, kit_axis(axis));
  }
  const guint32 capabilities = (state.camera.focus != "no" ? focus_capabilities : 0) |
                               (state.camera.has_iris ? iris_capabilities : 0) |
                               (state.camera.has_ir_cut_filter ? filter_capabilities : 0);
  ptz_kit_driver_add_capabilities(state.driver, capabilities, 0);
  state.auxiliaries.assign(state.camera.auxiliaries.size(), false);
  state.begin_starting();
  state.is_open = true;
}

PTZKitDriver *new_object() {
  const char *const types[] = {"VISCA camera", nullptr};
  return PTZ_KIT_DRIVER(g_object_new(visca_driver_get_type(), "name", "visca-driver", "device-types", types, nullptr));
}

// The line is opened without waiting: a camera that is off is no reason to fail.
gboolean open(PTZKitDriver *self, GError **error) {
  State &state = state_of(self);
  if (state.head) {
    // A further camera, whose head the first one's driver has made.
    set_axes(state);
    return TRUE;
  }
  if (!state.settings && check_settings(self, error) == FALSE) return FALSE;
  state.line = std::make_unique<Line>(state.settings->line);
  for (std::size_t index = 0; index < state.settings->cameras.size(); ++index) {
    PTZKitDriver *const driver = index == 0 ? self : new_object();
    if (index > 0) state.others.emplace_back(driver);
    State &of = state_of(driver);
    of.camera = state.settings->cameras[index];
    of.camera.head.asks_focus = of.camera.focus != "no";
    of.head = std::make_unique<Head>(of, of.camera.head);
    state.line->add_camera(static_cast<Byte>(index + 1), *of.head);
  }
  set_axes(state);
  guint instance = 0;
  g_object_get(self, "instance", &instance, nullptr);
  if (instance == 0) g_object_set(self, "instance", state.camera.instance, nullptr);
  state.line->start();
  return TRUE;
}

gboolean started(PTZKitDriver *self, GError **error) {
  State &state = state_of(self);
  gboolean verbose = FALSE;
  g_object_get(self, "verbose", &verbose, nullptr);
  for (const auto &other : state.others) {
    const CameraSettings &camera = state_of(other.get()).camera;
    g_object_set(other.get(), "socket-path", camera.socket.c_str(), "instance", camera.instance, "preset-file",
                 camera.state.c_str(), "verbose", verbose, nullptr);
    if (ptz_kit_driver_start(other.get(), error) == FALSE) return FALSE;
  }
  return TRUE;
}

void close_device(PTZKitDriver *self) {
  State &state = state_of(self);
  if (state.head) state.head->leave();
  for (const auto &other : state.others) ptz_kit_driver_stop(other.get());
  // The order goes out at once; there is no time for its ACK.
  if (state.head && state.head->is_there() && state.head->is_active()) state.head->stop([](Outcome) {});
  if (state.line) state.line->stop();
}

// In standby a camera does not tell its position, either.
void refuse_without_position(const State &state, PTZKitReply *reply) {
  if (state.head->is_on() == false) return refuse(reply, Outcome::not_executable);
  ptz_kit_reply_error_literal(reply, PTZ_KIT_ERROR_CODE_DEVICE, "the camera does not tell its position");
}

void move(PTZKitDriver *self, const PTZKitMoveRequest *request, PTZKitReply *reply) {
  State &state = state_of(self);
  if (state.waits(reply, [self, wanted = *request](PTZKitReply *later) { move(self, &wanted, later); })) return;
  if (!state.head->is_there()) return refuse(reply, Outcome::no_answer);
  Order order = {.kind = request->kind == PTZ_MOVE_ABSOLUTE   ? MoveKind::absolute
                         : request->kind == PTZ_MOVE_RELATIVE ? MoveKind::relative
                                                              : MoveKind::continuous,
                 .share = request->speed / 100.0};
  for (std::size_t axis = 0; axis < axis_count; ++axis) {
    order.axes[axis] = (request->axes >> axis & 1U) != 0;
    order.value[axis] = order.axes[axis] ? request->value[axis] : 0;
  }
  if (state.head->needs_position(order)) return refuse_without_position(state, reply);
  state.head->move(order, answer_later(reply));
}

void stop(PTZKitDriver *self, PTZKitReply *reply) { state_of(self).head->stop(answer_later(reply)); }

struct Direction {
  gint32 right, up;
};
// By the values of PTZMoveCmd.
constexpr std::array<Direction, 8> directions = {
    {{0, 1}, {0, -1}, {-1, 0}, {1, 0}, {-1, 1}, {1, 1}, {-1, -1}, {1, -1}}};
static_assert(PTZ_MOVE_CMD_UP == 0 && PTZ_MOVE_CMD_DOWN_RIGHT == directions.size() - 1);

void move_command(PTZKitDriver *self, const PTZKitMoveCommandRequest *request, PTZKitReply *reply) {
  State &state = state_of(self);
  if (request->direction == PTZ_MOVE_CMD_STOP) return stop(self, reply);
  if (state.waits(reply, [self, wanted = *request](PTZKitReply *later) { move_command(self, &wanted, later); })) return;
  if (!state.head->is_there()) return refuse(reply, Outcome::no_answer);
  if (request->direction == PTZ_MOVE_CMD_HOME) {
    const guint32 number = ptz_kit_driver_get_home_preset(self);
    if (number == 0) return state.head->home(answer_later(reply));
    const PTZKitGotoDevicePresetRequest preset = {number, request->speed};
    return goto_device_preset(self, &preset, reply);
  }
  const Direction direction = directions[request->direction];
  Order order = {.kind = MoveKind::continuous, .axes = {true, true, false}, .share = request->speed / 100.0};
  order.value[pan_axis] = direction.right * static_cast<gint32>(state.head->profile().pan.max_speed * full_speed);
  order.value[tilt_axis] = direction.up * static_cast<gint32>(state.head->profile().tilt.max_speed * full_speed);
  state.head->move(order, answer_later(reply));
}

// A position that is unknown is not invented.
void query_position(PTZKitDriver *self, PTZKitReply *reply) {
  State &state = state_of(self);
  if (state.waits(reply, [self](PTZKitReply *later) { query_position(self, later); })) return;
  const Head &head = *state.head;
  if (!head.is_there()) return refuse(reply, Outcome::no_answer);
  if (!head.knows_position()) return refuse_without_position(state, reply);
  PTZKitQueryPositionReply message = {};
  for (std::size_t axis = 0; axis < axis_count; ++axis) {
    message.position[axis] = ptz_kit_driver_get_position(self, kit_axis(axis));
    // A camera may tell pan and tilt only.
    const bool is_missing = axis == zoom_axis && !state.camera.head.has_zoom;
    message.status[axis] = !head.knows(axis) && !is_missing ? PTZ_MOVE_STATUS_UNKNOWN
                           : head.is_moving(axis)           ? PTZ_MOVE_STATUS_MOVING
                                                            : PTZ_MOVE_STATUS_IDLE;
  }
  ptz_kit_reply_query_position(reply, &message);
}

void dispose(GObject *object) {
  State &state = state_of(PTZ_KIT_DRIVER(object));
  // The line uses the heads of all cameras, so it is freed before the drivers that own them.
  state.line.reset();
  state.others.clear();
  G_OBJECT_CLASS(visca_driver_parent_class)->dispose(object);
}

void finalize(GObject *object) {
  delete reinterpret_cast<Instance *>(object)->state;
  G_OBJECT_CLASS(visca_driver_parent_class)->finalize(object);
}

void visca_driver_class_init(ViscaDriverClass *klass) {
  G_OBJECT_CLASS(klass)->dispose = dispose;
  G_OBJECT_CLASS(klass)->finalize = finalize;
  PTZKitDriverClass &driver = klass->parent_class;
  driver.open = open;
  driver.started = started;
  driver.close = close_device;
  driver.move = move;
  driver.stop = stop;
  driver.move_command = move_command;
  driver.query_position = query_position;
  driver.set_device_preset = set_device_preset;
  driver.goto_device_preset = goto_device_preset;
  driver.image = image;
  driver.auxiliary = auxiliary;
  driver.get_auxiliary = get_auxiliary;
  driver.query_attributes = query_attributes;
}

void visca_driver_init(ViscaDriver *self) { self->state = new State(&self->parent_instance); }

struct MainClass {
  ViscaDriverClass parent_class;
};
// The program's driver: it has the settings of all cameras.
using MainDriver = Instance;
using MainDriverClass = MainClass;
G_DEFINE_TYPE(MainDriver, visca_main_driver, visca_driver_get_type())

void visca_main_driver_class_init(MainDriverClass *klass) {
  klass->parent_class.parent_class.check_settings = check_settings;
}
void visca_main_driver_init(MainDriver *) {}

}  // namespace

State &state_of(PTZKitDriver *driver) { return *reinterpret_cast<Instance *>(driver)->state; }

PTZKitDriver *new_driver() {
  const char *const types[] = {"VISCA camera", nullptr};
  auto *const driver = PTZ_KIT_DRIVER(
      g_object_new(visca_main_driver_get_type(), "name", "visca-driver", "device-types", types, nullptr));
  declare_settings(driver);
  ptz_kit_driver_add_option_entries(driver, state_of(driver).options.data());
  return driver;
}

}  // namespace visca
