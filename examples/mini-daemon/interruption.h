// interruption.h - tells the worker thread that the program should end, even while the worker sleeps.
#pragma once
#include <chrono>
#include <condition_variable>
#include <mutex>

namespace example {

// Thread-safe.
class Interruption {
  mutable std::mutex lock_;
  mutable std::condition_variable changed_;
  bool interrupted_ = false;

 public:
  void interrupt() {
    const std::lock_guard guard(lock_);
    interrupted_ = true;
    changed_.notify_all();
  }
  // Returns early, with false, when the program is interrupted.
  bool sleep(std::chrono::milliseconds time) const {
    std::unique_lock guard(lock_);
    return !changed_.wait_for(guard, time, [this] { return interrupted_; });
  }
};

}  // namespace example
