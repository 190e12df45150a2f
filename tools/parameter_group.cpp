#include "parameter_group.h"

#include <utility>

namespace ptzctl {

namespace {

using Walk = tools::Handle<ParamServiceGroupContext, param_service_cleanup_group_context>;

constexpr gint32 mode = 9;  // that of the library's writes without switches

}  // namespace

const char *reason_of(gint32 error) {
  switch (error) {
    case PARAM_SERVICE_OK:
      return "the service has no answer";
    case PARAM_SERVICE_NO_PARAMETER:
      return "there is no such parameter";
    case PARAM_SERVICE_NO_GROUP:
      return "there is no such group";
    case PARAM_SERVICE_NO_TEMPLATE:
      return "there is no such template";
    case PARAM_SERVICE_GROUP_EXISTS:
      return "the group exists";
    case PARAM_SERVICE_BAD_PATH:
      return "this is no path";
    case PARAM_SERVICE_STORAGE:
      return "the tree cannot be read or written";
    default:
      return "the service refused it";
  }
}

ParameterCall::ParameterCall() {
  param_service_reset_options(&options);
  options.mode = mode;
}

tools::Text as_utf8(tools::Text text) {
  if (text == nullptr || g_utf8_validate(text.get(), -1, nullptr)) return text;
  return tools::Text(g_convert(text.get(), -1, "UTF-8", "ISO-8859-1", nullptr, nullptr, nullptr));
}

tools::Text read_parameter(const std::string &path, gint32 &error) {
  ParameterCall call;
  tools::Text value(param_service_get_custom(path.c_str(), &call.options, &call.error));
  error = call.error;
  return error == 0 ? as_utf8(std::move(value)) : nullptr;
}

bool walk_parameters(const std::string &group, decltype(param_service_get_params) *begin,
                     decltype(param_service_get_param) *next, std::vector<std::string> &paths, gint32 &error) {
  ParameterCall call;
  const Walk walk(begin(group.c_str(), &call.options, &call.error));
  error = call.error;
  while (error == 0 && walk != nullptr) {
    ParameterCall move;
    next(walk.get(), &move.options, &move.error);
    error = move.error;
    if (error != 0 || walk->at_end || walk->full_name == nullptr) break;
    paths.emplace_back(walk->full_name);
  }
  return error == 0 && walk != nullptr;
}

bool read_parameter_group(const std::string &path, ParameterGroup &group, gint32 &error) {
  std::vector<std::string> parameters;
  if (!walk_parameters(path, param_service_get_params, param_service_get_param, parameters, error) ||
      !walk_parameters(path, param_service_get_child_groups, param_service_get_child_group, group.groups, error)) {
    return false;
  }
  for (auto &each : parameters) {
    auto name = each.substr(each.rfind('.') + 1);
    gint32 read_error = 0;
    tools::Text value = read_parameter(each, read_error);
    // It may have been deleted meanwhile.
    if (value != nullptr) group.parameters.push_back({std::move(each), std::move(name), std::move(value)});
  }
  return true;
}

}  // namespace ptzctl
