#include "transport/reply_contexts.h"

#include <algorithm>
#include <iterator>

namespace ptz {

PTZSocketServerCommandReplyContext *ReplyContexts::make(gint fd, PTZSocketServer *server, guint32 message_id,
                                                        guint32 serial) {
  auto *context = g_new(PTZSocketServerCommandReplyContext, 1);
  *context = {fd, server, message_id};
  const MutexLock lock(&mutex_);
  entries_.push_back({context, *context, serial});
  return context;
}

// mutex_ held
std::optional<ReplyContexts::Entry> ReplyContexts::remove(const PTZSocketServerCommandReplyContext *context) {
  const auto found =
      std::find_if(entries_.rbegin(), entries_.rend(), [=](const Entry &entry) { return entry.context == context; });
  if (found == entries_.rend()) return std::nullopt;
  const Entry entry = *found;
  entries_.erase(std::next(found).base());
  return entry;
}

// An entry with other contents belongs to a context that was freed without a reply; a subclass now uses its memory.
std::optional<guint32> ReplyContexts::take(const PTZSocketServerCommandReplyContext *context) {
  const MutexLock lock(&mutex_);
  const auto entry = remove(context);
  if (!entry || entry->content.fd != context->fd || entry->content.server != context->server ||
      entry->content.message_id != context->message_id) {
    return std::nullopt;
  }
  return entry->serial;
}

}  // namespace ptz
