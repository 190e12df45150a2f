#include "transport/turns.h"

#include <algorithm>
#include <utility>

namespace ptz {

namespace {

const PTZSocketServerClient *client_behind(GList *link) {
  return link->next != nullptr ? static_cast<const PTZSocketServerClient *>(link->next->data) : nullptr;
}

}  // namespace

bool Turns::take_listener_turn() { return std::exchange(listener_next_, false); }

GList *Turns::take_first_client(GList *clients) {
  const auto *next = std::exchange(next_client_, nullptr);
  return next != nullptr ? g_list_find(clients, next) : clients;
}

void Turns::message_delivered(GList *served, bool client_waits, bool listener_waits) {
  kept_waiting_ = client_waits || listener_waits ? std::min(kept_waiting_ + 1, burst) : 0;
  const bool take_turns = kept_waiting_ == burst;
  listener_next_ = take_turns && listener_waits;
  next_client_ = take_turns ? client_behind(served) : nullptr;
}

void Turns::nothing_delivered(bool listener_waits) {
  if (!listener_waits) kept_waiting_ = 0;
}

void Turns::forget(GList *link) {
  if (next_client_ == link->data) next_client_ = client_behind(link);
}

}  // namespace ptz
