#include "ptz_tessel.h"

#include <sys/stat.h>
#include <cstdarg>
#include <cstring>
#include <limits>
#include <string_view>
#include <utility>

#include "base/check.h"
#include "base/handles.h"
#include "params/path_as_format.h"
#include "platform/param_service.h"

namespace {

using ptz::PathAsFormat;
using GroupContext = ptz::Handle<ParamServiceGroupContext, param_service_cleanup_group_context>;

constexpr char module_name[] = "ptz_tessel";
constexpr char ptz_root[] = "root.PTZ";
constexpr char template_folder[] = "/etc/sysconfig/template";
constexpr char utf8[] = "UTF-8";
constexpr char latin1[] = "ISO-8859-1";
constexpr gint32 extra_unset = -1;
// Every level of groups takes a character of a path at least. A service that tells of more would never end.
constexpr int deepest_level = PARAM_SERVICE_PATH_MAX;

// What is formatted into a buffer of fixed size, NUL included.
template <std::size_t size>
class Formatted {
  gchar text_[size] = "";
  int length_;

 public:
  Formatted(const gchar *format, va_list arguments) : length_(g_vsnprintf(text_, size, format, arguments)) {}
  G_GNUC_PRINTF(1, 2) static Formatted of(const gchar *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const Formatted result(format, arguments);
    va_end(arguments);
    return result;
  }
  [[nodiscard]] bool failed() const { return length_ < 0; }
  // False also for one with the first letter of an empty name in it, which ends there.
  [[nodiscard]] bool is_whole() const { return !failed() && std::strlen(text_) == static_cast<std::size_t>(length_); }
  [[nodiscard]] const gchar *get() const { return text_; }
};
using Path = Formatted<PARAM_SERVICE_PATH_MAX + 1>;
using TemplateName = Formatted<128>;
using TemplateFile = Formatted<132>;

// The option block and the error of one call of the service.
struct Call {
  ParamServiceOptions options = {};
  gint32 error = 0;
  Call() { param_service_reset_options(&options); }
};

gchar *read(const gchar *path) {
  Call call;
  ptz::Text value(param_service_get_custom(path, &call.options, &call.error));
  if (call.error != 0 || value == nullptr) return nullptr;
  if (g_utf8_validate(value.get(), -1, nullptr)) return value.release();
  ptz::Error error;
  ptz::Text converted(g_convert(value.get(), -1, utf8, latin1, nullptr, nullptr, ptz::out(error)));
  if (converted == nullptr) {
    syslog(LOG_ERR, "Could not convert value '%s' from ISO-8859-1: %s", value.get(), message_of(error, ""));
  }
  return converted.release();
}

gchar *read(const Path &path) { return path.is_whole() ? read(path.get()) : nullptr; }

Path dynamic_index_path(const gchar *group, guint index, const gchar *parameter) {
  return Path::of("%s.%s.%c%u.%s", ptz_root, group, group[0], index, parameter);
}

// The service's error; what it returned is not looked at.
gint32 create(const Path &path, const gchar *templ, gint32 number, gint32 mode) {
  Call call;
  call.options.number = number;
  call.options.mode = mode;
  const ptz::Text created(param_service_create_dynamic_group(path.get(), templ, &call.options, &call.error));
  return call.error;
}

gint32 mode_of(gboolean first, gboolean second, gboolean third) {
  if (first && second) return third ? 10 : 12;
  return first && third ? 11 : 9;
}

// Such a path is not read back after a failed write: cut short, it names another parameter.
bool is_too_long(const gchar *path, gint32 error) {
  return error == PARAM_SERVICE_BAD_PATH && std::strlen(path) > PARAM_SERVICE_PATH_MAX;
}

gboolean set_whole(const Path &path, const gchar *val, gboolean switch_a, gboolean switch_b, gint32 extra) {
  if (!path.is_whole()) return FALSE;
  return ptz_tessel_set_vp(extra, mode_of(switch_a, switch_a, switch_b), val, "%s", path.get()) == 0;
}

gboolean delete_whole(const Path &path, gint32 mode) {
  if (!path.is_whole()) return FALSE;
  ptz_tessel_delete_group_vp(mode, "%s", path.get());
  return TRUE;
}

// One decimal number of 32 bits with nothing but white space around it.
bool parse_int(const gchar *s, gint32 *valp) {
  assert_in(module_name, s != NULL);
  constexpr char white_space[] = " \t\n\v\f\r";
  std::string_view digits = s + std::strspn(s, white_space);
  digits = digits.substr(0, digits.find_last_not_of(white_space) + 1);
  const bool negative = digits.starts_with('-');
  if (negative || digits.starts_with('+')) digits.remove_prefix(1);
  if (digits.empty()) return false;
  gint64 number = 0;
  for (const char c : digits) {
    if (!g_ascii_isdigit(c)) return false;
    number = number * 10 + (c - '0');
    if (number > -gint64{std::numeric_limits<gint32>::min()}) return false;
  }
  if (negative) number = -number;
  if (number > std::numeric_limits<gint32>::max()) return false;
  *valp = static_cast<gint32>(number);
  return true;
}

gboolean parse_bool(std::string_view value) { return value == "true" || value == "yes" ? TRUE : FALSE; }

// Whether the walk stands at another entry. False at its end and, with the error set, on a failure.
bool advance(const GroupContext &context, decltype(param_service_get_param) *next, gint32 &error) {
  Call call;
  next(context.get(), &call.options, &call.error);
  error = call.error;
  return error == 0 && !context->at_end && context->full_name != nullptr;
}

GroupContext walk(const gchar *group, decltype(param_service_get_params) *begin, gint32 &error) {
  Call call;
  GroupContext context(begin(group, &call.options, &call.error));
  error = call.error;
  return error == 0 ? std::move(context) : nullptr;
}

enum class WalkEnd { complete, failed };

WalkEnd walk_parameters(const gchar *group, const gchar *stop_name, gpointer user_data,
                        PTZTesselIterateGroupCallback action) {
  gint32 error = 0;
  const GroupContext context = walk(group, param_service_get_params, error);
  if (context == nullptr) return WalkEnd::failed;
  guint position = 0;
  while (advance(context, param_service_get_param, error)) {
    const ptz::Text value(ptz_tessel_get_vp("%s", context->full_name));
    if (value == nullptr) return WalkEnd::failed;
    if (stop_name != nullptr && g_strcmp0(context->name, stop_name) == 0) return WalkEnd::complete;
    if (!action(context->full_name, value.get(), user_data, ++position)) return WalkEnd::complete;
  }
  return error == 0 && context->at_end ? WalkEnd::complete : WalkEnd::failed;
}

// The text that an action returned, which may be empty, or null.
ptz::Text walk_children(const gchar *group, const gchar *param, gboolean recurse, gpointer user_data,
                        PTZTesselIterateSubGroupsCallback action, int level) {
  gint32 error = 0;
  const GroupContext context = walk(group, param_service_get_child_groups, error);
  if (context == nullptr) return nullptr;
  while (advance(context, param_service_get_child_group, error)) {
    const gchar *child = context->full_name;
    const auto path = Path::of("%s.%s", child, param);
    if (!path.is_whole()) return nullptr;
    if (const ptz::Text value(read(path.get())); value != nullptr) {
      ptz::Text result(action(child, value.get(), user_data));
      if (result != nullptr) return result;
    } else if (!recurse) {
      return nullptr;
    }
    if (recurse && level < deepest_level) walk_children(child, param, TRUE, user_data, action, level + 1);
  }
  return nullptr;
}

}  // namespace

gchar *ptz_tessel_get_vp(const gchar *path_format, ...) {
  assert_in(module_name, path_format);
  va_list arguments;
  va_start(arguments, path_format);
  const Path path(path_format, arguments);
  va_end(arguments);
  if (path.failed()) {
    syslog(LOG_ERR, "Failed to assemble path: %s from %s", path.get(), path_format);
    return nullptr;
  }
  return read(path.get());
}

gchar *ptz_tessel_get(const gchar *path) {
  const PathAsFormat as_format(path);
  return ptz_tessel_get_vp(as_format.format(), as_format.text());
}

gint32 ptz_tessel_set_vp(gint32 extra, gint32 mode, const gchar *val, const gchar *path_format, ...) {
  assert_in(module_name, path_format);
  assert_in(module_name, val);
  va_list arguments;
  va_start(arguments, path_format);
  const ptz::Text path(g_strdup_vprintf(path_format, arguments));
  va_end(arguments);
  if (path == nullptr) return -1;
  Call call;
  call.options.mode = mode;
  if (extra > 0) call.options.extra = extra;
  param_service_set_custom(path.get(), val, &call.options, &call.error);
  if (call.error == 0) return 0;
  if (!is_too_long(path.get(), call.error)) {
    const ptz::Text current(ptz_tessel_get_vp("%s", path.get()));
    if (current == nullptr || g_str_equal(current.get(), val)) return 0;
  }
  syslog(LOG_WARNING, "Could not set parameter %s to \"%s\", err = %d", path.get(), val, call.error);
  return call.error;
}

gint32 ptz_tessel_set(const gchar *path, const gchar *val, gboolean first, gboolean second, gboolean third,
                      gint32 extra) {
  const PathAsFormat as_format(path);
  return ptz_tessel_set_vp(extra, mode_of(first, second, third), val, as_format.format(), as_format.text());
}

gchar *ptz_tessel_index_get(const gchar *grp_name, const gchar *par_prefix, guint index, const gchar *par_suffix) {
  assert_in(module_name, grp_name != NULL);
  assert_in(module_name, par_prefix != NULL);
  assert_in(module_name, par_suffix != NULL);
  return read(Path::of("%s.%s%u.%s", grp_name, par_prefix, index, par_suffix));
}

gboolean ptz_tessel_index_set(const gchar *grp_name, const gchar *par_prefix, guint index, const gchar *par_suffix,
                              const gchar *val, gboolean switch_a, gboolean switch_b, gint32 extra) {
  assert_in(module_name, grp_name != NULL);
  assert_in(module_name, par_prefix != NULL);
  assert_in(module_name, par_suffix != NULL);
  assert_in(module_name, val != NULL);
  const auto path = Path::of("%s.%s%u.%s", grp_name, par_prefix, index, par_suffix);
  return set_whole(path, val, switch_a, switch_b, extra);
}

gchar *ptz_tessel_dyn_index_get(const gchar *grp_name, guint index, const gchar *par_name) {
  assert_in(module_name, grp_name != NULL);
  assert_in(module_name, par_name != NULL);
  return read(dynamic_index_path(grp_name, index, par_name));
}

gboolean ptz_tessel_dyn_index_set(const gchar *grp_name, guint index, const gchar *par_name, const gchar *val,
                                  gboolean switch_a, gboolean switch_b, gint32 extra) {
  assert_in(module_name, grp_name != NULL);
  assert_in(module_name, par_name != NULL);
  assert_in(module_name, val != NULL);
  return set_whole(dynamic_index_path(grp_name, index, par_name), val, switch_a, switch_b, extra);
}

gboolean ptz_tessel_sync(gint32 mode) {
  Call call;
  call.options.mode = mode;
  param_service_sync(&call.options, &call.error);
  return call.error == 0;
}

gchar *ptz_tessel_create_group_vp(gint32 extra, gint32 mode, gint32 number, const gchar *templ,
                                  const gchar *path_format, ...) {
  assert_in(module_name, templ);
  assert_in(module_name, path_format);
  va_list arguments;
  va_start(arguments, path_format);
  const Path path(path_format, arguments);
  va_end(arguments);
  if (!path.is_whole()) return nullptr;
  Call call;
  if (extra != extra_unset) call.options.extra = extra;
  call.options.number = number;
  call.options.mode = mode;
  ptz::Text created(param_service_create_dynamic_group(path.get(), templ, &call.options, &call.error));
  if (call.error == 0 || call.error == PARAM_SERVICE_GROUP_EXISTS) return created.release();
  syslog(LOG_WARNING, "Failed to create %s from %s err %d", path.get(), templ, call.error);
  return nullptr;
}

gboolean ptz_tessel_create_group(gint driver_number, const gchar *template_prefix, const gchar *group, gint index,
                                 gint32 mode) {
  assert_in(module_name, template_prefix != NULL);
  assert_in(module_name, group != NULL);
  const auto path = Path::of("%s.%s", ptz_root, group);
  if (!path.is_whole()) return FALSE;
  const ptz::Text lower_group(g_ascii_strdown(group, -1));
  const ptz::Text templ(g_strdup_printf("%s%d_%s", template_prefix, driver_number, lower_group.get()));
  gint32 error = create(path, templ.get(), index, mode);
  if (error == 0) return TRUE;
  if (ptz_tessel_delete_sub_group(group, index, mode)) error = create(path, templ.get(), index, mode);
  if (error == 0) return TRUE;
  syslog(LOG_ERR, "Could not create dynamic group %s from template %s, err = %d", path.get(), templ.get(), error);
  return FALSE;
}

gboolean ptz_tessel_create_sub_group(gint driver_number, const gchar *group, gint index, const gchar *name,
                                     guint template_number, gint32 mode) {
  assert_in(module_name, group != NULL);
  assert_in(module_name, name != NULL);
  const auto path = Path::of("%s.%s.%c%d.%s", ptz_root, group, group[0], index, name);
  if (!path.is_whole()) return FALSE;
  const ptz::Text lower_name(g_ascii_strdown(name, -1));
  const auto templ = TemplateName::of("driver%d_%s%u", driver_number, lower_name.get(), template_number);
  if (!templ.is_whole()) return FALSE;
  const auto file = TemplateFile::of("%s/%s%s", template_folder, templ.get(), "_grp.conf");
  if (!file.is_whole()) return FALSE;
  struct stat status = {};
  if (stat(file.get(), &status) != 0) return FALSE;
  return create(path, templ.get(), static_cast<gint32>(template_number), mode) == 0;
}

void ptz_tessel_delete_group_vp(gint32 mode, const gchar *path_format, ...) {
  assert_in(module_name, path_format);
  va_list arguments;
  va_start(arguments, path_format);
  const Path path(path_format, arguments);
  va_end(arguments);
  if (!path.is_whole()) return;
  Call call;
  call.options.mode = mode;
  param_service_delete_group(path.get(), &call.options, &call.error);
}

void ptz_tessel_delete_group(const gchar *path, gint32 mode) {
  assert_in(module_name, path);
  const PathAsFormat as_format(path);
  ptz_tessel_delete_group_vp(mode, as_format.format(), as_format.text());
}

gboolean ptz_tessel_index_delete_group(const gchar *group, guint index, gint32 mode) {
  assert_in(module_name, group != NULL);
  return delete_whole(Path::of("%s.%s%u", ptz_root, group, index), mode);
}

gboolean ptz_tessel_delete_sub_group(const gchar *group, gint index, gint32 mode) {
  assert_in(module_name, group != NULL);
  return delete_whole(Path::of("%s.%s.%c%d", ptz_root, group, group[0], index), mode);
}

gboolean ptz_tessel_delete_subsub_group(const gchar *group, gint index, const gchar *sub_group, gint sub_index,
                                        gint32 mode) {
  assert_in(module_name, group != NULL);
  assert_in(module_name, sub_group != NULL);
  return delete_whole(
      Path::of("%s.%s.%c%d.%s.%c%d", ptz_root, group, group[0], index, sub_group, sub_group[0], sub_index), mode);
}

gboolean ptz_tessel_get_int_val(guint camera, const gchar *group, const gchar *param, gint32 *valp, gchar **strp) {
  assert_in(module_name, group != NULL);
  assert_in(module_name, param != NULL);
  assert_in(module_name, valp != NULL);
  ptz::Text value(ptz_tessel_dyn_index_get(group, camera, param));
  const bool valid = value != nullptr && parse_int(value.get(), valp);
  if (value != nullptr && !valid) {
    syslog(LOG_ERR, "Invalid %s parameter %s for camera %u: %s", group, param, camera, value.get());
  }
  if (strp != nullptr) *strp = value.release();
  return valid;
}

gboolean ptz_tessel_get_int(gint32 *valp, const gchar *path_format, ...) {
  assert_in(module_name, path_format);
  assert_in(module_name, valp);
  va_list arguments;
  va_start(arguments, path_format);
  const Path path(path_format, arguments);
  va_end(arguments);
  if (path.failed() || *path.get() == '\0') return FALSE;
  const ptz::Text value(read(path.get()));
  if (value == nullptr) return FALSE;
  if (parse_int(value.get(), valp)) return TRUE;
  syslog(LOG_ERR, "Value %s of %s invalid", value.get(), path.get());
  return FALSE;
}

gboolean ptz_tessel_get_bool_val(guint camera, const gchar *group, const gchar *param, gboolean *valp) {
  assert_in(module_name, group != NULL);
  assert_in(module_name, param != NULL);
  assert_in(module_name, valp != NULL);
  const ptz::Text value(ptz_tessel_dyn_index_get(group, camera, param));
  *valp = value != nullptr ? parse_bool(value.get()) : FALSE;
  return value != nullptr;
}

gboolean ptz_tessel_get_bool(gboolean *valp, const gchar *path_format, ...) {
  assert_in(module_name, path_format);
  assert_in(module_name, valp);
  va_list arguments;
  va_start(arguments, path_format);
  const Path path(path_format, arguments);
  va_end(arguments);
  if (path.failed() || *path.get() == '\0') return FALSE;
  const ptz::Text value(read(path.get()));
  if (value == nullptr) return FALSE;
  *valp = parse_bool(value.get());
  return TRUE;
}

gboolean ptz_tessel_iterate_group(const gchar *group, const gchar *stop_name, gpointer user_data,
                                  PTZTesselIterateGroupCallback action) {
  assert_in(module_name, group != NULL);
  assert_in(module_name, action != NULL);
  if (walk_parameters(group, stop_name, user_data, action) == WalkEnd::complete) return TRUE;
  syslog(LOG_ERR, "Could not complete iteration of parameter group %s", group);
  return FALSE;
}

gchar *ptz_tessel_iterate_sub_groups(const gchar *group, const gchar *param, gboolean recurse, gpointer user_data,
                                     PTZTesselIterateSubGroupsCallback action) {
  assert_in(module_name, group != NULL);
  assert_in(module_name, param != NULL);
  assert_in(module_name, action != NULL);
  ptz::Text result = walk_children(group, param, recurse, user_data, action, 1);
  return result != nullptr && *result != '\0' ? result.release() : nullptr;
}
