// tests/transport/held_mutex.h - a mutex that is held by another thread.
#pragma once
#include <glib.h>

#include <future>

namespace ptz_test {

// While it lives, another thread holds the mutex.
class HeldMutex {
  std::promise<void> release_;
  std::promise<void> held_;
  std::future<void> holder_;

 public:
  explicit HeldMutex(GMutex *mutex)
      : holder_(std::async(std::launch::async, [this, mutex] {
          g_mutex_lock(mutex);
          held_.set_value();
          release_.get_future().wait();
          g_mutex_unlock(mutex);
        })) {
    held_.get_future().wait();
  }
  HeldMutex(const HeldMutex &) = delete;
  ~HeldMutex() { release_.set_value(); }
};

}  // namespace ptz_test
