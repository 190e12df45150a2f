#include "complete_driver.h"

typedef PTZKitDriver CompleteDriver;
typedef PTZKitDriverClass CompleteDriverClass;
G_DEFINE_TYPE (CompleteDriver, complete_driver, PTZ_KIT_TYPE_DRIVER)

gint32 complete_driver_command;

static void
note (PTZKitReply *reply)
{
  complete_driver_command = ptz_kit_reply_get_command (reply);
  ptz_kit_reply_error (reply, PTZ_KIT_ERROR_CODE_DEVICE, "%d", complete_driver_command);
}

#define WITH_REQUEST(name, Request) \
  static void name (PTZKitDriver *self, const Request *request, PTZKitReply *reply) \
  { \
    (void) self; \
    (void) request; \
    note (reply); \
  }
#define WITHOUT_REQUEST(name) \
  static void name (PTZKitDriver *self, PTZKitReply *reply) \
  { \
    (void) self; \
    note (reply); \
  }

WITH_REQUEST (on_set_preset, PTZKitSetPresetRequest)
WITH_REQUEST (on_set_device_preset, PTZKitSetDevicePresetRequest)
WITHOUT_REQUEST (on_get_device_presets)
WITH_REQUEST (on_goto_preset, PTZKitGotoPresetRequest)
WITH_REQUEST (on_goto_device_preset, PTZKitGotoDevicePresetRequest)
WITH_REQUEST (on_move, PTZKitMoveRequest)
WITHOUT_REQUEST (on_stop)
WITH_REQUEST (on_field_angles, PTZKitFieldAnglesRequest)
WITHOUT_REQUEST (on_unregister)
WITH_REQUEST (on_auxiliary, PTZKitAuxiliaryRequest)
WITHOUT_REQUEST (on_get_auxiliary)
WITH_REQUEST (on_osd_menu, PTZKitOsdMenuRequest)
WITHOUT_REQUEST (on_query_speed)
WITHOUT_REQUEST (on_query_position)
WITHOUT_REQUEST (on_query_zoomdelim)
WITH_REQUEST (on_change_port, PTZKitChangePortRequest)
WITH_REQUEST (on_move_command, PTZKitMoveCommandRequest)
WITH_REQUEST (on_area_zoom, PTZKitAreaZoomRequest)
WITH_REQUEST (on_image, PTZKitImageRequest)
WITH_REQUEST (on_default_home_preset, PTZKitDefaultHomePresetRequest)
WITH_REQUEST (on_get_driver_property, PTZKitGetDriverPropertyRequest)
WITH_REQUEST (on_get_preset_position, PTZKitGetPresetPositionRequest)
WITHOUT_REQUEST (on_query_attributes)
WITHOUT_REQUEST (on_get_driver_parameters)

static void
complete_driver_class_init (CompleteDriverClass *klass)
{
  klass->set_preset = on_set_preset;
  klass->set_device_preset = on_set_device_preset;
  klass->get_device_presets = on_get_device_presets;
  klass->goto_preset = on_goto_preset;
  klass->goto_device_preset = on_goto_device_preset;
  klass->move = on_move;
  klass->stop = on_stop;
  klass->field_angles = on_field_angles;
  klass->unregister = on_unregister;
  klass->auxiliary = on_auxiliary;
  klass->get_auxiliary = on_get_auxiliary;
  klass->osd_menu = on_osd_menu;
  klass->query_speed = on_query_speed;
  klass->query_position = on_query_position;
  klass->query_zoomdelim = on_query_zoomdelim;
  klass->change_port = on_change_port;
  klass->move_command = on_move_command;
  klass->area_zoom = on_area_zoom;
  klass->image = on_image;
  klass->default_home_preset = on_default_home_preset;
  klass->get_driver_property = on_get_driver_property;
  klass->get_preset_position = on_get_preset_position;
  klass->query_attributes = on_query_attributes;
  klass->get_driver_parameters = on_get_driver_parameters;
}

static void
complete_driver_init (CompleteDriver *self)
{
  ptz_kit_driver_set_axis (self, PTZ_KIT_AXIS_PAN, -17000, 17000, 12000, 0);
  ptz_kit_driver_set_axis (self, PTZ_KIT_AXIS_TILT, -9000, 9000, 9000, 0);
  ptz_kit_driver_set_axis (self, PTZ_KIT_AXIS_ZOOM, 0, 3000, 1000, 100);
}
