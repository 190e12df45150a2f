// Validates a driver's configuration against the two version files of a system, all of arbitrary bytes, and takes tags
// apart. The input is the system's major, its minor and the driver's configuration.
#include <algorithm>
#include <cstring>

#include "file_calls.h"
#include "fuzz_target.h"
#include "ptz_firmware.h"
#include "text_files.h"

using namespace ptz_fuzz;

namespace {

void require_text_between(std::string_view text, char end) {
  REQUIRE(!text.empty() && text.size() <= 31);
  REQUIRE(text.find(end) == std::string_view::npos);
}

void require_tag(const std::string &tag) {
  PTZFirmwareMajorTag major;
  std::memset(&major, 'X', sizeof major);
  if (ptz_firmware_extract_majors(tag.c_str(), &major)) {
    require_text_between(major.name, '_');
    require_text_between(major.third, '-');
    require_text_between(major.fourth, '-');
    REQUIRE(tag.starts_with(std::string(major.name) + "_"));
    REQUIRE(tag.find("-" + std::string(major.third) + "-" + major.fourth) != std::string::npos);
    PTZFirmwareMinorTag minor{-7, -7, -7};
    REQUIRE(ptz_firmware_extract_minors(tag.c_str(), &minor));
    REQUIRE(minor.first == major.first && minor.second == major.second && minor.third == 0);
  }
}

std::string trimmed(std::string text) {
  std::replace(text.begin(), text.end(), '"', ' ');
  const Text value(g_strdup(text.c_str()));
  return g_strstrip(value.get());
}

std::string driver_tag(GKeyFile *key_file, const char *key) {
  const auto value = value_in(key_file, "general", key);
  return value ? trimmed(*value) : "none";
}

bool are_compatible_minors(const std::string &system, const std::string &driver) {
  if (system == driver) return true;
  PTZFirmwareMinorTag ours, theirs;
  return ptz_firmware_extract_minors(system.c_str(), &ours) && ptz_firmware_extract_minors(driver.c_str(), &theirs) &&
         theirs.first <= ours.first && theirs.second <= ours.second;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  static const MemoryFile major_file, minor_file, driver_file;
  static const ptz_test::Redirect major("/etc/ptz/firmware.major", major_file.path());
  static const ptz_test::Redirect minor("/etc/ptz/firmware.minor", minor_file.path());
  const auto parts = parts_of(data, size, 3);
  major_file.hold(parts[0]);
  minor_file.hold(parts[1]);
  driver_file.hold(parts[2]);

  const auto system_major = owned(ptz_firmware_get_file_string("/etc/ptz/firmware.major"));
  const auto system_minor = owned(ptz_firmware_get_file_string("/etc/ptz/firmware.minor"));
  REQUIRE(system_major && parts[0].starts_with(*system_major));
  REQUIRE(system_minor && parts[1].starts_with(*system_minor));
  REQUIRE(take_log().empty());

  GError *raw = nullptr;
  const bool usable = ptz_firmware_driver_upgrade_validate(driver_file.path(), &raw) != FALSE;
  const Error error(raw);
  const auto log = take_log();
  const auto driver = parse(parts[2]);
  if (!driver.complete) {
    REQUIRE(!usable && !error);
    REQUIRE(log.size() == 1 && log[0].starts_with("Failed to read " + std::string(driver_file.path()) + ": "));
    return 0;
  }
  const auto driver_major = driver_tag(driver.key_file.get(), "FirmwareMajor");
  const auto driver_minor = driver_tag(driver.key_file.get(), "FirmwareMinor");
  REQUIRE(usable == (*system_major == driver_major && are_compatible_minors(*system_minor, driver_minor)));
  REQUIRE(usable == (error == nullptr));
  REQUIRE(usable ? log.size() <= 1 : log.size() == 1);
  REQUIRE(usable || error->code == PTZ_FIRMWARE_ERROR_INCOMPATIBLE);
  for (const auto &tag : {*system_major, *system_minor, driver_major, driver_minor}) require_tag(tag);
  return 0;
}
