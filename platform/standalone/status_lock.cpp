#include "status_lock.h"

#include <cerrno>
#include <cstdint>
#include <ctime>

#include "base/clock.h"

namespace ptz::platform {

namespace {
constexpr long patience_ns = 100'000'000;
}

void set_up_lock(WriterLock &lock) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  pthread_mutex_init(&lock, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

bool is_our_lock([[maybe_unused]] const WriterLock &lock) {
#ifdef __GLIBC__
  WriterLock ours;
  set_up_lock(ours);
  return lock.__data.__kind == ours.__data.__kind;
#else
  return true;
#endif
}

int lock_writers(WriterLock &lock) {
  int error = pthread_mutex_trylock(&lock);
  if (error == EBUSY) {
    timespec deadline = clock_now();
    deadline.tv_nsec += patience_ns;
    if (deadline.tv_nsec >= 1'000'000'000) {
      deadline.tv_nsec -= 1'000'000'000;
      ++deadline.tv_sec;
    }
    error = pthread_mutex_clocklock(&lock, CLOCK_MONOTONIC, &deadline);
  }
  switch (error) {
    case EOWNERDEAD:
      pthread_mutex_consistent(&lock);
      return 0;
    case ETIMEDOUT:
      return EBUSY;
    case ENOTRECOVERABLE:
    case EINVAL:
      return EBADMSG;
    default:
      return error;
  }
}

void unlock_writers(WriterLock &lock) { pthread_mutex_unlock(&lock); }

}  // namespace ptz::platform
