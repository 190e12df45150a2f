// tests/support/fixtures.h - temporary folders, captured criticals, and a main loop that runs until something is so.
#pragma once
#include <glib.h>

#include <functional>
#include <string>
#include <vector>

#include "temp_dir.h"

namespace ptz_test {

// Collects what is logged through GLib during its life, at any level, instead of printing it.
class GlibLogCapture {
  GLogFunc previous_;

 public:
  struct Message {
    std::string domain;
    GLogLevelFlags level;
    std::string text;
  };
  GlibLogCapture();
  GlibLogCapture(const GlibLogCapture &) = delete;
  ~GlibLogCapture();
  [[nodiscard]] std::vector<Message> messages() const;
  [[nodiscard]] std::size_t criticals() const;
  // Criticals of a failed precondition, such as ("ptz_socket_new", "path != NULL").
  [[nodiscard]] std::size_t failed_check(const std::string &function, const std::string &expression) const;
};

// Runs the default main context until the condition holds; false if it does not within the (real) time limit.
bool run_until(const std::function<bool()> &condition, int limit_ms = 10'000);

// Runs the default main context for as long as something is ready, then returns.
void run_pending();

// Iterations that the default main context makes in this much real time when it may sleep: a few where it is idle,
// thousands where a descriptor keeps it busy.
int iterations_within(int milliseconds);

}  // namespace ptz_test
