#include "transport/pending_requests.h"

#include <algorithm>
#include <utility>

#include "base/check.h"
#include "transport/client_command_private.h"
#include "transport/endpoint_use.h"

namespace ptz {

namespace {

constexpr guint reply_timeout_s = 360;

}  // namespace

class PendingRequests::Lock {
  GMutex *mutex_;

 public:
  [[nodiscard]] explicit Lock(PendingRequests *self)
      : mutex_(self->expiring_ != g_thread_self() ? &self->client_->mutex : nullptr) {
    if (mutex_ != nullptr) g_mutex_lock(mutex_);
  }
  Lock(Lock &&) = delete;
  ~Lock() {
    if (mutex_ != nullptr) g_mutex_unlock(mutex_);
  }
};

// Default main context.
gboolean ptz_socket_client_command_cmd_timeout(gpointer user_data) {
  if (user_data == nullptr) return FALSE;
  const EndpointUse use(g_main_current_source(), user_data);
  if (use.get() == nullptr) return G_SOURCE_CONTINUE;
  private_of(reinterpret_cast<PTZSocketClientCommand *>(use.get()))->pending.expire_oldest();
  return FALSE;
}

// mutex held
GList *PendingRequests::find(guint32 message_id) const {
  for (GList *link = client_->pending; link != nullptr; link = link->next) {
    const auto *request = static_cast<const PendingRequest *>(link->data);
    if (request != nullptr && request->message_id == message_id) return link;
  }
  return nullptr;
}

void PendingRequests::add(gpointer context, guint32 message_id) {
  auto *request = g_slice_new(PendingRequest);
  *request = {context, message_id, logged_clock_now(), false};
  request->deadline.tv_sec += reply_timeout_s;
  const Lock lock(this);
  client_->pending = g_list_append(client_->pending, request);
}

PendingRequest *PendingRequests::take(guint32 message_id) {
  const Lock lock(this);
  GList *link = find(message_id);
  if (link == nullptr) return nullptr;
  auto *request = static_cast<PendingRequest *>(link->data);
  client_->pending = g_list_delete_link(client_->pending, link);
  return request;
}

bool PendingRequests::may_defer(guint32 message_id) {
  if (!g_mutex_trylock(&client_->mutex)) return true;
  GList *link = find(message_id);
  const bool is_first =
      link != nullptr && !std::exchange(static_cast<PendingRequest *>(link->data)->has_deferred_reply, true);
  g_mutex_unlock(&client_->mutex);
  return is_first;
}

void PendingRequests::start_timer() {
  const Lock lock(this);
  if (client_->timeout_source == 0) schedule(reply_timeout_s);
}

void PendingRequests::clear() {
  remove_source(client_->timeout_source);
  if (client_->pending == nullptr) return;
  g_list_foreach(client_->pending, cleanup_table_entry, client_);
  g_list_free(std::exchange(client_->pending, nullptr));
}

// mutex held. contract: without a reply callback the context goes to the free callback.
void PendingRequests::expire(PendingRequest *request) {
  const auto *base = &client_->parent_instance;
  GThread *outer = expiring_.exchange(g_thread_self());
  {
    const ReplyCallbacks::Running running(callbacks_);
    if (base->callback != nullptr) {
      base->callback(request->context, nullptr, 0);
      free_pending_request(request);
    } else {
      cleanup_table_entry(request, client_);
    }
  }
  expiring_ = outer;
}

// contract: at most one request expires per run of the timer, in whole seconds, and before its callback it is removed:
// the callback may send and receive, and must not meet its own request again.
void PendingRequests::expire_oldest() {
  const Lock lock(this);
  client_->timeout_source = 0;
  if (client_->pending == nullptr) return;
  timespec now = logged_clock_now();
  auto *oldest = static_cast<PendingRequest *>(client_->pending->data);
  if (oldest == nullptr) {
    syslog(LOG_ERR, "%s: Entry without data", "ptz_socket_client_command_cmd_timeout");
    client_->pending = g_list_delete_link(client_->pending, client_->pending);
  } else if (now.tv_sec >= oldest->deadline.tv_sec) {
    client_->pending = g_list_delete_link(client_->pending, client_->pending);
    expire(oldest);
    now = logged_clock_now();  // the callback may have taken long; the next request does not wait longer for it
  }
  if (client_->pending == nullptr) return;
  const auto *next = static_cast<const PendingRequest *>(client_->pending->data);
  if (next == nullptr) return;
  if (client_->timeout_source != 0) g_source_remove(client_->timeout_source);  // for a request that the callback sent
  schedule(static_cast<guint>(std::max<gint64>(next->deadline.tv_sec - now.tv_sec, 0)));
}

// mutex held
void PendingRequests::schedule(guint seconds) {
  client_->timeout_source = g_timeout_add_seconds(seconds, ptz_socket_client_command_cmd_timeout, client_);
  if (seconds > 0) return;
  // A timer of whole seconds may come up to one second late, but this request is due now.
  GSource *timer = g_main_context_find_source_by_id(nullptr, client_->timeout_source);
  if (timer != nullptr) g_source_set_ready_time(timer, 0);
}

}  // namespace ptz
