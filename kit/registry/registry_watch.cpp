#include "registry/registry_watch.h"

#include <glib-unix.h>

#include <algorithm>
#include <cstring>

#include "registry/entry_folder.h"

namespace ptz_kit {
namespace {

constexpr guint32 events_of_entries = IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_MODIFY | IN_CLOSE_WRITE;
constexpr guint first_look_again_ms = 10;
constexpr guint looks_after_close = 6;  // at once, and after 10, 30, 70, 150 and 310 ms
constexpr guint look_for_entry_ms = 500;
constexpr gint64 pause_factor = 10;
constexpr gint64 pause_max_us = 250'000;

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
  const gint64 now_us = g_get_monotonic_time();
  const gint64 due_us = MAX(now_us + gint64{delay_ms} * 1000, next_look_us_);
  if (due_us >= due_us_) return;
  due_us_ = due_us;
  end(timer_.get());
  timer_.reset(g_timeout_source_new(static_cast<guint>((due_us - now_us + 999) / 1000)));
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
  if (closed) self.looks_left_ = looks_after_close;
  if (changed) self.look_in(0);
  return G_SOURCE_CONTINUE;
}

gboolean RegistryWatch::on_timer(gpointer watch) {
  auto &self = *static_cast<RegistryWatch *>(watch);
  self.due_us_ = G_MAXINT64;
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

// The lock of a file that was closed may go a moment later.
void RegistryWatch::plan_next_look(gint64 begin_us, bool complete) {
  const gint64 end_us = g_get_monotonic_time();
  next_look_us_ = end_us + MIN((end_us - begin_us) * pause_factor, pause_max_us);
  if (looks_left_ > 0) --looks_left_;
  if (looks_left_ > 0) look_in(first_look_again_ms << (looks_after_close - 1 - looks_left_));
  if (!complete) look_in(look_for_entry_ms);
}

// A handler may call into the registry and drop it: nothing of this object is used once signals are emitted.
void RegistryWatch::look() {
  const Object<PTZKitRegistry> alive(static_cast<PTZKitRegistry *>(g_object_ref(registry_)));
  std::vector<Entry> appeared, ended;
  const gint64 begin_us = g_get_monotonic_time();
  for (Running &known : running_) known.seen = false;
  const auto compare = [&](const char *, Entry entry, EntryFile &opened) {
    if (!opened.listens || entry->liveness == PTZ_KIT_DRIVER_DEAD) return;
    if (Running *known = find(*entry); known != nullptr) {
      known->seen = true;
      known->file = std::move(opened.fd);
      return;
    }
    appeared.emplace_back(ptz_kit_registry_entry_copy(entry.get()));
    running_.push_back({std::move(entry), std::move(opened.fd), true});
  };
  const UniqueFd folder = open_folder(directory_.c_str());
  bool complete = folder ? for_each_entry(folder.get(), compare) : !is_shortage(errno);
  std::erase_if(running_, [&](Running &known) {
    if (known.seen) return false;
    if (is_locked(known.file.get())) {
      complete = false;
      return false;
    }
    ended.push_back(std::move(known.entry));
    return true;
  });
  plan_next_look(begin_us, complete);
  for (const Entry &entry : ended) g_signal_emit_by_name(alive.get(), "driver-gone", entry.get());
  for (const Entry &entry : appeared) g_signal_emit_by_name(alive.get(), "driver-appeared", entry.get());
}

}  // namespace ptz_kit
