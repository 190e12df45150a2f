/* ptz_kit_driver.h - PTZKitDriver, from which a driver is derived. */
#pragma once

#include <ptz_kit_messages.h>
#include <ptz_kit_reply.h>

G_BEGIN_DECLS

#define PTZ_KIT_TYPE_DRIVER (ptz_kit_driver_get_type ())
#define PTZ_KIT_DRIVER(o) (G_TYPE_CHECK_INSTANCE_CAST ((o), PTZ_KIT_TYPE_DRIVER, PTZKitDriver))
#define PTZ_KIT_DRIVER_CLASS(k) (G_TYPE_CHECK_CLASS_CAST ((k), PTZ_KIT_TYPE_DRIVER, PTZKitDriverClass))
#define PTZ_KIT_IS_DRIVER(o) (G_TYPE_CHECK_INSTANCE_TYPE ((o), PTZ_KIT_TYPE_DRIVER))
#define PTZ_KIT_IS_DRIVER_CLASS(k) (G_TYPE_CHECK_CLASS_TYPE ((k), PTZ_KIT_TYPE_DRIVER))
#define PTZ_KIT_DRIVER_GET_CLASS(o) (G_TYPE_INSTANCE_GET_CLASS ((o), PTZ_KIT_TYPE_DRIVER, PTZKitDriverClass))

typedef struct _PTZKitDriver PTZKitDriver;
typedef struct _PTZKitDriverClass PTZKitDriverClass;

/**
 * PTZKitSettingKind:
 * @PTZ_KIT_SETTING_BOOLEAN: yes, no, true or false
 * @PTZ_KIT_SETTING_INTEGER: a whole number: decimal, hexadecimal with "0x", or octal with a leading zero
 * @PTZ_KIT_SETTING_STRING: a text; its bounds are those of its length in bytes
 *
 * What kind of value a setting has.
 *
 * Since: 0.1
 */
typedef enum {
  PTZ_KIT_SETTING_BOOLEAN,
  PTZ_KIT_SETTING_INTEGER,
  PTZ_KIT_SETTING_STRING
} PTZKitSettingKind;

/**
 * PTZ_KIT_EXIT_FAILURE:
 *
 * Exit status of ptz_kit_driver_run() if the device cannot be opened, or the socket, or if another driver has the
 * socket or the instance. Starting the driver again may help.
 *
 * Since: 0.1
 */
#define PTZ_KIT_EXIT_FAILURE 1
/**
 * PTZ_KIT_EXIT_USAGE:
 *
 * Exit status of ptz_kit_driver_run() for wrong options and bad settings. Starting the driver again does not help: a
 * unit has `RestartPreventExitStatus=2`.
 *
 * Since: 0.1
 */
#define PTZ_KIT_EXIT_USAGE 2

/**
 * PTZKitDriver:
 *
 * A driver: serves the command channel on a socket. Derive a class from it and override the virtual functions of the
 * commands that the head can carry out; the class answers the rest.
 *
 * Before a virtual function is called, the request is read and checked: an unknown command, one that the driver does
 * not serve, a malformed body and a value out of range are answered with an error. For a move, each axis must have been
 * set with ptz_kit_driver_set_axis(); an absolute position must be within its limits, a speed within its maximum, and a
 * distance is cut to what the limits leave. So the values that a virtual function receives can be used as they are.
 *
 * The class answers by itself: capabilities, limits, name, device types, parameters and properties of the driver;
 * position and speed, from ptz_kit_driver_report_axis(). An axis that was not set is at 0, idle, with the limits 0 to 0
 * and the maximum speed 0. If @move is overridden, the class serves the directions and home of `Move command`, stops by
 * a continuous move of speed 0, and keeps presets (property "keep-presets"). A virtual function that is overridden
 * replaces each of these answers.
 *
 * If the property "instance" is above 0, the driver publishes its status, timings and a request counter as this PTZ
 * instance: 25 times a second while an axis moves, twice a second at rest, and after each request. The published rate
 * follows. Requests and replies are each measured at most 100 times a second.
 *
 * The properties "name", "instance", "socket-path", "preset-file" and "keep-presets" do not change between
 * ptz_kit_driver_start() and ptz_kit_driver_stop(): setting one is a critical warning and has no effect.
 *
 * A request whose body has no bytes, not even a command word, has no reply: the base drops it.
 *
 * All functions are called in the thread of the default main context, and so are the virtual functions.
 *
 * Since: 0.1
 */
struct _PTZKitDriver {
  GObject parent_instance;
};

/**
 * PTZKitDriver:name:
 *
 * Name of the driver, which it also has in the log.
 *
 * Since: 0.1
 */
/**
 * PTZKitDriver:instance:
 *
 * Number of the PTZ instance that the status is published as; 0 publishes nothing.
 *
 * Since: 0.1
 */
/**
 * PTZKitDriver:socket-path:
 *
 * Where the driver listens.
 *
 * Since: 0.1
 */
/**
 * PTZKitDriver:device-types:
 *
 * Names of the devices that the driver is for.
 *
 * Since: 0.1
 */
/**
 * PTZKitDriver:preset-file:
 *
 * File that presets are kept in; without one they are lost when the driver ends.
 *
 * Since: 0.1
 */
/**
 * PTZKitDriver:keep-presets:
 *
 * Whether the class keeps presets for a driver that can move.
 *
 * Since: 0.1
 */
/**
 * PTZKitDriver:verbose:
 *
 * Whether every request is logged.
 *
 * Since: 0.1
 */
/**
 * PTZKitDriver:reply-deadline:
 *
 * How long a deferred reply may take, in milliseconds; 0 for any time. A reply that has no answer by then is answered
 * with the error `PTZ_KIT_ERROR_CODE_INTERNAL`, which the log tells; a later answer has no effect. The value at the end
 * of the virtual function counts.
 *
 * Since: 0.1
 */
/**
 * PTZKitDriver:monitor-history:
 *
 * How many bytes the driver keeps the last frames in, for a #PTZKitMonitor that asks for them: 32768 by default, at most
 * 16777216 (16 MiB); 0 keeps none. The memory is allocated at the first request. Setting it forgets the frames that were
 * kept.
 *
 * Thread: that of the driver's main context.
 *
 * Since: 0.1
 */
/**
 * PTZKitDriver::ended:
 * @self: the driver
 *
 * The daemon has unregistered the driver: the program should end. ptz_kit_driver_run() then returns.
 *
 * Since: 0.1
 */
/**
 * PTZKitDriver::preset-changed:
 * @self: the driver
 * @number: number of the preset
 * @before: (nullable): the preset as it was; `NULL` if there was none
 * @after: (nullable): the preset as it is; `NULL` if it was removed
 *
 * A preset of the device that the class keeps was stored or removed, by a request or by a function of this class. The
 * request is not answered yet.
 *
 * Since: 0.1
 */

/**
 * PTZKitDriverClass:
 * @open: opens the device and sets the axes, with the settings already read; called by ptz_kit_driver_start() before the
 *   driver listens
 * @close: closes the device; called by ptz_kit_driver_stop()
 * @update: reports the position and motion of the axes as of now with ptz_kit_driver_report_axis(). Called before the
 *   class answers a position or a speed, checks a move or stores the current position, and for each update of the status
 *   while an axis moves; must not block. A driver whose device reports by itself does without
 * @set_preset: stores a preset of the driver at a given position
 * @set_device_preset: stores the current position as a preset of the device
 * @get_device_presets: lists the presets of the device
 * @goto_preset: moves to a preset of the driver
 * @goto_device_preset: moves to a preset of the device
 * @move: moves axes; every value is within the limits
 * @stop: stops all axes
 * @field_angles: sets the zoom by the field of view
 * @unregister: stops all axes; when the request is answered, the driver ends
 * @auxiliary: switches an auxiliary, or tells its state
 * @get_auxiliary: lists the auxiliaries
 * @osd_menu: operates the menu of the device
 * @query_speed: tells the speeds
 * @query_position: tells the position
 * @query_zoomdelim: tells where digital zoom begins
 * @change_port: opens the device at another port
 * @move_command: moves in a direction, or home
 * @area_zoom: fills the image with an area
 * @image: sets lens and sensor. The class checks the bounds of the description only, so @image refuses what the device
 *   does not have, and an absolute position below 0
 * @default_home_preset: sets the preset that is home
 * @get_driver_property: tells a property of the driver that the class does not know
 * @get_preset_position: tells the position of a preset
 * @query_attributes: lists the attributes of the device
 * @get_driver_parameters: lists the parameters of the driver
 * @check_settings: checks what the bounds of a single setting cannot express, and the driver's own options. Called by
 *   ptz_kit_driver_load_settings(), and by ptz_kit_driver_run() before the driver starts. Each line of the error's
 *   message is one problem
 * @started: called by ptz_kit_driver_start() when the driver listens, for what others may only find then. If it fails,
 *   the driver stops
 *
 * The virtual functions of a driver. Those of commands answer by their #PTZKitReply.
 *
 * Since: 0.1
 */
struct _PTZKitDriverClass {
  GObjectClass parent_class;

  gboolean (*open) (PTZKitDriver *self, GError **error);
  void (*close) (PTZKitDriver *self);
  void (*update) (PTZKitDriver *self);

  void (*set_preset) (PTZKitDriver *self, const PTZKitSetPresetRequest *request, PTZKitReply *reply);
  void (*set_device_preset) (PTZKitDriver *self, const PTZKitSetDevicePresetRequest *request, PTZKitReply *reply);
  void (*get_device_presets) (PTZKitDriver *self, PTZKitReply *reply);
  void (*goto_preset) (PTZKitDriver *self, const PTZKitGotoPresetRequest *request, PTZKitReply *reply);
  void (*goto_device_preset) (PTZKitDriver *self, const PTZKitGotoDevicePresetRequest *request, PTZKitReply *reply);
  void (*move) (PTZKitDriver *self, const PTZKitMoveRequest *request, PTZKitReply *reply);
  void (*stop) (PTZKitDriver *self, PTZKitReply *reply);
  void (*field_angles) (PTZKitDriver *self, const PTZKitFieldAnglesRequest *request, PTZKitReply *reply);
  void (*unregister) (PTZKitDriver *self, PTZKitReply *reply);
  void (*auxiliary) (PTZKitDriver *self, const PTZKitAuxiliaryRequest *request, PTZKitReply *reply);
  void (*get_auxiliary) (PTZKitDriver *self, PTZKitReply *reply);
  void (*osd_menu) (PTZKitDriver *self, const PTZKitOsdMenuRequest *request, PTZKitReply *reply);
  void (*query_speed) (PTZKitDriver *self, PTZKitReply *reply);
  void (*query_position) (PTZKitDriver *self, PTZKitReply *reply);
  void (*query_zoomdelim) (PTZKitDriver *self, PTZKitReply *reply);
  void (*change_port) (PTZKitDriver *self, const PTZKitChangePortRequest *request, PTZKitReply *reply);
  void (*move_command) (PTZKitDriver *self, const PTZKitMoveCommandRequest *request, PTZKitReply *reply);
  void (*area_zoom) (PTZKitDriver *self, const PTZKitAreaZoomRequest *request, PTZKitReply *reply);
  void (*image) (PTZKitDriver *self, const PTZKitImageRequest *request, PTZKitReply *reply);
  void (*default_home_preset) (PTZKitDriver *self, const PTZKitDefaultHomePresetRequest *request, PTZKitReply *reply);
  void (*get_driver_property) (PTZKitDriver *self, const PTZKitGetDriverPropertyRequest *request, PTZKitReply *reply);
  void (*get_preset_position) (PTZKitDriver *self, const PTZKitGetPresetPositionRequest *request, PTZKitReply *reply);
  void (*query_attributes) (PTZKitDriver *self, PTZKitReply *reply);
  void (*get_driver_parameters) (PTZKitDriver *self, PTZKitReply *reply);

  gboolean (*check_settings) (PTZKitDriver *self, GError **error);
  gboolean (*started) (PTZKitDriver *self, GError **error);

  /*< private >*/
  gpointer reserved[14];
};

/**
 * ptz_kit_driver_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZKitDriver"
 */
PTZ_KIT_API GType ptz_kit_driver_get_type (void);

/**
 * ptz_kit_driver_set_axis:
 * @self: a driver
 * @axis: an axis
 * @minimum: smallest position, in the unit of #PTZKitAxis
 * @maximum: largest position, above @minimum
 * @max_speed: maximum speed per second, above 0
 * @home: position of home, within the limits; the axis is there until the first report
 *
 * States that the head has this axis. Call this before the driver listens: at the latest in @open.
 *
 * Thread: the one of the default main context.
 *
 * Since: 0.1
 */
PTZ_KIT_API void ptz_kit_driver_set_axis (PTZKitDriver *self, PTZKitAxis axis, gint32 minimum, gint32 maximum,
                                          gint32 max_speed, gint32 home);

/**
 * ptz_kit_driver_report_axis:
 * @self: a driver
 * @axis: an axis that was set
 * @position: where it is now
 * @moving: whether it moves
 *
 * Reports the state of an axis: after an order was begun, while it moves, and when it has come to rest. This is what the
 * driver answers and publishes. Any number of reports a second may be made.
 *
 * An axis that moves when a request to go to a preset is answered is published as on its way to a preset, until all
 * axes are at rest or another order is carried out.
 *
 * Thread: the one of the default main context.
 *
 * Since: 0.1
 */
PTZ_KIT_API void ptz_kit_driver_report_axis (PTZKitDriver *self, PTZKitAxis axis, gint32 position, gboolean moving);

/**
 * ptz_kit_driver_report_speed:
 * @self: a driver
 * @axis: an axis that was set
 * @speed: its speed per second, with the sign of its direction
 *
 * Reports the speed of a moving axis, for a driver that knows it. Otherwise it is computed from the reported positions.
 *
 * Thread: the one of the default main context.
 *
 * Since: 0.1
 */
PTZ_KIT_API void ptz_kit_driver_report_speed (PTZKitDriver *self, PTZKitAxis axis, gint32 speed);

/**
 * ptz_kit_driver_report_unknown:
 * @self: a driver
 * @axis: an axis that was set
 *
 * Reports that the position of an axis is not known, because the device does not answer for one. The axis is at rest
 * until ptz_kit_driver_report_axis() reports its position again. Before the first report of either function an axis is
 * at its home.
 *
 * The status of the axis is `PTZ_MOVE_STATUS_UNKNOWN`, in answers and as published. If no axis has a known position, the
 * position is not published: its age grows, and before the first known position there is none.
 *
 * Thread: the one of the default main context.
 *
 * Since: 0.1
 */
PTZ_KIT_API void ptz_kit_driver_report_unknown (PTZKitDriver *self, PTZKitAxis axis);

/**
 * ptz_kit_driver_report_flag:
 * @self: a driver
 * @flag: a parameter of the group "Various", such as `PTZ_SC_PARAM_VARIOUS_IR_CUT_FILTER`, but not
 *   `PTZ_SC_PARAM_VARIOUS_PT_PRESET_MOVE`, which the class sets
 * @on: its state
 *
 * Publishes a flag of the status. A flag that is reported before the driver listens is published when it does.
 *
 * Thread: the one of the default main context.
 *
 * Since: 0.1
 */
PTZ_KIT_API void ptz_kit_driver_report_flag (PTZKitDriver *self, PTZSCParam flag, gboolean on);

/**
 * ptz_kit_driver_get_position:
 * @self: a driver
 * @axis: an axis
 *
 * Thread: the one of the default main context.
 *
 * Since: 0.1
 *
 * Returns: the position that was reported last; 0 for an axis that was not set
 */
PTZ_KIT_API gint32 ptz_kit_driver_get_position (PTZKitDriver *self, PTZKitAxis axis);

/**
 * ptz_kit_driver_add_capabilities:
 * @self: a driver
 * @move: capabilities of motion to announce, bits of #PTZDriverMoveCapabilities
 * @extra: other capabilities to announce, bits of #PTZDriverExtraCapabilities
 *
 * Adds to the capabilities that follow from the virtual functions, the axes and the property "instance": such as
 * automatic focus, which is one function of @image among others, or `PTZ_DRIVER_EXTRA_CAPABILITIES_ASYNCREPLY` of a
 * driver that defers replies.
 *
 * Thread: the one of the default main context.
 *
 * Since: 0.1
 */
PTZ_KIT_API void ptz_kit_driver_add_capabilities (PTZKitDriver *self, guint32 move, guint32 extra);

/**
 * ptz_kit_driver_remove_capabilities:
 * @self: a driver
 * @move: capabilities of motion that the head does not have, such as absolute positions
 * @extra: other capabilities that it does not have
 *
 * Takes capabilities away, as a request of the daemon may. A command whose capability is taken away, and a move of a
 * kind that is, are answered with the error `PTZ_KIT_ERROR_CODE_UNSUPPORTED`. The capabilities of @image are only
 * announced.
 *
 * Thread: the one of the default main context.
 *
 * Since: 0.1
 */
PTZ_KIT_API void ptz_kit_driver_remove_capabilities (PTZKitDriver *self, guint32 move, guint32 extra);

/**
 * ptz_kit_driver_add_setting:
 * @self: a driver
 * @group: group in the settings file
 * @key: key in the group
 * @kind: kind of the value
 * @default_value: the value if no file has the key, as it would stand in one; an empty text is possible whatever @minimum is
 * @minimum: smallest value, or length in bytes of a text; not in use for a boolean
 * @maximum: largest value, or length of a text
 * @doc: one sentence for `--help`
 *
 * Declares a setting. Keys that are not declared are reported when a file is read. A setting that is declared already, or
 * whose default is not within its bounds, is a critical warning.
 *
 * Thread: the one of the default main context.
 *
 * Since: 0.1
 */
PTZ_KIT_API void ptz_kit_driver_add_setting (PTZKitDriver *self, const gchar *group, const gchar *key,
                                             PTZKitSettingKind kind, const gchar *default_value, gint64 minimum,
                                             gint64 maximum, const gchar *doc);

/**
 * ptz_kit_driver_add_option_entries: (skip)
 * @self: a driver
 * @entries: (array zero-terminated=1): options of ptz_kit_driver_run() beside its own; borrowed, with all that they
 *   point at, until ptz_kit_driver_run() has returned
 *
 * Adds options. @check_settings is called when they are read.
 *
 * Thread: the one of the default main context.
 *
 * Since: 0.1
 */
PTZ_KIT_API void ptz_kit_driver_add_option_entries (PTZKitDriver *self, const GOptionEntry *entries);

/**
 * ptz_kit_driver_load_settings:
 * @self: a driver
 * @files: (array zero-terminated=1): paths of key files, of which a later one overrides an earlier one; borrowed
 * @error: return location for an error, or `NULL`
 *
 * Reads settings. Every problem is one line of the error, with file and line number, so that all are seen at once. An
 * unknown key alone is no failure: it is a warning in the log. Of each kind, the first 20 are told, and the number of the
 * others. A file that is no regular file, or has more than 1 MiB, is not read. A setting that no file has gets its default.
 * If a value is bad, every setting stays as it was; if @check_settings objects, the new values hold.
 * ptz_kit_driver_run() reads the files of its option `--config` like this.
 *
 * Thread: the one of the default main context; blocks on the files.
 *
 * Since: 0.1
 *
 * Returns: `TRUE` if every value is good; `FALSE` with @error set, in `G_KEY_FILE_ERROR`
 */
PTZ_KIT_API gboolean ptz_kit_driver_load_settings (PTZKitDriver *self, const gchar *const *files, GError **error);

/**
 * ptz_kit_driver_get_integer:
 * @self: a driver
 * @group: group of a declared setting of the kind integer
 * @key: its key
 *
 * Thread: the one of the default main context.
 *
 * Since: 0.1
 *
 * Returns: the value
 */
PTZ_KIT_API gint64 ptz_kit_driver_get_integer (PTZKitDriver *self, const gchar *group, const gchar *key);

/**
 * ptz_kit_driver_get_boolean:
 * @self: a driver
 * @group: group of a declared setting of the kind boolean
 * @key: its key
 *
 * Thread: the one of the default main context.
 *
 * Since: 0.1
 *
 * Returns: the value
 */
PTZ_KIT_API gboolean ptz_kit_driver_get_boolean (PTZKitDriver *self, const gchar *group, const gchar *key);

/**
 * ptz_kit_driver_get_string:
 * @self: a driver
 * @group: group of a declared setting of the kind string
 * @key: its key
 *
 * Thread: the one of the default main context.
 *
 * Since: 0.1
 *
 * Returns: (transfer none): the value, valid until a setting is declared or settings are loaded
 */
PTZ_KIT_API const gchar *ptz_kit_driver_get_string (PTZKitDriver *self, const gchar *group, const gchar *key);

/**
 * ptz_kit_driver_add_factory_preset:
 * @self: a driver
 * @preset: a preset of the device; copied
 *
 * Gives the device a preset from the factory. One of the same number in the preset file hides it. Call this before the
 * driver listens: at the latest in @open.
 *
 * Thread: the one of the default main context.
 *
 * Since: 0.1
 */
PTZ_KIT_API void ptz_kit_driver_add_factory_preset (PTZKitDriver *self, const PTZKitSetPresetRequest *preset);

/**
 * ptz_kit_driver_get_presets:
 * @self: a driver
 *
 * Thread: the one of the default main context.
 *
 * Since: 0.1
 *
 * Returns: (transfer container) (element-type PTZKitSetPresetRequest): the presets of the device that the class keeps,
 *   by number; the array owns them
 */
PTZ_KIT_API GPtrArray *ptz_kit_driver_get_presets (PTZKitDriver *self);

/**
 * ptz_kit_driver_get_home_preset:
 * @self: a driver
 *
 * For a driver that overrides @move_command.
 *
 * Thread: the one of the default main context.
 *
 * Since: 0.1
 *
 * Returns: the number of the preset that `Default home preset` has set; 0 if home is the driver's own
 */
PTZ_KIT_API guint32 ptz_kit_driver_get_home_preset (PTZKitDriver *self);

/**
 * ptz_kit_driver_store_preset:
 * @self: a driver
 * @preset: a preset of the device; copied
 * @error: return location for an error, or `NULL`
 *
 * Stores a preset of the device at a position that need not be the current one, as another interface of the driver may
 * want. A position beyond a limit is kept; going to the preset then ends at the limit.
 *
 * Thread: the one of the default main context; blocks on the preset file.
 *
 * Since: 0.1
 *
 * Returns: `TRUE` on success; `FALSE` with @error set: to `PTZ_KIT_ERROR_OUT_OF_RANGE` if @preset has a value that it
 *   cannot have, in `G_IO_ERROR` if it cannot be kept; nothing has changed then
 */
PTZ_KIT_API gboolean ptz_kit_driver_store_preset (PTZKitDriver *self, const PTZKitSetPresetRequest *preset,
                                                  GError **error);

/**
 * ptz_kit_driver_remove_preset:
 * @self: a driver
 * @number: number of a preset of the device
 * @error: return location for an error, or `NULL`
 *
 * Removes a preset of the device. One from the factory is there again when the driver has been started anew.
 *
 * Thread: the one of the default main context; blocks on the preset file.
 *
 * Since: 0.1
 *
 * Returns: `TRUE` on success, also if there is no such preset; `FALSE` with @error set, in `G_IO_ERROR`, if the change
 *   cannot be kept; nothing has changed then
 */
PTZ_KIT_API gboolean ptz_kit_driver_remove_preset (PTZKitDriver *self, guint32 number, GError **error);

/**
 * ptz_kit_driver_sync_presets:
 * @self: a driver
 * @error: return location for an error, or `NULL`
 *
 * Writes the preset file once more. Each change of a preset has written it before.
 *
 * Thread: the one of the default main context; blocks on the preset file.
 *
 * Since: 0.1
 *
 * Returns: `TRUE` on success; `FALSE` with @error set, in `G_IO_ERROR`, if there is no file or it cannot be written
 */
PTZ_KIT_API gboolean ptz_kit_driver_sync_presets (PTZKitDriver *self, GError **error);

/**
 * ptz_kit_driver_answer:
 * @self: a driver that is started
 * @request: body of a request; borrowed
 *
 * Answers a request that did not come over the driver's socket: that of a test, say. It is checked and carried out as
 * any other; timings and counters do not show it. A virtual function that defers its answer has failed.
 *
 * Thread: the one of the default main context.
 *
 * Since: 0.1
 *
 * Returns: (transfer full): body of the reply
 */
PTZ_KIT_API GBytes *ptz_kit_driver_answer (PTZKitDriver *self, GBytes *request);

/**
 * ptz_kit_driver_start:
 * @self: a driver with a name
 * @error: return location for an error, or `NULL`
 *
 * Enters the driver into the registry (see #PTZKitRegistry), opens the device, reads the presets, publishes the status
 * and listens. The default main context must run then. A driver without a socket path has no entry and does not listen:
 * it is asked by ptz_kit_driver_answer().
 *
 * Fails with `G_IO_ERROR_ADDRESS_IN_USE`, before the device is opened, if another driver has the same socket or
 * publishes the same instance, or if another process serves the socket; the message names it. Fails with
 * `G_IO_ERROR_EXISTS` if the file at the path is no socket: it is not removed. If the runtime directory is missing or
 * cannot be written, the driver serves without an entry, and the log has a warning.
 *
 * If the socket's file is removed or replaced while the driver runs, the driver listens there again within a second. It
 * keeps its clients, and writes one line into the log.
 *
 * A program that puts itself into the background does so before this call: the entry belongs to the process that makes
 * it. A child process that is made by fork() keeps the connections of the driver open until it calls exec or ends.
 *
 * Thread: the one of the default main context.
 *
 * Since: 0.1
 *
 * Returns: `TRUE` on success; `FALSE` with @error set
 */
PTZ_KIT_API gboolean ptz_kit_driver_start (PTZKitDriver *self, GError **error);

/**
 * ptz_kit_driver_stop:
 * @self: a driver
 *
 * Answers all pending requests with an error, closes the connections, removes the socket's file, if it is still the
 * driver's own, and the entry in the registry, and closes the device.
 * No effect on a driver that is not started. The last unref of a driver does the same without calling @close.
 *
 * Thread: the one of the default main context.
 *
 * Since: 0.1
 */
PTZ_KIT_API void ptz_kit_driver_stop (PTZKitDriver *self);

/**
 * ptz_kit_driver_run:
 * @self: a driver
 * @argc: number of arguments
 * @argv: (array length=argc): the arguments of the program, its name first; borrowed
 *
 * Is the whole `main()` of a driver: reads the options, loads the settings, starts the driver, and runs the default main
 * context until SIGTERM, SIGINT or a request `Unregister`. It tells the service manager when the driver is ready and,
 * if the unit has a watchdog, that it is alive.
 *
 *     --socket PATH      listen here
 *     --instance N       publish the status as this PTZ instance
 *     --config FILE      read settings; may be given several times
 *     --state FILE       keep presets in this file
 *     --check-settings   read the settings, tell what is wrong with them, unknown keys included, and end
 *     --version          print the name of the driver and the version of the kit, and end
 *     --verbose          log every request
 *
 * Thread: the one of the default main context.
 *
 * Since: 0.1
 *
 * Returns: the exit status of the program: 0, `PTZ_KIT_EXIT_FAILURE` or `PTZ_KIT_EXIT_USAGE`
 */
PTZ_KIT_API gint ptz_kit_driver_run (PTZKitDriver *self, gint argc, gchar **argv);

G_DEFINE_AUTOPTR_CLEANUP_FUNC (PTZKitDriver, g_object_unref)

G_END_DECLS
