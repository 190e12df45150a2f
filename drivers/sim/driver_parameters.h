// driver_parameters.h - what the driver tells of itself in answer to "Get driver parameters": an array of parameter
// items, kept up to date while the live settings change.
#pragma once
#include <ptz_parameter_item_array.h>

#include <memory>

#include "head.h"
#include "live_settings.h"

namespace example {

class DriverParameters {
  Object<PTZParameterItemArray> items_;
  std::unique_ptr<SettingWatch> watch_;

 public:
  DriverParameters(const Head &head, const LiveSettings &settings);

  // A ParameterList, each item as a driver parameter item record.
  void write(GArray *body) const;
};

}  // namespace example
