#include "link/link_source.h"

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
};

LinkSource &source_of(GSource *source) { return *reinterpret_cast<LinkSource *>(source); }

gboolean prepare(GSource *source, gint *timeout_ms) {
  LinkSource &self = source_of(source);
  return self.core->prepare(self.watched, self.poll, timeout_ms);
}

gboolean check(GSource *source) {
  LinkSource &self = source_of(source);
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

gboolean dispatch(GSource *source, GSourceFunc, gpointer) {
  LinkSource &self = source_of(source);
  const Object<PTZKitLink> link(static_cast<PTZKitLink *>(g_weak_ref_get(&self.link)));
  if (link == nullptr) return G_SOURCE_REMOVE;
  self.core->run(self.watched, self.poll.revents);
  if (g_source_is_destroyed(source)) return G_SOURCE_REMOVE;
  follow(self, self.core->connection());
  notify_change(link.get(), *self.core);
  return G_SOURCE_CONTINUE;
}

void finalize(GSource *source) {
  LinkSource &self = source_of(source);
  g_weak_ref_clear(&self.link);
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
  g_weak_ref_init(&self.link, link);
  g_source_set_can_recurse(source, TRUE);  // a callback may run a loop of its own, with calls of this link
  g_source_set_static_name(source, "PTZKitLink");
  return source;
}

}  // namespace ptz_kit
