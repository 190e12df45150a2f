#include "live_settings.h"

#include <utility>

namespace sim {

LiveSettings::LiveSettings() : properties_(ptz_dynamical_properties_new()) {
  for (const auto &setting : live_settings) switch_to(setting.name, false);
}

std::optional<bool> LiveSettings::is_on(const std::string &name) const {
  const GValue *const value = ptz_dynamical_properties_get(properties(), name.c_str());
  if (value == nullptr || !G_VALUE_HOLDS_BOOLEAN(value)) return std::nullopt;
  return g_value_get_boolean(value) != FALSE;
}

// The property owns the value. If it is the old one again, no watch is called.
void LiveSettings::switch_to(const std::string &name, bool on) {
  auto *const value = g_new0(GValue, 1);
  g_value_set_boolean(g_value_init(value, G_TYPE_BOOLEAN), on ? TRUE : FALSE);
  ptz_dynamical_properties_set(properties(), name.c_str(), value);
}

void SettingWatch::on_change(PTZDynamicalProperties *properties, const gchar *name, SettingWatch *self) {
  self->changed_(name, ptz_dynamical_properties_get(properties, name));
}

SettingWatch::SettingWatch(const LiveSettings &settings, Function changed)
    : properties_(PTZ_DYNAMICAL_PROPERTIES(g_object_ref(settings.properties()))),
      changed_(std::move(changed)),
      handler_(g_signal_connect(properties_.get(), "notify_change", G_CALLBACK(on_change), this)) {}

SettingWatch::~SettingWatch() { g_signal_handler_disconnect(properties_.get(), handler_); }

}  // namespace sim
