// Loads one or two files of arbitrary bytes into the key-file store, and holds what every accessor returns against a
// key file that GLib makes of the same text.
#include "fuzz_target.h"
#include "ptz_settings.h"
#include "text_files.h"

using namespace ptz_fuzz;

namespace {

void require_value(GKeyFile *expected, const std::string &group, const std::string &key) {
  const auto value = cleaned_value(expected, group, key);
  REQUIRE(owned(ptz_settings_get_custom_string(group.c_str(), key.c_str())) == value);
  REQUIRE(owned(ptz_settings_get_string(group.c_str(), -1, key.c_str())) == value);
  const bool filled = value && !value->empty();
  gboolean truth = -7;
  REQUIRE(ptz_settings_get_custom_boolean(group.c_str(), key.c_str(), &truth) == static_cast<gboolean>(filled));
  REQUIRE(truth == (filled ? std::string_view("YyTt").find(value->front()) != std::string_view::npos : -7));
  gint64 wide = -7;
  const gboolean is_wide = ptz_settings_get_custom_int64(group.c_str(), key.c_str(), &wide);
  REQUIRE(wide == (filled ? g_ascii_strtoll(value->c_str(), nullptr, 0) : -7));
  gint32 narrow = -7;
  const gboolean is_narrow = ptz_settings_get_custom_int(group.c_str(), key.c_str(), &narrow);
  REQUIRE(is_narrow == (is_wide && wide >= G_MININT32 && wide <= G_MAXINT32));
  REQUIRE(narrow == (is_narrow ? wide : -7));
}

void require_path(const std::string &group, const std::string &key) {
  if (key.find('.') != std::string::npos) return;
  REQUIRE(owned(ptz_settings_get_vp("%s.%s", group.c_str(), key.c_str())) ==
          owned(ptz_settings_get_custom_string(group.c_str(), key.c_str())));
}

gboolean collect(const gchar *name, const gchar *, gpointer names) {
  static_cast<std::vector<std::string> *>(names)->emplace_back(name);
  return TRUE;
}

void require_group(GKeyFile *expected, const std::string &group) {
  REQUIRE(ptz_settings_has_custom_group(group.c_str()));
  const auto keys = owned(g_key_file_get_keys(expected, group.c_str(), nullptr, nullptr));
  REQUIRE(owned(ptz_settings_get_custom_group(group.c_str())) == keys);
  for (const auto &key : keys) {
    require_value(expected, group, key);
    require_path(group, key);
  }
  std::vector<std::string> names;
  REQUIRE(ptz_settings_iterate_group(group.c_str(), -1, &names, collect));
  REQUIRE(names.size() == keys.size());
  for (std::size_t i = 0; i < keys.size(); ++i) REQUIRE(names[i] == group + "-1." + keys[i]);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  static const MemoryFile first, second;
  const auto parts = parts_of(data, size, 2);
  first.hold(parts[0]);
  second.hold(parts[1]);
  const PTZSettingsFile files[] = {{first.path(), TRUE}, {second.path(), FALSE}, {nullptr, FALSE}};
  const bool loaded = ptz_settings_load_config_gkf(files, nullptr) != FALSE;
  const auto expected = parse(std::string(parts[0]) + "\n" + std::string(parts[1]) + "\n");
  require_same_load(loaded, expected);
  for (const auto &group : owned(g_key_file_get_groups(expected.key_file.get(), nullptr))) {
    if (!loaded) {
      REQUIRE(!ptz_settings_has_custom_group(group.c_str()));
    } else if (!group.starts_with("root.") && !group.starts_with("ROOT.")) {
      require_group(expected.key_file.get(), group);
    }
  }
  REQUIRE(take_log().empty());
  return 0;
}
