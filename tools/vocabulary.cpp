#include "vocabulary.h"

#include <ptz_enum_types.h>
#include <ptz_flag_types.h>

namespace ptzctl {

std::vector<GType> all_types() {
  return {PTZ_TYPE_COMMAND,
          PTZ_TYPE_SOCKET_COMMAND,
          PTZ_TYPE_PROTOCOL_VERSION,
          PTZ_TYPE_MOVE,
          PTZ_TYPE_MOVE_STATUS,
          PTZ_TYPE_MOVE_CMD,
          PTZ_TYPE_ENABLE,
          PTZ_TYPE_AUTO_ENABLE,
          PTZ_TYPE_CONTROL,
          PTZ_TYPE_QUERY,
          PTZ_TYPE_ANGLE,
          PTZ_TYPE_OSD_MENU,
          PTZ_TYPE_DRIVER_STATUS,
          PTZ_TYPE_SPACE,
          PTZ_TYPE_PARAMETER,
          PTZ_TYPE_PARAMETER_GROUP,
          PTZ_TYPE_PORT_MODE,
          PTZ_TYPE_BAUD_RATE,
          PTZ_TYPE_DATA_BITS,
          PTZ_TYPE_STOP_BITS,
          PTZ_TYPE_PARITY,
          PTZ_TYPE_PORT_TYPE,
          PTZ_TYPE_SC_GROUP,
          PTZ_TYPE_SC_PARAM,
          PTZ_TYPE_DRIVER_STATE,
          PTZ_TYPE_DRIVER_MOVE_CAPABILITIES,
          PTZ_TYPE_DRIVER_EXTRA_CAPABILITIES};
}

GType type_named(const char *name) {
  for (const GType type : all_types()) {
    if (g_str_equal(g_type_name(type), name)) return type;
  }
  return G_TYPE_INVALID;
}

std::optional<gint> value_of(GType type, const std::string &text) {
  auto *const values = static_cast<GEnumClass *>(g_type_class_ref(type));
  for (guint i = 0; i < values->n_values; ++i) {
    const auto &each = values->values[i];
    for (const char *word : {each.value_nick, each.value_name}) {
      if (g_ascii_strcasecmp(word, text.c_str()) == 0) return each.value;
    }
  }
  return std::nullopt;
}

const GEnumValue *enum_value(GType type, gint64 number) {
  if (number < G_MININT || number > G_MAXINT) return nullptr;
  return g_enum_get_value(static_cast<GEnumClass *>(g_type_class_ref(type)), static_cast<gint>(number));
}

std::vector<const char *> names_of_bits(GType type, guint32 bits) {
  std::vector<const char *> names;
  auto *const flags = static_cast<GFlagsClass *>(g_type_class_ref(type));
  for (guint i = 0; i < flags->n_values; ++i) {
    const auto &each = flags->values[i];
    if (each.value != 0 && (bits & each.value) == each.value) names.push_back(each.value_name);
  }
  return names;
}

}  // namespace ptzctl
