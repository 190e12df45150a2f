#include "recording_driver.h"

G_DEFINE_TYPE (RecordingDriver, recording_driver, PTZ_KIT_TYPE_DRIVER)

static gboolean
open_device (PTZKitDriver *self, GError **error)
{
  if (((RecordingDriver *) self)->fails_to_open) {
    g_set_error_literal (error, G_IO_ERROR, G_IO_ERROR_NOT_FOUND, "there is no device");
    return FALSE;
  }
  if (((RecordingDriver *) self)->fails_silently)
    return FALSE;
  ptz_kit_driver_set_axis (self, PTZ_KIT_AXIS_PAN, -17000, 17000, 12000, 100);
  ptz_kit_driver_set_axis (self, PTZ_KIT_AXIS_TILT, -2000, 9000, 9000, 200);
  return TRUE;
}

static gboolean
check_settings (PTZKitDriver *self, GError **error)
{
  const gchar *complaint = ((RecordingDriver *) self)->complaint;

  if (complaint != NULL)
    g_set_error_literal (error, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_INVALID_VALUE, complaint);
  return complaint == NULL;
}

static gboolean
started (PTZKitDriver *self, GError **error)
{
  ((RecordingDriver *) self)->starts++;
  if (((RecordingDriver *) self)->fails_to_serve)
    g_set_error_literal (error, G_IO_ERROR, G_IO_ERROR_NOT_CONNECTED, "there is no bus");
  return !((RecordingDriver *) self)->fails_to_serve;
}

static void
close_device (PTZKitDriver *self)
{
  ((RecordingDriver *) self)->closed = TRUE;
}

static void
update (PTZKitDriver *self)
{
  ((RecordingDriver *) self)->updates++;
}

static void
move (PTZKitDriver *self, const PTZKitMoveRequest *request, PTZKitReply *reply)
{
  RecordingDriver *driver = (RecordingDriver *) self;
  guint axis;

  driver->last_move = *request;
  driver->moves++;
  for (axis = 0; axis < PTZ_KIT_N_AXES; ++axis) {
    if ((request->axes & 1u << axis) != 0 && request->kind == PTZ_MOVE_ABSOLUTE)
      ptz_kit_driver_report_axis (self, axis, request->value[axis], driver->stays_moving);
  }
  ptz_kit_reply_ok (reply);
}

static void
answer_auxiliary (PTZKitReply *reply, gchar *name)
{
  const PTZKitAuxiliaryReply answer = { name, PTZ_ENABLE_ON };

  ptz_kit_reply_auxiliary (reply, &answer);
}

static void
auxiliary (PTZKitDriver *self, const PTZKitAuxiliaryRequest *request, PTZKitReply *reply)
{
  RecordingDriver *driver = (RecordingDriver *) self;
  const PTZKitSetPresetReply wrong = { 1 };
  const PTZKitAuxiliaryReply bad_state = { request->name, 12345 };
  gchar *text;

  if (g_str_equal (request->name, AUXILIARY_LATER)) {
    ptz_kit_reply_defer (reply);
    driver->deferred = g_object_ref (reply);
  } else if (g_str_equal (request->name, AUXILIARY_NEITHER)) {
    driver->deferred = g_object_ref (reply);
  } else if (g_str_equal (request->name, AUXILIARY_DROP)) {
    ptz_kit_reply_defer (reply);
  } else if (g_str_equal (request->name, AUXILIARY_TWICE)) {
    answer_auxiliary (reply, request->name);
    ptz_kit_reply_error (reply, PTZ_KIT_ERROR_CODE_DEVICE, "a second answer");
  } else if (g_str_equal (request->name, AUXILIARY_WRONG)) {
    ptz_kit_reply_set_preset (reply, &wrong);
  } else if (g_str_equal (request->name, AUXILIARY_OK)) {
    ptz_kit_reply_ok (reply);
  } else if (g_str_equal (request->name, AUXILIARY_BAD_STATE)) {
    ptz_kit_reply_auxiliary (reply, &bad_state);
  } else if (g_str_equal (request->name, AUXILIARY_NO_NAME)) {
    answer_auxiliary (reply, (gchar *) "");
  } else if (g_str_equal (request->name, AUXILIARY_STOP)) {
    ptz_kit_driver_stop (self);
    answer_auxiliary (reply, request->name);
  } else if (g_str_equal (request->name, AUXILIARY_UNREF)) {
    g_object_unref (self);
    answer_auxiliary (reply, request->name);
  } else if (g_str_equal (request->name, AUXILIARY_LONG)) {
    text = g_strnfill (10000, 'x');
    ptz_kit_reply_error_literal (reply, PTZ_KIT_ERROR_CODE_DEVICE, text);
    g_free (text);
  } else if (g_str_equal (request->name, AUXILIARY_PEER)) {
    ptz_kit_reply_error (reply, PTZ_KIT_ERROR_CODE_DEVICE, "%d %d", (gint) ptz_kit_reply_get_peer_pid (reply),
                         (gint) ptz_kit_reply_get_peer_uid (reply));
  } else {
    answer_auxiliary (reply, request->name);
  }
}

static void
recording_driver_class_init (RecordingDriverClass *klass)
{
  klass->parent_class.check_settings = check_settings;
  klass->parent_class.open = open_device;
  klass->parent_class.started = started;
  klass->parent_class.close = close_device;
  klass->parent_class.update = update;
  klass->parent_class.move = move;
  klass->parent_class.auxiliary = auxiliary;
}

static void
recording_driver_init (RecordingDriver *self)
{
  (void) self;
}

typedef RecordingDriver SilentDriver;
typedef RecordingDriverClass SilentDriverClass;
G_DEFINE_TYPE (SilentDriver, silent_driver, PTZ_KIT_TYPE_DRIVER)

static void
silent_driver_class_init (SilentDriverClass *klass)
{
  klass->parent_class.update = update;
}

static void
silent_driver_init (SilentDriver *self)
{
  guint axis;

  for (axis = 0; axis < PTZ_KIT_N_AXES; ++axis)
    ptz_kit_driver_set_axis (PTZ_KIT_DRIVER (self), axis, 0, 100, 10, 50);
}
