#include "transport/plain_reply_context.h"

#include "base/handles.h"

namespace ptz {

namespace {

GMutex mutex;  // guards what follows
PTZSocketServerReplyContext current = {nullptr, nullptr};
SavedPlainReplyContext *innermost = nullptr;  // of the callbacks that run inside others
int running_callbacks = 0;                    // thread of the default main context

}  // namespace

// mutex held
void for_each_plain_reply_context(void (*action)(PTZSocketServerReplyContext &, gconstpointer), gconstpointer gone) {
  action(current, gone);
  for (auto *saved = innermost; saved != nullptr; saved = saved->outer_) action(saved->saved_, gone);
}

PTZSocketServerReplyContext *set_plain_reply_context(PTZSocketServer *server, PTZSocketServerClient *client) {
  const MutexLock lock(&mutex);
  current = {client, server};
  return &current;
}

void forget_client_in_plain_reply_context(const PTZSocketServerClient *client) {
  const MutexLock lock(&mutex);
  for_each_plain_reply_context(
      [](PTZSocketServerReplyContext &context, gconstpointer gone) {
        if (context.client == gone) context.client = nullptr;
      },
      client);
}

void forget_server_in_plain_reply_context(const PTZSocketServer *server) {
  const MutexLock lock(&mutex);
  for_each_plain_reply_context(
      [](PTZSocketServerReplyContext &context, gconstpointer gone) {
        if (context.server == gone) context = {nullptr, nullptr};
      },
      server);
}

SavedPlainReplyContext::SavedPlainReplyContext() : is_nested_(running_callbacks++ > 0) {
  if (!is_nested_) return;
  const MutexLock lock(&mutex);
  saved_ = current;
  outer_ = innermost;
  innermost = this;
}

// After the outermost callback the record keeps its last values, until the next message overwrites them.
SavedPlainReplyContext::~SavedPlainReplyContext() {
  --running_callbacks;
  if (!is_nested_) return;
  const MutexLock lock(&mutex);
  innermost = outer_;
  current = saved_;
}

}  // namespace ptz
