// The locks of GLib, condition variables and one-time initialisation.
#include <pthread.h>
#include <time.h>

#include <cerrno>

#include "announce.h"

#define LOCKING(name, Lock, flags)          \
  INSTEAD_OF(name, void, (Lock * lock)) {   \
    REAL(name);                             \
    __tsan_mutex_pre_lock(lock, flags);     \
    real(lock);                             \
    __tsan_mutex_post_lock(lock, flags, 1); \
  }

#define TRYING(name, Lock, flags)                                                                                   \
  INSTEAD_OF(name, gboolean, (Lock * lock)) {                                                                       \
    REAL(name);                                                                                                     \
    __tsan_mutex_pre_lock(lock, (flags) | __tsan_mutex_try_lock);                                                   \
    const gboolean locked = real(lock);                                                                             \
    __tsan_mutex_post_lock(lock, (flags) | __tsan_mutex_try_lock | (locked ? 0 : __tsan_mutex_try_lock_failed), 1); \
    return locked;                                                                                                  \
  }

#define UNLOCKING(name, Lock, flags)       \
  INSTEAD_OF(name, void, (Lock * lock)) {  \
    REAL(name);                            \
    __tsan_mutex_pre_unlock(lock, flags);  \
    real(lock);                            \
    __tsan_mutex_post_unlock(lock, flags); \
  }

#define CLEARING(name, Lock)                              \
  INSTEAD_OF(name, void, (Lock * lock)) {                 \
    REAL(name);                                           \
    __tsan_mutex_destroy(lock, __tsan_mutex_linker_init); \
    real(lock);                                           \
  }

extern "C" {

constexpr unsigned plain = __tsan_mutex_linker_init;
constexpr unsigned recursive = __tsan_mutex_linker_init | __tsan_mutex_write_reentrant;
constexpr unsigned shared = __tsan_mutex_linker_init | __tsan_mutex_read_lock;

LOCKING(g_mutex_lock, GMutex, plain)
TRYING(g_mutex_trylock, GMutex, plain)
UNLOCKING(g_mutex_unlock, GMutex, plain)
CLEARING(g_mutex_clear, GMutex)
LOCKING(g_rec_mutex_lock, GRecMutex, recursive)
TRYING(g_rec_mutex_trylock, GRecMutex, recursive)
UNLOCKING(g_rec_mutex_unlock, GRecMutex, recursive)
CLEARING(g_rec_mutex_clear, GRecMutex)
LOCKING(g_rw_lock_writer_lock, GRWLock, plain)
TRYING(g_rw_lock_writer_trylock, GRWLock, plain)
UNLOCKING(g_rw_lock_writer_unlock, GRWLock, plain)
LOCKING(g_rw_lock_reader_lock, GRWLock, shared)
TRYING(g_rw_lock_reader_trylock, GRWLock, shared)
UNLOCKING(g_rw_lock_reader_unlock, GRWLock, shared)
CLEARING(g_rw_lock_clear, GRWLock)

// The mutex is released and taken again inside. A signal needs no announcement: the mutex orders what it tells of.
INSTEAD_OF(g_cond_wait, void, (GCond * condition, GMutex *mutex)) {
  REAL(g_cond_wait);
  __tsan_mutex_pre_unlock(mutex, plain);
  __tsan_mutex_post_unlock(mutex, plain);
  real(condition, mutex);
  __tsan_mutex_pre_lock(mutex, plain);
  __tsan_mutex_post_lock(mutex, plain, 1);
}

INSTEAD_OF(g_cond_wait_until, gboolean, (GCond * condition, GMutex *mutex, gint64 end_time)) {
  REAL(g_cond_wait_until);
  __tsan_mutex_pre_unlock(mutex, plain);
  __tsan_mutex_post_unlock(mutex, plain);
  const gboolean signalled = real(condition, mutex, end_time);
  __tsan_mutex_pre_lock(mutex, plain);
  __tsan_mutex_post_lock(mutex, plain, 1);
  return signalled;
}

// The fast path of the macro is an atomic read of the location, in our code: the sanitizer sees that.
INSTEAD_OF(g_once_init_enter, gboolean, (volatile void *location)) {
  REAL(g_once_init_enter);
  const gboolean first = real(location);
  if (!first) __tsan_acquire(const_cast<void *>(location));
  return first;
}

INSTEAD_OF(g_once_init_leave, void, (volatile void *location, gsize value)) {
  REAL(g_once_init_leave);
  __tsan_release(const_cast<void *>(location));
  real(location, value);
}

// Not GLib's, but clang 14's runtime does not know it.
INSTEAD_OF(pthread_mutex_clocklock, int, (pthread_mutex_t * mutex, clockid_t clock, const timespec *deadline)) {
  REAL(pthread_mutex_clocklock);
  __tsan_mutex_pre_lock(mutex, plain | __tsan_mutex_try_lock);
  const int error = real(mutex, clock, deadline);
  const bool locked = error == 0 || error == EOWNERDEAD;
  __tsan_mutex_post_lock(mutex, plain | __tsan_mutex_try_lock | (locked ? 0 : __tsan_mutex_try_lock_failed), 1);
  return error;
}

}  // extern "C"
