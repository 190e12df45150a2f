#include "driver/listener.h"

#include <fcntl.h>
#include <gio/gio.h>
#include <glib-unix.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <syslog.h>

#include <cstring>

#include "driver/format.h"
#include "driver/socket_path.h"
#include "registry/entry_folder.h"

namespace ptz_kit {
namespace {

constexpr guint retry_ms = 250;
constexpr guint after_failure_ms = 900;
constexpr guint quick_retries = 20;
constexpr guint after_many_failures_ms = 10'000;  // each failure costs the base a descriptor and a log line
constexpr guint entry_retry_max_ms = 10'000;
constexpr gint64 lock_wait_us = 2 * G_USEC_PER_SEC;
constexpr guint without_watch_ms = 500;
constexpr gint64 take_back_interval_us = G_USEC_PER_SEC;
constexpr gint64 listen_interval_us = 10'000;  // a program that removes the path all the time does not stop the driver

Text folder_of(const std::string &path) { return Text(g_path_get_dirname(path.c_str())); }

bool has_work(PTZSocketServerCommand *server) {
  if (PTZ_SOCKET_SERVER(server)->source->clients != nullptr) return true;
  pollfd waiting = {PTZ_SOCKET(server)->fd, POLLIN, 0};
  return poll(&waiting, 1, 0) > 0;
}

std::string describe_loss(const PathHolder &holder) {
  switch (holder.kind) {
    case PathHolder::Kind::none:
      return "was removed: listening there again";
    case PathHolder::Kind::process:
      return holder.pid > 0 ? format("was taken by process %d: taking it back", holder.pid)
                            : "was taken by another process: taking it back";
    case PathHolder::Kind::no_socket:
    case PathHolder::Kind::unknown:
      break;
  }
  return "was replaced by another file: listening there again when that is removed";
}

}  // namespace

bool Listener::start(const std::string &path, GError **error) {
  stop();
  path_ = resolve_socket_path(path);
  owner_ = getpid();
  // Drivers without a common registry still do not overtake each other between the check and the bind.
  const UniqueFd folder = open_folder(folder_of(path_).get());
  const bool locked = folder && lock_folder(folder.get(), lock_wait_us);
  const bool may_listen = is_path_free(path_, error);
  const bool listens = may_listen && listen();
  if (locked) unlock_folder(folder.get());
  if (listens) {
    begin_watch();
  } else if (may_listen) {
    g_set_error(error, G_IO_ERROR, G_IO_ERROR_FAILED, "cannot listen on '%s'", path.c_str());
  }
  return listens;
}

void Listener::stop() {
  timer_.stop();
  entry_timer_.stop();
  if (watch_source_ != 0) g_source_remove(watch_source_);
  watch_source_ = 0;
  watch_ = UniqueFd();
  file_watch_ = monitor_watch_ = -1;
  polls_ = false;
  if (is_started() && owner_ == getpid() && file_.inode != 0 && socket_at(path_.c_str()) == file_) {
    unlink(path_.c_str());
  }
  monitor_.stop();
  servers_.clear();
}

bool Listener::listen() {
  monitor_.listen(path_);  // first, so that a tool that finds the driver's socket finds this one, too
  Object<PTZSocketServerCommand> server(ptz_socket_server_command_new(path_.c_str(), SOCK_STREAM));
  if (!server || PTZ_SOCKET(server.get())->fd < 0) return false;
  g_object_set(server.get(), "socket", "", nullptr);  // the server would remove the file at the path
  ptz_socket_server_register_callback(PTZ_SOCKET_SERVER(server.get()), callback_, user_data_);
  servers_.push_back(std::move(server));
  file_ = socket_at(path_.c_str());
  listening_since_us_ = g_get_monotonic_time();
  drop_idle_servers();
  registration_.publish(file_);
  return true;
}

void Listener::drop_idle_servers() {
  const PTZSocketServerCommand *listening = servers_.back().get();
  std::erase_if(servers_, [=](const auto &server) { return server.get() != listening && !has_work(server.get()); });
}

void Listener::begin_watch() {
  watch_ = UniqueFd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (watch_) {
    watch_source_ = g_unix_fd_add(watch_.get(), G_IO_IN, on_change, this);
  } else {
    poll_instead();
  }
  watch_files();
  check();  // for a change before the watch
}

void Listener::poll_instead() {
  if (polls_) return;
  polls_ = true;
  syslog(LOG_WARNING, "the socket is looked at twice a second, because inotify is not available: %s",
         g_strerror(errno));
}

int Listener::watch(const char *path, guint32 events) {
  const int id = inotify_add_watch(watch_.get(), path, events);
  if (id < 0 && (errno == ENOSPC || errno == ENOMEM)) poll_instead();
  return id;
}

void Listener::watch_folders_of(const std::string &path) {
  for (Text folder = folder_of(path);; folder = folder_of(folder.get())) {
    watch(folder.get(), IN_MOVE_SELF | IN_ONLYDIR);
    if (std::strlen(folder.get()) <= 1) return;
  }
}

void Listener::watch_files() {
  if (!watch_) return;
  if (file_watch_ >= 0) inotify_rm_watch(watch_.get(), file_watch_);
  constexpr guint32 events_of_file = IN_ATTRIB | IN_MOVE_SELF | IN_DONT_FOLLOW;
  file_watch_ = watch(path_.c_str(), events_of_file);
  watch_folders_of(path_);
  if (monitor_watch_ >= 0) inotify_rm_watch(watch_.get(), monitor_watch_);
  monitor_watch_ = inotify_add_watch(watch_.get(), monitor_.path().c_str(), events_of_file);
  if (registration_.path().empty()) return;
  watch(registration_.path().c_str(), events_of_file);
  watch_folders_of(registration_.path());
}

gboolean Listener::on_change(gint fd, GIOCondition, gpointer listener) {
  alignas(inotify_event) char events[4096];
  while (read(fd, events, sizeof events) > 0) {
  }
  static_cast<Listener *>(listener)->check();
  return G_SOURCE_CONTINUE;
}

gboolean Listener::on_timer(gpointer listener) {
  auto &self = *static_cast<Listener *>(listener);
  self.timer_.ended();
  self.check();
  return G_SOURCE_REMOVE;
}

gboolean Listener::on_entry_timer(gpointer listener) {
  auto &self = *static_cast<Listener *>(listener);
  self.entry_timer_.ended();
  if (self.registration_.is_missing()) self.registration_.publish(self.file_);
  self.watch_files();
  self.entry_retry_ms_ = MIN(2 * self.entry_retry_ms_, entry_retry_max_ms);
  self.check();
  return G_SOURCE_REMOVE;
}

void Listener::check_in(guint interval_ms) {
  if (!timer_.runs()) timer_.start(interval_ms, on_timer, this);
}

void Listener::check() {
  if (!registration_.is_missing()) {
    entry_retry_ms_ = first_entry_retry_ms;
  } else if (!entry_timer_.runs()) {
    entry_timer_.start(entry_retry_ms_, on_entry_timer, this);
  }
  if (file_.inode == 0 || socket_at(path_.c_str()) != file_) return recover();
  lost_ = false;
  failures_ = 0;
  timer_.stop();
  check_monitor();
  if (polls_) check_in(without_watch_ms);
}

// A program that removes the file all the time does not stop the driver.
void Listener::check_monitor() {
  if (!monitor_.is_lost()) return;
  const gint64 now_us = g_get_monotonic_time();
  if (now_us - monitor_made_us_ < retry_ms * 1000) return check_in(retry_ms);
  monitor_made_us_ = now_us;
  monitor_.listen(path_);
  watch_files();
}

void Listener::recover() {
  const PathHolder holder = holder_of(path_.c_str());
  if (!lost_) syslog(LOG_WARNING, "socket '%s' %s", path_.c_str(), describe_loss(holder).c_str());
  lost_ = true;
  const gint64 age_us = g_get_monotonic_time() - listening_since_us_;
  const bool is_served = holder.kind == PathHolder::Kind::process;
  const gint64 wait_us = (is_served ? take_back_interval_us : listen_interval_us) - age_us;
  if (wait_us > 0) return check_in(static_cast<guint>(wait_us / 1000 + 1));
  const bool may_listen = is_served || holder.kind == PathHolder::Kind::none;
  // Checked first, because the server logs each failure.
  if (!may_listen || access(folder_of(path_).get(), W_OK | X_OK) != 0) return check_in(retry_ms);
  if (!listen()) {
    ++failures_;
    return check_in(failures_ <= quick_retries ? after_failure_ms : after_many_failures_ms);
  }
  watch_files();
  check();
}

}  // namespace ptz_kit
