#include "transport/client_stream.h"

#include <sys/select.h>
#include <sys/socket.h>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "base/check.h"
#include "base/clock.h"
#include "base/handles.h"
#include "transport/client_command_private.h"
#include "transport/probes.h"
#include "transport/socket_client_private.h"
#include "transport/socket_private.h"

namespace ptz {

using frame::FrameAssembler;
using frame::Reception;
using Outcome = frame::Reception::Outcome;

namespace {

bool is_silent(int read_error) { return read_error == EAGAIN || read_error == EPIPE || read_error == ECONNRESET; }

// Keeps errno.
Reception ptz_socket_client_command_read_fd(FrameAssembler &assembler, gint fd) {
  const Reception reception = receive_frame(assembler, fd);
  if (reception.outcome == Outcome::failed && !is_silent(errno)) {
    const int error = errno;
    log_func(LOG_WARNING, "Unexpected error reading %s: %s", reception.in_header ? "header" : "body",
             std::strerror(error));
    errno = error;
  } else if (reception.outcome == Outcome::malformed) {
    log_func(LOG_WARNING, "A frame cannot have a length of %u", assembler.length());
  } else if (reception.outcome == Outcome::complete) {
    PTZ_PROBE_FRAME(frame_received, fd, assembler.message_id(), assembler.body().data(),
                    static_cast<guint32>(assembler.body().size()));
  }
  return reception;
}

// As select(2), for any descriptor.
int wait_readable(gint fd, gint64 timeout_ms) {
  if (fd < 0) {
    errno = EBADF;
    return -1;
  }
  timeval timeout = {static_cast<time_t>(timeout_ms / 1000), static_cast<suseconds_t>(timeout_ms % 1000 * 1000)};
  if (fd < FD_SETSIZE) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    return select(fd + 1, &readable, nullptr, nullptr, &timeout);
  }
  // contract: select(2), whatever the number. The kernel takes a set of any size; fd_set is the smallest that the C
  // library allows.
  std::vector<fd_set> readable(static_cast<std::size_t>(fd) / FD_SETSIZE + 1);
  FD_SET(fd % FD_SETSIZE, &readable.back());
  return select(fd + 1, readable.data(), nullptr, nullptr, &timeout);
}

}  // namespace

timespec logged_clock_now() {
  timespec now = {};
  if (clock_gettime(CLOCK_MONOTONIC, &now) < 0) {
    syslog(LOG_ERR, "clock_gettime failed %m");
    now = {};
  }
  return now;
}

void Deadline::update() { left_ms_ = limit_ms_ - elapsed_ms(start_, logged_clock_now()); }

ClientStream::ClientStream(PTZSocketClientCommand *client)
    : client_(client), assembler_(client->buffer, &client->fill, &client->expected) {
  g_mutex_init(&mutex_);
  g_cond_init(&sending_ended_);
}

ClientStream::~ClientStream() {
  g_cond_clear(&sending_ended_);
  g_mutex_clear(&mutex_);
}

// mutex_ held
void ClientStream::resynchronise_if_watched() {
  if (state_ != State::desynchronised || !is_watched(&client_->parent_instance)) return;
  state_ = calls_ != nullptr ? State::waiting : State::watched;
}

// mutex_ held. Ends all calls in progress without a reply.
void ClientStream::abandon_calls(State state) {
  state_ = state;
  stop_watch(&client_->parent_instance);
  wake_all();
}

// mutex_ held
void ClientStream::wake_all() {
  for (SyncCall *call = calls_; call != nullptr; call = call->next) {
    if (call->sleeping) g_cond_signal(&call->changed);
  }
}

// mutex_ held. On a failure errno says why; what was read before it is kept.
Reception ClientStream::receive(gint fd) {
  resynchronise_if_watched();
  if (fd < 0 || state_ == State::desynchronised) {
    errno = fd < 0 ? EBADF : EBADMSG;
    return {Outcome::failed, 0, true};
  }
  const Reception reception = ptz_socket_client_command_read_fd(assembler_, fd);
  if (reception.outcome == Outcome::end_of_stream) {
    assembler_.reset();
    stop_watch(&client_->parent_instance);
  } else if (reception.outcome == Outcome::malformed) {
    assembler_.reset();
    abandon_calls(State::desynchronised);
    errno = EBADMSG;
  }
  return reception;
}

// mutex_ held, a complete frame assembled. Whether it was the reply of a synchronous call.
bool ClientStream::hand_to_call() {
  SyncCall *call = calls_;
  while (call != nullptr && (call->answered || call->message_id != assembler_.message_id())) call = call->next;
  if (call == nullptr) return false;
  const auto body = assembler_.body();
  *call->reply_length = static_cast<guint32>(body.size());
  if (!body.empty()) std::memcpy(call->reply_buffer, body.data(), body.size());
  call->answered = true;
  if (call->sleeping) g_cond_signal(&call->changed);
  return true;
}

ClientStream::Taken ClientStream::take_frame(gint fd, guint8 *frame, guint32 &length) {
  const MutexLock lock(&mutex_);
  if (reader_ != nullptr) return Taken::nothing;
  const Reception reception = receive(fd);
  if (reception.outcome == Outcome::failed || reception.outcome == Outcome::malformed) return Taken::failed;
  if (reception.outcome != Outcome::complete) return Taken::nothing;
  const bool is_handed = hand_to_call();
  if (!is_handed) {
    length = assembler_.length();
    std::memcpy(frame, assembler_.received().data(), length);
  }
  assembler_.reset();
  if (is_handed) return Taken::nothing;
  // contract: a synchronous call hands replies that it finds waiting to the main loop.
  return calls_ != nullptr ? Taken::deferred : Taken::frame;
}

// The source is switched with the mutex held: a call that begins must not find it switched on again by one that ends.
void ClientStream::begin(SyncCall &call) {
  const MutexLock lock(&mutex_);
  resynchronise_if_watched();
  if (state_ == State::watched) state_ = State::waiting;
  call.next = std::exchange(calls_, &call);
  stop_watch(&client_->parent_instance);
}

bool ClientStream::end(SyncCall &call) {
  const MutexLock lock(&mutex_);
  remove(call);
  return call.answered;
}

// mutex_ held
void ClientStream::remove(SyncCall &call) {
  SyncCall **link = &calls_;
  while (*link != &call) link = &(*link)->next;
  *link = call.next;
  wake_one();
  if (calls_ != nullptr) return;
  if (state_ == State::waiting) state_ = State::watched;
  if (state_ != State::desynchronised && !watches_foreign_descriptor()) start_watch(&client_->parent_instance);
}

// The source keeps the number that the endpoint had first. After a reconnection it may belong to other code.
bool ClientStream::watches_foreign_descriptor() const {
  auto *client = &client_->parent_instance;
  if (client->source == nullptr) return false;
  const gint watched = ptz_file_g_source_get_fd(client->source);
  return watched >= 0 && watched != descriptor_of(&client->parent_instance);
}

// mutex_ held. If there is no reader, a sleeping call becomes it.
void ClientStream::wake_one() {
  if (reader_ != nullptr) return;
  for (SyncCall *call = calls_; call != nullptr; call = call->next) {
    if (!call->sleeping || call->answered) continue;
    g_cond_signal(&call->changed);
    return;
  }
}

// mutex_ held. Whether the call can still get its reply.
bool ClientStream::may_be_answered(const SyncCall &call) const {
  return !call.answered && state_ == State::waiting && call.connection == connection_;
}

bool ClientStream::await_reply(SyncCall &call, gint fd, Deadline deadline) {
  {
    const MutexLock lock(&mutex_);
    while (reader_ != nullptr && may_be_answered(call) && deadline.left_ms() > 0) {
      call.sleeping = true;
      g_cond_wait_until(&call.changed, &mutex_, g_get_monotonic_time() + deadline.left_ms() * 1000);
      call.sleeping = false;
      deadline.update();
    }
    if (call.answered) remove(call);
    if (!may_be_answered(call) || deadline.left_ms() <= 0) return call.answered;
    reader_ = &call;
  }
  return read_until_answered(call, fd, deadline);
}

// mutex_ held. A reconnection may have taken the role from this call.
void ClientStream::give_up_reading(const SyncCall &call) {
  if (reader_ == &call) reader_ = nullptr;
}

// The caller has the reader's role, and gives it up.
bool ClientStream::read_until_answered(SyncCall &call, gint fd, Deadline &deadline) {
  bool interruption_logged = false;
  for (; deadline.left_ms() > 0; deadline.update()) {
    const int ready = wait_readable(fd, deadline.left_ms());
    if (ready < 0) {
      const bool is_interrupted = errno == EINTR;  // does not end the wait, and is logged once
      if (!is_interrupted || !std::exchange(interruption_logged, true)) {
        syslog(LOG_WARNING, "%s: Error waiting for sync reply from socket! %m", "ptz_socket_client_command_sync_send");
      }
      if (!is_interrupted) break;
    }
    if (ready <= 0) continue;
    const MutexLock lock(&mutex_);
    if (may_be_answered(call) && read_for_calls(fd) && !call.answered) continue;
    give_up_reading(call);
    if (call.answered) remove(call);
    return call.answered;
  }
  const MutexLock lock(&mutex_);
  give_up_reading(call);
  return false;
}

// mutex_ held, by the reader. Whether there is more to wait for.
bool ClientStream::read_for_calls(gint fd) {
  const Reception reception = receive(fd);
  if (reception.outcome == Outcome::failed) return errno == EAGAIN;  // contract: nothing to read yet
  if (reception.outcome == Outcome::complete) {
    if (!hand_to_call()) defer_reply(client_, assembler_.received().data(), assembler_.length());
    assembler_.reset();
    return true;
  }
  return reception.outcome == Outcome::incomplete;  // contract: an end of file ends the wait
}

// A sender that finds the turn taken, or others waiting for it, sleeps until it is free. The mutex orders its sleep and
// the signal.
bool ClientStream::begin_sending(gint64 limit_ms, std::optional<timespec> &queued_since) {
  const auto try_to_begin = [this] {
    GThread *none = nullptr;
    return sender_.compare_exchange_strong(none, g_thread_self());
  };
  if (waiting_senders_ == 0 && try_to_begin()) return true;
  queued_since = logged_clock_now();
  const gint64 deadline_us = g_get_monotonic_time() + limit_ms * 1000;  // GLib's clock, for g_cond_wait_until()
  const MutexLock lock(&mutex_);
  ++waiting_senders_;
  bool is_mine = try_to_begin(), in_time = true;
  while (!is_mine && in_time) {
    if (limit_ms == no_limit) {
      g_cond_wait(&sending_ended_, &mutex_);
    } else {
      in_time = g_cond_wait_until(&sending_ended_, &mutex_, deadline_us);
    }
    is_mine = try_to_begin();
  }
  --waiting_senders_;
  return is_mine;
}

void ClientStream::end_sending() {
  sender_ = nullptr;
  if (waiting_senders_ == 0) return;
  const MutexLock lock(&mutex_);
  g_cond_signal(&sending_ended_);
}

// What the peer sent after a malformed length can still be read, and must not be: that state stays.
void ClientStream::shut_down(gint fd) {
  const MutexLock lock(&mutex_);
  abandon_calls(state_ == State::desynchronised ? state_ : State::shut_down);
  shutdown(fd, SHUT_RDWR);
}

// The descriptor is closed in a sending turn, so that no sender writes to a number that was given out again. Threads
// that wait for the descriptor do not notice that it is closed: it is shut down first.
guint ClientStream::reconnect(guint (*add_retry)(PTZSocket *)) {
  auto *socket = &client_->parent_instance.parent_instance;
  const bool is_sender = sender_ == g_thread_self();  // in an overridden write operation
  std::optional<timespec> queued_since;
  {
    const MutexLock lock(&mutex_);
    const gint fd = descriptor_of(socket);
    if (fd >= 0 && (calls_ != nullptr || sender_ != nullptr)) shutdown(fd, SHUT_RDWR);
  }
  if (!is_sender) (void)begin_sending(no_limit, queued_since);
  guint timer;
  {
    const MutexLock lock(&mutex_);
    timer = add_retry(socket);
    ++connection_;
    reader_ = nullptr;  // of the old connection: it may still wait for a number that means something else by now
    assembler_.reset();
    stop_watch(&client_->parent_instance);
    state_ = calls_ != nullptr ? State::waiting : State::watched;
    wake_all();
  }
  if (!is_sender) end_sending();
  return timer;
}

}  // namespace ptz
