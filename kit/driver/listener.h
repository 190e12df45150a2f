// kit/driver/listener.h - the listening socket of a driver, and its path.
//
// The base's server binds the path. The listener then takes the path away from it (property "socket"), because the
// server would remove whatever file is there when it ends. The listener removes the file only if it is its own, by
// device and inode.
//
// Loss. inotify tells at once when the file loses its name (IN_ATTRIB: its count of links changes) or is moved. Each
// folder above it is watched for its own move only, so a busy folder such as /tmp wakes nothing. If the path is free or
// stale, a new server listens there at once. If another process serves it, or if another file is in the way, a timer
// looks again until the path is back; a path that was served is taken back at most once a second, so two programs that
// want the same path do not keep each other busy.
//
// The entry in the registry is watched likewise, and made anew half a second after it was removed or moved. If that
// fails, it is tried again, ever more rarely, and at least every ten seconds.
//
// The monitor socket is made whenever the driver listens anew, and its file is watched likewise; it is not taken back
// from another process.
//
// Limits. inotify does not tell that a file system was mounted over one of the folders, or that a symbolic link that
// led to the registry now leads elsewhere: such a loss is noticed at the next event. If the kernel grants no watch, the
// path is looked at twice a second, which has neither limit.
//
// Clients. The server that has lost its path goes on serving its clients. It is freed when the path is lost the next
// time and no client is left, so there are never more servers than connections, plus one.
//
// Main context.
#pragma once
#include <ptz_socket_server_command.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "driver/monitor_server.h"
#include "handles.h"
#include "registry/registration.h"

namespace ptz_kit {

class Listener {
  static constexpr guint first_entry_retry_ms = 500;  // its folder may be removed just now, and would not be empty

  const PTZSocketServerCallback callback_;
  const gpointer user_data_;
  Registration &registration_;
  MonitorServer &monitor_;
  std::string path_;
  pid_t owner_ = 0;  // a child does not remove the files of its parent
  SocketFile file_;
  std::vector<Object<PTZSocketServerCommand>> servers_;  // the last one listens
  UniqueFd watch_;                                       // of inotify
  guint watch_source_ = 0;
  int file_watch_ = -1, monitor_watch_ = -1;
  bool polls_ = false;
  Timer timer_, entry_timer_;
  guint failures_ = 0;
  guint entry_retry_ms_ = first_entry_retry_ms;
  bool lost_ = false;
  gint64 listening_since_us_ = 0;
  gint64 monitor_made_us_ = 0;

  [[nodiscard]] bool listen();
  void begin_watch();
  void poll_instead();
  int watch(const char *path, guint32 events);
  void watch_folders_of(const std::string &path);
  void watch_files();
  void drop_idle_servers();
  void check();
  void recover();
  void check_monitor();
  void check_in(guint interval_ms);
  static gboolean on_change(gint fd, GIOCondition, gpointer listener);
  static gboolean on_timer(gpointer listener);
  static gboolean on_entry_timer(gpointer listener);

 public:
  Listener(Registration &registration, MonitorServer &monitor, PTZSocketServerCallback callback, gpointer user_data)
      : callback_(callback), user_data_(user_data), registration_(registration), monitor_(monitor) {}
  Listener(const Listener &) = delete;
  ~Listener() { stop(); }

  [[nodiscard]] bool is_started() const { return !servers_.empty(); }
  // False with an error if the path is served or is no socket, or if the server cannot listen.
  [[nodiscard]] bool start(const std::string &path, GError **error);
  void stop();
  // The descriptors of all connections.
  template <typename Function>
  void for_each_client(Function function) const {
    for (const auto &server : servers_) {
      for (const GList *link = PTZ_SOCKET_SERVER(server.get())->source->clients; link != nullptr; link = link->next) {
        function(static_cast<const PTZSocketServerClient *>(link->data)->fd);
      }
    }
  }
};

}  // namespace ptz_kit
