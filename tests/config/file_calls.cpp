#include "file_calls.h"

#include <dlfcn.h>
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

// What would have been called without this file: the library's function, or a sanitizer's in front of it.
template <typename Function>
Function *next(const char *name) {
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
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

// These take the place of the C library's and GLib's functions in the whole test program. They are defined under names
// of their own, because the headers declare the real ones with attributes, redirections and fortified inline bodies.
#define TAKES_THE_PLACE_OF(name) asm(name) __attribute__((visibility("default"), used))
#define OPEN_PATH(interposed, name)                                          \
  int interposed(const char *path, int flags, ...) TAKES_THE_PLACE_OF(name); \
  int interposed(const char *path, int flags, ...) {                         \
    static const auto real = next<int(const char *, int, ...)>(name);        \
    va_list arguments;                                                       \
    va_start(arguments, flags);                                              \
    const auto mode = static_cast<mode_t>(va_arg(arguments, int));           \
    va_end(arguments);                                                       \
    return open_path(real, path, flags, mode);                               \
  }
#define OPEN_AT(interposed, name)                                                        \
  int interposed(int folder, const char *path, int flags, ...) TAKES_THE_PLACE_OF(name); \
  int interposed(int folder, const char *path, int flags, ...) {                         \
    static const auto real = next<int(int, const char *, int, ...)>(name);               \
    va_list arguments;                                                                   \
    va_start(arguments, flags);                                                          \
    const auto mode = static_cast<mode_t>(va_arg(arguments, int));                       \
    va_end(arguments);                                                                   \
    return open_at(real, folder, path, flags, mode);                                     \
  }
#define OPEN_STREAM(interposed, name)                                            \
  FILE *interposed(const char *path, const char *mode) TAKES_THE_PLACE_OF(name); \
  FILE *interposed(const char *path, const char *mode) {                         \
    static const auto real = next<FILE *(const char *, const char *)>(name);     \
    return open_stream(real, path, mode);                                        \
  }
#define EXAMINE(interposed, name, Buffer)                                    \
  int interposed(const char *path, Buffer *buffer) TAKES_THE_PLACE_OF(name); \
  int interposed(const char *path, Buffer *buffer) {                         \
    static const auto real = next<int(const char *, Buffer *)>(name);        \
    return real(led_from(path).c_str(), buffer);                             \
  }
extern "C" {
OPEN_PATH(interposed_open, "open")
OPEN_PATH(interposed_open64, "open64")
OPEN_AT(interposed_openat, "openat")
OPEN_AT(interposed_openat64, "openat64")
OPEN_STREAM(interposed_fopen, "fopen")
OPEN_STREAM(interposed_fopen64, "fopen64")
EXAMINE(interposed_stat, "stat", struct stat)
EXAMINE(interposed_stat64, "stat64", struct stat64)
EXAMINE(interposed_lstat, "lstat", struct stat)
EXAMINE(interposed_lstat64, "lstat64", struct stat64)

int interposed_access(const char *path, int mode) TAKES_THE_PLACE_OF("access");
int interposed_access(const char *path, int mode) {
  static const auto real = next<int(const char *, int)>("access");
  return real(led_from(path).c_str(), mode);
}

int interposed_fsync(int fd) TAKES_THE_PLACE_OF("fsync");
int interposed_fsync(int fd) {
  static const auto real = next<int(int)>("fsync");
  return fails(Failing::fsync) ? -1 : real(fd);
}

FILE *interposed_popen(const char *command, const char *mode) TAKES_THE_PLACE_OF("popen");
FILE *interposed_popen(const char *command, const char *mode) {
  static const auto real = next<FILE *(const char *, const char *)>("popen");
  Commands::Handler handler;
  {
    const std::lock_guard lock(calls().lock);
    if (calls().commands_kept) calls().commands.push_back({command, mode});
    handler = calls().command_handler;
  }
  if (fails(Failing::start)) return nullptr;
  return handler ? real(handler(command).c_str(), mode) : real(command, mode);
}

int interposed_pclose(FILE *pipe) TAKES_THE_PLACE_OF("pclose");
int interposed_pclose(FILE *pipe) {
  static const auto real = next<int(FILE *)>("pclose");
  const int status = real(pipe);
  return fails(Failing::wait) ? -1 : status;
}

gpointer interposed_try_realloc(gpointer memory, gsize length) TAKES_THE_PLACE_OF("g_try_realloc");
gpointer interposed_try_realloc(gpointer memory, gsize length) {
  static const auto real = next<gpointer(gpointer, gsize)>("g_try_realloc");
  return fails(Failing::grow) ? nullptr : real(memory, length);
}

gpointer interposed_try_realloc_n(gpointer memory, gsize count, gsize size) TAKES_THE_PLACE_OF("g_try_realloc_n");
gpointer interposed_try_realloc_n(gpointer memory, gsize count, gsize size) {
  static const auto real = next<gpointer(gpointer, gsize, gsize)>("g_try_realloc_n");
  return fails(Failing::grow) ? nullptr : real(memory, count, size);
}

gchar *interposed_convert(const gchar *text, gssize length, const gchar *to, const gchar *from, gsize *bytes_read,
                          gsize *bytes_written, GError **error) TAKES_THE_PLACE_OF("g_convert");
gchar *interposed_convert(const gchar *text, gssize length, const gchar *to, const gchar *from, gsize *bytes_read,
                          gsize *bytes_written, GError **error) {
  static const auto real =
      next<gchar *(const gchar *, gssize, const gchar *, const gchar *, gsize *, gsize *, GError **)>("g_convert");
  if (fails(Failing::convert_mute)) return nullptr;
  if (!fails(Failing::convert)) return real(text, length, to, from, bytes_read, bytes_written, error);
  g_set_error_literal(error, G_CONVERT_ERROR, G_CONVERT_ERROR_NO_CONVERSION,
                      std::string(ptz_test::conversion_message).c_str());
  return nullptr;
}
}  // extern "C"
