#include "faults.h"

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

#include "interpose.h"

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

template <typename Real>
int intercept_fcntl(Real *real, int fd, int command, void *argument) {
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

INTERPOSE(int, socket, (int domain, int type, int protocol)) {
  return intercept({.call = Call::socket, .argument = type},
                   [=](auto &) { return REAL(socket)(domain, type, protocol); });
}

INTERPOSE(int, bind, (int fd, const sockaddr *address, socklen_t length)) {
  return intercept({.call = Call::bind, .fd = fd, .argument = length, .path = path_of(address, length)},
                   [=](auto &) { return REAL(bind)(fd, address, length); });
}

INTERPOSE(int, listen, (int fd, int backlog)) {
  return intercept({.call = Call::listen, .fd = fd, .argument = backlog},
                   [=](auto &) { return REAL(listen)(fd, backlog); });
}

INTERPOSE(int, connect, (int fd, const sockaddr *address, socklen_t length)) {
  return intercept({.call = Call::connect, .fd = fd, .argument = length, .path = path_of(address, length)},
                   [=](auto &) { return REAL(connect)(fd, address, length); });
}

INTERPOSE(int, accept, (int fd, sockaddr *address, socklen_t *length)) {
  return intercept({.call = Call::accept, .fd = fd}, [=](auto &) { return REAL(accept)(fd, address, length); });
}

INTERPOSE(int, accept4, (int fd, sockaddr *address, socklen_t *length, int flags)) {
  return intercept({.call = Call::accept, .fd = fd}, [=](auto &) { return REAL(accept4)(fd, address, length, flags); });
}

INTERPOSE(int, fcntl, (int fd, int command, ...)) {
  va_list arguments;
  va_start(arguments, command);
  void *argument = va_arg(arguments, void *);
  va_end(arguments);
  return intercept_fcntl(REAL(fcntl), fd, command, argument);
}

INTERPOSE(int, fcntl64, (int fd, int command, ...)) {
  va_list arguments;
  va_start(arguments, command);
  void *argument = va_arg(arguments, void *);
  va_end(arguments);
  return intercept_fcntl(REAL(fcntl64), fd, command, argument);
}

INTERPOSE(int, chmod, (const char *path, mode_t mode)) {
  return intercept({.call = Call::chmod, .argument = mode, .path = path != nullptr ? path : ""},
                   [=](auto &) { return REAL(chmod)(path, mode); });
}

INTERPOSE(int, unlink, (const char *path)) {
  return intercept({.call = Call::unlink, .path = path != nullptr ? path : ""},
                   [=](auto &) { return REAL(unlink)(path); });
}

INTERPOSE(int, poll, (pollfd * fds, nfds_t count, int timeout_ms)) {
  if (count != 1) return REAL(poll)(fds, count, timeout_ms);
  return intercept({.call = Call::poll, .fd = fds[0].fd, .argument = timeout_ms},
                   [=](const Attempt &attempt) { return REAL(poll)(fds, count, static_cast<int>(attempt.argument)); });
}

INTERPOSE(ssize_t, read, (int fd, void *buffer, size_t length)) {
  return intercept(
      {.call = Call::read, .fd = fd, .argument = static_cast<std::int64_t>(length)},
      [=](const Attempt &attempt) { return REAL(read)(fd, buffer, static_cast<size_t>(attempt.argument)); });
}

INTERPOSE(ssize_t, __read_chk, (int fd, void *buffer, size_t length, size_t size)) {
  return intercept({.call = Call::read, .fd = fd, .argument = static_cast<std::int64_t>(length)},
                   [=](const Attempt &attempt) {
                     return REAL(__read_chk)(fd, buffer, static_cast<size_t>(attempt.argument), size);
                   });
}

INTERPOSE(ssize_t, write, (int fd, const void *buffer, size_t length)) {
  return intercept(
      {.call = Call::write, .fd = fd, .argument = static_cast<std::int64_t>(length)},
      [=](const Attempt &attempt) { return REAL(write)(fd, buffer, static_cast<size_t>(attempt.argument)); });
}

INTERPOSE(int, shutdown, (int fd, int how)) {
  return intercept({.call = Call::shutdown, .fd = fd, .argument = how},
                   [=](auto &) { return REAL(shutdown)(fd, how); });
}

INTERPOSE(int, close, (int fd)) {
  return intercept({.call = Call::close, .fd = fd}, [=](auto &) { return REAL(close)(fd); });
}
