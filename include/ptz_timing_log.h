/* ptz_timing_log.h - measurements of a running device: how long requests, moves and replies take, and counters.
 *
 * Records are groups of the status store, for a separate tool to read. A timing group holds when a measurement was
 * started and stopped, and by which processes, whose numbers are kept in 16 bits. It must be made with log_time_reset()
 * once; then it takes one measurement, until it is reset again. A time that was taken with 0 nanoseconds counts as none.
 *
 * A counter group holds a counter and the process that owns it.
 *
 * Failures of the status store are silent: the record is simply not written. The same goes for a missing name.
 */
#pragma once

#include "ptz_api.h"

G_BEGIN_DECLS

/**
 * log_time_reset:
 * @group_name: (nullable): a timing group
 *
 * Makes the group where there is none, and clears it.
 *
 * Thread: any.
 */
PTZ_API void log_time_reset (const gchar *group_name);

/**
 * log_time_start:
 * @group_name: (nullable): a timing group
 *
 * Starts a measurement by the monotonic clock, unless one was started already.
 *
 * Thread: any.
 */
PTZ_API void log_time_start (const gchar *group_name);

/**
 * log_time_stop:
 * @group_name: (nullable): a timing group
 * @other_process: `FALSE` to stop only what this process has started, `TRUE` to stop only what another has
 *
 * Stops the measurement that is running.
 *
 * Thread: any.
 */
PTZ_API void log_time_stop (const gchar *group_name, gboolean other_process);

/**
 * log_time_start_process_timer:
 * @group_name: (nullable): a timing group
 *
 * Starts a measurement of the processor time that this process uses, unless one was started already.
 *
 * Thread: any.
 */
PTZ_API void log_time_start_process_timer (const gchar *group_name);

/**
 * log_time_stop_process_timer:
 * @group_name: (nullable): a timing group
 *
 * Stops the measurement that is running, whoever started it. The time is that of the process with the number that the
 * starter has in 16 bits, or that of this process where there is none.
 *
 * Thread: any.
 */
PTZ_API void log_time_stop_process_timer (const gchar *group_name);

/**
 * log_time_start_driver_req:
 * @driver: a driver number; its last decimal digit, 1 or 2, selects the group, any other records nothing
 *
 * As log_time_start() on "ptzdt_driver_req_d1" or "ptzdt_driver_req_d2".
 *
 * Thread: any.
 */
PTZ_API void log_time_start_driver_req (gint32 driver);

/**
 * log_time_stop_driver_req:
 * @driver: a driver number, as in log_time_start_driver_req()
 *
 * As log_time_stop() of what this process has started with log_time_start_driver_req().
 *
 * Thread: any.
 */
PTZ_API void log_time_stop_driver_req (gint32 driver);

/**
 * log_time_start_driver_move:
 * @driver: a driver number, as in log_time_start_driver_req()
 *
 * As log_time_start() on "ptzdt_driver_move_d1" or "ptzdt_driver_move_d2".
 *
 * Thread: any.
 */
PTZ_API void log_time_start_driver_move (gint32 driver);

/**
 * log_time_stop_driver_move:
 * @driver: a driver number, as in log_time_start_driver_req()
 *
 * As log_time_stop() of what this process has started with log_time_start_driver_move().
 *
 * Thread: any.
 */
PTZ_API void log_time_stop_driver_move (gint32 driver);

/**
 * log_time_start_driver_reply:
 * @driver: a driver number, as in log_time_start_driver_req()
 *
 * As log_time_start() on "ptzdt_driver_reply_d1" or "ptzdt_driver_reply_d2".
 *
 * Thread: any.
 */
PTZ_API void log_time_start_driver_reply (gint32 driver);

/**
 * log_time_stop_driver_reply:
 * @driver: a driver number, as in log_time_start_driver_req()
 *
 * As log_time_stop() of what this process has started with log_time_start_driver_reply().
 *
 * Thread: any.
 */
PTZ_API void log_time_stop_driver_reply (gint32 driver);

/**
 * log_time_start_process_timer_driver:
 * @driver: a driver number, as in log_time_start_driver_req()
 *
 * As log_time_start_process_timer() on "ptzdt_driver_process_d1" or "ptzdt_driver_process_d2".
 *
 * Thread: any.
 */
PTZ_API void log_time_start_process_timer_driver (gint32 driver);

/**
 * log_counter_reset:
 * @driver: a driver number
 * @prefix: (nullable): the counter's name, which the driver number is appended to
 *
 * Makes the counter, sets it to 0 and takes it for this process. Where counter 1 exists already and the setting
 * "NbrOfDrivers" of the group "PTZDriverManager" is 2 or more, counter 2 is taken in its place, if nobody has it yet.
 *
 * Thread: any.
 */
PTZ_API void log_counter_reset (gint32 driver, const gchar *prefix);

/**
 * log_counter_update:
 * @driver: a driver number
 * @prefix: (nullable): the counter's name, which the driver number is appended to
 * @value: the new value
 *
 * Sets the counter where this process owns it. Where it asks for counter 1, owns counter 2 and "NbrOfDrivers" is 2 or
 * more, counter 2 is set.
 *
 * Thread: any.
 */
PTZ_API void log_counter_update (gint32 driver, const gchar *prefix, guint32 value);

G_END_DECLS
