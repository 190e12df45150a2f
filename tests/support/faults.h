// tests/support/faults.h - the system calls under the library, which a test may watch, cut short or let fail.
//
// Calls are seen from every thread of the test program, GLib's own among them: name the descriptor, or look at it,
// where it matters. What a test does inside an Interposer's handler is not seen again.
#pragma once
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace ptz_test {

enum class Call {
  socket,                // argument: the type
  bind,                  // argument: the length of the address; path: its path
  listen,                // argument: the backlog
  connect,               // argument: the length of the address; path: its path
  accept,                // accept and accept4
  get_status_flags,      // fcntl F_GETFL
  set_status_flags,      // fcntl F_SETFL, argument: the flags
  set_descriptor_flags,  // fcntl F_SETFD, argument: the flags
  chmod,                 // argument: the mode; path
  unlink,                // path
  poll,                  // on exactly one descriptor, as opposed to the main loop's; argument: milliseconds
  read,                  // argument: the length
  write,                 // argument: the length
  shutdown,              // argument: the direction
  close,
};

// A call that is about to be made.
struct Attempt {
  Call call;
  int fd = -1;
  std::int64_t argument = 0;  // of poll, read and write a handler may change it, and let the changed call go on
  std::string path = {};
};

// What a call answers instead of being made.
struct Outcome {
  std::int64_t result;
  int error = 0;
};

// While it lives, asks the handler about every call: an outcome stands for the call, nothing lets it go on. All that
// live are asked, the newest first, whose outcome counts before those of the others.
class Interposer {
 public:
  using Handler = std::function<std::optional<Outcome>(Attempt &)>;
  explicit Interposer(Handler handler);
  Interposer(const Interposer &) = delete;
  ~Interposer();

 private:
  std::shared_ptr<Handler> handler_;
};

constexpr int any_fd = -2;

// While it lives, lets a call fail with an error: on one descriptor or on any, a number of times or always, after a
// number of calls that go through.
class Fault {
 public:
  struct Limits {
    int fd = any_fd;
    int times = -1;
    int skip = 0;
  };
  Fault(Call call, int error, Limits limits);
  Fault(Call call, int error) : Fault(call, error, Limits{}) {}
  [[nodiscard]] int hits() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
  Interposer interposer_;
};

// Keeps every call that is made during its life.
class CallLog {
 public:
  CallLog();
  [[nodiscard]] std::vector<Attempt> attempts() const;
  [[nodiscard]] std::vector<Attempt> attempts(Call call, int fd = any_fd) const;
  [[nodiscard]] std::size_t count(Call call, int fd = any_fd) const { return attempts(call, fd).size(); }

 private:
  struct State;
  std::shared_ptr<State> state_;
  Interposer interposer_;
};

}  // namespace ptz_test
