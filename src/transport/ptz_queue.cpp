#include "ptz_queue.h"

#include <type_traits>

#include "base/check.h"
#include "base/handles.h"

static_assert(std::is_standard_layout_v<PTZQueue>);

namespace {

struct QueueSource {
  GSource source;
  GQueue *items;
  GMutex mutex;  // guards items
  GDestroyNotify free_function;
};
static_assert(std::is_standard_layout_v<QueueSource>);

QueueSource *queue_source(GSource *source) { return reinterpret_cast<QueueSource *>(source); }

bool take_first(QueueSource *self, gpointer &item) {
  const ptz::MutexLock lock(&self->mutex);
  if (g_queue_is_empty(self->items)) return false;
  item = g_queue_pop_head(self->items);
  return true;
}

gboolean queue_prepare(GSource *source, gint *timeout_ms) {
  auto *self = queue_source(source);
  *timeout_ms = -1;
  const ptz::MutexLock lock(&self->mutex);
  return g_queue_is_empty(self->items) ? FALSE : TRUE;
}

// A push wakes the context, so that prepare runs again; nothing can become ready between the two.
gboolean queue_check(GSource *) { return FALSE; }

// Thread of the queue's context; mutex not held while the callback and the free function run.
gboolean queue_dispatch(GSource *source, GSourceFunc function, gpointer user_data) {
  auto *self = queue_source(source);
  const auto callback = reinterpret_cast<PTZQueueCallback>(reinterpret_cast<void (*)()>(function));
  gboolean result = G_SOURCE_REMOVE;
  for (gpointer item = nullptr; take_first(self, item);) {
    if (callback == nullptr) continue;
    result = callback(user_data, item);
    if (self->free_function != nullptr) self->free_function(item);
  }
  return result;
}

void queue_finalize(GSource *source) {
  auto *self = queue_source(source);
  if (self->free_function != nullptr) {
    while (!g_queue_is_empty(self->items)) self->free_function(g_queue_pop_head(self->items));
    self->free_function(nullptr);  // tells the owner of the items that none will follow
  }
  g_queue_free(self->items);
  g_mutex_clear(&self->mutex);
}

GSourceFuncs source_functions = {queue_prepare, queue_check, queue_dispatch, queue_finalize, nullptr, nullptr};

}  // namespace

PTZQueue *ptz_queue_setup(GMainContext *context, GDestroyNotify free_function, gint priority) {
  assert_in("ptz_queue.c", context != NULL);
  auto *queue = g_new0(PTZQueue, 1);
  queue->context = g_main_context_ref(context);
  queue->source = g_source_new(&source_functions, sizeof(QueueSource));
  g_source_set_static_name(queue->source, "PTZQueue");
  auto *source = queue_source(queue->source);
  source->items = g_queue_new();
  g_mutex_init(&source->mutex);
  source->free_function = free_function;
  g_source_set_priority(queue->source, priority);
  g_source_attach(queue->source, context);
  return queue;
}

void ptz_queue_set_callback(PTZQueue *queue, PTZQueueCallback callback, gpointer user_data) {
  g_return_if_fail(queue != NULL);
  g_source_set_callback(queue->source, G_SOURCE_FUNC(callback), user_data, nullptr);
}

gboolean ptz_queue_push(PTZQueue *queue, gpointer item) {
  g_return_val_if_fail(queue != NULL, FALSE);
  auto *source = queue_source(queue->source);
  {
    const ptz::MutexLock lock(&source->mutex);
    g_queue_push_tail(source->items, item);
  }
  g_main_context_wakeup(queue->context);
  return TRUE;
}

gpointer ptz_queue_pop(PTZQueue *queue) {
  g_return_val_if_fail(queue != NULL, NULL);
  gpointer item = nullptr;
  return take_first(queue_source(queue->source), item) ? item : nullptr;
}

void ptz_queue_free(PTZQueue *queue) {
  if (queue == nullptr) return;
  g_source_unref(queue->source);
  g_main_context_unref(queue->context);
  g_free(queue);
}
