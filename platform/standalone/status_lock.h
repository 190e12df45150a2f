// platform/standalone/status_lock.h - the lock that orders the writers of a status group.
//
// The lock is a word in the group's file: 0 if it is free, otherwise the token of its owner. Locking is one
// compare-and-swap and takes no system call unless there is contention. No pointer lies in the shared memory, so
// another writer of the file cannot make this process write anywhere.
//
// Dead owners. A process that writes a group keeps a descriptor on the group's file. The descriptor holds a write lock
// (F_OFD_SETLK) on one byte far beyond the end of the file, and the offset of this byte is the token. The kernel drops
// the lock when the process ends. A writer that meets a foreign token asks the kernel for a lock on this byte: if there
// is none, the owner is dead, and the writer replaces the token by its own. Process ids play no part, so neither a
// process id that is used again nor another pid namespace matters. The token is locked before it can be in the word,
// and no token is used by two live processes, so a word never returns to an earlier value by accident.
//
// Strangers. The query is for a read lock, which conflicts only with write locks. A process that may only read the file
// can therefore not make a dead owner look alive. A token that is out of range counts as dead.
//
// Fork. A child shares the open file description, so it must close its descriptor; otherwise its life would prolong
// that of the parent's lock. withdraw() does so in the child handler, and the child enrols anew before it writes. The
// description must not be one that is mapped, because the child inherits the mapping, which would keep it open. A
// child made by clone() or _Fork() runs no handler; it delays the detection of its dead parent until it ends or calls
// exec.
//
// Lost descriptors. A program that closes all descriptors drops the lock, and its owner looks dead. The owner verifies
// the word before it publishes, and is_intact() detects the loss once a second.
//
// Starvation. A waiting writer sleeps for moments and would find the lock of a busy writer taken each time, so it sets
// a second word, and writers that come later wait first. The word is only a hint: if the waiting writer dies, the next
// one waits for half a millisecond and clears it.
//
// Threads. Within the process the caller lets one thread at a time in, because the kernel does not report the locks of
// one's own descriptor. enrol(), withdraw() and is_intact() additionally need the registry's lock.
#pragma once
#include <cstdint>

#include "base/handles.h"
#include "status_words.h"

namespace ptz::platform {

// The words of the lock in shared memory.
struct SharedLock {
  Word owner;   // the owner's token, or 0
  Word wanted;  // not 0 if a writer waits
};

// A wait of at most 100 ms: spins for a moment, then sleeps.
class WriterPatience {
  int spins_ = 0;
  std::int64_t deadline_ns_ = 0;
  long sleep_ns_ = 50'000;

  bool sleep(long duration_ns);

 public:
  [[nodiscard]] bool is_spinning() const { return deadline_ns_ == 0; }
  // Waits for a moment. Returns false without waiting if the time is over.
  bool wait();
  // Waits for longer than the longest moment.
  void step_aside();

  // Calls `try_take` until it returns true, or returns false if the time is over. A caller that writes all the time
  // would starve a waiting one: it steps aside first if the lock is wanted.
  template <typename TryTake>
  [[nodiscard]] bool take(Word &wanted, TryTake try_take) {
    if (load(wanted) == 0) [[likely]] {
      if (try_take()) [[likely]]
        return true;
    } else {
      step_aside();
    }
    while (!try_take()) {
      if (!is_spinning()) store(wanted, 1);
      if (!wait()) return false;
    }
    if (load(wanted) != 0) store(wanted, 0);
    return true;
  }
};

class WriterLock {
  UniqueFd fd_;
  Word token_ = 0;
  dev_t device_ = 0;
  ino_t inode_ = 0;

  [[nodiscard]] bool has_own_file() const;
  [[nodiscard]] bool is_dead(Word token) const;

 public:
  // Takes a descriptor of the group's file, open for writing. Not enrolled: withdraw first, and only then open the
  // descriptor, which may get the number of one that was lost. Returns 0, or the error.
  [[nodiscard]] int enrol(UniqueFd fd);
  // Closes the descriptor, unless its number belongs to another file by now. Async-signal-safe.
  void withdraw();
  [[nodiscard]] bool is_enrolled() const { return token_ != 0; }
  // The lock is not held. Returns false if the descriptor is no longer ours, or if the word holds our token all the
  // same; then a new token is needed.
  [[nodiscard]] bool is_intact(const SharedLock &shared) const;

  // Returns 0; ESTALE if not enrolled; EBUSY if a live writer holds the lock until the time is over.
  [[nodiscard]] int lock(SharedLock &shared, WriterPatience &patience) const;
  [[nodiscard]] bool is_held(const SharedLock &shared) const { return load(shared.owner) == token_; }
  void unlock(SharedLock &shared) const;
};

}  // namespace ptz::platform
