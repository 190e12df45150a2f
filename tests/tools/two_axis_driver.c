/* tests/tools/two_axis_driver.c - a driver with pan and tilt that moves at once. The environment variable
 * TWO_AXIS_DRIVER_ZOOM names the answers that speak of a zoom, which it does not announce: position, status, limits,
 * speed, all. TWO_AXIS_DRIVER_NAME is the name of the driver. */
#include <ptz_kit.h>

typedef PTZKitDriver TwoAxisDriver;
typedef PTZKitDriverClass TwoAxisDriverClass;

GType two_axis_driver_get_type(void);
G_DEFINE_TYPE(TwoAxisDriver, two_axis_driver, PTZ_KIT_TYPE_DRIVER)

static gboolean speaks_of_zoom(const gchar *answer) {
  const gchar *named = g_getenv("TWO_AXIS_DRIVER_ZOOM");

  return g_strcmp0(named, answer) == 0 || g_strcmp0(named, "all") == 0;
}

static gboolean open_device(PTZKitDriver *self, GError **error) {
  (void)error;
  ptz_kit_driver_set_axis(self, PTZ_KIT_AXIS_PAN, -17000, 17000, 12000, 0);
  ptz_kit_driver_set_axis(self, PTZ_KIT_AXIS_TILT, -2000, 9000, 9000, 0);
  if (speaks_of_zoom("limits")) {
    ptz_kit_driver_set_axis(self, PTZ_KIT_AXIS_ZOOM, 100, 3000, 1000, 100);
    ptz_kit_driver_remove_capabilities(
        self,
        PTZ_DRIVER_MOVE_CAPABILITIES_ZOOM | PTZ_DRIVER_MOVE_CAPABILITIES_RELZOOM |
            PTZ_DRIVER_MOVE_CAPABILITIES_CONTZOOM | PTZ_DRIVER_MOVE_CAPABILITIES_ZOOMMAG,
        0);
  }
  return TRUE;
}

static void move(PTZKitDriver *self, const PTZKitMoveRequest *request, PTZKitReply *reply) {
  for (guint axis = 0; axis < PTZ_KIT_AXIS_ZOOM; ++axis) {
    gint32 target = request->value[axis];

    if ((request->axes & 1u << axis) == 0 || request->kind == PTZ_MOVE_CONTINUOUS) continue;
    if (request->kind == PTZ_MOVE_RELATIVE) target += ptz_kit_driver_get_position(self, axis);
    ptz_kit_driver_report_axis(self, axis, target, FALSE);
  }
  ptz_kit_reply_ok(reply);
}

static void query_position(PTZKitDriver *self, PTZKitReply *reply) {
  PTZKitQueryPositionReply answer = {{0, 0, 0}, {PTZ_MOVE_STATUS_IDLE, PTZ_MOVE_STATUS_IDLE, PTZ_MOVE_STATUS_IDLE}};
  static gint32 wandering;

  for (guint axis = 0; axis < PTZ_KIT_AXIS_ZOOM; ++axis) answer.position[axis] = ptz_kit_driver_get_position(self, axis);
  if (speaks_of_zoom("position")) answer.position[PTZ_KIT_AXIS_ZOOM] = 5000 + ++wandering;
  if (speaks_of_zoom("status")) answer.status[PTZ_KIT_AXIS_ZOOM] = PTZ_MOVE_STATUS_MOVING;
  ptz_kit_reply_query_position(reply, &answer);
}

static void query_speed(PTZKitDriver *self, PTZKitReply *reply) {
  PTZKitQuerySpeedReply answer = {{0, 0, 0}, {12000, 9000, 0}};

  (void)self;
  if (speaks_of_zoom("speed")) answer.maximum[PTZ_KIT_AXIS_ZOOM] = 1000;
  ptz_kit_reply_query_speed(reply, &answer);
}

static void two_axis_driver_class_init(TwoAxisDriverClass *klass) {
  klass->open = open_device;
  klass->move = move;
  klass->query_position = query_position;
  klass->query_speed = query_speed;
}

static void two_axis_driver_init(TwoAxisDriver *self) { (void)self; }

int main(int argc, char **argv) {
  const gchar *name = g_getenv("TWO_AXIS_DRIVER_NAME");
  PTZKitDriver *driver =
      g_object_new(two_axis_driver_get_type(), "name", name != NULL ? name : "two-axis-driver", NULL);
  const gint status = ptz_kit_driver_run(driver, argc, argv);

  g_object_unref(driver);
  return status;
}
