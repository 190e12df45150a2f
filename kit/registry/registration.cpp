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

constexpr char unfinished[] = ".entry-";  // prefix of the name of a file that is not complete yet

void warn(const std::string &directory) {
  syslog(LOG_WARNING, "the driver has no entry in '%s': %s", directory.c_str(), g_strerror(errno));
}

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

// Removes the entries of drivers that were killed.
bool Registration::find_conflict(int folder, GError **error) const {
  bool found = false;
  const auto compare = [&](const char *file, const Entry &entry, const EntryFile &) {
    if (entry->liveness == PTZ_KIT_DRIVER_DEAD) {
      unlinkat(folder, file, 0);
      return;
    }
    const bool same_socket = std::strcmp(entry->socket_path, facts_->socket_path) == 0;
    if (found || (!same_socket && (facts_->instance == 0 || entry->instance != facts_->instance))) return;
    found = true;
    set_conflict(error, *entry, same_socket);
  };
  if (!for_each_entry(folder, compare)) warn(directory_);
  return found;
}

bool Registration::write(const SocketFile &socket) {
  const Text text = format_entry(*facts_, socket);
  const std::size_t length = std::strlen(text.get());
  errno = ENOSPC;
  return pwrite(file_.get(), text.get(), length, 0) == static_cast<ssize_t>(length);
}

// The file gets its name when it is complete and locked.
void Registration::add_entry(const SocketFile &socket) {
  const Text name(g_strconcat(directory_.c_str(), "/", unfinished, "XXXXXX", nullptr));
  {
    const MutexLock lock(&list_lock);
    file_ = UniqueFd(g_mkstemp_full(name.get(), O_RDWR | O_CLOEXEC, S_IRUSR | S_IWUSR));
  }
  if (!file_) return warn(directory_);
  struct stat folder = {};
  constexpr mode_t all_may_read = S_IRUSR | S_IRGRP | S_IROTH;
  path_ = std::string(directory_) + "/" + std::to_string(facts_->pid) + (name.get() + std::strlen(name.get()) - 7) +
          entry_suffix;
  if (stat(directory_.c_str(), &folder) == 0) give_group(file_.get(), folder.st_gid);
  if (fchmod(file_.get(), (folder.st_mode & all_may_read) | S_IRUSR | S_IWUSR) == 0 && write(socket) &&
      lock_entry(file_.get()) && rename(name.get(), path_.c_str()) == 0) {
    return;
  }
  warn(directory_);
  unlink(name.get());
  const MutexLock lock(&list_lock);
  file_ = UniqueFd();
}

bool Registration::claim(const PTZKitRegistryEntry &facts, GError **error) {
  withdraw();
  directory_ = registry_directory();
  facts_.reset(ptz_kit_registry_entry_copy(&facts));
  const UniqueFd folder = make_folder(directory_);
  if (!folder) {
    warn(directory_);
    return true;
  }
  if (!lock_folder(folder.get())) {
    g_set_error(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT, "cannot lock '%s': %s", directory_.c_str(),
                errno == EWOULDBLOCK ? "another process holds the lock" : g_strerror(errno));
    return false;
  }
  const bool conflict = find_conflict(folder.get(), error);
  remove_unfinished_files(folder.get());
  enlist();
  if (!conflict) add_entry({});
  unlock_folder(folder.get());
  if (conflict) withdraw();
  return !conflict;
}

bool Registration::is_removed() const {
  struct stat status;
  return file_ && fstat(file_.get(), &status) == 0 && status.st_nlink == 0;
}

void Registration::publish(const SocketFile &socket) {
  if (!file_) return;
  if (is_removed()) {
    make_folder(directory_);  // which may have been removed with its files
    add_entry(socket);
  } else if (!write(socket)) {
    warn(directory_);
  }
}

void Registration::withdraw() {
  if (!facts_) return;
  delist();
  if (file_) unlink(path_.c_str());
  file_ = UniqueFd();
  facts_.reset();
}

}  // namespace ptz_kit
