#include "driver_parameters.h"

#include <ptz_gvalue_utils.h>

#include <string>
#include <tuple>

#include "driver_settings.h"
#include "owners.h"

namespace sim {

namespace {

constexpr std::array<const char *, axis_count> axis_names = {"pan", "tilt", "zoom"};

using Parameters = Owned<PTZKitGetDriverParametersReply, ptz_kit_get_driver_parameters_reply_free>;

void add(const Parameters &parameters, PTZParameterGroup group, const std::string &name, const std::string &label,
         const std::string &value, PTZParameter kind, const char *range) {
  const Owned<PTZKitParameter, ptz_kit_parameter_free> parameter(
      ptz_kit_parameter_new(group, name.c_str(), label.c_str(), value.c_str(), kind, 0, range));
  ptz_kit_get_driver_parameters_reply_add_parameter(parameters.get(), parameter.get());
}

}  // namespace

void answer_driver_parameters(const Head &head, const LiveSettings &live, PTZKitReply *reply) {
  const Parameters parameters(ptz_kit_get_driver_parameters_reply_new());
  add(parameters, PTZ_PARAMETER_GROUP_GENERAL, "presets", "Number of device presets", std::to_string(most_presets),
      PTZ_PARAMETER_CONSTANTINTEGER, "");
  for (std::size_t index = 0; index < axis_count; ++index) {
    const AxisRange &range = head.axis(index).range();
    for (const auto &[name, label, value] : {std::tuple{"min_", "Limit min ", range.minimum},
                                             {"max_", "Limit max ", range.maximum},
                                             {"max_speed_", "Maximum speed of ", range.max_speed}}) {
      add(parameters, PTZ_PARAMETER_GROUP_LIMIT, std::string(name) + axis_names[index],
          std::string(label) + axis_names[index], std::to_string(value), PTZ_PARAMETER_CONSTANTINTEGER, "");
    }
  }
  for (const LiveSetting &setting : live_settings) {
    const Text value(
        ptz_gvalue_utils_string_from_gvalue(ptz_dynamical_properties_get(live.properties(), setting.name)));
    add(parameters, PTZ_PARAMETER_GROUP_AUX_BUTTON, setting.name, setting.label, value.get(), PTZ_PARAMETER_BOOLEAN,
        "false,true");
  }
  ptz_kit_reply_get_driver_parameters(reply, parameters.get());
}

}  // namespace sim
