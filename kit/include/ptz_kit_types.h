/* ptz_kit_types.h - what all headers of the kit share: the export macro, the errors, the axes. */
#pragma once

#include <ptz.h>

#if defined(__GNUC__)
#define PTZ_KIT_API __attribute__ ((visibility ("default")))
#else
#define PTZ_KIT_API
#endif

G_BEGIN_DECLS

/**
 * PTZKitAxis:
 * @PTZ_KIT_AXIS_PAN: pan; hundredths of a degree, to the right positive
 * @PTZ_KIT_AXIS_TILT: tilt; hundredths of a degree, upwards positive
 * @PTZ_KIT_AXIS_ZOOM: zoom; hundredths of a magnification
 *
 * An axis. Arrays per axis are in this order.
 *
 * Since: 0.1
 */
typedef enum {
  PTZ_KIT_AXIS_PAN = 0,
  PTZ_KIT_AXIS_TILT = 1,
  PTZ_KIT_AXIS_ZOOM = 2
} PTZKitAxis;

/**
 * PTZ_KIT_N_AXES:
 *
 * The number of axes.
 *
 * Since: 0.1
 */
#define PTZ_KIT_N_AXES 3

/**
 * PTZ_KIT_ERROR:
 *
 * The error domain of the kit, with the codes of #PTZKitError.
 *
 * Since: 0.1
 */
#define PTZ_KIT_ERROR (ptz_kit_error_quark ())

/**
 * PTZKitError:
 * @PTZ_KIT_ERROR_MALFORMED: a body is not the message that it should be
 * @PTZ_KIT_ERROR_OUT_OF_RANGE: a field has a value that it cannot have
 * @PTZ_KIT_ERROR_TOO_LONG: a message does not fit into one frame
 * @PTZ_KIT_ERROR_BAD_TEXT: a text to be sent is not UTF-8
 * @PTZ_KIT_ERROR_NOT_CONNECTED: no driver is connected; the request was not sent
 * @PTZ_KIT_ERROR_LOST: the connection ended before the reply; the driver may have obeyed the request
 * @PTZ_KIT_ERROR_TIMED_OUT: no reply came before the deadline
 * @PTZ_KIT_ERROR_BUSY: too many requests are waiting for this driver; the request was not sent
 *
 * Since: 0.1
 */
typedef enum {
  PTZ_KIT_ERROR_MALFORMED,
  PTZ_KIT_ERROR_OUT_OF_RANGE,
  PTZ_KIT_ERROR_TOO_LONG,
  PTZ_KIT_ERROR_BAD_TEXT,
  PTZ_KIT_ERROR_NOT_CONNECTED,
  PTZ_KIT_ERROR_LOST,
  PTZ_KIT_ERROR_TIMED_OUT,
  PTZ_KIT_ERROR_BUSY
} PTZKitError;

/**
 * ptz_kit_error_quark:
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: the quark of `PTZ_KIT_ERROR`
 */
PTZ_KIT_API GQuark ptz_kit_error_quark (void);

G_END_DECLS
