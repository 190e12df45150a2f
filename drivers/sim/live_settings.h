// live_settings.h - what can be switched while the driver runs. Each is a dynamical property: the message bus and the
// status watch it, and the command that changes it knows none of them.
#pragma once
#include <ptz_dynamical_properties.h>

#include <array>
#include <functional>
#include <optional>
#include <string>

#include "owners.h"

namespace sim {

struct LiveSetting {
  const char *name;
  const char *label;
};
constexpr const char *ir_cut_filter = "ir_cut_filter";
constexpr std::array<LiveSetting, 3> live_settings = {
    {{"light", "Light"}, {"wiper", "Wiper"}, {ir_cut_filter, "Infrared cut filter"}}};

class LiveSettings {
  Object<PTZDynamicalProperties> properties_;

 public:
  LiveSettings();  // all off

  // Nothing where there is none of this name.
  [[nodiscard]] std::optional<bool> is_on(const std::string &name) const;
  void switch_to(const std::string &name, bool on);
  [[nodiscard]] PTZDynamicalProperties *properties() const { return properties_.get(); }
};

// Calls a function for each setting that changes, until it ends. The function must not switch one itself: the next
// notification waits for the end of this one.
class SettingWatch {
  using Function = std::function<void(const char *name, const GValue *value)>;

  Object<PTZDynamicalProperties> properties_;
  Function changed_;
  gulong handler_;

  static void on_change(PTZDynamicalProperties *properties, const gchar *name, SettingWatch *self);

 public:
  SettingWatch(const LiveSettings &settings, Function changed);
  SettingWatch(const SettingWatch &) = delete;
  ~SettingWatch();
};

}  // namespace sim
