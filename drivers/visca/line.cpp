#include "line.h"

#include <glib-unix.h>
#include <sys/timerfd.h>
#include <syslog.h>

#include <cinttypes>

namespace visca {

namespace {

constexpr std::int64_t first_backoff_us = 100'000, answer_us = 500'000, look_us = 5'000'000;
// How long a camera that was never heard at an address is waited for: a name may have several addresses.
constexpr std::int64_t retry_us = 1'500'000;
// Cameras that tell of a change again and again must not keep the line busy.
constexpr std::int64_t readdress_us = 1'000'000;
constexpr unsigned most_tries = 2;

std::int64_t now_us() { return g_get_monotonic_time(); }

}  // namespace

LinkOptions link_options_for(TransportKind kind) {
  LinkOptions options;
  options.has_header = kind == TransportKind::udp;
  options.loses_packets = kind == TransportKind::udp || kind == TransportKind::udp_raw;
  if (!options.loses_packets) {
    // Noise may destroy a packet on a serial line; TCP loses nothing.
    options.repeat_us = kind == TransportKind::serial ? 500'000 : 2'000'000;
    options.ack_limit_us = 1'100'000;
  }
  return options;
}

Line::Line(const LineOptions &options, TransportMaker maker)
    : options_(options), transport_(maker(options.address, options.ip, *this)) {
  timer_ = UniqueFd(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
  timer_watch_.keep(g_unix_fd_add(timer_.get(), G_IO_IN, on_timer, this));
  if (!options.trace_file.empty()) trace_ = fopen(options.trace_file.c_str(), "ae");
}

Line::~Line() {
  stop();
  if (trace_ != nullptr) fclose(trace_);
}

Link &Line::add_camera(Byte address, LineUser &user) {
  // Over IP the address is always 1.
  const Byte receiver = is_serial() ? address : first_camera;
  cameras_.push_back({std::make_unique<Link>(*this, user, receiver, options_.link), &user});
  user.attached(*cameras_.back().link);
  return *cameras_.back().link;
}

void Line::start() {
  next_us_ = G_MAXINT64;
  transport_->open();
  changed();
}

void Line::stop() {
  transport_->close();
  state_ = State::closed;
  next_us_ = G_MAXINT64;
  for (const Camera &camera : cameras_) camera.link->stop();
}

// --- the timer
// --------------------------------------------------------------------------------------------------------

void Line::arm(std::int64_t when_us) {
  if (when_us == armed_us_) return;
  armed_us_ = when_us;
  itimerspec time = {};
  if (when_us != G_MAXINT64) {
    const std::int64_t at = std::max<std::int64_t>(when_us, 1);
    time.it_value = {static_cast<time_t>(at / G_USEC_PER_SEC), static_cast<long>(at % G_USEC_PER_SEC * 1000)};
  }
  timerfd_settime(timer_.get(), TFD_TIMER_ABSTIME, &time, nullptr);
}

gboolean Line::on_timer(gint fd, GIOCondition, gpointer user_data) {
  auto &line = *static_cast<Line *>(user_data);
  std::uint64_t times = 0;
  if (read(fd, &times, sizeof times) < 0) return G_SOURCE_CONTINUE;
  line.armed_us_ = 0;
  line.run(now_us());
  return G_SOURCE_CONTINUE;
}

void Line::run(std::int64_t now) {
  is_busy_ = true;
  if (now >= next_us_) {
    next_us_ = G_MAXINT64;
    switch (state_) {
      case State::closed:
        transport_->open();
        break;
      case State::addressing:
      case State::clearing:
        if (tries_ < most_tries) {
          set_addresses(now);
        } else {
          open_links(now);
        }
        break;
      case State::open:
        look_for_cameras(now);
        break;
    }
  }
  for (const Camera &camera : cameras_) {
    camera.link->advance(now);
    camera.user->advance(now);
  }
  is_busy_ = false;
  changed();
}

// Links call this each time that something has happened: on a serial line the next camera may have its turn.
void Line::changed() {
  if (is_busy_) {
    must_rearm_ = true;
    return;
  }
  is_busy_ = true;
  const std::int64_t now = now_us();
  do {
    must_rearm_ = false;
    if (is_serial() && cameras_.size() > 1) {
      ++next_turn_;
      for (std::size_t index = 0; index < cameras_.size(); ++index) {
        cameras_[(next_turn_ + index) % cameras_.size()].link->kick(now);
      }
      must_rearm_ = false;
    }
    std::int64_t first = next_us_;
    for (const Camera &camera : cameras_) {
      first = std::min({first, camera.link->deadline(now), camera.user->deadline()});
    }
    arm(first);
  } while (must_rearm_);
  is_busy_ = false;
}

// --- the transport
// ----------------------------------------------------------------------------------------------------

void Line::transport_is_open() {
  const std::int64_t now = now_us();
  opened_us_ = now;
  assembler_.reset();
  tries_ = 0;
  if (is_serial()) {
    state_ = State::addressing;
    set_addresses(now);
  } else {
    open_links(now);
  }
  changed();
}

void Line::set_addresses(std::int64_t now) {
  ++tries_;
  addressed_us_ = now;
  const Packet packet = state_ == State::clearing ? interface_clear_all() : address_set();
  send(packet.bytes(), PayloadType::command, 0);
  next_us_ = now + answer_us;
}

void Line::open_links(std::int64_t now) {
  state_ = State::open;
  next_us_ = now + retry_us;
  for (const Camera &camera : cameras_) camera.link->start(now);
}

// Nothing answers: over IP the camera may have another address by now; on a serial line one that was switched on has
// none yet.
void Line::look_for_cameras(std::int64_t now) {
  if (must_readdress_) readdress(now);
  next_us_ = now + (is_any_up() ? look_us : retry_us);
  if (is_any_up()) return;
  // A stop is repeated for its whole time, and a closed transport would end it.
  if (std::ranges::any_of(cameras_, [](const Camera &each) { return each.link->is_stopping(); })) return;
  if (!is_serial()) return transport_is_closed("the camera does not answer");
  readdress(now);
}

void Line::readdress(std::int64_t now) {
  must_readdress_ = false;
  addressed_us_ = now;
  send(address_set().bytes(), PayloadType::command, 0);
}

bool Line::is_any_up() const {
  return std::ranges::any_of(cameras_, [](const Camera &each) { return each.link->state() == Link::State::up; });
}

void Line::transport_is_closed(const std::string &reason) {
  transport_->close();
  state_ = State::closed;
  backoff_us_ = backoff_us_ == 0 ? first_backoff_us : std::min(2 * backoff_us_, options_.most_backoff_us);
  next_us_ = now_us() + backoff_us_;
  if (trouble_ != reason) syslog(LOG_WARNING, "no connection to the camera: %s", reason.c_str());
  trouble_ = reason;
  for (const Camera &camera : cameras_) camera.link->stop();
  changed();
}

bool Line::is_free_for(const Link &link) const {
  if (!is_serial()) return true;
  const std::int64_t now = now_us();
  return std::ranges::none_of(
      cameras_, [&](const Camera &other) { return other.link.get() != &link && other.link->waits_for_reply(now); });
}

void Line::send(ByteSpan packet, PayloadType type, std::uint32_t sequence) {
  trace('>', packet);
  if (options_.link.has_header) {
    transport_->write(Datagram(type, sequence, packet).bytes());
  } else {
    transport_->write(packet);
  }
}

void Line::on_bytes(ByteSpan bytes) {
  if (options_.link.loses_packets) {
    on_datagram(bytes);
  } else {
    assembler_.feed(bytes, [this](ByteSpan packet) { on_packet(packet, std::nullopt); });
  }
}

void Line::on_datagram(ByteSpan datagram) {
  while (const auto message = take_message(datagram)) {
    const bool is_control = message->type == PayloadType::control || message->type == PayloadType::control_reply;
    if (message->has_header && is_control) {
      trace('<', message->payload);
      for (const Camera &camera : cameras_) camera.link->control(message->payload, message->sequence, now_us());
      continue;
    }
    // A packet does not go on in the next datagram.
    PacketAssembler assembler;
    const auto sequence = message->has_header ? std::optional(message->sequence) : std::nullopt;
    assembler.feed(message->payload, [&](ByteSpan packet) { on_packet(packet, sequence); });
  }
}

void Line::on_packet(ByteSpan packet, std::optional<std::uint32_t> sequence) {
  trace('<', packet);
  const auto reply = parse_reply(packet);
  if (!reply || state_ == State::closed) return;
  const std::int64_t now = now_us();
  if (reply->kind == ReplyKind::address_set || reply->kind == ReplyKind::interface_clear ||
      reply->kind == ReplyKind::network_change) {
    return on_line_reply(*reply, now);
  }
  for (const Camera &camera : cameras_) {
    // Over IP there is one camera, whatever address it gives itself.
    if (is_serial() && camera.link->address() != reply->camera) continue;
    backoff_us_ = 0;
    trouble_.clear();
    camera.link->receive(*reply, sequence, now);
    break;
  }
}

void Line::on_line_reply(const Reply &reply, std::int64_t now) {
  if (!is_serial()) return;
  // With 1 it is our own message, which has gone round the chain, or is echoed.
  if (reply.kind == ReplyKind::address_set && state_ == State::addressing && reply.code > 1) {
    state_ = State::clearing;
    tries_ = 0;
    set_addresses(now);
  } else if (reply.kind == ReplyKind::interface_clear && state_ == State::clearing) {
    open_links(now);
  } else if (reply.kind == ReplyKind::network_change && state_ == State::open) {
    must_readdress_ = true;
    if (now - addressed_us_ >= readdress_us) readdress(now);
    if (must_readdress_) next_us_ = std::min(next_us_, addressed_us_ + readdress_us);
  }
  changed();
}

// A line is the time in milliseconds, the direction (">" to the camera), and the bytes without the header over IP.
void Line::trace(char direction, ByteSpan bytes) {
  if (trace_ == nullptr) return;
  fprintf(trace_, "%.3f %c", static_cast<double>(now_us()) / 1000, direction);
  for (const Byte byte : bytes) fprintf(trace_, " %02X", byte);
  fputc('\n', trace_);
  fflush(trace_);
}

}  // namespace visca
