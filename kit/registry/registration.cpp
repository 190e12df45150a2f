#include "registry/registration.h"

#include <fcntl.h>
#include <gio/gio.h>
#include <pthread.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cstdio>
#include <cstring>

#include "registry/entry_folder.h"

namespace ptz_kit {
namespace {

constexpr char lock_is_held[] = "another process holds its lock (see lslocks)";
constexpr gint64 lock_wait_us = 2 * G_USEC_PER_SEC;
constexpr gint64 lock_wait_while_serving_us = G_USEC_PER_SEC / 10;
constexpr char unfinished[] = ".entry-";  // prefix of the name of a file that is not complete yet

// Of drivers that were killed. The lock of the folder is held, so no other driver adds an entry now.
void remove_unfinished_files(int folder) {
  FolderReader reader(folder);
  if (!reader) return;
  while (const char *file = reader.next()) {
    if (g_str_has_prefix(file, unfinished) != FALSE) unlinkat(folder, file, 0);
  }
}

void set_conflict(GError **error, const PTZKitRegistryEntry &holder, bool same_socket) {
  const Text shared(same_socket ? g_strdup_printf("socket '%s' is served", holder.socket_path)
                                : g_strdup_printf("instance %u is published", holder.instance));
  g_set_error(error, G_IO_ERROR, G_IO_ERROR_ADDRESS_IN_USE, "%s by driver '%s', process %d", shared.get(), holder.name,
              holder.pid);
}

}  // namespace

Registration *Registration::first = nullptr;
GMutex Registration::list_lock;

void Registration::before_fork() { g_mutex_lock(&list_lock); }

void Registration::after_fork_in_parent() { g_mutex_unlock(&list_lock); }

void Registration::after_fork_in_child() {
  for (Registration *entry = first; entry != nullptr; entry = entry->next_) entry->file_ = UniqueFd();
  g_mutex_unlock(&list_lock);
}

void Registration::handle_forks() {
  static gsize handled;
  if (!g_once_init_enter(&handled)) return;
  pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
  g_once_init_leave(&handled, 1);
}

// Once, until there is an entry.
void Registration::warn() {
  const char *reason = errno == EWOULDBLOCK ? lock_is_held : g_strerror(errno);
  if (!warned_) syslog(LOG_WARNING, "the driver has no entry in '%s': %s", directory_.c_str(), reason);
  warned_ = true;
}

void Registration::enlist() {
  handle_forks();
  const MutexLock lock(&list_lock);
  next_ = first;
  first = this;
}

void Registration::delist() {
  const MutexLock lock(&list_lock);
  for (Registration **link = &first; *link != nullptr; link = &(*link)->next_) {
    if (*link != this) continue;
    *link = next_;
    return;
  }
}

bool Registration::is_own(const PTZKitRegistryEntry &entry) const {
  return entry.pid == facts_->pid && entry.since == facts_->since &&
         std::strcmp(entry.socket_path, facts_->socket_path) == 0;
}

// Removes the entries of drivers that were killed, and the own one if it was renamed.
bool Registration::find_conflict(int folder, GError **error) {
  bool found = false;
  const auto compare = [&](const char *file, const Entry &entry, const EntryFile &) {
    if (entry->liveness == PTZ_KIT_DRIVER_DEAD || is_own(*entry)) {
      unlinkat(folder, file, 0);
      return;
    }
    const bool same_socket = std::strcmp(entry->socket_path, facts_->socket_path) == 0;
    if (found || (!same_socket && (facts_->instance == 0 || entry->instance != facts_->instance))) return;
    found = true;
    set_conflict(error, *entry, same_socket);
  };
  if (!for_each_entry(folder, compare)) warn();
  return found;
}

bool Registration::write(int file, const SocketFile &socket) const {
  const Text text = format_entry(*facts_, socket);
  const std::size_t length = std::strlen(text.get());
  errno = ENOSPC;
  return pwrite(file, text.get(), length, 0) == static_cast<ssize_t>(length);
}

// The file gets its name when it is complete and locked. The lock of an older file ends after that, so that the driver
// looks alive all the time.
void Registration::add_entry(const SocketFile &socket) {
  const Text name(g_strconcat(directory_.c_str(), "/", unfinished, "XXXXXX", nullptr));
  const MutexLock lock(&list_lock);
  UniqueFd file(g_mkstemp_full(name.get(), O_RDWR | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (!file) return warn();
  struct stat folder = {};
  constexpr mode_t all_may_read = S_IRUSR | S_IRGRP | S_IROTH;
  std::string path =
      directory_ + "/" + std::to_string(facts_->pid) + (name.get() + std::strlen(name.get()) - 7) + entry_suffix;
  if (stat(directory_.c_str(), &folder) == 0) give_group(file.get(), folder.st_gid);
  if (fchmod(file.get(), (folder.st_mode & all_may_read) | S_IRUSR | S_IWUSR) == 0 && write(file.get(), socket) &&
      lock_entry(file.get()) && rename(name.get(), path.c_str()) == 0) {
    path_ = std::move(path);
    file_ = std::move(file);
    warned_ = false;
    return;
  }
  warn();
  unlink(name.get());
}

bool Registration::claim(const PTZKitRegistryEntry &facts, GError **error) {
  withdraw();
  directory_ = registry_directory();
  facts_.reset(ptz_kit_registry_entry_copy(&facts));
  warned_ = false;
  enlist();
  const UniqueFd folder = make_folder(directory_);
  if (!folder) {
    warn();
    return true;
  }
  if (!lock_folder(folder.get(), lock_wait_us)) {
    g_set_error(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT, "cannot lock '%s' within two seconds: %s", directory_.c_str(),
                errno == EWOULDBLOCK ? lock_is_held : g_strerror(errno));
    withdraw();
    return false;
  }
  const bool conflict = find_conflict(folder.get(), error);
  remove_unfinished_files(folder.get());
  if (!conflict) add_entry({});
  unlock_folder(folder.get());
  if (conflict) withdraw();
  return !conflict;
}

// The path may lead to no file or to another one: the entry or its folder was removed or renamed.
bool Registration::is_missing() const {
  if (!facts_ || facts_->pid != getpid()) return false;
  struct stat own, named;
  return !file_ || fstat(file_.get(), &own) != 0 || lstat(path_.c_str(), &named) != 0 || own.st_dev != named.st_dev ||
         own.st_ino != named.st_ino;
}

// Others may have started meanwhile, but this driver serves already.
void Registration::add_entry_again(const SocketFile &socket) {
  const UniqueFd folder = make_folder(directory_);
  if (!folder || !lock_folder(folder.get(), lock_wait_while_serving_us)) return warn();
  Error error;
  if (find_conflict(folder.get(), out(error))) {
    syslog(LOG_WARNING, "a second driver was started while the entry of this one was missing: %s", error->message);
  }
  add_entry(socket);
  unlock_folder(folder.get());
}

void Registration::publish(const SocketFile &socket) {
  if (is_missing()) {
    add_entry_again(socket);
  } else if (file_ && !write(file_.get(), socket)) {
    warn();
  }
}

void Registration::withdraw() {
  if (!facts_) return;
  delist();
  if (file_ && !is_missing()) unlink(path_.c_str());
  file_ = UniqueFd();
  facts_.reset();
}

}  // namespace ptz_kit
