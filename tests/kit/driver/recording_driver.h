/* tests/kit/driver/recording_driver.h - a driver in C that keeps the requests it received and answers as it is told. */
#pragma once

#include <ptz_kit.h>

G_BEGIN_DECLS

/* What its auxiliary does, by the name in the request. */
#define AUXILIARY_LATER "later"     /* deferred and kept in `deferred` */
#define AUXILIARY_NEITHER "neither" /* kept in `deferred`, but not deferred */
#define AUXILIARY_DROP "drop"       /* deferred and dropped */
#define AUXILIARY_TWICE "twice"
#define AUXILIARY_WRONG "wrong"         /* answered as another command */
#define AUXILIARY_OK "ok"               /* answered without the fields that the reply has */
#define AUXILIARY_BAD_STATE "bad state" /* answered with a state that is none */
#define AUXILIARY_NO_NAME "no name"     /* answered with an empty name */
#define AUXILIARY_LONG "long"           /* refused with 10,000 bytes of text */
#define AUXILIARY_STOP "stop"           /* stops the driver, then answers */
#define AUXILIARY_UNREF "unref"         /* drops the test's reference of the driver, then answers */
#define AUXILIARY_PEER "peer"           /* refused with the text "PID UID" */

typedef struct {
  PTZKitDriver parent_instance;
  PTZKitMoveRequest last_move;
  guint moves;
  guint updates;
  gboolean stays_moving; /* reports axes as moving when they are sent somewhere */
  gboolean fails_to_open;
  gboolean fails_silently; /* to open, without an error */
  const gchar *complaint;  /* the error of check_settings */
  gboolean fails_to_serve; /* when it is started */
  guint starts;
  gboolean closed;
  PTZKitReply *deferred;
} RecordingDriver;

typedef struct {
  PTZKitDriverClass parent_class;
} RecordingDriverClass;

/* Pan and tilt, -17000 to 17000 at 12000, home 100, and -2000 to 9000 at 9000, home 200. */
GType recording_driver_get_type(void);

/* One that overrides nothing but update, with all three axes. */
GType silent_driver_get_type(void);

G_END_DECLS
