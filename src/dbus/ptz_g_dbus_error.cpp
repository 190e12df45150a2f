#include "ptz_g_dbus_error.h"

#include <gio/gio.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "base/handles.h"

namespace {
constexpr gint no_code = -1;
constexpr char code_mark[] = ".Code";
}  // namespace

gint ptz_g_dbus_error_get_remote_error_code(const GError *error) {
  if (error == nullptr || !g_dbus_error_is_remote_error(error)) return no_code;
  const ptz::Text name(g_dbus_error_get_remote_error(error));
  const char *mark = name != nullptr ? g_strrstr(name.get(), code_mark) : nullptr;
  if (mark == nullptr) return no_code;
  const char *digits = mark + sizeof code_mark - 1;
  char *end = nullptr;
  errno = 0;
  const long code = std::strtol(digits, &end, 10);
  if (end == digits || errno != 0 || code < INT_MIN || code > INT_MAX) return no_code;
  return static_cast<gint>(code);
}
