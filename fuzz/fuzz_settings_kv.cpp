// Reads a file of arbitrary bytes with the platform's key-value reader into the parsed store, with conversion and
// without, and holds what an accessor returns against the records that the reader gave.
#include <algorithm>
#include <cctype>

#include "fuzz_target.h"
#include "interpose.h"
#include "platform/kv_config.h"
#include "ptz_settings.h"
#include "text_files.h"

using namespace ptz_fuzz;

namespace {

// Records with names that any key file can hold, the last of each key counting.
KeyFile accepted;
std::size_t records = 0;

bool is_plain(const gchar *name) {
  const std::string_view text(name);
  return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) {
    return (c < 0x80 && std::isalnum(c) != 0) || c == '.' || c == '_' || c == '-';
  });
}

void keep(const KvConfigRecord &record) {
  ++records;
  REQUIRE(record.group != nullptr && record.key != nullptr);
  if (!is_plain(record.group) || !is_plain(record.key)) return;
  g_key_file_set_string(accepted.get(), record.group, record.key, record.value != nullptr ? record.value : "");
}

void require_values(bool converted) {
  GKeyFile *expected = accepted.get();
  for (const auto &group : owned(g_key_file_get_groups(expected, nullptr))) {
    if (group.starts_with("root.") || group.starts_with("ROOT.")) continue;
    REQUIRE(ptz_settings_has_custom_group(group.c_str()));
    for (const auto &key : owned(g_key_file_get_keys(expected, group.c_str(), nullptr, nullptr))) {
      const auto raw = owned(g_key_file_get_value(expected, group.c_str(), key.c_str(), nullptr));
      if (converted && !g_utf8_validate(raw->c_str(), -1, nullptr)) {
        g_key_file_set_value(expected, group.c_str(), key.c_str(), latin1_as_utf8(*raw).c_str());
      }
      const auto value = cleaned_value(expected, group, key);
      REQUIRE(!converted || value);
      REQUIRE(owned(ptz_settings_get_custom_string(group.c_str(), key.c_str())) == value);
    }
  }
}

}  // namespace

INTERPOSE(const KvConfigRecord *, kv_config_get, ()) {
  const auto *record = REAL(kv_config_get)();
  if (record != nullptr) keep(*record);
  return record;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  static const MemoryFile file;
  file.hold({reinterpret_cast<const char *>(data), size});
  std::size_t records_seen[2] = {};
  for (const bool converted : {false, true}) {
    accepted.reset(g_key_file_new());
    records = 0;
    const PTZSettingsFileExt files[] = {{file.path(), TRUE, converted}, {nullptr, FALSE, FALSE}};
    REQUIRE(ptz_settings_load_config_ext(files, nullptr));
    records_seen[converted] = records;
    require_values(converted);
  }
  REQUIRE(records_seen[0] == records_seen[1]);
  REQUIRE(take_log().empty());
  accepted.reset();
  return 0;
}
