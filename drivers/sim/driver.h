// driver.h - answers requests with the simulated head. Knows bodies, but neither sockets nor the main loop.
#pragma once
#include <utility>

#include "driver_messages.h"
#include "driver_parameters.h"
#include "head.h"
#include "live_settings.h"
#include "preset_store.h"

namespace example {

extern const PTZDriverCapabilities driver_capabilities;

class Driver {
  struct Route;

  Head head_;
  PresetStore presets_;
  bool going_to_preset_ = false;
  LiveSettings settings_;
  DriverParameters parameters_;

  Body set_device_preset(BodyReader &request);
  Body get_device_presets(BodyReader &request);
  Body goto_device_preset(BodyReader &request);
  Body move(BodyReader &request);
  Body move_command(BodyReader &request);
  Body stop(BodyReader &request);
  Body auxiliary(BodyReader &request);
  Body query_speed(BodyReader &request);
  Body query_position(BodyReader &request);
  Body query_limit_ranges(BodyReader &request);
  Body get_driver_name(BodyReader &request);
  Body get_device_types(BodyReader &request);
  Body get_capabilities(BodyReader &request);
  Body get_driver_parameters(BodyReader &request);

  void move_to(const PerAxis &position, guint16 speed);

 public:
  explicit Driver(const HeadRanges &ranges = head_ranges, PresetStore presets = PresetStore())
      : head_(ranges), presets_(std::move(presets)), parameters_(head_, settings_) {}

  // Whatever the request holds, there is an answer: a reply, which begins with the request's command word, or an error
  // reply, which means that nothing has changed.
  Body answer(GArray *request, gint64 now_us);

  [[nodiscard]] Head &head() { return head_; }
  [[nodiscard]] bool going_to_preset() const { return going_to_preset_ && head_.moving(); }
  [[nodiscard]] PresetStore &presets() { return presets_; }
  [[nodiscard]] const LiveSettings &settings() const { return settings_; }
};

}  // namespace example
