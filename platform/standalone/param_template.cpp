#include "param_template.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "base/check.h"
#include "base/handles.h"

namespace ptz::platform {
namespace {

constexpr std::string_view blanks = " \t\r\n\v\f";

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(blanks);
  return first == std::string_view::npos ? "" : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// Returns false if a line is neither empty, a comment nor "Parameter=default".
bool parse_template(std::string_view text, Settings &defaults) {
  while (!text.empty()) {
    const auto end = std::min(text.find('\n'), text.size() - 1);
    const auto line = trimmed(text.substr(0, end + 1));
    text.remove_prefix(end + 1);
    if (line.empty() || line.front() == '#') continue;
    const auto equals = line.find('=');
    // A NUL would cut the name or the value short.
    if (equals == std::string_view::npos || line.find('\0') != std::string_view::npos) return false;
    std::string name(trimmed(line.substr(0, equals)));
    if (!is_path(name.c_str())) return false;
    defaults.emplace_back(std::move(name), trimmed(line.substr(equals + 1)));
  }
  return true;
}

}  // namespace

std::string folder_from(const char *variable, const char *otherwise) {
  const char *folder = std::getenv(variable);
  return folder != nullptr && *folder != '\0' ? folder : otherwise;
}

bool is_path(const gchar *path) {
  if (path == nullptr) return false;
  const std::string_view text(path);
  if (text.empty() || text.size() > PARAM_SERVICE_PATH_MAX || text.front() == '.' || text.back() == '.') return false;
  return text.find("..") == std::string_view::npos;
}

bool is_parameter_path(const gchar *path) {
  return is_path(path) && std::string_view(path).find('.') != std::string_view::npos;
}

gint32 load_template(const gchar *name, Settings &defaults) {
  if (name == nullptr || *name == '\0' || std::string_view(name).find('/') != std::string_view::npos) {
    return PARAM_SERVICE_NO_TEMPLATE;
  }
  const std::string file =
      folder_from("PTZ_PLATFORM_TEMPLATE_DIR", "/etc/sysconfig/template") + '/' + name + "_grp.conf";
  ptz::Text contents;
  gsize length = 0;
  if (!g_file_get_contents(file.c_str(), ptz::out(contents), &length, nullptr)) return PARAM_SERVICE_NO_TEMPLATE;
  if (parse_template({contents.get(), length}, defaults)) return PARAM_SERVICE_OK;
  syslog(LOG_ERR, "Parameter template %s: neither a comment nor Parameter=default", file.c_str());
  return PARAM_SERVICE_NO_TEMPLATE;
}

}  // namespace ptz::platform
