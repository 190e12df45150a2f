#include "ptz_firmware.h"

#include <cstdio>

#include "base/check.h"
#include "base/handles.h"
#include "config/key_file_value.h"
#include "config/whole_key_file.h"

namespace {

constexpr char system_major_path[] = "/etc/ptz/firmware.major";
constexpr char system_minor_path[] = "/etc/ptz/firmware.minor";
constexpr char driver_group[] = "general";
constexpr char driver_major_key[] = "FirmwareMajor";
constexpr char driver_minor_key[] = "FirmwareMinor";
constexpr char no_tag[] = "none";

// The message goes to the log as it goes to the caller.
template <typename... Tags>
gboolean incompatible(int priority, GError **err, const char *format, Tags... tags) {
  g_set_error(err, PTZ_FIRMWARE_ERROR, PTZ_FIRMWARE_ERROR_INCOMPATIBLE, format, tags...);
  syslog(priority, format, tags...);
  return FALSE;
}

}  // namespace

GQuark ptz_firmware_error_quark(void) { return g_quark_from_static_string("ptz_firmware_error_quark"); }

gboolean ptz_firmware_extract_majors(const gchar *buf, PTZFirmwareMajorTag *tags) {
  g_return_val_if_fail(buf != NULL, FALSE);
  g_return_val_if_fail(tags != NULL, FALSE);
  const int fields = std::sscanf(buf, "%31[^_]_%d-libptz_%d-%31[^-]-%31[^-]", tags->name, &tags->first, &tags->second,
                                 tags->third, tags->fourth);
  return fields == 5 ? TRUE : FALSE;
}

gboolean ptz_firmware_extract_minors(const gchar *buf, PTZFirmwareMinorTag *tags) {
  g_return_val_if_fail(buf != NULL, FALSE);
  g_return_val_if_fail(tags != NULL, FALSE);
  tags->third = 0;
  return std::sscanf(buf, "%*[^_]_%d-libptz_%d", &tags->first, &tags->second) == 2 ? TRUE : FALSE;
}

gboolean ptz_firmware_validate_majors(const gchar *systemtags, const gchar *drivertags, GError **err) {
  g_return_val_if_fail(systemtags != NULL, FALSE);
  g_return_val_if_fail(drivertags != NULL, FALSE);
  g_return_val_if_fail(err != NULL, FALSE);
  if (g_str_equal(systemtags, drivertags)) return TRUE;
  return incompatible(LOG_WARNING, err, "PTZ major doesn't match: driver (%s), system (%s)", drivertags, systemtags);
}

gboolean ptz_firmware_validate_minors(const gchar *systemtags, const gchar *drivertags, GError **err) {
  g_return_val_if_fail(systemtags != NULL, FALSE);
  g_return_val_if_fail(drivertags != NULL, FALSE);
  g_return_val_if_fail(err != NULL, FALSE);
  if (g_str_equal(systemtags, drivertags)) return TRUE;
  PTZFirmwareMinorTag system = {}, driver = {};
  if (!ptz_firmware_extract_minors(systemtags, &system)) {
    return incompatible(LOG_WARNING, err, "PTZ system minor invalid: %s", systemtags);
  }
  if (!ptz_firmware_extract_minors(drivertags, &driver)) {
    return incompatible(LOG_ERR, err, "PTZ driver minor invalid: %s", drivertags);
  }
  if (driver.first > system.first || driver.second > system.second) {
    return incompatible(LOG_WARNING, err, "PTZ minor doesn't match: driver (%s), system (%s)", drivertags, systemtags);
  }
  if (driver.first != system.first || driver.second != system.second) {
    syslog(LOG_WARNING, "PTZ driver minor (%s) is older than system minor (%s)", drivertags, systemtags);
  }
  return TRUE;
}

gchar *ptz_firmware_get_file_string(const gchar *file_path) {
  g_return_val_if_fail(file_path != NULL, NULL);
  if (!g_file_test(file_path, G_FILE_TEST_EXISTS)) {
    log_func(LOG_ERR, "File does not exist: %s", file_path);
    assert_not_reached_in("ptz_firmware.c");
  }
  ptz::Text contents;
  ptz::Error error;
  struct stat status = {};
  if (stat(file_path, &status) == 0 && !ptz::has_end(status)) {
    ptz::set_not_a_file(ptz::out(error));
  } else {
    g_file_get_contents(file_path, ptz::out(contents), nullptr, ptz::out(error));
  }
  if (contents == nullptr) {
    syslog(LOG_ERR, "Failed to read %s: %s", file_path, ptz::message_of(error, ""));
    return nullptr;
  }
  g_strchomp(contents.get());
  return contents.release();
}

gchar *ptz_firmware_get_g_key_string(GKeyFile *key_file, const gchar *group_name, const gchar *key) {
  g_return_val_if_fail(group_name != NULL, NULL);
  g_return_val_if_fail(key != NULL, NULL);
  ptz::Text value;
  if (key_file != nullptr) value = ptz::key_file_value(key_file, group_name, key);
  if (value == nullptr) return g_strdup(no_tag);
  g_strstrip(g_strdelimit(value.get(), "\"", ' '));
  return value.release();
}

GKeyFile *ptz_firmware_get_key_file(const gchar *driver_conf_file) {
  g_return_val_if_fail(driver_conf_file != NULL, NULL);
  if (!g_file_test(driver_conf_file, G_FILE_TEST_EXISTS)) return nullptr;
  ptz::KeyFile key_file(g_key_file_new());
  ptz::Error error;
  if (!ptz::load_key_file(key_file.get(), driver_conf_file, ptz::out(error))) {
    syslog(LOG_ERR, "Failed to read %s: %s", driver_conf_file, ptz::message_of(error, ""));
    return nullptr;
  }
  return key_file.release();
}

gboolean ptz_firmware_driver_upgrade_validate(const gchar *driver_conf_file, GError **err) {
  g_return_val_if_fail(driver_conf_file != NULL, FALSE);
  g_return_val_if_fail(err != NULL, FALSE);
  const ptz::Text system_major(ptz_firmware_get_file_string(system_major_path));
  const ptz::Text system_minor(ptz_firmware_get_file_string(system_minor_path));
  const ptz::KeyFile key_file(ptz_firmware_get_key_file(driver_conf_file));
  if (key_file == nullptr) return FALSE;
  const ptz::Text driver_major(ptz_firmware_get_g_key_string(key_file.get(), driver_group, driver_major_key));
  const ptz::Text driver_minor(ptz_firmware_get_g_key_string(key_file.get(), driver_group, driver_minor_key));
  if (system_major == nullptr || system_minor == nullptr || driver_major == nullptr || driver_minor == nullptr) {
    return FALSE;
  }
  return ptz_firmware_validate_majors(system_major.get(), driver_major.get(), err) &&
         ptz_firmware_validate_minors(system_minor.get(), driver_minor.get(), err);
}
