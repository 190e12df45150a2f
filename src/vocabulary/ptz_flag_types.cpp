#include "ptz_flag_types.h"

#include <syslog.h>

#include <cstddef>
#include <type_traits>

#include "base/enum_type.h"
#include "base/handles.h"

constexpr GFlagsValue driver_move_capabilities_rows[] = {
    {PTZ_DRIVER_MOVE_CAPABILITIES_NONE, "None", "none"},
    {PTZ_DRIVER_MOVE_CAPABILITIES_PAN, "Pan", "pan"},
    {PTZ_DRIVER_MOVE_CAPABILITIES_RELPAN, "RelPan", "relpan"},
    {PTZ_DRIVER_MOVE_CAPABILITIES_CONTPAN, "ContPan", "contpan"},
    {PTZ_DRIVER_MOVE_CAPABILITIES_TILT, "Tilt", "tilt"},
    {PTZ_DRIVER_MOVE_CAPABILITIES_RELTILT, "RelTilt", "reltilt"},
    {PTZ_DRIVER_MOVE_CAPABILITIES_CONTTILT, "ContTilt", "conttilt"},
    {PTZ_DRIVER_MOVE_CAPABILITIES_ZOOM, "Zoom", "zoom"},
    {PTZ_DRIVER_MOVE_CAPABILITIES_RELZOOM, "RelZoom", "relzoom"},
    {PTZ_DRIVER_MOVE_CAPABILITIES_CONTZOOM, "ContZoom", "contzoom"},
    {PTZ_DRIVER_MOVE_CAPABILITIES_DIGITALZOOM, "DigitalZoom", "digitalzoom"},
    {PTZ_DRIVER_MOVE_CAPABILITIES_MAXZOOM, "MaxZoom", "maxzoom"},
    {PTZ_DRIVER_MOVE_CAPABILITIES_FOCUS, "Focus", "focus"},
    {PTZ_DRIVER_MOVE_CAPABILITIES_RELFOCUS, "RelFocus", "relfocus"},
    {PTZ_DRIVER_MOVE_CAPABILITIES_CONTFOCUS, "ContFocus", "contfocus"},
    {PTZ_DRIVER_MOVE_CAPABILITIES_AUTOFOCUS, "AutoFocus", "autofocus"},
    {PTZ_DRIVER_MOVE_CAPABILITIES_IRIS, "Iris", "iris"},
    {PTZ_DRIVER_MOVE_CAPABILITIES_RELIRIS, "RelIris", "reliris"},
    {PTZ_DRIVER_MOVE_CAPABILITIES_CONTIRIS, "ContIris", "contiris"},
    {PTZ_DRIVER_MOVE_CAPABILITIES_AUTOIRIS, "AutoIris", "autoiris"},
    {PTZ_DRIVER_MOVE_CAPABILITIES_BRIGHTNESS, "Brightness", "brightness"},
    {PTZ_DRIVER_MOVE_CAPABILITIES_RELBRIGHTNESS, "RelBrightness", "relbrightness"},
    {PTZ_DRIVER_MOVE_CAPABILITIES_CONTBRIGHTNESS, "ContBrightness", "contbrightness"},
    {PTZ_DRIVER_MOVE_CAPABILITIES_IRCUTFILTER, "IrCutFilter", "ircutfilter"},
    {PTZ_DRIVER_MOVE_CAPABILITIES_AUTOIRCUTFILTER, "AutoIrCutFilter", "autoircutfilter"},
    {PTZ_DRIVER_MOVE_CAPABILITIES_BACKLIGHT, "BackLight", "backlight"},
    {PTZ_DRIVER_MOVE_CAPABILITIES_LOCKED, "Locked", "locked"},
    {PTZ_DRIVER_MOVE_CAPABILITIES_SPEEDCONTROL, "SpeedControl", "speedcontrol"},
    {PTZ_DRIVER_MOVE_CAPABILITIES_PROPORTIONALSPEED, "ProportionalSpeed", "proportionalspeed"},
    {PTZ_DRIVER_MOVE_CAPABILITIES_PANOFFSET, "PanOffset", "panoffset"},
    {PTZ_DRIVER_MOVE_CAPABILITIES_ZOOMMAG, "ZoomMag", "zoommag"},
    {0, nullptr, nullptr}};
DEFINE_FLAGS_TYPE(PTZDriverMoveCapabilities, ptz_driver_move_capabilities_get_type, driver_move_capabilities_rows)

constexpr GFlagsValue driver_extra_capabilities_rows[] = {
    {PTZ_DRIVER_EXTRA_CAPABILITIES_NONE, "None", "none"},
    {PTZ_DRIVER_EXTRA_CAPABILITIES_AUX, "Aux", "aux"},
    {PTZ_DRIVER_EXTRA_CAPABILITIES_OSDMENU, "Osdmenu", "osdmenu"},
    {PTZ_DRIVER_EXTRA_CAPABILITIES_AREAZOOM, "AreaZoom", "areazoom"},
    {PTZ_DRIVER_EXTRA_CAPABILITIES_LENSOFFSET, "LensOffset", "lensoffset"},
    {PTZ_DRIVER_EXTRA_CAPABILITIES_ACTIONNOTIFICATION, "ActionNotification", "actionnotification"},
    {PTZ_DRIVER_EXTRA_CAPABILITIES_JOYSTICKEMULATION, "JoystickEmulation", "joystickemulation"},
    {PTZ_DRIVER_EXTRA_CAPABILITIES_GENERICHTTP, "GenericHttp", "generichttp"},
    {PTZ_DRIVER_EXTRA_CAPABILITIES_SERVERPRESET, "ServerPreset", "serverpreset"},
    {PTZ_DRIVER_EXTRA_CAPABILITIES_DEVICEPRESET, "DevicePreset", "devicepreset"},
    {PTZ_DRIVER_EXTRA_CAPABILITIES_DRIVERPRESET, "DriverPreset", "driverpreset"},
    {PTZ_DRIVER_EXTRA_CAPABILITIES_STATUSCACHEPOSITION, "StatusCachePosition", "statuscacheposition"},
    {PTZ_DRIVER_EXTRA_CAPABILITIES_ASYNCREPLY, "AsyncReply", "asyncreply"},
    {PTZ_DRIVER_EXTRA_CAPABILITIES_PTZCOUNTER, "PTZCounter", "ptzcounter"},
    {PTZ_DRIVER_EXTRA_CAPABILITIES_CMDIFDBUS, "CmdIFDBus", "cmdifdbus"},
    {PTZ_DRIVER_EXTRA_CAPABILITIES_CMDIFSOCKET, "CmdIFSocket", "cmdifsocket"},
    {PTZ_DRIVER_EXTRA_CAPABILITIES_IDLEMODE, "IdleMode", "idlemode"},
    {PTZ_DRIVER_EXTRA_CAPABILITIES_POSITIONCACHE, "PositionCache", "positioncache"},
    {PTZ_DRIVER_EXTRA_CAPABILITIES_OVERVIEW, "Overview", "overview"},
    {PTZ_DRIVER_EXTRA_CAPABILITIES_DEVICETYPE, "DeviceType", "devicetype"},
    {0, nullptr, nullptr}};
DEFINE_FLAGS_TYPE(PTZDriverExtraCapabilities, ptz_driver_extra_capabilities_get_type, driver_extra_capabilities_rows)

// Drivers fill the record in and hand it over as it stands.
static_assert(std::is_standard_layout_v<PTZDriverCapabilities> && sizeof(PTZDriverCapabilities) == 8);
static_assert(offsetof(PTZDriverCapabilities, move) == 0 && offsetof(PTZDriverCapabilities, extra) == 4);

namespace {

using FlagsClass = ptz::Handle<GFlagsClass, g_type_class_unref>;

constexpr int last_listed_bit = 30;  // a limit of the listing, not of the types: "ZoomMag" never shows

void log_rule() { syslog(LOG_INFO, "------------------"); }

void list_names(GType type, guint32 word) {
  const FlagsClass flags(static_cast<GFlagsClass *>(g_type_class_ref(type)));
  for (int bit = 0; bit <= last_listed_bit; ++bit) {
    const guint32 flag = word & (1U << bit);
    if (flag == 0) continue;
    const GFlagsValue *const row = g_flags_get_first_value(flags.get(), flag);
    if (row != nullptr) syslog(LOG_INFO, "%s", row->value_name);
  }
}

}  // namespace

void ptz_flag_types_list_all(const PTZDriverCapabilities *driver_cap) {
  if (driver_cap == nullptr) {
    syslog(LOG_INFO, "driver_cap == NULL");
    return;
  }
  syslog(LOG_INFO, "driver_cap->move:");
  log_rule();
  list_names(PTZ_TYPE_DRIVER_MOVE_CAPABILITIES, driver_cap->move);
  log_rule();
  syslog(LOG_INFO, "driver_cap->extra:");
  log_rule();
  list_names(PTZ_TYPE_DRIVER_EXTRA_CAPABILITIES, driver_cap->extra);
  log_rule();
}
