/* kit-driver - a driver of a simulated head with pan, tilt and a wiper. A real one sends orders to its device in move(). */
#include <ptz_kit.h>

typedef struct {
  gint64 begin_us;
  gdouble begin, target, speed;
} Motion;

typedef struct {
  PTZKitDriver parent_instance;
  Motion motions[2];
  gdouble share; /* of the maximum speed, by the settings */
  gboolean wiper;
} KitDriver;

typedef PTZKitDriverClass KitDriverClass;
G_DEFINE_TYPE (KitDriver, kit_driver, PTZ_KIT_TYPE_DRIVER)

static const struct { gint32 minimum, maximum, max_speed; } axes[] = { { -17000, 17000, 12000 }, { -2000, 9000, 9000 } };

/* Where the axis is now, in hundredths of a degree. */
static gdouble
place_of (const Motion *motion)
{
  const gdouble done = (gdouble) (g_get_monotonic_time () - motion->begin_us) / G_USEC_PER_SEC * motion->speed;
  const gdouble way = motion->target - motion->begin;

  return done < ABS (way) ? motion->begin + (way > 0 ? done : -done) : motion->target;
}

static void
update (PTZKitDriver *self)
{
  for (guint axis = 0; axis < G_N_ELEMENTS (axes); ++axis) {
    const Motion *motion = &((KitDriver *) self)->motions[axis];
    const gdouble place = place_of (motion);

    ptz_kit_driver_report_axis (self, axis, (gint32) (place + (place < 0 ? -0.5 : 0.5)), place != motion->target);
  }
}

static gboolean
open_device (PTZKitDriver *self, GError **error)
{
  KitDriver *driver = (KitDriver *) self;

  (void) error; /* tells why a device cannot be opened, with the result FALSE */
  driver->share = (gdouble) ptz_kit_driver_get_integer (self, "Head", "SpeedPercent") / 100;
  for (guint axis = 0; axis < G_N_ELEMENTS (axes); ++axis)
    ptz_kit_driver_set_axis (self, axis, axes[axis].minimum, axes[axis].maximum,
                             (gint32) (axes[axis].max_speed * driver->share), 0);
  return TRUE;
}

static void
move (PTZKitDriver *self, const PTZKitMoveRequest *request, PTZKitReply *reply)
{
  KitDriver *driver = (KitDriver *) self;

  for (guint axis = 0; axis < G_N_ELEMENTS (axes); ++axis) {
    Motion *motion = &driver->motions[axis];
    const gint32 value = request->value[axis];

    if ((request->axes & 1u << axis) == 0)
      continue;
    motion->begin = place_of (motion);
    motion->begin_us = g_get_monotonic_time ();
    motion->target = request->kind == PTZ_MOVE_RELATIVE ? ptz_kit_driver_get_position (self, axis) + value : value;
    motion->speed = axes[axis].max_speed * driver->share * request->speed / 100;
    if (request->kind == PTZ_MOVE_CONTINUOUS) {
      motion->target = value == 0 ? motion->begin : value > 0 ? axes[axis].maximum : axes[axis].minimum;
      motion->speed = ABS (value) * request->speed / 100.0;
    }
  }
  update (self);
  ptz_kit_reply_ok (reply);
}

static void
auxiliary (PTZKitDriver *self, const PTZKitAuxiliaryRequest *request, PTZKitReply *reply)
{
  KitDriver *driver = (KitDriver *) self;
  g_autoptr (PTZKitAuxiliaryReply) answer = ptz_kit_auxiliary_reply_new (request->name, PTZ_ENABLE_OFF);

  if (g_str_equal (request->name, "wiper")) {
    if (request->state != PTZ_ENABLE_NONE)
      driver->wiper = request->state == PTZ_ENABLE_ON;
    answer->state = driver->wiper ? PTZ_ENABLE_ON : PTZ_ENABLE_OFF;
    ptz_kit_reply_auxiliary (reply, answer);
  } else {
    ptz_kit_reply_error (reply, PTZ_KIT_ERROR_CODE_NOT_FOUND, "there is no auxiliary of this name");
  }
}

static void
kit_driver_class_init (KitDriverClass *klass)
{
  klass->open = open_device;
  klass->update = update;
  klass->move = move;
  klass->auxiliary = auxiliary;
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
  g_autoptr (PTZKitDriver) driver =
      g_object_new (kit_driver_get_type (), "name", "kit-driver", "device-types", types, NULL);

  return ptz_kit_driver_run (driver, argc, argv);
}
