// poll.h - asks a driver for its position again and again on the main loop, through the driver's restarts.
#pragma once
#include <ptz_kit.h>

#include <functional>

#include "terminal.h"

namespace example {

struct PollOptions {
  guint interval_ms;
  guint driver_limit_ms;  // how long to wait for a driver; 0 for ever
};

// States: waiting for the driver (limit_ runs, if there is a limit), asking (asking_), between two requests (next_).
// All functions run in the main thread.
class Poll {
  PTZKitLink *const link_;
  Terminal &terminal_;
  const PollOptions options_;
  const std::function<void()> on_no_driver_;
  gulong state_handler_ = 0;
  guint limit_ = 0;  // ids of timers
  guint next_ = 0;
  bool connected_ = false;
  bool asking_ = false;

  void wait_for_driver();
  void ask();
  static void on_state(Poll *poll);
  static void on_position(GObject *link, GAsyncResult *result, gpointer poll);
  static gboolean on_next(gpointer poll);
  static gboolean on_limit(gpointer poll);

 public:
  // `on_no_driver` is called if no driver is ready within the limit. Begins when the link is opened.
  Poll(PTZKitLink *link, Terminal &terminal, PollOptions options, std::function<void()> on_no_driver);
  Poll(const Poll &) = delete;
  ~Poll();
};

}  // namespace example
