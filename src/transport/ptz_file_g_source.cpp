#include "ptz_file_g_source.h"

#include <memory>
#include <type_traits>

#include "base/check.h"
#include "base/handles.h"
#include "transport/nested_loop_guard.h"

static_assert(std::is_standard_layout_v<PTZFileGSource>);

namespace {

constexpr auto watched_events = static_cast<GIOCondition>(G_IO_IN | G_IO_ERR | G_IO_HUP);
constexpr guint readable_events = G_IO_IN | G_IO_PRI;
constexpr guint ended_events = G_IO_ERR | G_IO_HUP | G_IO_NVAL;

// The public record first. The guard's pause is protected by the mutex; its callback is entered and left in the thread
// of the context only.
struct Watch {
  PTZFileGSource base;
  ptz::NestedLoopGuard guard;
};
static_assert(std::is_standard_layout_v<Watch>);

PTZFileGSource *file_source(GSource *source) { return reinterpret_cast<PTZFileGSource *>(source); }

Watch *watch_of(GSource *source) { return reinterpret_cast<Watch *>(source); }

// mutex held
void start_watching(PTZFileGSource *self) {
  if (self->tag != nullptr || g_source_is_destroyed(&self->source)) return;
  self->tag = g_source_add_unix_fd(&self->source, self->fd, watched_events);
}

// mutex held
void stop_watching(PTZFileGSource *self) {
  if (self->tag == nullptr) return;
  if (!g_source_is_destroyed(&self->source)) g_source_remove_unix_fd(&self->source, self->tag);
  self->tag = nullptr;
}

gboolean ptz_file_g_source_prepare(GSource *source, gint *timeout_ms) {
  *timeout_ms = -1;
  if (source != nullptr && watch_of(source)->guard.in_callback()) {
    auto *self = file_source(source);
    const ptz::MutexLock lock(&self->mutex);
    if (self->tag != nullptr) watch_of(source)->guard.pause();
    stop_watching(self);
  }
  return FALSE;
}

gboolean ptz_file_g_source_check(GSource *source) {
  g_return_val_if_fail(source != NULL, FALSE);
  auto *self = file_source(source);
  const ptz::MutexLock lock(&self->mutex);
  if (self->tag == nullptr) return FALSE;
  return (g_source_query_unix_fd(source, self->tag) & (readable_events | G_IO_HUP)) != 0 ? TRUE : FALSE;
}

gboolean ptz_file_g_source_dispatch(GSource *source, GSourceFunc callback, gpointer user_data) {
  g_return_val_if_fail(source != NULL, FALSE);
  auto *self = file_source(source);
  ptz::MutexLock lock(&self->mutex);
  if (self->tag == nullptr) return G_SOURCE_CONTINUE;
  const guint events = g_source_query_unix_fd(source, self->tag);
  // A condition that never clears would wake the main loop forever, and so would data that no callback reads.
  if ((events & ended_events) != 0 || callback == nullptr) stop_watching(self);
  lock.unlock();
  if ((events & ended_events) != 0 || (events & readable_events) == 0 || callback == nullptr) return G_SOURCE_CONTINUE;
  auto &guard = watch_of(source)->guard;
  if (guard.in_callback()) return G_SOURCE_CONTINUE;
  guard.enter();
  const gboolean result = callback(user_data);
  const ptz::MutexLock resumed(&self->mutex);
  if (guard.leave()) start_watching(self);
  return result;
}

void ptz_file_g_source_finalize(GSource *source) { g_mutex_clear(&file_source(source)->mutex); }

GSourceFuncs source_functions = {
    ptz_file_g_source_prepare,
    ptz_file_g_source_check,
    ptz_file_g_source_dispatch,
    ptz_file_g_source_finalize,
    nullptr,
    nullptr,
};

}  // namespace

GSource *ptz_file_g_source_new(gint fd) {
  GSource *source = g_source_new(&source_functions, sizeof(Watch));
  g_source_set_can_recurse(source, TRUE);
  g_source_set_static_name(source, "PTZFileGSource");
  std::construct_at(&watch_of(source)->guard);
  auto *self = file_source(source);
  g_mutex_init(&self->mutex);
  self->fd = fd;
  self->tag = g_source_add_unix_fd(source, fd, watched_events);
  return source;
}

guint ptz_file_g_source_add(gint fd, GSourceFunc callback, gpointer user_data) {
  GSource *source = ptz_file_g_source_new(fd);
  g_source_set_callback(source, callback, user_data, nullptr);
  const guint id = g_source_attach(source, nullptr);
  g_source_unref(source);
  return id;
}

gint ptz_file_g_source_get_fd(GSource *source) {
  g_return_val_if_fail(source != NULL, -1);
  return file_source(source)->fd;
}

void ptz_file_g_source_add_poll(GSource *source) {
  g_return_if_fail(source != NULL);
  auto *self = file_source(source);
  const ptz::MutexLock lock(&self->mutex);
  start_watching(self);
}

void ptz_file_g_source_remove_poll(GSource *source) {
  g_return_if_fail(source != NULL);
  auto *self = file_source(source);
  const ptz::MutexLock lock(&self->mutex);
  watch_of(source)->guard.cancel();
  stop_watching(self);
}
