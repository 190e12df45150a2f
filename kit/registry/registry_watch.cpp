#include "registry/registry_watch.h"

#include <glib-unix.h>

#include <algorithm>
#include <cstring>

#include "registry/entry_folder.h"

namespace ptz_kit {
namespace {

constexpr guint32 events_of_entries = IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_MODIFY | IN_CLOSE_WRITE;
constexpr guint first_look_again_ms = 10;
constexpr guint looks_after_close = 5;  // after 10, 30, 70, 150 and 310 ms

void end(GSource *source) {
  if (source != nullptr) g_source_destroy(source);
}

}  // namespace

RegistryWatch::RegistryWatch(PTZKitRegistry *registry, const std::string &directory)
    : registry_(registry),
      directory_(directory),
      folder_(directory, events_of_entries),
      context_(g_main_context_ref_thread_default()) {}

RegistryWatch::~RegistryWatch() {
  end(changes_.get());
  end(timer_.get());
}

bool RegistryWatch::begin() {
  if (!folder_) return false;
  changes_.reset(g_unix_fd_source_new(folder_.fd(), G_IO_IN));
  g_source_set_callback(changes_.get(), G_SOURCE_FUNC(on_change), this, nullptr);
  g_source_attach(changes_.get(), context_.get());
  look_in(0);
  return true;
}

void RegistryWatch::look_in(guint delay_ms) {
  end(timer_.get());
  timer_.reset(g_timeout_source_new(delay_ms));
  g_source_set_callback(timer_.get(), on_timer, this, nullptr);
  g_source_attach(timer_.get(), context_.get());
}

gboolean RegistryWatch::on_change(gint, GIOCondition, gpointer watch) {
  auto &self = *static_cast<RegistryWatch *>(watch);
  bool changed = false, closed = false;
  self.folder_.read_events([&](const char *name, guint32 events) {
    if (name != nullptr && g_str_has_suffix(name, entry_suffix) == FALSE) return;
    changed = true;
    closed |= (events & IN_CLOSE_WRITE) != 0;
  });
  if (closed) {
    self.looks_left_ = looks_after_close;
    self.look_in(first_look_again_ms);
  }
  if (changed) self.look();
  return G_SOURCE_CONTINUE;
}

gboolean RegistryWatch::on_timer(gpointer watch) {
  auto &self = *static_cast<RegistryWatch *>(watch);
  if (self.looks_left_ > 0) {
    --self.looks_left_;
    if (self.looks_left_ > 0) self.look_in(first_look_again_ms << (looks_after_close - self.looks_left_));
  }
  self.look();
  return G_SOURCE_REMOVE;
}

// An entry that was removed and made anew is the same driver.
RegistryWatch::Running *RegistryWatch::find(const PTZKitRegistryEntry &entry) {
  const auto found = std::find_if(running_.begin(), running_.end(), [&](const Running &known) {
    return known.entry->pid == entry.pid && known.entry->since == entry.since &&
           std::strcmp(known.entry->socket_path, entry.socket_path) == 0;
  });
  return found != running_.end() ? &*found : nullptr;
}

// A handler may call into the registry and drop it: nothing of this object is used once signals are emitted.
void RegistryWatch::look() {
  const Object<PTZKitRegistry> alive(static_cast<PTZKitRegistry *>(g_object_ref(registry_)));
  std::vector<Entry> appeared, ended;
  for (Running &known : running_) known.seen = false;
  const auto compare = [&](const char *, Entry entry, bool listens) {
    if (!listens || entry->liveness == PTZ_KIT_DRIVER_DEAD) return;
    if (Running *known = find(*entry); known != nullptr) {
      known->seen = true;
      return;
    }
    appeared.emplace_back(ptz_kit_registry_entry_copy(entry.get()));
    running_.push_back({std::move(entry), true});
  };
  const UniqueFd folder = open_folder(directory_.c_str());
  if (folder && !for_each_entry(folder.get(), compare)) return;
  std::erase_if(running_, [&](Running &known) {
    if (!known.seen) ended.push_back(std::move(known.entry));
    return !known.seen;
  });
  for (const Entry &entry : ended) g_signal_emit_by_name(alive.get(), "driver-gone", entry.get());
  for (const Entry &entry : appeared) g_signal_emit_by_name(alive.get(), "driver-appeared", entry.get());
}

}  // namespace ptz_kit
