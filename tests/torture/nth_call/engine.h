// tests/torture/nth_call/engine.h - lets each system call of an operation fail in turn, and judges what comes of it.
//
// For every operation, every kind of call that it makes and every plausible error of that call: the first call fails,
// then the second, until the operation makes no such call any more; once, and with all calls that follow. Each of these
// cases is a process of its own. A case is wrong if the process ends by a signal, takes too long, computes for more
// than half a second, makes more than 20,000 calls, logs a critical message or the text of another error, leaves a
// descriptor or memory behind, if the operation's own judgement says so, or if the operation fails afterwards without
// a fault.
#pragma once
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "trap.h"

namespace nth_call {

// One pass of an operation. Only act() has failing calls.
class Scenario {
 public:
  Scenario() = default;
  Scenario(const Scenario &) = delete;
  virtual ~Scenario() = default;
  virtual void prepare() {}
  virtual void act() = 0;
  // Empty, or what is wrong: neither the whole effect nor a stated failure, or an object that does not work.
  virtual std::string judge() = 0;
  virtual void clean() {}
  // Whether the operation has said that it succeeded.
  bool succeeded = false;
};

struct Operation {
  const char *name;
  std::function<std::unique_ptr<Scenario>()> make;
  bool only_fresh = false;         // what the first use in a process opens stays open
  int descriptors_if_refused = 0;  // contract: descriptors that a failure leaves open
  int descriptors_kept = 0;        // for as long as the process lives, by each pass
  bool keeps_memory = false;       // an object of the process that grows with each pass
  const char *not_onwards = "";    // names of calls that GLib repeats for as long as they fail, divided by spaces
};

template <typename T, typename... Arguments>
Operation operation(const char *name, Arguments... arguments) {
  return {.name = name, .make = [=] { return std::make_unique<T>(arguments...); }};
}

// The lines that act() has logged. Kept in a fixed place: what a case logs is not memory that it loses.
[[nodiscard]] std::string logged();
[[nodiscard]] bool was_logged(const char *part);

// An empty folder of this case.
[[nodiscard]] const std::string &scratch();

// The fault of the running case.
[[nodiscard]] const Fault &running_fault();
[[nodiscard]] inline bool fails_onwards() { return running_fault().onwards; }

// The whole program. --stride=N runs one case of N, --only=NAME one operation, and
// --case=CALL:ERRNO:N[:onwards][:fresh] one case of it in this process.
int run(int argc, char **argv, const char *what, const std::vector<Operation> &operations);

}  // namespace nth_call
