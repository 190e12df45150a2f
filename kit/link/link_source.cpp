#include "link/link_source.h"

#include <poll.h>

#include <cstring>

#include "registry/folder_watch.h"

namespace ptz_kit {
namespace {

// Events and time-out are set at each preparation instead of with g_source_modify_unix_fd() and
// g_source_set_ready_time(), which wake the context each time.
struct LinkSource {
  GSource base;
  Shared<LinkCore> core;
  GWeakRef link;
  Shared<Connection> watched;
  GPollFD poll;
  std::unique_ptr<FolderWatch> folder;  // of the socket, while the link is not ready
  GPollFD folder_poll;
};

constexpr guint32 events_of_socket = IN_CREATE | IN_MOVED_TO | IN_ATTRIB;

LinkSource &source_of(GSource *source) { return *reinterpret_cast<LinkSource *>(source); }

gboolean prepare(GSource *source, gint *timeout_ms) {
  LinkSource &self = source_of(source);
  return self.core->prepare(self.watched, self.poll, timeout_ms);
}

gboolean check(GSource *source) {
  LinkSource &self = source_of(source);
  if (self.folder && self.folder_poll.revents != 0) return TRUE;
  return self.core->check(self.watched, self.poll);
}

// Takes the descriptor of an old connection off the context before it is closed.
void follow(LinkSource &self, Shared<Connection> connection) {
  if (self.watched == connection) return;
  if (self.watched) g_source_remove_poll(&self.base, &self.poll);
  self.watched = std::move(connection);
  if (!self.watched) return;
  self.poll = {self.watched->fd(), 0, 0};
  g_source_add_poll(&self.base, &self.poll);
}

// A driver that starts is noticed when its socket appears. The watch is there before the first attempt, before the one
// that follows a hang-up, and until the handshake has succeeded. Without inotify, only the next attempt finds the
// driver.
void watch_folder(LinkSource &self) {
  const bool hangs_up = self.watched && (self.poll.revents & (G_IO_HUP | G_IO_ERR | POLLRDHUP)) != 0;
  const bool waits = hangs_up || self.core->state() != PTZ_KIT_LINK_STATE_READY;
  if (waits == static_cast<bool>(self.folder)) return;
  if (!waits) {
    if (*self.folder) g_source_remove_poll(&self.base, &self.folder_poll);
    self.folder.reset();
    return;
  }
  const Text folder(g_path_get_dirname(self.core->path()));
  self.folder = std::make_unique<FolderWatch>(folder.get(), events_of_socket);
  self.folder_poll = {self.folder->fd(), G_IO_IN, 0};
  if (*self.folder) g_source_add_poll(&self.base, &self.folder_poll);
}

void read_folder(LinkSource &self) {
  if (!self.folder || std::exchange(self.folder_poll.revents, 0) == 0) return;
  const Text file(g_path_get_basename(self.core->path()));
  bool changed = false;
  self.folder->read_events(
      [&](const char *name, guint32) { changed |= name == nullptr || std::strcmp(name, file.get()) == 0; });
  if (changed) self.core->path_has_changed();
}

gboolean dispatch(GSource *source, GSourceFunc, gpointer) {
  LinkSource &self = source_of(source);
  const Object<PTZKitLink> link(static_cast<PTZKitLink *>(g_weak_ref_get(&self.link)));
  if (link == nullptr) return G_SOURCE_REMOVE;
  watch_folder(self);
  read_folder(self);
  self.core->run(self.watched, self.poll.revents);
  if (g_source_is_destroyed(source)) return G_SOURCE_REMOVE;
  follow(self, self.core->connection());
  watch_folder(self);
  notify_change(link.get(), *self.core);
  return G_SOURCE_CONTINUE;
}

void finalize(GSource *source) {
  LinkSource &self = source_of(source);
  g_weak_ref_clear(&self.link);
  std::destroy_at(&self.folder);
  std::destroy_at(&self.watched);
  std::destroy_at(&self.core);
}

GSourceFuncs functions = {prepare, check, dispatch, finalize, nullptr, nullptr};

}  // namespace

GSource *new_link_source(PTZKitLink *link, const Shared<LinkCore> &core) {
  GSource *source = g_source_new(&functions, sizeof(LinkSource));
  LinkSource &self = source_of(source);
  std::construct_at(&self.core, core);
  std::construct_at(&self.watched);
  std::construct_at(&self.folder);
  g_weak_ref_init(&self.link, link);
  g_source_set_can_recurse(source, TRUE);  // a callback may run a loop of its own, with calls of this link
  g_source_set_static_name(source, "PTZKitLink");
  return source;
}

}  // namespace ptz_kit
