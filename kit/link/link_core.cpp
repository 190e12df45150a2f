#include "link/link_core.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <utility>

#include "link/link_section.h"

namespace ptz_kit {
namespace {

constexpr guint first_retry_ms = 100;
constexpr guint last_retry_ms = 5000;
// While the backlog is full. Differs from link to link, so that they do not all come back at the same moment.
constexpr gint32 shortest_busy_retry_ms = 50, longest_busy_retry_ms = 150;
constexpr gint64 time_to_listen_us = 5000;    // for a server, from bind() on
constexpr gint64 stable_us = G_USEC_PER_SEC;  // a connection that ends earlier is a failed attempt
constexpr gushort hang_up = G_IO_HUP | G_IO_ERR | G_IO_NVAL | POLLRDHUP;

}  // namespace

LinkCore::LinkCore(const char *path, guint max_pending, guint handshake_ms)
    : path_(g_strdup(path)), handshake_ms_(handshake_ms), calls_(max_pending) {
  g_atomic_ref_count_init(&references_);
  g_mutex_init(&lock_);
  g_cond_init(&state_changed_);
}

LinkCore::~LinkCore() {
  g_cond_clear(&state_changed_);
  g_mutex_clear(&lock_);
}

void LinkCore::unref() {
  if (g_atomic_ref_count_dec(&references_)) delete this;
}

void LinkCore::open(GSource *source, GMainContext *context) {
  const MutexLock lock(&lock_);
  if (source_ != nullptr) return;
  source_ = g_source_ref(source);
  g_source_attach(source, context);
  context_.reset(g_main_context_ref(context));
  retry_ms_ = first_retry_ms;
  next_attempt_us_ = 0;
  problem_.reset(g_strdup("no attempt yet"));
  set_state(PTZ_KIT_LINK_STATE_CONNECTING);
}

void LinkCore::close() {
  GSource *source = nullptr;
  {
    Section section(*this, Section::Callbacks::later);
    source = std::exchange(source_, nullptr);
    if (source == nullptr) return;
    set_state(PTZ_KIT_LINK_STATE_DISCONNECTED);  // wakes a thread that runs the context until the link is ready
    context_.reset();
    disconnect();
    fail_waiting();
  }
  g_source_destroy(source);
  g_source_unref(source);
}

PTZKitLinkState LinkCore::state() {
  const MutexLock lock(&lock_);
  return state_;
}

DriverFacts LinkCore::facts() {
  const MutexLock lock(&lock_);
  return {Text(g_strdup(facts_.name.get())), facts_.move, facts_.extra, facts_.protocol_version};
}

Text LinkCore::problem() {
  const MutexLock lock(&lock_);
  return Text(g_strdup(problem_.get()));
}

Context LinkCore::context() {
  const MutexLock lock(&lock_);
  return Context(context_ != nullptr ? g_main_context_ref(context_.get()) : nullptr);
}

Shared<Connection> LinkCore::connection() {
  const MutexLock lock(&lock_);
  return connection_;
}

bool LinkCore::take_change() {
  const MutexLock lock(&lock_);
  return std::exchange(change_, false);
}

bool LinkCore::wait_ready(gint64 deadline_us) {
  const MutexLock lock(&lock_);
  while (state_ != PTZ_KIT_LINK_STATE_READY && state_ != PTZ_KIT_LINK_STATE_DISCONNECTED) {
    if (!g_cond_wait_until(&state_changed_, &lock_, deadline_us)) break;
  }
  return state_ == PTZ_KIT_LINK_STATE_READY;
}

void LinkCore::set_state(PTZKitLinkState state) {
  if (state_ == state) return;
  state_ = state;
  change_ = true;
  g_cond_broadcast(&state_changed_);
  wake_source();
}

// A thread that runs the context prepares the source again before it sleeps.
void LinkCore::wake_source() const {
  if (context_ != nullptr && !g_main_context_is_owner(context_.get())) g_main_context_wakeup(context_.get());
}

gint64 LinkCore::place_us() const {
  return connection_ && !connection_->blocked() ? calls_.next_place_us() : G_MAXINT64;
}

gint64 LinkCore::due_us() const {
  gint64 due = place_us();
  if (later_calls_ > 0) due = MIN(due, next_deadline_us_);
  if (handshake_.running()) due = MIN(due, handshake_.deadline_us());
  if (!connection_) due = MIN(due, next_attempt_us_);
  return due;
}

gushort LinkCore::wanted_events() const {
  gushort events = hang_up;
  if (source_reads()) events |= G_IO_IN;
  if (connection_->blocked()) events |= G_IO_OUT;
  return events;
}

bool LinkCore::prepare(const Shared<Connection> &watched, GPollFD &poll, gint *timeout_ms) {
  const MutexLock lock(&lock_);
  *timeout_ms = -1;
  if (source_ == nullptr) return false;
  if (change_ || watched != connection_ || ended_.first() != nullptr) return true;
  if (connection_) poll.events = wanted_events();
  const gint64 due = due_us();
  if (due == G_MAXINT64) return false;
  const gint64 left_us = due - g_get_monotonic_time();
  if (left_us <= 0) return true;
  *timeout_ms = static_cast<gint>(MIN((left_us + 999) / 1000, gint64{G_MAXINT}));
  return false;
}

bool LinkCore::check(const Shared<Connection> &watched, const GPollFD &poll) {
  const MutexLock lock(&lock_);
  if (source_ == nullptr) return false;
  if (change_ || watched != connection_ || ended_.first() != nullptr) return true;
  if (connection_ && (poll.revents & wanted_events()) != 0) return true;
  const gint64 due = due_us();
  return due != G_MAXINT64 && due <= g_get_monotonic_time();
}

void LinkCore::run(const Shared<Connection> &watched, gushort events) {
  Section section(*this, Section::Callbacks::at_once);
  if (source_ == nullptr) return;
  if (connected_to(watched)) {
    if ((events & G_IO_OUT) != 0 && connection_->blocked()) {
      connection_->flush();
      send_waiting();
    }
    // A thread that polls the descriptor sees a hang-up itself, but would not see that its reply was read.
    if ((events & hang_up) != 0 || ((events & G_IO_IN) != 0 && reader_ == nullptr)) receive();
  }
  const gint64 now_us = g_get_monotonic_time();
  expire(now_us);
  if (!connection_ && now_us >= next_attempt_us_) attempt(now_us);
}

// --- the connection ---

void LinkCore::attempt(gint64 now_us) {
  if (!wake_) wake_ = UniqueFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  UniqueFd fd = wake_ ? connect_to(path_.get()) : UniqueFd();
  if (fd) {
    connection_ = Shared(new Connection(std::move(fd)));
    set_state(PTZ_KIT_LINK_STATE_CONNECTING);
    return begin_handshake(now_us);
  }
  // Nothing there, nothing listens, or the backlog is full: a driver that starts, or one that is busy.
  const bool is_busy = errno == EAGAIN;
  const bool may_come = errno == ENOENT || errno == ECONNREFUSED || is_busy;
  if (is_busy) retry_ms_ = static_cast<guint>(g_random_int_range(shortest_busy_retry_ms, longest_busy_retry_ms));
  attempt_failed(now_us, may_come ? PTZ_KIT_LINK_STATE_CONNECTING : PTZ_KIT_LINK_STATE_FAILED, g_strerror(errno));
}

void LinkCore::attempt_failed(gint64 now_us, PTZKitLinkState state, const char *problem) {
  next_attempt_us_ = now_us + retry_ms_ * gint64{1000};
  retry_ms_ = MIN(2 * retry_ms_, last_retry_ms);
  problem_.reset(g_strdup(problem));
  set_state(state);
}

void LinkCore::path_has_changed() {
  const MutexLock lock(&lock_);
  retry_ms_ = first_retry_ms;
  next_attempt_us_ = MIN(next_attempt_us_, g_get_monotonic_time() + time_to_listen_us);
}

void LinkCore::begin_handshake(gint64 now_us) {
  handshake_.begin(now_us + handshake_ms_ * gint64{1000});
  for (std::size_t i = 0; i < Handshake::count; ++i) send(handshake_.question(i));
}

void LinkCore::finish_handshake(gint64 now_us) {
  GError *raw = nullptr;
  DriverFacts facts;
  const bool is_read = handshake_.read(facts, &raw);
  const Error error(raw);
  if (!is_read) {
    disconnect();
    return attempt_failed(now_us, PTZ_KIT_LINK_STATE_FAILED, error->message);
  }
  handshake_.end();
  facts_ = std::move(facts);
  ready_since_us_ = now_us;
  set_state(PTZ_KIT_LINK_STATE_READY);
  while (Call *call = calls_.take_waiting()) settle(*call, Outcome::answered);
}

void LinkCore::receive() {
  const bool alive = connection_->receive([this](guint32 id, std::span<const guint8> body) {
    Call *call = calls_.take_answered(id);
    if (call == nullptr) return;  // a late reply
    call->take(body);
    settle(*call, Outcome::answered);
  });
  if (handshake_.answered()) finish_handshake(g_get_monotonic_time());
  if (!connection_) return;
  alive ? send_waiting() : lose();
}

void LinkCore::lose() {
  constexpr char problem[] = "the driver has closed the connection or sent a malformed frame";
  const gint64 now_us = g_get_monotonic_time();
  const bool was_ready = state_ == PTZ_KIT_LINK_STATE_READY;
  const bool was_stable = was_ready && now_us - ready_since_us_ >= stable_us;
  disconnect();
  attempt_failed(now_us, was_ready ? PTZ_KIT_LINK_STATE_CONNECTING : PTZ_KIT_LINK_STATE_FAILED, problem);
  if (!was_stable) return;
  retry_ms_ = first_retry_ms;
  next_attempt_us_ = now_us;
}

// The descriptor is closed when the source and the reader have let go of it.
void LinkCore::disconnect() {
  handshake_.end();
  if (!connection_) return;
  connection_->shut_down();
  connection_ = Shared<Connection>();
  while (Call *call = calls_.take_sent()) settle(*call, Outcome::lost);
  if (state_ == PTZ_KIT_LINK_STATE_READY) fail_waiting();
}

void LinkCore::fail_waiting() {
  while (Call *call = calls_.take_waiting()) settle(*call, Outcome::not_connected);
}

void LinkCore::expire(gint64 now_us) {
  if (handshake_.running() && now_us >= handshake_.deadline_us()) {
    disconnect();
    attempt_failed(now_us, PTZ_KIT_LINK_STATE_FAILED, "the driver does not answer");
  }
  if (now_us >= place_us()) send_waiting();
  if (later_calls_ == 0 || now_us < next_deadline_us_) return;
  while (Call *call = calls_.find_due(now_us, next_deadline_us_)) give_up(*call, Outcome::timed_out, now_us);
}

}  // namespace ptz_kit
