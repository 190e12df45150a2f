#include "faults.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <mutex>

namespace {

using ptz_test::Attempt;
using ptz_test::Call;
using ptz_test::Interposer;
using ptz_test::Outcome;

std::mutex &handlers_lock() {
  static std::mutex lock;
  return lock;
}

std::vector<std::shared_ptr<Interposer::Handler>> &handlers() {
  static std::vector<std::shared_ptr<Interposer::Handler>> all;
  return all;
}

// Almost every call of a test program is made while nobody looks.
std::atomic<int> armed = 0;
thread_local bool inside_handler = false;

std::optional<Outcome> ask(Attempt &attempt) {
  if (armed == 0 || inside_handler) return std::nullopt;
  inside_handler = true;
  const int saved_errno = errno;
  std::vector<std::shared_ptr<Interposer::Handler>> asked;
  {
    const std::lock_guard lock(handlers_lock());
    asked = handlers();
  }
  std::optional<Outcome> outcome;
  for (auto handler = asked.rbegin(); handler != asked.rend(); ++handler) {
    const auto answer = (**handler)(attempt);
    if (!outcome) outcome = answer;
  }
  errno = outcome && outcome->result < 0 ? outcome->error : saved_errno;
  inside_handler = false;
  return outcome;
}

// What would have been called without this file: the C library's function, or a sanitizer's in front of it.
template <typename Function>
Function *next(const char *name) {
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

template <typename Proceed>
auto intercept(Attempt attempt, Proceed proceed) -> decltype(proceed(attempt)) {
  if (const auto outcome = ask(attempt)) return static_cast<decltype(proceed(attempt))>(outcome->result);
  return proceed(attempt);
}

std::string path_of(const sockaddr *address, socklen_t length) {
  const std::size_t start = offsetof(sockaddr_un, sun_path);
  if (address == nullptr || length <= start || address->sa_family != AF_UNIX) return "";
  const char *path = reinterpret_cast<const sockaddr_un *>(address)->sun_path;
  return {path, strnlen(path, length - start)};
}

int intercept_fcntl(int fd, int command, void *argument) {
  static const auto real = next<int(int, int, ...)>("fcntl");
  const auto proceed = [=](const Attempt &) { return real(fd, command, argument); };
  const auto value = static_cast<std::int64_t>(reinterpret_cast<std::intptr_t>(argument));
  switch (command) {
    case F_GETFL:
      return intercept({.call = Call::get_status_flags, .fd = fd}, proceed);
    case F_SETFL:
      return intercept({.call = Call::set_status_flags, .fd = fd, .argument = value}, proceed);
    case F_SETFD:
      return intercept({.call = Call::set_descriptor_flags, .fd = fd, .argument = value}, proceed);
    default:
      return real(fd, command, argument);
  }
}

}  // namespace

namespace ptz_test {

Interposer::Interposer(Handler handler) : handler_(std::make_shared<Handler>(std::move(handler))) {
  const std::lock_guard lock(handlers_lock());
  handlers().push_back(handler_);
  ++armed;
}

Interposer::~Interposer() {
  const std::lock_guard lock(handlers_lock());
  std::erase(handlers(), handler_);
  --armed;
}

struct Fault::State {
  std::atomic<int> matches = 0;
  std::atomic<int> hits = 0;
};

Fault::Fault(Call call, int error, Limits limits)
    : state_(std::make_shared<State>()),
      interposer_([state = state_, call, error, limits](Attempt &attempt) -> std::optional<Outcome> {
        if (attempt.call != call || (limits.fd != any_fd && attempt.fd != limits.fd)) return std::nullopt;
        const int match = state->matches++ - limits.skip;
        if (match < 0 || (limits.times >= 0 && match >= limits.times)) return std::nullopt;
        ++state->hits;
        return Outcome{-1, error};
      }) {}

int Fault::hits() const { return state_->hits; }

struct CallLog::State {
  std::mutex lock;
  std::vector<Attempt> attempts;
};

CallLog::CallLog()
    : state_(std::make_shared<State>()), interposer_([state = state_](Attempt &attempt) {
        const std::lock_guard lock(state->lock);
        state->attempts.push_back(attempt);
        return std::optional<Outcome>();
      }) {}

std::vector<Attempt> CallLog::attempts() const {
  const std::lock_guard lock(state_->lock);
  return state_->attempts;
}

std::vector<Attempt> CallLog::attempts(Call call, int fd) const {
  auto matching = attempts();
  std::erase_if(matching,
                [&](const Attempt &attempt) { return attempt.call != call || (fd != any_fd && attempt.fd != fd); });
  return matching;
}

}  // namespace ptz_test

// These take the place of the C library's functions in the whole test program. They are defined under names of their
// own, because the headers declare the real ones with attributes, redirections and fortified inline bodies.
#define TAKES_THE_PLACE_OF(name) asm(name) __attribute__((visibility("default"), used))
extern "C" {
int interposed_socket(int domain, int type, int protocol) TAKES_THE_PLACE_OF("socket");
int interposed_bind(int fd, const sockaddr *address, socklen_t length) TAKES_THE_PLACE_OF("bind");
int interposed_listen(int fd, int backlog) TAKES_THE_PLACE_OF("listen");
int interposed_connect(int fd, const sockaddr *address, socklen_t length) TAKES_THE_PLACE_OF("connect");
int interposed_accept(int fd, sockaddr *address, socklen_t *length) TAKES_THE_PLACE_OF("accept");
int interposed_accept4(int fd, sockaddr *address, socklen_t *length, int flags) TAKES_THE_PLACE_OF("accept4");
int interposed_fcntl(int fd, int command, ...) TAKES_THE_PLACE_OF("fcntl");
int interposed_fcntl64(int fd, int command, ...) TAKES_THE_PLACE_OF("fcntl64");
int interposed_chmod(const char *path, mode_t mode) TAKES_THE_PLACE_OF("chmod");
int interposed_unlink(const char *path) TAKES_THE_PLACE_OF("unlink");
int interposed_poll(pollfd *fds, nfds_t count, int timeout_ms) TAKES_THE_PLACE_OF("poll");
ssize_t interposed_read(int fd, void *buffer, size_t length) TAKES_THE_PLACE_OF("read");
ssize_t interposed_read_chk(int fd, void *buffer, size_t length, size_t size) TAKES_THE_PLACE_OF("__read_chk");
ssize_t interposed_write(int fd, const void *buffer, size_t length) TAKES_THE_PLACE_OF("write");
int interposed_shutdown(int fd, int how) TAKES_THE_PLACE_OF("shutdown");
int interposed_close(int fd) TAKES_THE_PLACE_OF("close");

int interposed_socket(int domain, int type, int protocol) {
  static const auto real = next<decltype(interposed_socket)>("socket");
  return intercept({.call = Call::socket, .argument = type}, [=](auto &) { return real(domain, type, protocol); });
}

int interposed_bind(int fd, const sockaddr *address, socklen_t length) {
  static const auto real = next<decltype(interposed_bind)>("bind");
  return intercept({.call = Call::bind, .fd = fd, .argument = length, .path = path_of(address, length)},
                   [=](auto &) { return real(fd, address, length); });
}

int interposed_listen(int fd, int backlog) {
  static const auto real = next<decltype(interposed_listen)>("listen");
  return intercept({.call = Call::listen, .fd = fd, .argument = backlog}, [=](auto &) { return real(fd, backlog); });
}

int interposed_connect(int fd, const sockaddr *address, socklen_t length) {
  static const auto real = next<decltype(interposed_connect)>("connect");
  return intercept({.call = Call::connect, .fd = fd, .argument = length, .path = path_of(address, length)},
                   [=](auto &) { return real(fd, address, length); });
}

int interposed_accept(int fd, sockaddr *address, socklen_t *length) {
  static const auto real = next<decltype(interposed_accept)>("accept");
  return intercept({.call = Call::accept, .fd = fd}, [=](auto &) { return real(fd, address, length); });
}

int interposed_accept4(int fd, sockaddr *address, socklen_t *length, int flags) {
  static const auto real = next<decltype(interposed_accept4)>("accept4");
  return intercept({.call = Call::accept, .fd = fd}, [=](auto &) { return real(fd, address, length, flags); });
}

int interposed_fcntl(int fd, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  void *argument = va_arg(arguments, void *);
  va_end(arguments);
  return intercept_fcntl(fd, command, argument);
}

int interposed_fcntl64(int fd, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  void *argument = va_arg(arguments, void *);
  va_end(arguments);
  return intercept_fcntl(fd, command, argument);
}

int interposed_chmod(const char *path, mode_t mode) {
  static const auto real = next<decltype(interposed_chmod)>("chmod");
  return intercept({.call = Call::chmod, .argument = mode, .path = path != nullptr ? path : ""},
                   [=](auto &) { return real(path, mode); });
}

int interposed_unlink(const char *path) {
  static const auto real = next<decltype(interposed_unlink)>("unlink");
  return intercept({.call = Call::unlink, .path = path != nullptr ? path : ""}, [=](auto &) { return real(path); });
}

int interposed_poll(pollfd *fds, nfds_t count, int timeout_ms) {
  static const auto real = next<decltype(interposed_poll)>("poll");
  if (count != 1) return real(fds, count, timeout_ms);
  return intercept({.call = Call::poll, .fd = fds[0].fd, .argument = timeout_ms},
                   [=](const Attempt &attempt) { return real(fds, count, static_cast<int>(attempt.argument)); });
}

ssize_t interposed_read(int fd, void *buffer, size_t length) {
  static const auto real = next<decltype(interposed_read)>("read");
  return intercept({.call = Call::read, .fd = fd, .argument = static_cast<std::int64_t>(length)},
                   [=](const Attempt &attempt) { return real(fd, buffer, static_cast<size_t>(attempt.argument)); });
}

ssize_t interposed_read_chk(int fd, void *buffer, size_t length, size_t size) {
  static const auto real = next<decltype(interposed_read_chk)>("__read_chk");
  return intercept(
      {.call = Call::read, .fd = fd, .argument = static_cast<std::int64_t>(length)},
      [=](const Attempt &attempt) { return real(fd, buffer, static_cast<size_t>(attempt.argument), size); });
}

ssize_t interposed_write(int fd, const void *buffer, size_t length) {
  static const auto real = next<decltype(interposed_write)>("write");
  return intercept({.call = Call::write, .fd = fd, .argument = static_cast<std::int64_t>(length)},
                   [=](const Attempt &attempt) { return real(fd, buffer, static_cast<size_t>(attempt.argument)); });
}

int interposed_shutdown(int fd, int how) {
  static const auto real = next<decltype(interposed_shutdown)>("shutdown");
  return intercept({.call = Call::shutdown, .fd = fd, .argument = how}, [=](auto &) { return real(fd, how); });
}

int interposed_close(int fd) {
  static const auto real = next<decltype(interposed_close)>("close");
  return intercept({.call = Call::close, .fd = fd}, [=](auto &) { return real(fd); });
}
}  // extern "C"
