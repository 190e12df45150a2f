#include "ptz_status_cache.h"

#include <syslog.h>
#include <algorithm>
#include <cstddef>
#include <span>
#include <type_traits>

#include "base/clock.h"
#include "base/handles.h"
#include "platform/status_store.h"
#include "status/status_value.h"

namespace {

using ptz::status::integer;
using ptz::status::real;
using ptz::status::seconds_and_microseconds;
using ptz::status::seconds_and_nanoseconds;

// The mode words of the platform's store.
constexpr gint create_mode = 0, set_mode = 2, get_mode = 0;

constexpr gint max_position_params = 50, max_various_params = 10, max_limit_params = 19;

struct Key {
  const gchar *name;
  guint32 type;
};

constexpr Key position_keys[] = {
    {"PAN_DEG", real},
    {"TILT_DEG", real},
    {"PAN_MECH_STEPS", integer},
    {"TILT_MECH_STEPS", integer},
    {"FIXED_PAN", integer},
    {"FIXED_TILT", integer},
    {"ZOOM_MAG", real},
    {"ZOOM_KORVO", integer},
    {"ZOOM_HFOV", real},
    {"ZOOM_VFOV", real},
    {"ZOOM_MASK_HFOV", real},
    {"ZOOM_MASK_VFOV", real},
    {"IRIS_KORVO", integer},
    {"FOCUS_KORVO", integer},
    {"BRIGHTNESS_KORVO", integer},
    {"PAN_STATUS", integer},
    {"TILT_STATUS", integer},
    {"ZOOM_STATUS", integer},
    {"IRIS_STATUS", integer},
    {"FOCUS_STATUS", integer},
    {"BRIGHTNESS_STATUS", integer},
    {"UPDATE_RATE", integer},
    {"TIME_VAL", seconds_and_microseconds},
    {"PAN_STATUS_IDLE_TIME", seconds_and_nanoseconds},
    {"PAN_STATUS_MOVING_TIME", seconds_and_nanoseconds},
    {"TILT_STATUS_IDLE_TIME", seconds_and_nanoseconds},
    {"TILT_STATUS_MOVING_TIME", seconds_and_nanoseconds},
    {"ZOOM_STATUS_IDLE_TIME", seconds_and_nanoseconds},
    {"ZOOM_STATUS_MOVING_TIME", seconds_and_nanoseconds},
    {"IRIS_STATUS_IDLE_TIME", seconds_and_nanoseconds},
    {"IRIS_STATUS_MOVING_TIME", seconds_and_nanoseconds},
    {"FOCUS_STATUS_IDLE_TIME", seconds_and_nanoseconds},
    {"FOCUS_STATUS_MOVING_TIME", seconds_and_nanoseconds},
    {"BRIGHT_STATUS_IDLE_TIME", seconds_and_nanoseconds},
    {"BRIGHT_STATUS_MOVING_TIME", seconds_and_nanoseconds},
    {"GM_PAN_STATUS_IDLE_TIME", seconds_and_nanoseconds},
    {"GM_PAN_STATUS_MOVING_TIME", seconds_and_nanoseconds},
    {"GM_TILT_STATUS_IDLE_TIME", seconds_and_nanoseconds},
    {"GM_TILT_STATUS_MOVING_TIME", seconds_and_nanoseconds},
    {"GM_ZOOM_STATUS_IDLE_TIME", seconds_and_nanoseconds},
    {"GM_ZOOM_STATUS_MOVING_TIME", seconds_and_nanoseconds},
    {"GM_IRIS_STATUS_IDLE_TIME", seconds_and_nanoseconds},
    {"GM_IRIS_STATUS_MOVING_TIME", seconds_and_nanoseconds},
    {"GM_FOCUS_STATUS_IDLE_TIME", seconds_and_nanoseconds},
    {"GM_FOCUS_STATUS_MOVING_TIME", seconds_and_nanoseconds},
    {"GM_BRIGHT_STATUS_IDLE_TIME", seconds_and_nanoseconds},
    {"GM_BRIGHT_STATUS_MOVING_TIME", seconds_and_nanoseconds},
};
static_assert(std::size(position_keys) == PTZ_SC_PARAM_POSITION_GM_BRIGHT_STATUS_MOVING_TIME + 1);

constexpr Key various_keys[] = {
    {"PAN_FLIPPED", integer},    {"TILT_FLIPPED", integer},  {"CAM_FLIPPED", integer}, {"AUTO_FLIPPING", integer},
    {"PT_PRESET_MOVE", integer}, {"AUTO_FOCUS", integer},    {"AUTO_IRIS", integer},   {"BACKLIGHT", integer},
    {"IR_CUT_FILTER", integer},  {"OVERVIEW_MODE", integer},  // the last has no enumerator, yet is in use
};

constexpr Key limit_keys[] = {
    {"MIN_PAN", integer},        {"MAX_PAN", integer},         {"MIN_TILT", integer},
    {"MAX_TILT", integer},       {"MIN_ZOOM", integer},        {"MAX_ZOOM", integer},
    {"MIN_IRIS", integer},       {"MAX_IRIS", integer},        {"MIN_FOCUS", integer},
    {"MAX_FOCUS", integer},      {"MIN_FIELD_ANGLE", integer}, {"MAX_FIELD_ANGLE", integer},
    {"MIN_BRIGHTNESS", integer}, {"MAX_BRIGHTNESS", integer},
};
static_assert(std::size(limit_keys) == PTZ_SC_PARAM_LIMIT_MAX_BRIGHTNESS - PTZ_SC_PARAM_LIMIT_MIN_PAN + 1);

// The groups in the order of their numbers.
struct Kind {
  const gchar *name_prefix;
  guint32 size;
  gint32 first_param;
  std::span<const Key> keys;
};
constexpr Kind kinds[] = {
    {"PTZ_POSITION_IS", 1536, PTZ_SC_PARAM_POSITION_PAN, position_keys},
    {"PTZ_PRESET_IS", 64, PTZ_SC_PARAM_PRESET_NAME, {}},
    {"PTZ_VARIOUS_IS", 228, PTZ_SC_PARAM_VARIOUS_PAN_FLIPPED, various_keys},
    {"PTZ_LIMIT_IS", 512, PTZ_SC_PARAM_LIMIT_MIN_PAN, limit_keys},
};

const Kind *kind_of(gint32 group) {
  return group >= 0 && static_cast<std::size_t>(group) < std::size(kinds) ? &kinds[group] : nullptr;
}

const Key *key_of(const Kind &kind, gint32 param) {
  const gint64 index = static_cast<gint64>(param) - kind.first_param;
  return index >= 0 && static_cast<std::size_t>(index) < kind.keys.size() ? &kind.keys[index] : nullptr;
}

guint32 size_of(guint32 type) { return type == integer || type == real ? 4 : sizeof(PTZStatusCacheTime); }

// The store reads the very records that callers see.
static_assert(std::is_standard_layout_v<PTZStatusCacheParam> &&
              sizeof(PTZStatusCacheParam) == sizeof(StatusStoreParam));
static_assert(offsetof(PTZStatusCacheParam, key) == offsetof(StatusStoreParam, key));
static_assert(offsetof(PTZStatusCacheParam, size) == offsetof(StatusStoreParam, size));
static_assert(offsetof(PTZStatusCacheParam, value) == offsetof(StatusStoreParam, value));
static_assert(offsetof(PTZStatusCacheParam, type) == offsetof(StatusStoreParam, type));

// A handle and, behind what callers see of it, the room that there is in its array: the capacity follows what the store
// returned, be it more than that.
struct Group {
  PTZStatusCacheGroup shown;
  gint32 room;
};
static_assert(offsetof(Group, shown) == 0);

StatusStoreParam **params_of(PTZStatusCacheGroup *handle) {
  return reinterpret_cast<StatusStoreParam **>(handle->params);
}

gint32 limit_of(PTZStatusCacheGroup *handle) {
  return std::min(handle->capacity, reinterpret_cast<Group *>(handle)->room);
}

using Handle = ptz::Handle<PTZStatusCacheGroup, ptz_status_cache_free_group>;

void publish_position(guint instance) {
  gfloat reals[std::size(position_keys)] = {};
  gint32 integers[std::size(position_keys)] = {};
  gint32 unknown_status = -1;
  auto now = ptz::status::time_words(ptz::clock_now(), 1000);
  PTZStatusCacheTime never = {};
  reals[PTZ_SC_PARAM_POSITION_MZOOM] = 1.0F;
  integers[PTZ_SC_PARAM_POSITION_VZOOM] = 1;
  integers[PTZ_SC_PARAM_POSITION_IRIS] = 1;
  integers[PTZ_SC_PARAM_POSITION_FOCUS] = 1;
  integers[PTZ_SC_PARAM_POSITION_BRIGHTNESS] = 1;
  integers[PTZ_SC_PARAM_POSITION_UPDATE_RATE] = 30;

  const Handle handle(ptz_status_cache_setup_group(PTZ_SC_GROUP_POSITION, instance, max_position_params));
  for (gint param = 0; param < static_cast<gint>(std::size(position_keys)); ++param) {
    const guint32 type = position_keys[param].type;
    gpointer value = &integers[param];
    if (type == real) value = &reals[param];
    if (type == seconds_and_microseconds) value = &now;
    if (type == seconds_and_nanoseconds) value = &never;
    if (param >= PTZ_SC_PARAM_POSITION_PAN_STATUS && param <= PTZ_SC_PARAM_POSITION_BRIGHTNESS_STATUS) {
      value = &unknown_status;
    }
    ptz_status_cache_add_param(handle.get(), static_cast<PTZSCParam>(param), value);
  }
  ptz_status_cache_update_group(handle.get());
}

struct Default {
  PTZSCParam param;
  gint32 value;
};

// Readers list the values in the order in which they were published.
constexpr Default various_defaults[] = {
    {PTZ_SC_PARAM_VARIOUS_PAN_FLIPPED, 0},   {PTZ_SC_PARAM_VARIOUS_TILT_FLIPPED, 0},
    {PTZ_SC_PARAM_VARIOUS_CAM_FLIPPED, 0},   {PTZ_SC_PARAM_VARIOUS_PT_PRESET_MOVE, 0},
    {PTZ_SC_PARAM_VARIOUS_AUTO_FLIPPING, 0}, {PTZ_SC_PARAM_VARIOUS_AUTO_FOCUS, 0},
    {PTZ_SC_PARAM_VARIOUS_AUTO_IRIS, 0},     {PTZ_SC_PARAM_VARIOUS_BACKLIGHT_COMPENSATION, 0},
    {PTZ_SC_PARAM_VARIOUS_IR_CUT_FILTER, 0},
};
constexpr Default limit_defaults[] = {
    {PTZ_SC_PARAM_LIMIT_MIN_PAN, -180},     {PTZ_SC_PARAM_LIMIT_MAX_PAN, 180},
    {PTZ_SC_PARAM_LIMIT_MIN_TILT, -180},    {PTZ_SC_PARAM_LIMIT_MAX_TILT, 180},
    {PTZ_SC_PARAM_LIMIT_MIN_ZOOM, 1},       {PTZ_SC_PARAM_LIMIT_MAX_ZOOM, 19999},
    {PTZ_SC_PARAM_LIMIT_MIN_IRIS, 1},       {PTZ_SC_PARAM_LIMIT_MAX_IRIS, 9999},
    {PTZ_SC_PARAM_LIMIT_MIN_FOCUS, 1},      {PTZ_SC_PARAM_LIMIT_MAX_FOCUS, 9999},
    {PTZ_SC_PARAM_LIMIT_MIN_ANGLE, 1},      {PTZ_SC_PARAM_LIMIT_MAX_ANGLE, 9999},
    {PTZ_SC_PARAM_LIMIT_MIN_BRIGHTNESS, 1}, {PTZ_SC_PARAM_LIMIT_MAX_BRIGHTNESS, 9999},
};

template <std::size_t n>
void publish(PTZSCGroup group, guint instance, gint max_params, const Default (&defaults)[n]) {
  gint32 values[n];
  const Handle handle(ptz_status_cache_setup_group(group, instance, max_params));
  for (std::size_t i = 0; i < n; ++i) {
    values[i] = defaults[i].value;
    ptz_status_cache_add_param(handle.get(), defaults[i].param, &values[i]);
  }
  ptz_status_cache_update_group(handle.get());
}

}  // namespace

PTZStatusCacheGroup *ptz_status_cache_setup_group(PTZSCGroup group, guint instance, gint max_params) {
  const auto number = static_cast<gint32>(group);
  const auto *kind = kind_of(number);
  if (kind == nullptr) {
    syslog(LOG_ERR, "Could not setup status cache group. No such group %d!", number);
    return nullptr;
  }
  auto *made = g_new0(Group, 1);
  made->room = std::max(max_params, 0);
  made->shown.group = number;
  made->shown.name = g_strdup_printf("%s%u", kind->name_prefix, instance);
  made->shown.size = kind->size;
  made->shown.instance = instance;
  made->shown.capacity = max_params;
  // The room of one more is for the NULL that ends the array.
  made->shown.params =
      reinterpret_cast<PTZStatusCacheParam **>(g_new0(StatusStoreParam *, static_cast<gsize>(made->room) + 1));
  return &made->shown;
}

gboolean ptz_status_cache_add_param(PTZStatusCacheGroup *handle, PTZSCParam param, gpointer value) {
  const auto number = static_cast<gint32>(param);
  if (handle == nullptr) {
    syslog(LOG_ERR, "Could not add parameter %d. No group setup!", number);
    return FALSE;
  }
  if (handle->count >= limit_of(handle)) {
    syslog(LOG_ERR, "Could not add parameter %d. No space left in group %s!", number, handle->name);
    return FALSE;
  }
  if (handle->group == PTZ_SC_GROUP_PRESET) return FALSE;
  const auto *kind = kind_of(handle->group);
  if (kind == nullptr) {
    syslog(LOG_ERR, "Could not add parameter to status cache group. No such group %d!", handle->group);
    return FALSE;
  }
  const auto *key = key_of(*kind, number);
  if (key == nullptr) {
    syslog(LOG_ERR, "Could not add parameter to group %d. No such parameter %d!", handle->group, number);
    return FALSE;
  }
  auto *added = g_new(StatusStoreParam, 1);
  *added = {key->name, size_of(key->type), value, key->type};
  params_of(handle)[handle->count++] = added;
  return TRUE;
}

gboolean ptz_status_cache_update_group(PTZStatusCacheGroup *handle) {
  if (handle == nullptr) {
    syslog(LOG_ERR, "Could not update status cache. No group setup!");
    return FALSE;
  }
  if (limit_of(handle) < handle->count) {
    syslog(LOG_ERR, "Could not update status cache. To many parameters in group %s!", handle->name);
    return FALSE;
  }
  auto **params = params_of(handle);
  params[handle->count] = nullptr;
  if (status_store_set_group(handle->name, params, set_mode) >= 0) return TRUE;
  if (status_store_create_group(handle->name, handle->size, create_mode) < 0) {
    syslog(LOG_ERR, "Could not create status cache group %s. %m!", handle->name);
    return FALSE;
  }
  if (status_store_set_group(handle->name, params, set_mode) >= 0) return TRUE;
  syslog(LOG_ERR, "Could not set status cache parameter group %s. %m!", handle->name);
  return FALSE;
}

gboolean ptz_status_cache_fetch_group(PTZStatusCacheGroup *handle) {
  if (handle == nullptr) {
    syslog(LOG_ERR, "Could not fetch status cache. No group setup!");
    return FALSE;
  }
  if (limit_of(handle) < handle->count) {
    syslog(LOG_ERR, "Could not fetch status cache. To many parameters in group %s!", handle->name);
    return FALSE;
  }
  auto **params = params_of(handle);
  params[handle->count] = nullptr;
  // What the store found is all that the handle may be used for from now on.
  handle->capacity = status_store_get_group(handle->name, params, get_mode);
  if (handle->capacity >= 0) return TRUE;
  syslog(LOG_ERR, "Could not get status cache parameter group %s. %m!", handle->name);
  return FALSE;
}

void ptz_status_cache_free_group(PTZStatusCacheGroup *handle) {
  if (handle == nullptr) return;
  auto **params = params_of(handle);
  for (auto **param = params; *param != nullptr; ++param) g_free(*param);
  g_free(params);
  g_free(handle->name);
  g_free(reinterpret_cast<Group *>(handle));
}

gboolean ptz_status_cache_create_group(PTZSCGroup group, guint instance) {
  switch (static_cast<gint32>(group)) {
    case PTZ_SC_GROUP_POSITION:
      publish_position(instance);
      return TRUE;
    case PTZ_SC_GROUP_PRESET:
      return FALSE;
    case PTZ_SC_GROUP_VARIOUS:
      publish(group, instance, max_various_params, various_defaults);
      return TRUE;
    case PTZ_SC_GROUP_LIMIT:
      publish(group, instance, max_limit_params, limit_defaults);
      return TRUE;
    default:
      syslog(LOG_ERR, "Could not create status cache group. No such group %d!", static_cast<gint32>(group));
      return FALSE;
  }
}
