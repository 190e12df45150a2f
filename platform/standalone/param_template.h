// platform/standalone/param_template.h - templates of dynamic groups: files with a line "Parameter=default" for each.
#pragma once
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/param_service.h"

namespace ptz::platform {

using Settings = std::vector<std::pair<std::string, std::string>>;  // paths and values

// The value of the environment variable, if it is set and not empty, else the default.
[[nodiscard]] std::string folder_from(const char *variable, const char *otherwise);

// Whether the text is a path of components with dots between them, not longer than PARAM_SERVICE_PATH_MAX.
[[nodiscard]] bool is_path(const char *path);
// A parameter is in a group: its path has two components at least.
[[nodiscard]] bool is_parameter_path(const char *path);

// Reads the template's file. Returns PARAM_SERVICE_OK or PARAM_SERVICE_NO_TEMPLATE; a malformed file is logged.
[[nodiscard]] gint32 load_template(const gchar *name, Settings &defaults);

}  // namespace ptz::platform
