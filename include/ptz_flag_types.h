/* ptz_flag_types.h - what a driver can do: two words of capability flags.
 *
 * Each word is a flags type that is registered with GObject, on the first call of its function, under the name of its
 * typedef. The class lists the values in the order of the enumerators here. What stands beside an enumerator is its
 * name and its nick. Bits and texts are an interface to other processes: none is ever renumbered or reworded.
 */
#pragma once

#include "ptz_api.h"

G_BEGIN_DECLS

#define PTZ_TYPE_DRIVER_MOVE_CAPABILITIES (ptz_driver_move_capabilities_get_type ())
#define PTZ_TYPE_DRIVER_EXTRA_CAPABILITIES (ptz_driver_extra_capabilities_get_type ())

/**
 * PTZDriverMoveCapabilities:
 * @PTZ_DRIVER_MOVE_CAPABILITIES_NONE: "None", nick "none"
 * @PTZ_DRIVER_MOVE_CAPABILITIES_PAN: "Pan", nick "pan"
 * @PTZ_DRIVER_MOVE_CAPABILITIES_RELPAN: "RelPan", nick "relpan"
 * @PTZ_DRIVER_MOVE_CAPABILITIES_CONTPAN: "ContPan", nick "contpan"
 * @PTZ_DRIVER_MOVE_CAPABILITIES_TILT: "Tilt", nick "tilt"
 * @PTZ_DRIVER_MOVE_CAPABILITIES_RELTILT: "RelTilt", nick "reltilt"
 * @PTZ_DRIVER_MOVE_CAPABILITIES_CONTTILT: "ContTilt", nick "conttilt"
 * @PTZ_DRIVER_MOVE_CAPABILITIES_ZOOM: "Zoom", nick "zoom"
 * @PTZ_DRIVER_MOVE_CAPABILITIES_RELZOOM: "RelZoom", nick "relzoom"
 * @PTZ_DRIVER_MOVE_CAPABILITIES_CONTZOOM: "ContZoom", nick "contzoom"
 * @PTZ_DRIVER_MOVE_CAPABILITIES_DIGITALZOOM: "DigitalZoom", nick "digitalzoom"
 * @PTZ_DRIVER_MOVE_CAPABILITIES_MAXZOOM: "MaxZoom", nick "maxzoom"
 * @PTZ_DRIVER_MOVE_CAPABILITIES_FOCUS: "Focus", nick "focus"
 * @PTZ_DRIVER_MOVE_CAPABILITIES_RELFOCUS: "RelFocus", nick "relfocus"
 * @PTZ_DRIVER_MOVE_CAPABILITIES_CONTFOCUS: "ContFocus", nick "contfocus"
 * @PTZ_DRIVER_MOVE_CAPABILITIES_AUTOFOCUS: "AutoFocus", nick "autofocus"
 * @PTZ_DRIVER_MOVE_CAPABILITIES_IRIS: "Iris", nick "iris"
 * @PTZ_DRIVER_MOVE_CAPABILITIES_RELIRIS: "RelIris", nick "reliris"
 * @PTZ_DRIVER_MOVE_CAPABILITIES_CONTIRIS: "ContIris", nick "contiris"
 * @PTZ_DRIVER_MOVE_CAPABILITIES_AUTOIRIS: "AutoIris", nick "autoiris"
 * @PTZ_DRIVER_MOVE_CAPABILITIES_BRIGHTNESS: "Brightness", nick "brightness"
 * @PTZ_DRIVER_MOVE_CAPABILITIES_RELBRIGHTNESS: "RelBrightness", nick "relbrightness"
 * @PTZ_DRIVER_MOVE_CAPABILITIES_CONTBRIGHTNESS: "ContBrightness", nick "contbrightness"
 * @PTZ_DRIVER_MOVE_CAPABILITIES_IRCUTFILTER: "IrCutFilter", nick "ircutfilter"
 * @PTZ_DRIVER_MOVE_CAPABILITIES_AUTOIRCUTFILTER: "AutoIrCutFilter", nick "autoircutfilter"
 * @PTZ_DRIVER_MOVE_CAPABILITIES_BACKLIGHT: "BackLight", nick "backlight"
 * @PTZ_DRIVER_MOVE_CAPABILITIES_LOCKED: "Locked", nick "locked"
 * @PTZ_DRIVER_MOVE_CAPABILITIES_SPEEDCONTROL: "SpeedControl", nick "speedcontrol"
 * @PTZ_DRIVER_MOVE_CAPABILITIES_PROPORTIONALSPEED: "ProportionalSpeed", nick "proportionalspeed"
 * @PTZ_DRIVER_MOVE_CAPABILITIES_PANOFFSET: "PanOffset", nick "panoffset"
 * @PTZ_DRIVER_MOVE_CAPABILITIES_ZOOMMAG: "ZoomMag", nick "zoommag"
 *
 * What a driver can move. The class lists "Locked" before "SpeedControl", although its bit is higher. Bits 27 and 28
 * are not in use.
 */
G_GNUC_EXTENSION typedef enum {
  PTZ_DRIVER_MOVE_CAPABILITIES_NONE = 0x00000000,
  PTZ_DRIVER_MOVE_CAPABILITIES_PAN = 0x00000001,
  PTZ_DRIVER_MOVE_CAPABILITIES_RELPAN = 0x00000002,
  PTZ_DRIVER_MOVE_CAPABILITIES_CONTPAN = 0x00000004,
  PTZ_DRIVER_MOVE_CAPABILITIES_TILT = 0x00000008,
  PTZ_DRIVER_MOVE_CAPABILITIES_RELTILT = 0x00000010,
  PTZ_DRIVER_MOVE_CAPABILITIES_CONTTILT = 0x00000020,
  PTZ_DRIVER_MOVE_CAPABILITIES_ZOOM = 0x00000040,
  PTZ_DRIVER_MOVE_CAPABILITIES_RELZOOM = 0x00000080,
  PTZ_DRIVER_MOVE_CAPABILITIES_CONTZOOM = 0x00000100,
  PTZ_DRIVER_MOVE_CAPABILITIES_DIGITALZOOM = 0x00000200,
  PTZ_DRIVER_MOVE_CAPABILITIES_MAXZOOM = 0x00000400,
  PTZ_DRIVER_MOVE_CAPABILITIES_FOCUS = 0x00000800,
  PTZ_DRIVER_MOVE_CAPABILITIES_RELFOCUS = 0x00001000,
  PTZ_DRIVER_MOVE_CAPABILITIES_CONTFOCUS = 0x00002000,
  PTZ_DRIVER_MOVE_CAPABILITIES_AUTOFOCUS = 0x00004000,
  PTZ_DRIVER_MOVE_CAPABILITIES_IRIS = 0x00008000,
  PTZ_DRIVER_MOVE_CAPABILITIES_RELIRIS = 0x00010000,
  PTZ_DRIVER_MOVE_CAPABILITIES_CONTIRIS = 0x00020000,
  PTZ_DRIVER_MOVE_CAPABILITIES_AUTOIRIS = 0x00040000,
  PTZ_DRIVER_MOVE_CAPABILITIES_BRIGHTNESS = 0x00080000,
  PTZ_DRIVER_MOVE_CAPABILITIES_RELBRIGHTNESS = 0x00100000,
  PTZ_DRIVER_MOVE_CAPABILITIES_CONTBRIGHTNESS = 0x00200000,
  PTZ_DRIVER_MOVE_CAPABILITIES_IRCUTFILTER = 0x00400000,
  PTZ_DRIVER_MOVE_CAPABILITIES_AUTOIRCUTFILTER = 0x00800000,
  PTZ_DRIVER_MOVE_CAPABILITIES_BACKLIGHT = 0x01000000,
  PTZ_DRIVER_MOVE_CAPABILITIES_LOCKED = 0x20000000,
  PTZ_DRIVER_MOVE_CAPABILITIES_SPEEDCONTROL = 0x02000000,
  PTZ_DRIVER_MOVE_CAPABILITIES_PROPORTIONALSPEED = 0x04000000,
  PTZ_DRIVER_MOVE_CAPABILITIES_PANOFFSET = 0x40000000,
  /* Beyond int, which C allows as an extension only. */
  PTZ_DRIVER_MOVE_CAPABILITIES_ZOOMMAG = 0x80000000
} PTZDriverMoveCapabilities;

/**
 * ptz_driver_move_capabilities_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZDriverMoveCapabilities"
 */
PTZ_API GType ptz_driver_move_capabilities_get_type (void);

/**
 * PTZDriverExtraCapabilities:
 * @PTZ_DRIVER_EXTRA_CAPABILITIES_NONE: "None", nick "none"
 * @PTZ_DRIVER_EXTRA_CAPABILITIES_AUX: "Aux", nick "aux"
 * @PTZ_DRIVER_EXTRA_CAPABILITIES_OSDMENU: "Osdmenu", nick "osdmenu"
 * @PTZ_DRIVER_EXTRA_CAPABILITIES_AREAZOOM: "AreaZoom", nick "areazoom"
 * @PTZ_DRIVER_EXTRA_CAPABILITIES_LENSOFFSET: "LensOffset", nick "lensoffset"
 * @PTZ_DRIVER_EXTRA_CAPABILITIES_ACTIONNOTIFICATION: "ActionNotification", nick "actionnotification"
 * @PTZ_DRIVER_EXTRA_CAPABILITIES_JOYSTICKEMULATION: "JoystickEmulation", nick "joystickemulation"
 * @PTZ_DRIVER_EXTRA_CAPABILITIES_GENERICHTTP: "GenericHttp", nick "generichttp"
 * @PTZ_DRIVER_EXTRA_CAPABILITIES_SERVERPRESET: "ServerPreset", nick "serverpreset"
 * @PTZ_DRIVER_EXTRA_CAPABILITIES_DEVICEPRESET: "DevicePreset", nick "devicepreset"
 * @PTZ_DRIVER_EXTRA_CAPABILITIES_DRIVERPRESET: "DriverPreset", nick "driverpreset"
 * @PTZ_DRIVER_EXTRA_CAPABILITIES_STATUSCACHEPOSITION: "StatusCachePosition", nick "statuscacheposition"
 * @PTZ_DRIVER_EXTRA_CAPABILITIES_ASYNCREPLY: "AsyncReply", nick "asyncreply"
 * @PTZ_DRIVER_EXTRA_CAPABILITIES_PTZCOUNTER: "PTZCounter", nick "ptzcounter"
 * @PTZ_DRIVER_EXTRA_CAPABILITIES_CMDIFDBUS: "CmdIFDBus", nick "cmdifdbus"
 * @PTZ_DRIVER_EXTRA_CAPABILITIES_CMDIFSOCKET: "CmdIFSocket", nick "cmdifsocket"
 * @PTZ_DRIVER_EXTRA_CAPABILITIES_IDLEMODE: "IdleMode", nick "idlemode"
 * @PTZ_DRIVER_EXTRA_CAPABILITIES_POSITIONCACHE: "PositionCache", nick "positioncache"
 * @PTZ_DRIVER_EXTRA_CAPABILITIES_OVERVIEW: "Overview", nick "overview"
 * @PTZ_DRIVER_EXTRA_CAPABILITIES_DEVICETYPE: "DeviceType", nick "devicetype"
 *
 * What a driver offers beside movement. Bits 19 to 31 are not in use.
 */
typedef enum {
  PTZ_DRIVER_EXTRA_CAPABILITIES_NONE = 0x00000000,
  PTZ_DRIVER_EXTRA_CAPABILITIES_AUX = 0x00000001,
  PTZ_DRIVER_EXTRA_CAPABILITIES_OSDMENU = 0x00000002,
  PTZ_DRIVER_EXTRA_CAPABILITIES_AREAZOOM = 0x00000004,
  PTZ_DRIVER_EXTRA_CAPABILITIES_LENSOFFSET = 0x00000008,
  PTZ_DRIVER_EXTRA_CAPABILITIES_ACTIONNOTIFICATION = 0x00000010,
  PTZ_DRIVER_EXTRA_CAPABILITIES_JOYSTICKEMULATION = 0x00000020,
  PTZ_DRIVER_EXTRA_CAPABILITIES_GENERICHTTP = 0x00000040,
  PTZ_DRIVER_EXTRA_CAPABILITIES_SERVERPRESET = 0x00000080,
  PTZ_DRIVER_EXTRA_CAPABILITIES_DEVICEPRESET = 0x00000100,
  PTZ_DRIVER_EXTRA_CAPABILITIES_DRIVERPRESET = 0x00000200,
  PTZ_DRIVER_EXTRA_CAPABILITIES_STATUSCACHEPOSITION = 0x00000400,
  PTZ_DRIVER_EXTRA_CAPABILITIES_ASYNCREPLY = 0x00000800,
  PTZ_DRIVER_EXTRA_CAPABILITIES_PTZCOUNTER = 0x00001000,
  PTZ_DRIVER_EXTRA_CAPABILITIES_CMDIFDBUS = 0x00002000,
  PTZ_DRIVER_EXTRA_CAPABILITIES_CMDIFSOCKET = 0x00004000,
  PTZ_DRIVER_EXTRA_CAPABILITIES_IDLEMODE = 0x00008000,
  PTZ_DRIVER_EXTRA_CAPABILITIES_POSITIONCACHE = 0x00010000,
  PTZ_DRIVER_EXTRA_CAPABILITIES_OVERVIEW = 0x00020000,
  PTZ_DRIVER_EXTRA_CAPABILITIES_DEVICETYPE = 0x00040000
} PTZDriverExtraCapabilities;

/**
 * ptz_driver_extra_capabilities_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZDriverExtraCapabilities"
 */
PTZ_API GType ptz_driver_extra_capabilities_get_type (void);

/**
 * PTZDriverCapabilities:
 * @move: what the driver can move, bits of #PTZDriverMoveCapabilities
 * @extra: what it offers beside, bits of #PTZDriverExtraCapabilities
 *
 * What a driver announces about itself.
 */
typedef struct {
  guint32 move;
  guint32 extra;
} PTZDriverCapabilities;

/**
 * ptz_flag_types_list_all:
 * @driver_cap: (nullable): what to list; of `NULL` the log only says so
 *
 * Writes the names of the bits that are set to the system log, one a line, at info priority: first those of
 * @driver_cap->move, then those of @driver_cap->extra, each in ascending order of the bits. Bits that the type does not
 * define are passed over, and so is bit 31: "ZoomMag" is never listed.
 *
 * Thread: any; lines that other threads log meanwhile may stand between these.
 */
PTZ_API void ptz_flag_types_list_all (const PTZDriverCapabilities *driver_cap);

G_END_DECLS
