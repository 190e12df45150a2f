// platform/standalone/status_lock.h - the lock that orders the writers of a status group.
//
// The kernel hands the lock on if its holder is killed. What the holder had not published does not count.
#pragma once
#include <pthread.h>

namespace ptz::platform {

using WriterLock = pthread_mutex_t;

void set_up_lock(WriterLock &lock);

// A mutex of another kind would neither time out nor outlive its holder.
[[nodiscard]] bool is_our_lock(const WriterLock &lock);

// Waits for at most 100 ms. Returns 0; EBUSY if another writer still holds the lock; EBADMSG if it is no lock.
[[nodiscard]] int lock_writers(WriterLock &lock);
void unlock_writers(WriterLock &lock);

}  // namespace ptz::platform
