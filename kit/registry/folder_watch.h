// kit/registry/folder_watch.h - inotify on the names in a folder that need not exist.
//
// If the folder is missing, its nearest ancestor is watched until the folder is there. A watch is set before the next
// look at the path, so a folder that is made meanwhile is not missed.
#pragma once
#include <sys/inotify.h>

#include <string>

#include "handles.h"

namespace ptz_kit {

class FolderWatch {
  const std::string folder_;
  const guint32 events_;
  const UniqueFd fd_;
  int watch_ = -1;
  bool on_folder_ = false;

  [[nodiscard]] bool try_watch(const char *path);
  void arm();
  [[nodiscard]] bool follow(const inotify_event &event);

 public:
  // The events of the folder's files that matter.
  FolderWatch(std::string folder, guint32 events);
  // False with errno set if the kernel grants no watch.
  [[nodiscard]] explicit operator bool() const { return watch_ >= 0; }
  [[nodiscard]] int fd() const { return fd_.get(); }

  // Reads what has happened. Calls handler(name, events) for each file; the name is null if anything may have changed.
  template <typename Handler>
  void read_events(Handler &&handler) {
    alignas(inotify_event) char buffer[4096];
    for (;;) {
      const ssize_t length = read(fd_.get(), buffer, sizeof buffer);
      if (length <= 0) return;
      for (ssize_t at = 0; at < length;) {
        const auto &event = *reinterpret_cast<const inotify_event *>(buffer + at);
        at += static_cast<ssize_t>(sizeof event + event.len);
        if (follow(event)) {
          handler(nullptr, event.mask);
        } else if (on_folder_ && event.wd == watch_ && event.len > 0) {
          handler(static_cast<const char *>(event.name), event.mask);
        }
      }
    }
  }
};

}  // namespace ptz_kit
