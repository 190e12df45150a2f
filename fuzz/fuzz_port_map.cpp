// Looks numbers up in a mapping file of arbitrary bytes, and holds them against a key file that GLib makes of them.
//
// The module keeps what it has loaded until the process ends. Compiled in here, it can be made to forget.
#include "config/ptz_port_index.cpp"

#include "file_calls.h"
#include "fuzz_target.h"
#include "text_files.h"

using namespace ptz_fuzz;

namespace {

struct Direction {
  gint32 (*translate)(gint32 number);
  const char *group;
};
constexpr Direction directions[] = {
    {ptz_port_index_comport2portmanager, "Comport2Portmanager"},
    {ptz_port_index_portmanager2comport, "Portmanager2Comport"},
    {ptz_port_index_comport2serialport, "Comport2Serialport"},
    {ptz_port_index_serialport2comport, "Serialport2Comport"},
};
constexpr gint32 numbers[] = {0, 1, 2, 7, 10, -1, -3, G_MAXINT32, G_MININT32};

gint32 expected_of(GKeyFile *key_file, const char *group, gint32 number) {
  if (g_key_file_has_key(key_file, group, "NoManagers", nullptr)) return number;
  GError *raw = nullptr;
  const gint target = g_key_file_get_integer(key_file, group, std::to_string(number).c_str(), &raw);
  const Error error(raw);
  return error ? -1 : target;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  static const MemoryFile file;
  static const ptz_test::Redirect redirect("/usr/share/ptz/port_mapping.conf", file.path());
  const std::string_view text(reinterpret_cast<const char *>(data), size);
  file.hold(text);
  const auto expected = parse(text);
  for (const auto &[translate, group] : directions) {
    for (const gint32 number : numbers) {
      const gint32 target = translate(number);
      const auto log = take_log();
      REQUIRE(log.size() == (expected.complete ? 0 : 1));
      REQUIRE(expected.complete || log[0].starts_with("ptz_port_index_load_mapping_file: Failed to load mappings file "
                                                      "/usr/share/ptz/port_mapping.conf: "));
      REQUIRE(target == (expected.complete ? expected_of(expected.key_file.get(), group, number) : -1));
      if (!expected.complete) break;  // every call tries again
    }
  }
  REQUIRE((mappings != nullptr) == expected.complete);
  if (mappings != nullptr) g_key_file_unref(std::exchange(mappings, nullptr));
  return 0;
}
