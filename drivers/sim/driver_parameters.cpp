#include "driver_parameters.h"

#include <ptz_driver_parameter_item.h>
#include <ptz_enum_types.h>
#include <ptz_gvalue_utils.h>
#include <ptz_serialize.h>

#include <string>
#include <tuple>

namespace example {

namespace {

struct Parameter {
  PTZParameterGroup group;
  std::string name;
  std::string label;
  std::string value;
  PTZParameter kind;
  std::string range;
};

// The array copies what it is given, so this may as well be a view.
void add(PTZParameterItemArray *items, const Parameter &parameter) {
  PTZParameterItem item = {};
  item.code = parameter.group;
  item.name = const_cast<gchar *>(parameter.name.c_str());
  item.text = const_cast<gchar *>(parameter.label.c_str());
  g_strlcpy(item.value, parameter.value.c_str(), sizeof item.value);
  item.info_code = parameter.kind;
  item.range = const_cast<gchar *>(parameter.range.c_str());
  ptz_parameter_item_array_append(items, &item);
}

void show(PTZParameterItemArray *items, const char *name, const GValue *value) {
  const Text text(ptz_gvalue_utils_string_from_gvalue(value));
  ptz_parameter_item_array_set_value_by_name(items, name, text.get());
}

gboolean write_item(PTZParameterItem *item, gpointer body) {
  const PTZDriverParameterItem record = {item->code,      item->name,       item->text, item->value,
                                         item->info_code, item->range_code, item->range};
  ptz_driver_parameter_item_serialize(&record, static_cast<GArray *>(body));
  return TRUE;
}

}  // namespace

DriverParameters::DriverParameters(const Head &head, const LiveSettings &settings)
    : items_(ptz_parameter_item_array_new("sim-driver")) {
  add(items_.get(), {PTZ_PARAMETER_GROUP_GENERAL, "presets", "Number of device presets", std::to_string(most_presets),
                     PTZ_PARAMETER_CONSTANTINTEGER, ""});
  for (std::size_t index = 0; index < axis_count; ++index) {
    const AxisRange &range = head.axis(index).range();
    const std::string axis = axis_names[index];
    for (const auto &[name, label, value] : {std::tuple{"min_", "Limit min ", range.minimum},
                                             {"max_", "Limit max ", range.maximum},
                                             {"max_speed_", "Maximum speed of ", range.max_speed}}) {
      add(items_.get(), {PTZ_PARAMETER_GROUP_LIMIT, name + axis, label + axis, std::to_string(value),
                         PTZ_PARAMETER_CONSTANTINTEGER, ""});
    }
  }
  for (const auto &setting : live_settings) {
    add(items_.get(),
        {PTZ_PARAMETER_GROUP_AUX_BUTTON, setting.name, setting.label, "", PTZ_PARAMETER_BOOLEAN, "false,true"});
    show(items_.get(), setting.name, ptz_dynamical_properties_get(settings.properties(), setting.name));
  }
  watch_ = std::make_unique<SettingWatch>(
      settings, [items = items_.get()](const char *name, const GValue *value) { show(items, name, value); });
}

void DriverParameters::write(GArray *body) const {
  ptz_serialize_32bit(body, ptz_parameter_item_array_items(items_.get()));
  ptz_parameter_item_array_map(items_.get(), write_item, body);
}

}  // namespace example
