// src/transport/reply_callbacks.h - knows whether a command client's callback is running in this thread.
#pragma once
#include <glib.h>
#include <atomic>
#include <utility>

namespace ptz {

// Callbacks of a command client run only in a thread that has acquired the default main context, so one thread at a
// time. A send inside a callback drains the socket, but hands the replies to the main loop: it never runs another
// callback. A main loop that a callback runs may.
//
// running_here() may be called by any thread.
class ReplyCallbacks {
  std::atomic<GThread *> thread_ = nullptr;

 public:
  [[nodiscard]] bool running_here() const { return thread_ == g_thread_self(); }

  // On the stack around a callback, which may run a main loop that runs another.
  class Running {
    ReplyCallbacks *callbacks_;
    GThread *outer_;

   public:
    explicit Running(ReplyCallbacks *callbacks)
        : callbacks_(callbacks), outer_(callbacks->thread_.exchange(g_thread_self())) {}
    Running(Running &&) = delete;
    ~Running() { callbacks_->thread_ = outer_; }
  };
};

}  // namespace ptz
