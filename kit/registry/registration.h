// kit/registry/registration.h - the entry of a driver, from claim() to withdraw().
//
// claim() holds the lock of the folder while it reads all entries and adds its own, so two drivers cannot both find the
// socket and the instance free. The entry tells the socket's file from publish() on; until then the driver is hidden
// from lists, but others already see what it has claimed. publish() changes the entry in place, and only its numbers of
// a fixed width: a reader that meets the write sees another number for a moment, and nothing worse.
//
// Fork. A child that is not replaced by exec shares the lock of the entry, and would make a dead driver look alive. So
// the child closes its copy, in a handler of pthread_atfork(). A child made by clone() runs no handler: while it lives,
// its parent looks alive. withdraw() has no effect in a child, which does not end the driver of its parent.
//
// Main context; the list of entries to close is locked, because any thread may fork.
#pragma once
#include <string>

#include "registry/entry.h"

namespace ptz_kit {

class Registration {
  std::string directory_;
  std::string path_;  // of the entry
  Entry facts_;
  UniqueFd file_;
  bool warned_ = false;
  Registration *next_ = nullptr;  // in the list of the process

  static Registration *first;
  static GMutex list_lock;
  static void before_fork();
  static void after_fork_in_parent();
  static void after_fork_in_child();
  static void handle_forks();

  void enlist();
  void delist();
  void warn();
  [[nodiscard]] bool is_own(const PTZKitRegistryEntry &entry) const;
  [[nodiscard]] bool find_conflict(int folder, GError **error);
  [[nodiscard]] bool write(int file, const SocketFile &socket) const;
  void add_entry(const SocketFile &socket);
  void add_entry_again(const SocketFile &socket);

 public:
  Registration() = default;
  Registration(const Registration &) = delete;
  ~Registration() { withdraw(); }

  // False with an error if another driver has the socket or the instance, or if the lock of the folder is not free for
  // two seconds. If the folder cannot be written, the log gets a warning, and the entry is missing.
  [[nodiscard]] bool claim(const PTZKitRegistryEntry &facts, GError **error);
  // Makes the entry anew if it is missing.
  void publish(const SocketFile &socket);
  // Whether there is no entry, or not at its path. False in a child.
  [[nodiscard]] bool is_missing() const;
  // Of the entry; empty before the first one.
  [[nodiscard]] const std::string &path() const { return path_; }
  void withdraw();
};

}  // namespace ptz_kit
