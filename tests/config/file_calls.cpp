#include "file_calls.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <map>
#include <mutex>

#include "interpose.h"

namespace {

using ptz_test::Commands;
using ptz_test::Failing;

struct ActiveFault {
  Failing what;
  int error;
  ptz_test::FileFault::Limits limits;
  int hits = 0;
};

// Never destroyed: files are opened until the very end of the process.
struct Calls {
  std::mutex lock;
  std::map<std::string, std::string, std::less<>> redirects;
  std::map<std::size_t, ActiveFault> faults;
  std::size_t next_fault = 0;
  std::map<std::string, std::function<void()>, std::less<>> holds;
  bool commands_kept = false;
  Commands::Handler command_handler;
  std::vector<Commands::Command> commands;
};

Calls &calls() {
  static auto &all = *new Calls;
  return all;
}

std::string led_from(const char *path) {
  if (path == nullptr) return "";
  const std::lock_guard lock(calls().lock);
  const auto redirect = calls().redirects.find(std::string_view(path));
  return redirect == calls().redirects.end() ? path : redirect->second;
}

void wait_where_held(const char *path) {
  std::function<void()> wait;
  {
    const std::lock_guard lock(calls().lock);
    const auto hold = calls().holds.find(std::string_view(path));
    if (hold == calls().holds.end()) return;
    wait = hold->second;
  }
  wait();
}

// Sets errno where the call is to fail.
bool fails(Failing what, const char *path = nullptr) {
  const std::lock_guard lock(calls().lock);
  for (auto &[number, fault] : calls().faults) {
    if (fault.what != what) continue;
    if (!fault.limits.path.empty() && (path == nullptr || fault.limits.path != path)) continue;
    if (fault.limits.skip > 0) {
      --fault.limits.skip;
      continue;
    }
    ++fault.hits;
    errno = fault.error;
    return true;
  }
  return false;
}

template <typename Real>
int open_at(Real *real, int folder, const char *path, int flags, mode_t mode) {
  wait_where_held(path);
  return fails(Failing::open, path) ? -1 : real(folder, led_from(path).c_str(), flags, mode);
}

template <typename Real>
int open_path(Real *real, const char *path, int flags, mode_t mode) {
  wait_where_held(path);
  return fails(Failing::open, path) ? -1 : real(led_from(path).c_str(), flags, mode);
}

template <typename Real>
FILE *open_stream(Real *real, const char *path, const char *mode) {
  wait_where_held(path);
  return fails(Failing::open, path) ? nullptr : real(led_from(path).c_str(), mode);
}

}  // namespace

namespace ptz_test {

Redirect::Redirect(std::string from, std::string to) : from_(std::move(from)) {
  const std::lock_guard lock(calls().lock);
  calls().redirects[from_] = std::move(to);
}

Redirect::~Redirect() {
  const std::lock_guard lock(calls().lock);
  calls().redirects.erase(from_);
}

FileFault::FileFault(Failing what, int error, Limits limits) {
  const std::lock_guard lock(calls().lock);
  number_ = calls().next_fault++;
  calls().faults.emplace(number_, ActiveFault{what, error, std::move(limits)});
}

FileFault::~FileFault() {
  const std::lock_guard lock(calls().lock);
  calls().faults.erase(number_);
}

int FileFault::hits() const {
  const std::lock_guard lock(calls().lock);
  return calls().faults.at(number_).hits;
}

struct Hold::State {
  std::promise<void> reached;
  std::promise<void> released;
  std::shared_future<void> may_go_on = released.get_future().share();
  std::once_flag reached_once;
  std::once_flag released_once;
};

Hold::Hold(std::string path) : state_(std::make_shared<State>()), path_(std::move(path)) {
  const std::lock_guard lock(calls().lock);
  calls().holds[path_] = [state = state_] {
    std::call_once(state->reached_once, [&] { state->reached.set_value(); });
    state->may_go_on.wait();
  };
}

Hold::~Hold() {
  let_go();
  const std::lock_guard lock(calls().lock);
  calls().holds.erase(path_);
}

void Hold::wait_until_reached() const { state_->reached.get_future().wait(); }
void Hold::let_go() const {
  std::call_once(state_->released_once, [this] { state_->released.set_value(); });
}

Commands::Commands(Handler handler) {
  const std::lock_guard lock(calls().lock);
  calls().commands_kept = true;
  calls().command_handler = std::move(handler);
  calls().commands.clear();
}

Commands::~Commands() {
  const std::lock_guard lock(calls().lock);
  calls().commands_kept = false;
  calls().command_handler = {};
}

std::vector<Commands::Command> Commands::started() const {
  const std::lock_guard lock(calls().lock);
  return calls().commands;
}

void write_file(const std::string &path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string read_file(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::size_t open_descriptors() {
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

}  // namespace ptz_test

#define OPEN_PATH(name)                                            \
  INTERPOSE(int, name, (const char *path, int flags, ...)) {       \
    va_list arguments;                                             \
    va_start(arguments, flags);                                    \
    const auto mode = static_cast<mode_t>(va_arg(arguments, int)); \
    va_end(arguments);                                             \
    return open_path(REAL(name), path, flags, mode);               \
  }
#define OPEN_AT(name)                                                    \
  INTERPOSE(int, name, (int folder, const char *path, int flags, ...)) { \
    va_list arguments;                                                   \
    va_start(arguments, flags);                                          \
    const auto mode = static_cast<mode_t>(va_arg(arguments, int));       \
    va_end(arguments);                                                   \
    return open_at(REAL(name), folder, path, flags, mode);               \
  }
#define OPEN_STREAM(name) \
  INTERPOSE(FILE *, name, (const char *path, const char *mode)) { return open_stream(REAL(name), path, mode); }
#define EXAMINE(name, Buffer) \
  INTERPOSE(int, name, (const char *path, Buffer *buffer)) { return REAL(name)(led_from(path).c_str(), buffer); }

OPEN_PATH(open)
OPEN_PATH(open64)
OPEN_AT(openat)
OPEN_AT(openat64)
OPEN_STREAM(fopen)
OPEN_STREAM(fopen64)
EXAMINE(stat, struct stat)
EXAMINE(stat64, struct stat64)
EXAMINE(lstat, struct stat)
EXAMINE(lstat64, struct stat64)

INTERPOSE(int, access, (const char *path, int mode)) { return REAL(access)(led_from(path).c_str(), mode); }

INTERPOSE(int, fsync, (int fd)) { return fails(Failing::fsync) ? -1 : REAL(fsync)(fd); }

INTERPOSE(FILE *, popen, (const char *command, const char *mode)) {
  Commands::Handler handler;
  {
    const std::lock_guard lock(calls().lock);
    if (calls().commands_kept) calls().commands.push_back({command, mode});
    handler = calls().command_handler;
  }
  if (fails(Failing::start)) return nullptr;
  return handler ? REAL(popen)(handler(command).c_str(), mode) : REAL(popen)(command, mode);
}

INTERPOSE(int, pclose, (FILE * pipe)) {
  const int status = REAL(pclose)(pipe);
  return fails(Failing::wait) ? -1 : status;
}

INTERPOSE(gpointer, g_try_realloc, (gpointer memory, gsize length)) {
  return fails(Failing::grow) ? nullptr : REAL(g_try_realloc)(memory, length);
}

INTERPOSE(gpointer, g_try_realloc_n, (gpointer memory, gsize count, gsize size)) {
  return fails(Failing::grow) ? nullptr : REAL(g_try_realloc_n)(memory, count, size);
}

INTERPOSE(gchar *, g_convert,
          (const gchar *text, gssize length, const gchar *to, const gchar *from, gsize *bytes_read,
           gsize *bytes_written, GError **error)) {
  if (fails(Failing::convert_mute)) return nullptr;
  if (!fails(Failing::convert)) return REAL(g_convert)(text, length, to, from, bytes_read, bytes_written, error);
  g_set_error_literal(error, G_CONVERT_ERROR, G_CONVERT_ERROR_NO_CONVERSION,
                      std::string(ptz_test::conversion_message).c_str());
  return nullptr;
}
