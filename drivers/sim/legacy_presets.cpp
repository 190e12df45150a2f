#include "legacy_presets.h"

#include <algorithm>
#include <cstdarg>
#include <map>
#include <optional>
#include <string>

#include "driver_settings.h"

namespace sim {

namespace {

using Variant = Owned<GVariant, g_variant_unref>;
using Table = Owned<GHashTable, g_hash_table_unref>;

constexpr const char *event_name = "PTZPresets";
constexpr const char *event_owner = "sim-driver";
constexpr const char *name_entry = "Name";
constexpr std::size_t longest_preset_name = 32;  // bytes

class Value {
  GValue value_ = G_VALUE_INIT;

 public:
  explicit Value(gint number) { g_value_set_int(g_value_init(&value_, G_TYPE_INT), number); }
  explicit Value(const std::string &text) { g_value_set_string(g_value_init(&value_, G_TYPE_STRING), text.c_str()); }
  Value(const Value &) = delete;
  ~Value() { g_value_unset(&value_); }
  [[nodiscard]] const GValue *get() const { return &value_; }
};

// Answers the call; TRUE, for the handler that has taken it.
gboolean refuse(GDBusMethodInvocation *call, PTZKitErrorCode code, const char *format, ...) G_GNUC_PRINTF(3, 4);
gboolean refuse(GDBusMethodInvocation *call, PTZKitErrorCode code, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const Text text(g_strdup_vprintf(format, arguments));
  va_end(arguments);
  const Text name(g_strdup_printf("com.velk.PTZ.Error.Code%u", static_cast<guint>(code)));
  g_dbus_method_invocation_return_dbus_error(call, name.get(), text.get());
  return TRUE;
}

gboolean refuse_unknown(GDBusMethodInvocation *call, gint number) {
  return refuse(call, PTZ_KIT_ERROR_CODE_NOT_FOUND, "there is no preset %d", number);
}

gboolean refuse_unkept(GDBusMethodInvocation *call, gint number) {
  return refuse(call, PTZ_KIT_ERROR_CODE_NOT_KEPT, "preset %d cannot be kept; the driver's log tells why", number);
}

struct StoredPreset {
  std::string name;
  PerAxis position;
};
using Presets = std::map<gint, StoredPreset>;

StoredPreset preset_of(const PTZKitSetPresetRequest &message) {
  StoredPreset preset = {message.name, {}};
  std::ranges::copy(message.position, preset.position.begin());
  return preset;
}

Presets presets_of(PTZKitDriver *driver) {
  const PointerArray messages(ptz_kit_driver_get_presets(driver));
  Presets presets;
  for (guint index = 0; index < messages->len; ++index) {
    const auto &message = *static_cast<const PTZKitSetPresetRequest *>(messages->pdata[index]);
    presets[static_cast<gint>(message.number)] = preset_of(message);
  }
  return presets;
}

const StoredPreset *find(const Presets &presets, gint number) {
  const auto found = presets.find(number);
  return found != presets.end() ? &found->second : nullptr;
}

bool store(PTZKitDriver *driver, gint number, const StoredPreset &preset) {
  const Owned<PTZKitSetPresetRequest, ptz_kit_set_preset_request_free> message(ptz_kit_set_preset_request_new(
      static_cast<guint32>(number), preset.name.c_str(), all_axes, preset.position.data()));
  return ptz_kit_driver_store_preset(driver, message.get(), nullptr) != FALSE;
}

bool valid_number(gint number) { return number >= 1 && number <= static_cast<gint>(most_presets); }
bool valid_name(const std::string &name) {
  return !name.empty() && name.size() <= longest_preset_name &&
         g_utf8_validate_len(name.data(), name.size(), nullptr) != FALSE;
}

std::optional<std::size_t> axis_of(const char *entry) {
  const auto *const found =
      std::ranges::find_if(axis_titles, [&](const char *title) { return g_str_equal(title, entry) != FALSE; });
  if (found == axis_titles.end()) return std::nullopt;
  return static_cast<std::size_t>(found - axis_titles.begin());
}

// As a D-Bus string, or as the bytes that announcements have.
std::optional<std::string> text_of(GVariant *value) {
  if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING)) return g_variant_get_string(value, nullptr);
  if (g_variant_is_of_type(value, G_VARIANT_TYPE_BYTESTRING)) return g_variant_get_bytestring(value);
  return std::nullopt;
}

GVariant *entries_of(const StoredPreset &preset) {
  GVariantBuilder entries;
  g_variant_builder_init(&entries, G_VARIANT_TYPE("a{sv}"));
  g_variant_builder_add(&entries, "{sv}", name_entry, g_variant_new_string(preset.name.c_str()));
  for (std::size_t axis = 0; axis < axis_count; ++axis) {
    g_variant_builder_add(&entries, "{sv}", axis_titles[axis], g_variant_new_int32(preset.position[axis]));
  }
  return g_variant_builder_end(&entries);
}

}  // namespace

gboolean LegacyPresets::on_sync(Skeleton *skeleton, GDBusMethodInvocation *call, LegacyPresets *self) {
  if (ptz_kit_driver_sync_presets(self->driver_, nullptr) == FALSE) {
    return refuse(call, PTZ_KIT_ERROR_CODE_NOT_KEPT, "the presets cannot be kept; the driver's log tells why");
  }
  ptz_legacy_config_dynamic_configuration_legacy_complete_sync(skeleton, call);
  return TRUE;
}

// A number below 1 asks for the lowest that is free.
gboolean LegacyPresets::on_add(Skeleton *skeleton, GDBusMethodInvocation *call, gint number, LegacyPresets *self) {
  const Presets presets = presets_of(self->driver_);
  if (number < 1) {
    for (number = 1; find(presets, number) != nullptr;) ++number;
  }
  if (!valid_number(number)) {
    return refuse(call, PTZ_KIT_ERROR_CODE_OUT_OF_RANGE, "preset %d is not within 1 to %u", number, most_presets);
  }
  if (find(presets, number) != nullptr) {
    return refuse(call, PTZ_KIT_ERROR_CODE_OUT_OF_RANGE, "there is a preset %d already", number);
  }
  self->head_.advance(g_get_monotonic_time());
  const StoredPreset preset = {"Preset" + std::to_string(number), self->head_.each(&Axis::position)};
  if (!store(self->driver_, number, preset)) {
    return refuse_unkept(call, number);
  }
  ptz_legacy_config_dynamic_configuration_legacy_complete_add_configuration(skeleton, call, number);
  return TRUE;
}

gboolean LegacyPresets::on_remove(Skeleton *skeleton, GDBusMethodInvocation *call, gint number, LegacyPresets *self) {
  if (find(presets_of(self->driver_), number) == nullptr) return refuse_unknown(call, number);
  if (ptz_kit_driver_remove_preset(self->driver_, static_cast<guint32>(number), nullptr) == FALSE) {
    return refuse_unkept(call, number);
  }
  ptz_legacy_config_dynamic_configuration_legacy_complete_remove_configuration(skeleton, call);
  return TRUE;
}

gboolean LegacyPresets::on_get(Skeleton *skeleton, GDBusMethodInvocation *call, gint number, const gchar *entry,
                               LegacyPresets *self) {
  const Presets presets = presets_of(self->driver_);
  const StoredPreset *const preset = find(presets, number);
  if (preset == nullptr) return refuse_unknown(call, number);
  const Variant entries(g_variant_ref_sink(entries_of(*preset)));
  const Variant value(g_variant_lookup_value(entries.get(), entry, nullptr));
  if (value == nullptr) return refuse(call, PTZ_KIT_ERROR_CODE_NOT_FOUND, "a preset has no entry \"%s\"", entry);
  ptz_legacy_config_dynamic_configuration_legacy_complete_get_configuration_entry(skeleton, call,
                                                                                  g_variant_new_variant(value.get()));
  return TRUE;
}

gboolean LegacyPresets::on_set(Skeleton *skeleton, GDBusMethodInvocation *call, gint number, const gchar *entry,
                               GVariant *value, LegacyPresets *self) {
  const Presets presets = presets_of(self->driver_);
  const StoredPreset *const preset = find(presets, number);
  if (preset == nullptr) return refuse_unknown(call, number);
  const Variant content(g_variant_get_variant(value));
  StoredPreset changed = *preset;
  if (g_str_equal(entry, name_entry)) {
    const auto name = text_of(content.get());
    if (!name) return refuse(call, PTZ_KIT_ERROR_CODE_MALFORMED, "the entry \"%s\" is a text", entry);
    if (!valid_name(*name)) {
      return refuse(call, PTZ_KIT_ERROR_CODE_OUT_OF_RANGE, "the name of a preset has 1 to %zu bytes",
                    longest_preset_name);
    }
    changed.name = *name;
  } else if (const auto axis = axis_of(entry)) {
    if (!g_variant_is_of_type(content.get(), G_VARIANT_TYPE_INT32)) {
      return refuse(call, PTZ_KIT_ERROR_CODE_MALFORMED, "the entry \"%s\" is a 32-bit number with a sign", entry);
    }
    const AxisRange &range = self->head_.axis(*axis).range();
    const gint32 position = g_variant_get_int32(content.get());
    if (position < range.minimum || position > range.maximum) {
      return refuse(call, PTZ_KIT_ERROR_CODE_OUT_OF_RANGE, "%s %d is not within %d to %d", entry, position,
                    range.minimum, range.maximum);
    }
    changed.position[*axis] = position;
  } else {
    return refuse(call, PTZ_KIT_ERROR_CODE_NOT_FOUND, "a preset has no entry \"%s\"", entry);
  }
  if (!store(self->driver_, number, changed)) return refuse_unkept(call, number);
  ptz_legacy_config_dynamic_configuration_legacy_complete_set_configuration_entry(skeleton, call);
  return TRUE;
}

gboolean LegacyPresets::on_get_all(Skeleton *skeleton, GDBusMethodInvocation *call, LegacyPresets *self) {
  GVariantBuilder sets;
  g_variant_builder_init(&sets, G_VARIANT_TYPE("a{ia{sv}}"));
  for (const auto &[number, preset] : presets_of(self->driver_)) {
    g_variant_builder_add(&sets, "{i@a{sv}}", number, entries_of(preset));
  }
  ptz_legacy_config_dynamic_configuration_legacy_complete_get_configurations(skeleton, call,
                                                                             g_variant_builder_end(&sets));
  return TRUE;
}

void LegacyPresets::on_change(PTZKitDriver *, guint number, const PTZKitSetPresetRequest *before,
                              const PTZKitSetPresetRequest *after, LegacyPresets *self) {
  self->announce(number, before, after);
}

void LegacyPresets::announce(guint number, const PTZKitSetPresetRequest *before,
                             const PTZKitSetPresetRequest *after) const {
  const Table changes(g_hash_table_new_full(g_str_hash, g_str_equal, nullptr, g_free));
  const auto changed = [&](const char *entry, const Value &value, const std::string &text) {
    const Text key(g_strdup_printf("%u.%s", number, entry));
    ptz_legacy_config_prop_changed(handler_.get(), key.get(), value.get());
    g_hash_table_insert(changes.get(), const_cast<char *>(entry), g_strdup(text.c_str()));
  };
  if (after != nullptr) {
    if (before == nullptr || !g_str_equal(before->name, after->name)) {
      changed(name_entry, Value(std::string(after->name)), after->name);
    }
    for (std::size_t axis = 0; axis < axis_count; ++axis) {
      const gint32 position = after->position[axis];
      if (before != nullptr && before->position[axis] == position) continue;
      changed(axis_titles[axis], Value(position), std::to_string(position));
    }
  }
  const ChangeKind kind = after == nullptr    ? ChangeKind::removed
                          : before == nullptr ? ChangeKind::added
                                              : ChangeKind::changed;
  ptz_legacy_config_send_event(handler_.get(), static_cast<gint>(kind), static_cast<gint>(number), changes.get());
}

LegacyPresets::~LegacyPresets() { g_signal_handlers_disconnect_by_data(driver_, this); }

bool LegacyPresets::start(const char *short_name) {
  skeleton_.reset(ptz_legacy_config_dynamic_configuration_legacy_skeleton_new());
  for (const auto &[signal, handler] : {std::pair{"handle-sync", G_CALLBACK(on_sync)},
                                        {"handle-add-configuration", G_CALLBACK(on_add)},
                                        {"handle-remove-configuration", G_CALLBACK(on_remove)},
                                        {"handle-get-configuration-entry", G_CALLBACK(on_get)},
                                        {"handle-set-configuration-entry", G_CALLBACK(on_set)},
                                        {"handle-get-configurations", G_CALLBACK(on_get_all)}}) {
    g_signal_connect(skeleton_.get(), signal, handler, this);
  }
  handler_.reset(
      ptz_legacy_config_setup(G_DBUS_INTERFACE_SKELETON(skeleton_.get()), event_name, event_owner, short_name));
  if (!handler_) return false;
  g_signal_connect(driver_, "preset-changed", G_CALLBACK(on_change), this);
  settings_.emplace(live_, [this](const char *name, const GValue *value) {
    ptz_legacy_config_prop_changed(handler_.get(), name, value);
  });
  // Last: a client that waits for the name calls at once.
  return ptz_g_dbus_server_dbus_request_name(handler_->server, short_name) != FALSE;
}

}  // namespace sim
