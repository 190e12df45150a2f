// tests/platform/conformance/parameters.h - short ways to ask the parameter service.
#pragma once
#include <memory>
#include <optional>
#include <string>

#include "handles.h"
#include "platform/param_service.h"

namespace conformance {

constexpr gint32 no_answer = 12345;  // what the error is before a call

// What an operation returned and reported.
struct Answer {
  std::optional<std::string> text;
  gint32 error;
  bool operator==(const Answer &) const = default;
};
inline void PrintTo(const Answer &answer, std::ostream *out) {
  *out << answer.text.value_or("NULL").substr(0, 200) << ", error " << answer.error;
}

inline ParamServiceOptions options_with(gint32 number = -1) {
  ParamServiceOptions options;
  param_service_reset_options(&options);
  options.mode = 9;  // as the library's ordinary writes have it
  options.number = number;
  return options;
}

inline Answer answer_of(gchar *text, gint32 error) {
  const ptz_test::Text owned(text);
  return {owned ? std::optional<std::string>(owned.get()) : std::nullopt, error};
}

inline Answer get_param(const std::string &path) {
  auto options = options_with();
  gint32 error = no_answer;
  gchar *text = param_service_get_custom(path.c_str(), &options, &error);
  return answer_of(text, error);
}

inline gint32 set_param(const std::string &path, const std::string &value) {
  auto options = options_with();
  gint32 error = no_answer;
  param_service_set_custom(path.c_str(), value.c_str(), &options, &error);
  return error;
}

inline Answer create_group(const std::string &group, const std::string &name, gint32 number) {
  auto options = options_with(number);
  gint32 error = no_answer;
  gchar *text = param_service_create_dynamic_group(group.c_str(), name.c_str(), &options, &error);
  return answer_of(text, error);
}

inline gint32 delete_group(const std::string &group) {
  auto options = options_with();
  gint32 error = no_answer;
  param_service_delete_group(group.c_str(), &options, &error);
  return error;
}

inline gint32 sync_params() {
  auto options = options_with();
  gint32 error = no_answer;
  param_service_sync(&options, &error);
  return error;
}

using Walk = std::unique_ptr<ParamServiceGroupContext, ptz_test::FreeWith<param_service_cleanup_group_context>>;

inline Walk begin_walk(decltype(param_service_get_params) *begin, const std::string &group, gint32 &error) {
  auto options = options_with();
  error = no_answer;
  return Walk(begin(group.c_str(), &options, &error));
}

}  // namespace conformance
