// tests/platform/parameter_tree.h - a parameter tree of its own for one test, and short ways to ask the service.
#pragma once
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "clock.h"
#include "fixtures.h"
#include "handles.h"
#include "platform/param_service.h"
#include "syslog_capture.h"

#ifdef __SANITIZE_THREAD__
// The service starts a thread after a write, also in the children of these programs. The sanitizer would end them.
extern "C" inline __attribute__((used, visibility("default"))) const char *__tsan_default_options() {
  return "die_after_fork=0";
}
#endif

namespace ptz_test {

using Names = std::vector<std::string>;

// What an operation answered, and what it reported.
struct Answer {
  std::optional<std::string> text;
  gint32 error;
  bool operator==(const Answer &) const = default;
};
inline void PrintTo(const Answer &answer, std::ostream *out) {
  *out << answer.text.value_or("(nothing)").substr(0, 200) << ", error " << answer.error;
}

inline Answer answer_of(gchar *text, gint32 error) {
  const Text owned(text);
  return {owned ? std::optional<std::string>(owned.get()) : std::nullopt, error};
}

constexpr gint32 no_answer = 12345;

inline Answer get(const std::string &path) {
  ParamServiceOptions options;
  param_service_reset_options(&options);
  gint32 error = no_answer;
  gchar *text = param_service_get_custom(path.c_str(), &options, &error);
  return answer_of(text, error);
}

inline gint32 set(const std::string &path, const std::string &value) {
  ParamServiceOptions options;
  param_service_reset_options(&options);
  gint32 error = no_answer;
  param_service_set_custom(path.c_str(), value.c_str(), &options, &error);
  return error;
}

inline Answer create(const std::string &group, const char *templ, gint32 number) {
  ParamServiceOptions options;
  param_service_reset_options(&options);
  options.number = number;
  gint32 error = no_answer;
  gchar *text = param_service_create_dynamic_group(group.c_str(), templ, &options, &error);
  return answer_of(text, error);
}

inline gint32 remove_group(const std::string &group) {
  ParamServiceOptions options;
  param_service_reset_options(&options);
  gint32 error = no_answer;
  param_service_delete_group(group.c_str(), &options, &error);
  return error;
}

inline gint32 sync_tree() {
  ParamServiceOptions options;
  param_service_reset_options(&options);
  gint32 error = no_answer;
  param_service_sync(&options, &error);
  return error;
}

using TreeWalk = std::unique_ptr<ParamServiceGroupContext, FreeWith<param_service_cleanup_group_context>>;

inline TreeWalk begin(decltype(param_service_get_params) *walk, const std::string &group, gint32 &error) {
  ParamServiceOptions options;
  param_service_reset_options(&options);
  error = no_answer;
  return TreeWalk(walk(group.c_str(), &options, &error));
}

inline bool move(decltype(param_service_get_param) *next, const TreeWalk &context) {
  ParamServiceOptions options;
  param_service_reset_options(&options);
  gint32 error = no_answer;
  next(context.get(), &options, &error);
  EXPECT_EQ(error, 0);
  return context->at_end == FALSE;
}

inline std::optional<Names> parameters_of(const std::string &group) {
  gint32 error = 0;
  const auto context = begin(param_service_get_params, group, error);
  EXPECT_EQ(context != nullptr, error == 0);
  if (context == nullptr) return std::nullopt;
  Names names;
  while (move(param_service_get_param, context)) {
    EXPECT_EQ(context->full_name, group + "." + context->name);
    names.emplace_back(context->name);
  }
  EXPECT_FALSE(move(param_service_get_param, context)) << "the end stays";
  return names;
}

inline std::optional<Names> groups_of(const std::string &group) {
  gint32 error = 0;
  const auto context = begin(param_service_get_child_groups, group, error);
  EXPECT_EQ(context != nullptr, error == 0);
  if (context == nullptr) return std::nullopt;
  Names names;
  while (move(param_service_get_child_group, context)) {
    EXPECT_EQ(context->name, nullptr);
    names.emplace_back(context->full_name);
  }
  EXPECT_FALSE(move(param_service_get_child_group, context)) << "the end stays";
  return names;
}

inline int wait_for(pid_t child) {
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return status;
}

// Runs the function in a child process, which ends well unless a check in it fails.
inline pid_t start(const std::function<void()> &function) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child != 0) return child;
  function();
  std::fflush(nullptr);
  _exit(testing::Test::HasFailure() ? 1 : 0);
}

struct ParameterTree : testing::Test {
  TempDir dir;
  SyslogCapture log;
  const std::string file = dir.file("params.db");

  ParameterTree() {
    setenv("PTZ_PLATFORM_STATE_DIR", dir.path().c_str(), 1);
    setenv("PTZ_PLATFORM_TEMPLATE_DIR", dir.path().c_str(), 1);
    connect_anew();
    advance_clock(1000);  // there is at most one line a second about lost writes
  }

  // The service closes its connection before a fork.
  static void connect_anew() {
    const pid_t child = start([] {});
    ASSERT_GT(child, 0);
    EXPECT_EQ(wait_for(child), 0);
  }
  void provide_template(const std::string &name, const std::string &text) const {
    write(dir.file(name + "_grp.conf"), text);
  }
  static void write(const std::string &path, const std::string &bytes) {
    std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }
  static std::string read(const std::string &path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }
};

}  // namespace ptz_test
