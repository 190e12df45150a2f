#include "transport/deferred_replies.h"

#include <cstring>
#include <utility>

#include "base/handles.h"
#include "transport/client_command_private.h"
#include "transport/endpoint_use.h"

namespace ptz {

// Without prepare and check functions: the ready time says whether the source is ready.
GSourceFuncs DeferredReplies::source_functions = {nullptr, nullptr, dispatch, nullptr, nullptr, nullptr};

void DeferredReplies::add(const guint8 *frame, guint32 length) {
  const MutexLock lock(&mutex_);
  Record *record = spares_;
  if (record != nullptr) {
    spares_ = record->next;
    --spare_count_;
  } else {
    record = g_new(Record, 1);
  }
  record->next = nullptr;
  record->length = length;
  std::memcpy(record->frame, frame, length);
  *end_ = record;
  end_ = &record->next;
  ++count_;
  if (source_ == nullptr) {
    source_ = g_source_new(&source_functions, sizeof(GSource));
    g_source_set_static_name(source_, "PTZSocketClientCommand replies");
    g_source_set_priority(source_, G_PRIORITY_DEFAULT_IDLE);
    g_source_set_can_recurse(source_, TRUE);
    g_source_set_callback(source_, G_SOURCE_FUNC(dispatch), client_, nullptr);
    g_source_attach(source_, nullptr);
  }
  if (count_ == 1) g_source_set_ready_time(source_, 0);
}

// Default main context. The callback only carries the user data.
gboolean DeferredReplies::dispatch(GSource *source, GSourceFunc, gpointer user_data) {
  const EndpointUse use(source, user_data);
  auto *client = reinterpret_cast<PTZSocketClientCommand *>(use.get());
  if (client != nullptr) private_of(client)->deferred.deliver();
  return G_SOURCE_CONTINUE;
}

// Only as many as are queued now: a flood of replies does not keep other sources from their turn.
void DeferredReplies::deliver() {
  guint left;
  {
    const MutexLock lock(&mutex_);
    left = count_;
  }
  for (; left > 0; --left) {
    Record *record = take();
    if (record == nullptr) return;  // a main loop inside a callback has delivered the rest
    handle_reply(client_, record->frame, record->length);
    recycle(record);
  }
}

DeferredReplies::Record *DeferredReplies::take() {
  const MutexLock lock(&mutex_);
  Record *record = first_;
  if (record == nullptr) return nullptr;
  first_ = record->next;
  if (first_ == nullptr) end_ = &first_;
  if (--count_ == 0) g_source_set_ready_time(source_, -1);
  return record;
}

void DeferredReplies::recycle(Record *record) {
  const MutexLock lock(&mutex_);
  if (spare_count_ == spares_max) {
    g_free(record);
    return;
  }
  record->next = std::exchange(spares_, record);
  ++spare_count_;
}

void DeferredReplies::end() {
  if (source_ != nullptr) {
    destroy_source(source_);
    g_source_unref(std::exchange(source_, nullptr));
  }
  for (Record *list : {first_, spares_}) {
    while (list != nullptr) g_free(std::exchange(list, list->next));
  }
}

}  // namespace ptz
