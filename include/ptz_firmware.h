/* ptz_firmware.h - is a driver built for the framework that this device runs?
 *
 * The device states its version in two one-line files, /etc/ptz/firmware.major and /etc/ptz/firmware.minor; a driver
 * states the one that it was built against in its own key file, group "general", keys "FirmwareMajor" and
 * "FirmwareMinor". Majors must be equal; a driver's minor may be older than the system's, but not newer.
 */
#pragma once

#include "ptz_api.h"

G_BEGIN_DECLS

/**
 * PTZFirmwareMajorTag:
 * @name: the text up to the first "_"
 * @first: the number after the "_"
 * @second: the number after "-libptz_"
 * @third: the text up to the next "-"
 * @fourth: the text up to the next "-"
 *
 * A major tag in its parts, such as "camera_7-libptz_2-stable-a". Texts are cut at 31 characters.
 */
typedef struct {
  gchar name[32];
  gint32 first;
  gint32 second;
  gchar third[32];
  gchar fourth[32];
} PTZFirmwareMajorTag;

/**
 * PTZFirmwareMinorTag:
 * @first: the number after the first "_"
 * @second: the number after "-libptz_"
 * @third: always 0
 *
 * A minor tag in its parts, such as "camera_3-libptz_5".
 */
typedef struct {
  gint32 first;
  gint32 second;
  gint32 third;
} PTZFirmwareMinorTag;

/**
 * PTZ_FIRMWARE_ERROR:
 *
 * The domain of every validation failure.
 */
#define PTZ_FIRMWARE_ERROR (ptz_firmware_error_quark ())

/**
 * PTZFirmwareError:
 * @PTZ_FIRMWARE_ERROR_INCOMPATIBLE: the driver does not fit the system, or a tag has no sense
 *
 * The codes of validation failures.
 */
typedef enum {
  PTZ_FIRMWARE_ERROR_INCOMPATIBLE = 118
} PTZFirmwareError;

/**
 * ptz_firmware_error_quark:
 *
 * Thread: any.
 *
 * Returns: the quark of "ptz_firmware_error_quark"
 */
PTZ_API GQuark ptz_firmware_error_quark (void);

/**
 * ptz_firmware_extract_majors:
 * @buf: a major tag; borrowed
 * @tags: (out caller-allocates): its parts
 *
 * Thread: any.
 *
 * Returns: `TRUE` when all five parts were read
 */
PTZ_API gboolean ptz_firmware_extract_majors (const gchar *buf, PTZFirmwareMajorTag *tags);

/**
 * ptz_firmware_extract_minors:
 * @buf: a minor tag; borrowed
 * @tags: (out caller-allocates): its parts
 *
 * Thread: any.
 *
 * Returns: `TRUE` when both numbers were read
 */
PTZ_API gboolean ptz_firmware_extract_minors (const gchar *buf, PTZFirmwareMinorTag *tags);

/**
 * ptz_firmware_validate_majors:
 * @systemtags: the system's major tag; borrowed
 * @drivertags: the driver's major tag; borrowed
 * @err: return location for an error; must not be `NULL`
 *
 * The tags are compared as whole texts. A difference is also logged.
 *
 * Thread: any.
 *
 * Returns: `TRUE` when they are equal; `FALSE` with @err set
 */
PTZ_API gboolean ptz_firmware_validate_majors (const gchar *systemtags, const gchar *drivertags, GError **err);

/**
 * ptz_firmware_validate_minors:
 * @systemtags: the system's minor tag; borrowed
 * @drivertags: the driver's minor tag; borrowed
 * @err: return location for an error; must not be `NULL`
 *
 * Equal texts are compatible; otherwise neither number of the driver may be above the system's. An older driver and
 * every failure are also logged.
 *
 * Thread: any.
 *
 * Returns: `TRUE` when they are compatible; `FALSE` with @err set
 */
PTZ_API gboolean ptz_firmware_validate_minors (const gchar *systemtags, const gchar *drivertags, GError **err);

/**
 * ptz_firmware_get_file_string:
 * @file_path: (type filename): a one-line file of the system. A missing one ends the process: the device's image is
 *   not whole
 *
 * Thread: any.
 *
 * Returns: (transfer full) (nullable): its contents without white space at the end; `NULL` when it cannot be read
 */
PTZ_API gchar *ptz_firmware_get_file_string (const gchar *file_path);

/**
 * ptz_firmware_get_g_key_string:
 * @key_file: (nullable): a key file; borrowed
 * @group_name: a group in it
 * @key: a key in the group
 *
 * Thread: the one that uses @key_file.
 *
 * Returns: (transfer full): the value, with double quotes turned into spaces and white space removed at both ends;
 *   "none" where there is none
 */
PTZ_API gchar *ptz_firmware_get_g_key_string (GKeyFile *key_file, const gchar *group_name, const gchar *key);

/**
 * ptz_firmware_get_key_file:
 * @driver_conf_file: (type filename): a driver's configuration
 *
 * Thread: any.
 *
 * Returns: (transfer full) (nullable): the loaded key file, to be released with g_key_file_unref(); `NULL` when there is
 *   none or it cannot be read
 */
PTZ_API GKeyFile *ptz_firmware_get_key_file (const gchar *driver_conf_file);

/**
 * ptz_firmware_driver_upgrade_validate:
 * @driver_conf_file: (type filename): a driver's configuration
 * @err: return location for an error; must not be `NULL`. It stays unset where a text to compare is missing
 *
 * The whole check. A device without its own two version files ends the process.
 *
 * Thread: any; blocks on the files.
 *
 * Returns: `TRUE` when the driver may be used
 */
PTZ_API gboolean ptz_firmware_driver_upgrade_validate (const gchar *driver_conf_file, GError **err);

G_END_DECLS
