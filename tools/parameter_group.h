// parameter_group.h - reads the parameter tree, group by group.
#pragma once
#include <string>
#include <vector>

#include "handles.h"
#include "platform/param_service.h"

namespace ptzctl {

// The options and the result of one call of the service.
struct ParameterCall {
  ParamServiceOptions options = {};
  gint32 error = 0;
  ParameterCall();
};

struct Parameter {
  std::string path, name;
  tools::Text value;
};
// What is in a group itself.
struct ParameterGroup {
  std::vector<Parameter> parameters;
  std::vector<std::string> groups;  // paths
};

[[nodiscard]] const char *reason_of(gint32 error);

constexpr int most_levels = 512;  // more would be a service that never comes to an end

// As UTF-8, which JSON and terminals want.
[[nodiscard]] tools::Text as_utf8(tools::Text text);
[[nodiscard]] tools::Text read_parameter(const std::string &path, gint32 &error);
// The paths that a walk visits; false if it fails.
[[nodiscard]] bool walk_parameters(const std::string &group, decltype(param_service_get_params) *begin,
                                   decltype(param_service_get_param) *next, std::vector<std::string> &paths,
                                   gint32 &error);
[[nodiscard]] bool read_parameter_group(const std::string &path, ParameterGroup &group, gint32 &error);

}  // namespace ptzctl
