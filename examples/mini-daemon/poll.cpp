#include "poll.h"

#include <utility>

#include "describe.h"

namespace example {

Poll::Poll(PTZKitLink *link, Terminal &terminal, PollOptions options, std::function<void()> on_no_driver)
    : link_(link), terminal_(terminal), options_(options), on_no_driver_(std::move(on_no_driver)) {
  state_handler_ = g_signal_connect_swapped(link_, "notify::state", G_CALLBACK(on_state), this);
  wait_for_driver();
}

Poll::~Poll() {
  g_signal_handler_disconnect(link_, state_handler_);
  if (limit_ != 0) g_source_remove(limit_);
  if (next_ != 0) g_source_remove(next_);
}

void Poll::wait_for_driver() {
  if (options_.driver_limit_ms != 0) limit_ = g_timeout_add(options_.driver_limit_ms, on_limit, this);
}

gboolean Poll::on_limit(gpointer user_data) {
  auto &poll = *static_cast<Poll *>(user_data);
  poll.limit_ = 0;
  poll.terminal_.bad("no driver listens");
  poll.on_no_driver_();
  return G_SOURCE_REMOVE;
}

void Poll::on_state(Poll *poll) {
  const bool ready = ptz_kit_link_get_state(poll->link_) == PTZ_KIT_LINK_STATE_READY;
  if (ready == std::exchange(poll->connected_, ready)) return;
  if (!ready) {
    poll->terminal_.line("the connection to the driver is lost");
    return poll->wait_for_driver();
  }
  if (poll->limit_ != 0) g_source_remove(std::exchange(poll->limit_, 0));
  const Text name(ptz_kit_link_dup_driver_name(poll->link_));
  poll->terminal_.line(std::string("connected to ") + name.get());
  poll->ask();
}

void Poll::ask() {
  if (!connected_ || asking_ || next_ != 0) return;
  asking_ = true;
  ptz_kit_link_query_position_async(link_, 0, nullptr, on_position, this);
}

// Called once for each request, at the latest at the deadline or when the connection ends.
void Poll::on_position(GObject *, GAsyncResult *result, gpointer user_data) {
  auto &poll = *static_cast<Poll *>(user_data);
  Problem problem;
  const Owned<PTZKitQueryPositionReply, ptz_kit_query_position_reply_free> reply(
      ptz_kit_link_query_position_finish(poll.link_, result, problem.out()));
  poll.asking_ = false;
  if (reply) {
    poll.terminal_.live(in_columns(reply->position) + (is_idle(*reply) ? "  idle" : "  moving"));
  } else if (!is_disconnected(problem)) {
    poll.terminal_.line(describe_failure(problem));
  }
  if (poll.connected_) poll.next_ = g_timeout_add(poll.options_.interval_ms, on_next, user_data);
}

gboolean Poll::on_next(gpointer user_data) {
  auto &poll = *static_cast<Poll *>(user_data);
  poll.next_ = 0;
  poll.ask();
  return G_SOURCE_REMOVE;
}

}  // namespace example
