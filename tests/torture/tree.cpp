#include "tree.h"

#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "platform/param_service.h"
#include "platform/param_service_backup.h"
#include "torture.h"

namespace torture {
namespace {

struct SharedLog {
  std::atomic<int> errors = 0, warnings = 0;
  char last[400] = {};
};
SharedLog *shared_log = nullptr;

void keep(int priority, const char *format, va_list arguments) {
  if (shared_log == nullptr) return;
  const int level = LOG_PRI(priority);
  if (level <= LOG_ERR) ++shared_log->errors;
  if (level == LOG_WARNING) ++shared_log->warnings;
  std::vsnprintf(shared_log->last, sizeof shared_log->last, format, arguments);
}

ParamServiceOptions options_of(int number) {
  ParamServiceOptions options;
  param_service_reset_options(&options);
  options.number = number;
  return options;
}

using Begin = decltype(param_service_get_params);
using Next = decltype(param_service_get_param);

std::vector<std::string> walk(Begin *begin, Next *next, const std::string &group, int &error) {
  auto options = options_of(0);
  gint32 code = 0;
  std::vector<std::string> names;
  auto *context = begin(group.c_str(), &options, &code);
  while (code == 0 && context != nullptr) {
    next(context, &options, &code);
    if (context->at_end) break;
    names.emplace_back(context->full_name);
  }
  param_service_cleanup_group_context(context);
  if (code != 0 && code != PARAM_SERVICE_NO_GROUP) error = code;
  return names;
}

void add_content(const std::string &group, std::string &text, int &error) {
  for (const auto &path : walk(param_service_get_params, param_service_get_param, group, error)) {
    std::string value;
    if (const int code = get(path, value); code != 0) error = code;
    text += path + "=" + value + "\n";
  }
  for (const auto &child : walk(param_service_get_child_groups, param_service_get_child_group, group, error)) {
    text += "[" + child + "]\n";
    add_content(child, text, error);
  }
}

}  // namespace

TreeFolder::TreeFolder() {
  path_ = (std::filesystem::temp_directory_path() / "ptz-torture-XXXXXX").string();
  if (mkdtemp(path_.data()) == nullptr) std::abort();
  setenv("PTZ_PLATFORM_STATE_DIR", file("state").c_str(), 1);
  setenv("PTZ_PLATFORM_TEMPLATE_DIR", path_.c_str(), 1);
  write_file(file("t_grp.conf"), "A=1\nB=2\nC=3\n");
  empty();
}

TreeFolder::~TreeFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void TreeFolder::empty() const {
  std::error_code ignored;
  std::filesystem::remove_all(file("state"), ignored);
  std::filesystem::create_directory(file("state"), ignored);
  for (const char *name : {"kept", "saved"}) unlink(file(name).c_str());
}

// A temporary file of the lock is removed a minute later.
std::string TreeFolder::left_over_files() const {
  std::string names;
  for (const auto &entry : std::filesystem::directory_iterator(file("state"))) {
    const auto name = entry.path().filename().string();
    const bool own = name == "params.db" || name == "params.db-lock" || name == "params.db-wal" ||
                     name == "params.db-shm" || name.starts_with("params.db-lock.new-");
    if (!own) names += " " + name;
  }
  return names;
}

int set(const std::string &path, const std::string &value) {
  auto options = options_of(0);
  gint32 error = 1;
  param_service_set_custom(path.c_str(), value.c_str(), &options, &error);
  return error;
}

int get(const std::string &path, std::string &value) {
  auto options = options_of(0);
  gint32 error = 1;
  gchar *text = param_service_get_custom(path.c_str(), &options, &error);
  value = text != nullptr ? text : "";
  g_free(text);
  return error;
}

int create(const std::string &group, int number) {
  auto options = options_of(number);
  gint32 error = 1;
  g_free(param_service_create_dynamic_group(group.c_str(), "t", &options, &error));
  return error;
}

int remove_group(const std::string &group) {
  auto options = options_of(0);
  gint32 error = 1;
  param_service_delete_group(group.c_str(), &options, &error);
  return error;
}

int sync_tree() {
  auto options = options_of(0);
  gint32 error = 1;
  param_service_sync(&options, &error);
  return error;
}

bool backup(const std::string &file) { return param_service_backup(file.c_str(), nullptr) != FALSE; }
bool restore(const std::string &file) { return param_service_restore(file.c_str(), nullptr) != FALSE; }

std::string content(int &error) {
  std::string text;
  error = 0;
  add_content("root", text, error);
  return text;
}

std::string content_of_file(const std::string &database, const std::string &scratch) {
  std::error_code ignored;
  std::filesystem::remove_all(scratch, ignored);
  std::filesystem::create_directory(scratch, ignored);
  std::filesystem::copy_file(database, scratch + "/params.db", ignored);
  const std::string text = scratch + ".text";
  const int status = wait_for(start([&] {
    setenv("PTZ_PLATFORM_STATE_DIR", scratch.c_str(), 1);
    int error = 0;
    write_file(text, content(error));
    return error != 0 ? 1 : 0;
  }));
  return status == 0 ? read_file(text) : "unreadable";
}

void begin_log() { shared_log = shared<SharedLog>(); }

Logged take_log() {
  Logged logged = {shared_log->errors.exchange(0), shared_log->warnings.exchange(0), shared_log->last};
  shared_log->last[0] = '\0';
  return logged;
}

std::string read_file(const std::string &path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

void write_file(const std::string &path, const std::string &bytes) {
  std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace torture

extern "C" {
__attribute__((visibility("default"))) void syslog(int priority, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  torture::keep(priority, format, arguments);
  va_end(arguments);
}
__attribute__((visibility("default"))) void __syslog_chk(int priority, int, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  torture::keep(priority, format, arguments);
  va_end(arguments);
}
}
