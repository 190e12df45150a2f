#include <ptz_kit_monitor.h>

#include "monitor/monitor_core.h"

using namespace ptz_kit;

struct _PTZKitMonitor {
  GObject parent_instance;
  Text path;
  std::unique_ptr<MonitorCore> core;
};
struct _PTZKitMonitorClass {
  GObjectClass parent_class;
};
G_DEFINE_FINAL_TYPE(PTZKitMonitor, ptz_kit_monitor, G_TYPE_OBJECT)

namespace {
enum { prop_0, prop_socket_path };
}  // namespace

static void ptz_kit_monitor_init(PTZKitMonitor *self) {
  std::construct_at(&self->path);
  std::construct_at(&self->core);
}

static void ptz_kit_monitor_constructed(GObject *object) {
  PTZKitMonitor *self = PTZ_KIT_MONITOR(object);
  self->core = std::make_unique<MonitorCore>(self, self->path != nullptr ? self->path.get() : "");
  G_OBJECT_CLASS(ptz_kit_monitor_parent_class)->constructed(object);
}

static void ptz_kit_monitor_finalize(GObject *object) {
  PTZKitMonitor *self = PTZ_KIT_MONITOR(object);
  std::destroy_at(&self->core);
  std::destroy_at(&self->path);
  G_OBJECT_CLASS(ptz_kit_monitor_parent_class)->finalize(object);
}

static void ptz_kit_monitor_set_property(GObject *object, guint id, const GValue *value, GParamSpec *spec) {
  if (id == prop_socket_path) {
    PTZ_KIT_MONITOR(object)->path.reset(g_value_dup_string(value));
  } else {
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
  }
}

static void ptz_kit_monitor_get_property(GObject *object, guint id, GValue *value, GParamSpec *spec) {
  if (id == prop_socket_path) {
    g_value_set_string(value, PTZ_KIT_MONITOR(object)->path.get());
  } else {
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
  }
}

static void ptz_kit_monitor_class_init(PTZKitMonitorClass *klass) {
  GObjectClass *object_class = G_OBJECT_CLASS(klass);
  object_class->constructed = ptz_kit_monitor_constructed;
  object_class->finalize = ptz_kit_monitor_finalize;
  object_class->set_property = ptz_kit_monitor_set_property;
  object_class->get_property = ptz_kit_monitor_get_property;
  g_object_class_install_property(
      object_class, prop_socket_path,
      g_param_spec_string(
          "socket-path", nullptr, nullptr, nullptr,
          static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_CONSTRUCT_ONLY | G_PARAM_STATIC_STRINGS)));
  g_signal_new("frame", PTZ_KIT_TYPE_MONITOR, G_SIGNAL_RUN_LAST, 0, nullptr, nullptr, nullptr, G_TYPE_NONE, 1,
               PTZ_KIT_TYPE_MONITOR_FRAME | G_SIGNAL_TYPE_STATIC_SCOPE);
  g_signal_new("closed", PTZ_KIT_TYPE_MONITOR, G_SIGNAL_RUN_LAST, 0, nullptr, nullptr, nullptr, G_TYPE_NONE, 0);
}

PTZKitMonitor *ptz_kit_monitor_new(const gchar *socket_path) {
  g_return_val_if_fail(socket_path != NULL, NULL);
  return PTZ_KIT_MONITOR(g_object_new(PTZ_KIT_TYPE_MONITOR, "socket-path", socket_path, nullptr));
}

gboolean ptz_kit_monitor_open(PTZKitMonitor *self, GError **error) {
  g_return_val_if_fail(PTZ_KIT_IS_MONITOR(self), FALSE);
  return self->core->connect(error) ? TRUE : FALSE;
}

GVariant *ptz_kit_monitor_get_figures(PTZKitMonitor *self, guint timeout_ms, GCancellable *cancellable,
                                      GError **error) {
  g_return_val_if_fail(PTZ_KIT_IS_MONITOR(self), NULL);
  return self->core->figures(timeout_ms, cancellable, error);
}

gboolean ptz_kit_monitor_subscribe(PTZKitMonitor *self, gboolean with_past, GError **error) {
  g_return_val_if_fail(PTZ_KIT_IS_MONITOR(self), FALSE);
  return self->core->subscribe(with_past != FALSE, error) ? TRUE : FALSE;
}
