// Loads one or two files of arbitrary bytes into the shell store, and holds it against a key file that GLib makes of
// the same text.
#include "fuzz_target.h"
#include "ptz_settings.h"
#include "text_files.h"

using namespace ptz_fuzz;

namespace {

std::string as_utf8(std::string_view text) {
  const bool valid = g_utf8_validate_len(text.data(), text.size(), nullptr) != FALSE;
  return valid ? std::string(text) : latin1_as_utf8(text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  static const MemoryFile first, second;
  const auto parts = parts_of(data, size, 2);
  first.hold(parts[0]);
  second.hold(parts[1]);
  const PTZSettingsFile files[] = {{first.path(), FALSE}, {second.path(), TRUE}, {nullptr, FALSE}};
  const bool loaded = ptz_settings_shell_load_config(files) != FALSE;
  const std::string group = "FAKESECTION";
  const auto expected = parse("[" + group + "]\n" + as_utf8(parts[0]) + "\n" + as_utf8(parts[1]) + "\n");
  require_same_load(loaded, expected);
  for (const auto &key : owned(g_key_file_get_keys(expected.key_file.get(), group.c_str(), nullptr, nullptr))) {
    const auto value = loaded ? cleaned_value(expected.key_file.get(), group, key) : std::nullopt;
    REQUIRE(owned(ptz_settings_shell_get_string("%s", key.c_str())) == value);
    const bool filled = value && !value->empty();
    gboolean truth = -7;
    REQUIRE(ptz_settings_shell_get_boolean(&truth, "%s", key.c_str()) == static_cast<gboolean>(filled));
    REQUIRE(truth == (filled ? std::string_view("YyTt").find(value->front()) != std::string_view::npos : -7));
  }
  REQUIRE(take_log().empty());
  return 0;
}
