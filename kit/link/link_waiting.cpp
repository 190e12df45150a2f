// The calls of a link: submission, blocking waits, cancellation.
#include <poll.h>
#include <sys/eventfd.h>

#include <cstring>

#include "link/link_section.h"

namespace ptz_kit {

void LinkCore::submit(Call &call) {
  call.submitted = true;
  if (call.cancel_requested) return settle(call, Outcome::cancelled);
  const bool is_ready = state_ == PTZ_KIT_LINK_STATE_READY;
  const bool waits_for_ready = call.body.empty();
  if (is_ready && waits_for_ready) return settle(call, Outcome::answered);
  if (state_ == PTZ_KIT_LINK_STATE_DISCONNECTED || is_ready == waits_for_ready) {
    return settle(call, Outcome::not_connected);
  }
  if (is_ready && !connection_->blocked() && calls_.may_send_at_once(g_get_monotonic_time())) return send(call);
  if (!calls_.add_waiting(call)) return settle(call, Outcome::busy);
  send_waiting();  // places of requests that were given up long ago may be free
  wake_sender();
}

// The thread that polls the connection, or else the source, does not watch for what the waiting calls now need: room in
// the socket, or the place of a request that was given up.
void LinkCore::wake_sender() const {
  if (!connection_ || (!connection_->blocked() && place_us() == G_MAXINT64)) return;
  reader_ != nullptr ? static_cast<void>(eventfd_write(wake_.get(), 1)) : wake_source();
}

void LinkCore::send(Call &call) { connection_->send(calls_.add_sent(call), call.body); }

void LinkCore::send_waiting() {
  while (state_ == PTZ_KIT_LINK_STATE_READY && !connection_->blocked()) {
    Call *call = calls_.take_next(g_get_monotonic_time());
    if (call == nullptr) return;
    send(*call);
  }
}

void LinkCore::settle(Call &call, Outcome outcome) {
  call.outcome = outcome;
  call.settled();
}

void LinkCore::give_up(Call &call, Outcome outcome, gint64 now_us) {
  calls_.give_up(call, now_us);
  settle(call, outcome);
  wake_sender();
}

void LinkCore::start(LaterCall *call, gulong cancel_handler) {
  Section section(*this, Section::Callbacks::later);
  call->cancel_handler = cancel_handler;
  next_deadline_us_ = later_calls_ == 0 ? call->deadline_us : MIN(next_deadline_us_, call->deadline_us);
  ++later_calls_;
  submit(*call);
  wake_source();
}

void LinkCore::call_is_settled(LaterCall &call) {
  --later_calls_;
  ended_.add(call);
}

void LinkCore::cancel(Call &call) {
  Section section(*this, Section::Callbacks::later);
  if (!call.submitted) {
    call.cancel_requested = true;
  } else if (call.outcome == Outcome::waiting) {
    give_up(call, Outcome::cancelled, g_get_monotonic_time());
    if (&call == reader_) eventfd_write(wake_.get(), 1);
  }
}

void LinkCore::wait(BlockingCall &call) {
  Section section(*this, Section::Callbacks::later);
  submit(call);
  while (call.outcome == Outcome::waiting) {
    const gint64 now_us = g_get_monotonic_time();
    const gint64 until_us = MIN(call.deadline_us, place_us());
    if (call.deadline_us <= now_us) {
      give_up(call, Outcome::timed_out, call.deadline_us);
    } else if (until_us <= now_us) {
      send_waiting();
    } else if (reader_ == nullptr) {
      read_for(call, until_us - now_us, section);
    } else {
      g_queue_push_tail(&followers_, &call);
      g_cond_wait_until(&call.woken, &lock_, call.deadline_us);
      g_queue_remove(&followers_, &call);
    }
  }
  if (reader_ == nullptr) hand_over_reading();
}

void LinkCore::hand_over_reading() {
  if (!g_queue_is_empty(&followers_)) {
    g_cond_signal(&static_cast<BlockingCall *>(g_queue_peek_head(&followers_))->woken);
  } else if (later_calls_ > 0) {
    wake_source();
  }
}

void LinkCore::read_for(BlockingCall &call, gint64 left_us, Section &section) {
  const Shared<Connection> connection = connection_;  // stays open while it is polled
  pollfd watched[] = {{connection->fd(), POLLIN | POLLRDHUP, 0}, {wake_.get(), POLLIN, 0}};
  if (connection->blocked()) watched[0].events |= POLLOUT;
  const timespec left = {left_us / G_USEC_PER_SEC, left_us % G_USEC_PER_SEC * 1000};
  reader_ = &call;
  section.pause();
  const int ready = ppoll(watched, std::size(watched), &left, nullptr);
  section.resume();
  reader_ = nullptr;
  eventfd_t ignored = 0;
  if (watched[1].revents != 0) eventfd_read(wake_.get(), &ignored);
  if (ready <= 0 || !(connection == connection_)) return;
  if ((watched[0].revents & POLLOUT) != 0) connection->flush();
  if (watched[0].revents != 0) receive();
}

// --- the calls themselves ---

void BlockingCall::take(std::span<const guint8> body_of_reply) {
  std::memcpy(reply, body_of_reply.data(), body_of_reply.size());
  reply_length = body_of_reply.size();
}

LaterCall::LaterCall(LinkCore &of_link, GTask *its_task, GBytes *its_request)
    : core(of_link), task(its_task), request(g_bytes_ref(its_request)) {
  gsize length = 0;
  const auto *data = static_cast<const guint8 *>(g_bytes_get_data(its_request, &length));
  body = {data, length};
  g_atomic_ref_count_init(&references_);
}

void LaterCall::unref() {
  if (g_atomic_ref_count_dec(&references_)) delete this;
}

void LaterCall::take(std::span<const guint8> body_of_reply) {
  reply.reset(g_bytes_new(body_of_reply.data(), body_of_reply.size()));
}

void LaterCall::settled() { core.call_is_settled(*this); }

void LaterCall::complete_in_callback() {
  GSource *source = g_idle_source_new();
  g_source_set_priority(source, g_task_get_priority(task.get()));
  g_source_set_callback(
      source,
      [](gpointer call) {
        static_cast<LaterCall *>(call)->complete();
        return G_SOURCE_REMOVE;
      },
      this, nullptr);
  g_source_attach(source, g_task_get_context(task.get()));
  g_source_unref(source);
}

}  // namespace ptz_kit
