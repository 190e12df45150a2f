/* kit-driver - a driver of a head with pan, tilt and a wiper, on the kit. The head is simulated: a real driver sends an
 * order to its device in move(), and reports what the device says. */
#include <ptz_kit.h>

typedef struct {
  gint64 begin_us; /* of the motion */
  gdouble begin, target, speed;
} Motion;

typedef struct {
  PTZKitDriver parent_instance;
  Motion motions[2];
  gboolean wiper;
} KitDriver;

typedef struct {
  PTZKitDriverClass parent_class;
} KitDriverClass;

G_DEFINE_TYPE (KitDriver, kit_driver, PTZ_KIT_TYPE_DRIVER)

static const struct {
  const gchar *name;
  gint32 minimum, maximum, max_speed;
} axes[] = { { "Pan", -17000, 17000, 12000 }, { "Tilt", -2000, 9000, 9000 } };

/* Where the axis is now, in hundredths of a degree. */
static gdouble
place_of (const Motion *motion, gboolean *moving)
{
  const gdouble seconds = (gdouble) (g_get_monotonic_time () - motion->begin_us) / G_USEC_PER_SEC;
  const gdouble way = motion->target - motion->begin;

  *moving = seconds * motion->speed < ABS (way);
  return *moving ? motion->begin + (way > 0 ? 1 : -1) * seconds * motion->speed : motion->target;
}

static void
report (PTZKitDriver *self, PTZKitAxis axis)
{
  gboolean moving;
  const gdouble place = place_of (&((KitDriver *) self)->motions[axis], &moving);

  ptz_kit_driver_report_axis (self, axis, (gint32) (place + (place < 0 ? -0.5 : 0.5)), moving);
}

static void
update (PTZKitDriver *self)
{
  for (guint axis = 0; axis < G_N_ELEMENTS (axes); ++axis)
    report (self, axis);
}

static gboolean
open_device (PTZKitDriver *self, GError **error)
{
  const gint64 percent = ptz_kit_driver_get_integer (self, "Head", "SpeedPercent");

  (void) error;
  for (guint axis = 0; axis < G_N_ELEMENTS (axes); ++axis)
    ptz_kit_driver_set_axis (self, axis, axes[axis].minimum, axes[axis].maximum,
                             (gint32) (axes[axis].max_speed * percent / 100), 0);
  return TRUE;
}

static void
move (PTZKitDriver *self, const PTZKitMoveRequest *request, PTZKitReply *reply)
{
  const gint64 percent = ptz_kit_driver_get_integer (self, "Head", "SpeedPercent");

  for (guint axis = 0; axis < G_N_ELEMENTS (axes); ++axis) {
    Motion *motion = &((KitDriver *) self)->motions[axis];
    const gint32 value = request->value[axis];
    gboolean moving;

    if ((request->axes & 1u << axis) == 0)
      continue;
    motion->begin = place_of (motion, &moving);
    motion->begin_us = g_get_monotonic_time ();
    motion->speed = axes[axis].max_speed * percent / 100.0 * request->speed / 100.0;
    if (request->kind == PTZ_MOVE_ABSOLUTE) {
      motion->target = value;
    } else if (request->kind == PTZ_MOVE_RELATIVE) {
      motion->target = ptz_kit_driver_get_position (self, axis) + value;
    } else {
      motion->target = value == 0 ? motion->begin : value > 0 ? axes[axis].maximum : axes[axis].minimum;
      motion->speed = ABS (value) * request->speed / 100.0;
    }
    report (self, axis);
  }
  ptz_kit_reply_ok (reply);
}

static void
auxiliary (PTZKitDriver *self, const PTZKitAuxiliaryRequest *request, PTZKitReply *reply)
{
  KitDriver *driver = (KitDriver *) self;
  PTZKitAuxiliaryReply answer = { request->name, PTZ_ENABLE_OFF };

  if (g_strcmp0 (request->name, "wiper") != 0) {
    ptz_kit_reply_error (reply, PTZ_KIT_ERROR_CODE_NOT_FOUND, "there is no auxiliary of this name");
    return;
  }
  if (request->state != PTZ_ENABLE_NONE)
    driver->wiper = request->state == PTZ_ENABLE_ON;
  if (driver->wiper)
    answer.state = PTZ_ENABLE_ON;
  ptz_kit_reply_auxiliary (reply, &answer);
}

static void
kit_driver_class_init (KitDriverClass *klass)
{
  klass->parent_class.open = open_device;
  klass->parent_class.update = update;
  klass->parent_class.move = move;
  klass->parent_class.auxiliary = auxiliary;
}

static void
kit_driver_init (KitDriver *self)
{
  ptz_kit_driver_add_setting (PTZ_KIT_DRIVER (self), "Head", "SpeedPercent", PTZ_KIT_SETTING_INTEGER, "100", 1, 100,
                              "Share of the maximum speed that the head may use");
}

int
main (int argc, char **argv)
{
  static const gchar *types[] = { "Simulated head", NULL };
  PTZKitDriver *driver = g_object_new (kit_driver_get_type (), "name", "kit-driver", "device-types", types, NULL);
  const int status = ptz_kit_driver_run (driver, argc, argv);

  g_object_unref (driver);
  return status;
}
