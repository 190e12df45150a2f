#include "ptz_kit_driver.h"

#include <gio/gio.h>
#include <syslog.h>

#include "driver/driver_core.h"
#include "driver/driver_private.h"

using namespace ptz_kit;

namespace {

// Allocated apart: GLib would give each size of instance pages of its own.
struct DriverPrivate {
  DriverCore *core;
};

enum Property : guint {
  name = 1,
  instance,
  socket_path,
  device_types,
  preset_file,
  keep_presets,
  verbose,
  reply_deadline,
  monitor_history,
  count
};
GParamSpec *properties[Property::count];

constexpr guint max_history_bytes = 16 * 1024 * 1024;

}  // namespace

using PTZKitDriverPrivate = DriverPrivate;
G_DEFINE_TYPE_WITH_PRIVATE(PTZKitDriver, ptz_kit_driver, G_TYPE_OBJECT)

static DriverPrivate &private_of(PTZKitDriver *self) {
  return *static_cast<DriverPrivate *>(ptz_kit_driver_get_instance_private(self));
}
DriverCore &ptz_kit::core_of(PTZKitDriver *self) { return *private_of(self).core; }

static void ptz_kit_driver_init(PTZKitDriver *self) { private_of(self).core = new DriverCore(self); }

static void ptz_kit_driver_dispose(GObject *object) {
  DriverCore &core = core_of(PTZ_KIT_DRIVER(object));
  if (core.is_started()) {
    syslog(LOG_WARNING, "the driver goes without ptz_kit_driver_stop(): its device is not closed");
  }
  core.stop_serving();
  G_OBJECT_CLASS(ptz_kit_driver_parent_class)->dispose(object);
}

static void ptz_kit_driver_finalize(GObject *object) {
  delete private_of(PTZ_KIT_DRIVER(object)).core;
  G_OBJECT_CLASS(ptz_kit_driver_parent_class)->finalize(object);
}

static std::string text_of(const GValue *value) {
  const gchar *text = g_value_get_string(value);
  return text != nullptr ? text : "";
}

// While the driver runs: others know these, or they are in use.
static bool is_fixed(guint id) {
  return id == Property::name || id == Property::instance || id == Property::socket_path ||
         id == Property::preset_file || id == Property::keep_presets;
}

static void ptz_kit_driver_set_property(GObject *object, guint id, const GValue *value, GParamSpec *spec) {
  DriverCore &core = core_of(PTZ_KIT_DRIVER(object));
  if (core.is_started() && is_fixed(id)) {
    g_critical("the property \"%s\" of a driver that runs does not change", spec->name);
    return;
  }
  switch (id) {
    case Property::name:
      core.name = text_of(value);
      break;
    case Property::instance:
      core.instance = g_value_get_uint(value);
      break;
    case Property::socket_path:
      core.socket_path = text_of(value);
      break;
    case Property::device_types: {
      auto *const *types = static_cast<gchar **>(g_value_get_boxed(value));
      core.device_types.clear();
      for (; types != nullptr && *types != nullptr; ++types) core.device_types.emplace_back(*types);
      break;
    }
    case Property::preset_file:
      core.preset_file = text_of(value);
      break;
    case Property::keep_presets:
      core.keep_presets = g_value_get_boolean(value) != FALSE;
      break;
    case Property::verbose:
      core.verbose = g_value_get_boolean(value) != FALSE;
      break;
    case Property::reply_deadline:
      core.reply_deadline_ms = g_value_get_uint(value);
      break;
    case Property::monitor_history:
      core.history().set_limit_bytes(g_value_get_uint(value));
      break;
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
  }
}

static void ptz_kit_driver_get_property(GObject *object, guint id, GValue *value, GParamSpec *spec) {
  DriverCore &core = core_of(PTZ_KIT_DRIVER(object));
  switch (id) {
    case Property::name:
      return g_value_set_string(value, core.name.c_str());
    case Property::instance:
      return g_value_set_uint(value, core.instance);
    case Property::socket_path:
      return g_value_set_string(value, core.socket_path.c_str());
    case Property::device_types: {
      const Handle<const gchar *, g_free> types(g_new0(const gchar *, core.device_types.size() + 1));
      for (std::size_t i = 0; i < core.device_types.size(); ++i) types.get()[i] = core.device_types[i].c_str();
      return g_value_set_boxed(value, types.get());
    }
    case Property::preset_file:
      return g_value_set_string(value, core.preset_file.c_str());
    case Property::keep_presets:
      return g_value_set_boolean(value, core.keep_presets ? TRUE : FALSE);
    case Property::verbose:
      return g_value_set_boolean(value, core.verbose ? TRUE : FALSE);
    case Property::reply_deadline:
      return g_value_set_uint(value, core.reply_deadline_ms);
    case Property::monitor_history:
      return g_value_set_uint(value, static_cast<guint>(core.history().limit_bytes()));
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
  }
}

static void ptz_kit_driver_class_init(PTZKitDriverClass *klass) {
  constexpr auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
  auto *object_class = G_OBJECT_CLASS(klass);
  object_class->dispose = ptz_kit_driver_dispose;
  object_class->finalize = ptz_kit_driver_finalize;
  object_class->set_property = ptz_kit_driver_set_property;
  object_class->get_property = ptz_kit_driver_get_property;
  properties[Property::name] = g_param_spec_string("name", nullptr, nullptr, "driver", flags);
  properties[Property::instance] = g_param_spec_uint("instance", nullptr, nullptr, 0, G_MAXINT32, 0, flags);
  properties[Property::socket_path] = g_param_spec_string("socket-path", nullptr, nullptr, "", flags);
  properties[Property::device_types] = g_param_spec_boxed("device-types", nullptr, nullptr, G_TYPE_STRV, flags);
  properties[Property::preset_file] = g_param_spec_string("preset-file", nullptr, nullptr, "", flags);
  properties[Property::keep_presets] = g_param_spec_boolean("keep-presets", nullptr, nullptr, TRUE, flags);
  properties[Property::verbose] = g_param_spec_boolean("verbose", nullptr, nullptr, FALSE, flags);
  properties[Property::reply_deadline] =
      g_param_spec_uint("reply-deadline", nullptr, nullptr, 0, G_MAXUINT, default_reply_deadline_ms, flags);
  properties[Property::monitor_history] = g_param_spec_uint("monitor-history", nullptr, nullptr, 0, max_history_bytes,
                                                            MonitorServer::default_history_bytes, flags);
  g_object_class_install_properties(object_class, Property::count, properties);
  g_signal_new("ended", PTZ_KIT_TYPE_DRIVER, G_SIGNAL_RUN_LAST, 0, nullptr, nullptr, nullptr, G_TYPE_NONE, 0);
  g_signal_new("preset-changed", PTZ_KIT_TYPE_DRIVER, G_SIGNAL_RUN_LAST, 0, nullptr, nullptr, nullptr, G_TYPE_NONE, 3,
               G_TYPE_UINT, PTZ_KIT_TYPE_SET_PRESET_REQUEST | G_SIGNAL_TYPE_STATIC_SCOPE,
               PTZ_KIT_TYPE_SET_PRESET_REQUEST | G_SIGNAL_TYPE_STATIC_SCOPE);
}

static bool is_axis(PTZKitAxis axis) { return axis >= 0 && axis < PTZ_KIT_N_AXES; }

void ptz_kit_driver_set_axis(PTZKitDriver *self, PTZKitAxis axis, gint32 minimum, gint32 maximum, gint32 max_speed,
                             gint32 home) {
  g_return_if_fail(PTZ_KIT_IS_DRIVER(self));
  g_return_if_fail(is_axis(axis));
  g_return_if_fail(minimum < maximum);
  g_return_if_fail(max_speed > 0);
  g_return_if_fail(home >= minimum && home <= maximum);
  core_of(self).axes[axis].set(minimum, maximum, max_speed, home);
}

void ptz_kit_driver_report_axis(PTZKitDriver *self, PTZKitAxis axis, gint32 position, gboolean moving) {
  g_return_if_fail(PTZ_KIT_IS_DRIVER(self));
  g_return_if_fail(is_axis(axis) && core_of(self).axes[axis].is_set());
  core_of(self).report(axis, position, moving != FALSE);
}

void ptz_kit_driver_report_speed(PTZKitDriver *self, PTZKitAxis axis, gint32 speed) {
  g_return_if_fail(PTZ_KIT_IS_DRIVER(self));
  g_return_if_fail(is_axis(axis) && core_of(self).axes[axis].is_set());
  core_of(self).axes[axis].report_speed(speed);
}

void ptz_kit_driver_report_unknown(PTZKitDriver *self, PTZKitAxis axis) {
  g_return_if_fail(PTZ_KIT_IS_DRIVER(self));
  g_return_if_fail(is_axis(axis) && core_of(self).axes[axis].is_set());
  core_of(self).report_unknown(axis);
}

void ptz_kit_driver_report_flag(PTZKitDriver *self, PTZSCParam flag, gboolean on) {
  g_return_if_fail(PTZ_KIT_IS_DRIVER(self));
  g_return_if_fail(PublishedStatus::is_flag(flag) && flag != PTZ_SC_PARAM_VARIOUS_PT_PRESET_MOVE);
  core_of(self).report_flag(flag, on != FALSE);
}

gint32 ptz_kit_driver_get_position(PTZKitDriver *self, PTZKitAxis axis) {
  g_return_val_if_fail(PTZ_KIT_IS_DRIVER(self), 0);
  g_return_val_if_fail(is_axis(axis), 0);
  return core_of(self).axes[axis].position();
}

void ptz_kit_driver_add_capabilities(PTZKitDriver *self, guint32 move, guint32 extra) {
  g_return_if_fail(PTZ_KIT_IS_DRIVER(self));
  core_of(self).added.move |= move;
  core_of(self).added.extra |= extra;
}

void ptz_kit_driver_remove_capabilities(PTZKitDriver *self, guint32 move, guint32 extra) {
  g_return_if_fail(PTZ_KIT_IS_DRIVER(self));
  core_of(self).removed.move |= move;
  core_of(self).removed.extra |= extra;
}

void ptz_kit_driver_add_setting(PTZKitDriver *self, const gchar *group, const gchar *key, PTZKitSettingKind kind,
                                const gchar *default_value, gint64 minimum, gint64 maximum, const gchar *doc) {
  g_return_if_fail(PTZ_KIT_IS_DRIVER(self));
  g_return_if_fail(group != NULL);
  g_return_if_fail(key != NULL);
  g_return_if_fail(default_value != NULL);
  g_return_if_fail(doc != NULL);
  core_of(self).settings.add({group, key, kind, default_value, minimum, maximum, doc});
}

void ptz_kit_driver_add_option_entries(PTZKitDriver *self, const GOptionEntry *entries) {
  g_return_if_fail(PTZ_KIT_IS_DRIVER(self));
  g_return_if_fail(entries != NULL);
  core_of(self).option_entries.push_back(entries);
}

gboolean ptz_kit_driver_load_settings(PTZKitDriver *self, const gchar *const *files, GError **error) {
  g_return_val_if_fail(PTZ_KIT_IS_DRIVER(self), FALSE);
  g_return_val_if_fail(files != NULL, FALSE);
  const Problems problems = core_of(self).settings.load(files);
  for (const std::string &problem : problems.unknown.lines()) syslog(LOG_WARNING, "%s", problem.c_str());
  if (problems.bad.empty()) return core_of(self).check_settings(error) ? TRUE : FALSE;
  g_set_error_literal(error, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_INVALID_VALUE, joined(problems.bad.lines()).c_str());
  return FALSE;
}

gint64 ptz_kit_driver_get_integer(PTZKitDriver *self, const gchar *group, const gchar *key) {
  g_return_val_if_fail(PTZ_KIT_IS_DRIVER(self), 0);
  g_return_val_if_fail(group != NULL && key != NULL, 0);
  const Setting *setting = core_of(self).settings.find(group, key, PTZ_KIT_SETTING_INTEGER);
  return setting != nullptr ? integer_of(*setting) : 0;
}

gboolean ptz_kit_driver_get_boolean(PTZKitDriver *self, const gchar *group, const gchar *key) {
  g_return_val_if_fail(PTZ_KIT_IS_DRIVER(self), FALSE);
  g_return_val_if_fail(group != NULL && key != NULL, FALSE);
  const Setting *setting = core_of(self).settings.find(group, key, PTZ_KIT_SETTING_BOOLEAN);
  return setting != nullptr && boolean_of(*setting) ? TRUE : FALSE;
}

const gchar *ptz_kit_driver_get_string(PTZKitDriver *self, const gchar *group, const gchar *key) {
  g_return_val_if_fail(PTZ_KIT_IS_DRIVER(self), "");
  g_return_val_if_fail(group != NULL && key != NULL, "");
  const Setting *setting = core_of(self).settings.find(group, key, PTZ_KIT_SETTING_STRING);
  return setting != nullptr ? setting->value.c_str() : "";
}

gboolean ptz_kit_driver_start(PTZKitDriver *self, GError **error) {
  g_return_val_if_fail(PTZ_KIT_IS_DRIVER(self), FALSE);
  DriverCore &core = core_of(self);
  g_return_val_if_fail(!core.is_started(), FALSE);
  return core.start(error) ? TRUE : FALSE;
}

GBytes *ptz_kit_driver_answer(PTZKitDriver *self, GBytes *request) {
  g_return_val_if_fail(PTZ_KIT_IS_DRIVER(self), NULL);
  g_return_val_if_fail(request != NULL, NULL);
  g_return_val_if_fail(core_of(self).is_started(), NULL);
  gsize length = 0;
  const auto *data = static_cast<const guint8 *>(g_bytes_get_data(request, &length));
  return core_of(self).answer({data, length}).release();
}

void ptz_kit_driver_stop(PTZKitDriver *self) {
  g_return_if_fail(PTZ_KIT_IS_DRIVER(self));
  core_of(self).stop();
}
