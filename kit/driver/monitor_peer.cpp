#include "driver/monitor_peer.h"

#include <glib-unix.h>
#include <ptz_kit_messages.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>

namespace ptz_kit {
namespace {

constexpr guint frames_per_dispatch = 24;
constexpr guint figures_per_dispatch = 8;
constexpr std::size_t longest_request = 256;
constexpr gint64 idle_ns = 1'000'000'000;

// The difference of the clocks changes only if they have moved apart, so that the differences between times are exact.
gint64 real_ns_of(gint64 time_ns) {
  constexpr gint64 tolerance_ns = 1'000'000;
  static gint64 difference_ns = 0;
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  const gint64 current_ns = gint64{now.tv_sec} * 1'000'000'000 + now.tv_nsec - monotonic_ns();
  if (std::abs(current_ns - difference_ns) > tolerance_ns) difference_ns = current_ns;
  return time_ns + difference_ns;
}
gint64 real_us_of(gint64 time_ns) { return real_ns_of(time_ns) / ns_per_us; }

void put_counters(PacketWriter &packet, const Counters &counters) {
  packet.put(counters.requests);
  packet.put(counters.errors);
  packet.put(counters.bytes_received);
  packet.put(counters.bytes_sent);
  packet.put(counters.unsent_replies);
  packet.put(counters.timeouts);
  packet.put(counters.pending);
  packet.put(guint32{Histogram::bucket_count});
  for (const guint32 count : counters.latency.counts()) packet.put(count);
}

PacketWriter driver_packet(const MonitoredDriver &driver, guint32 serial) {
  PacketWriter packet({PacketKind::driver_figures, 0, serial});
  const MonitoredDriver::Facts facts = driver.facts();
  packet.put(g_get_real_time());
  packet.put(real_us_of(facts.since_ns));
  packet.put(gint32{getpid()});
  packet.put(guint32{getuid()});
  packet.put(guint32{facts.instance});
  packet.put(guint32{PTZ_KIT_PROTOCOL_VERSION});
  packet.put_text(facts.name);
  packet.put_text(facts.program);
  packet.put_text(facts.socket);
  packet.put_text(PTZ_KIT_VERSION);
  put_counters(packet, driver.accounting().total());
  return packet;
}

PacketWriter client_packet(const Client &client, guint32 serial) {
  PacketWriter packet({PacketKind::client_figures, 0, serial});
  const bool has_asked = client.counters.requests > 0;
  packet.put(client.identity->number);
  packet.put(gint32{client.identity->pid});
  packet.put(client.identity->uid);
  packet.put(real_us_of(client.since_ns));
  packet.put(has_asked ? real_us_of(client.last_request_ns) : gint64{0});
  packet.put(client.last_command);
  packet.put_text(client.identity->program);
  put_counters(packet, client.counters);
  return packet;
}

}  // namespace

MonitorPeer::MonitorPeer(MonitoredDriver &driver, const FrameHistory &history, UniqueFd fd)
    : driver_(driver), history_(history), fd_(std::move(fd)), since_ns_(monotonic_ns()) {
  watch_input(true);
}

void MonitorPeer::end() {
  ended_ = true;
  subscribed_ = false;
  answer_ = Answer::none;
  watch_input(false);
  watch_output(false);
  fd_ = UniqueFd();
}

void MonitorPeer::watch_input(bool on) {
  if (on == (input_ != 0)) return;
  if (!on) g_source_remove(input_);
  input_ = on ? g_unix_fd_add_full(priority, fd_.get(), G_IO_IN, on_input, this, nullptr) : 0;
}

void MonitorPeer::watch_output(bool on) {
  if (on == (output_ != 0)) return;
  if (!on) g_source_remove(output_);
  output_ = on ? g_unix_fd_add_full(priority, fd_.get(), G_IO_OUT, on_output, this, nullptr) : 0;
}

bool MonitorPeer::is_idle(gint64 now_ns) const { return !asked_ && now_ns - since_ns_ >= idle_ns; }

MonitorPeer::Sent MonitorPeer::send(std::span<const guint8> packet) {
  ssize_t sent = 0;
  do {
    sent = ::send(fd_.get(), packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  if (sent >= 0) return Sent::yes;
  return errno == EAGAIN ? Sent::full : Sent::failed;
}

MonitorPeer::Sent MonitorPeer::send_frame(const Frame &frame, std::span<const guint8> body, guint64 number) {
  const auto flags =
      static_cast<guint16>((frame.is_reply ? frame_is_reply : 0) | (number < subscribed_at_ ? frame_is_past : 0) |
                           (frame.is_unsent ? frame_is_unsent : 0));
  PacketWriter packet({PacketKind::frame, flags, 0});
  packet.put(real_ns_of(frame.time_ns));
  packet.put(frame.latency_ns);
  packet.put(lost_);
  packet.put(frame.client->number);
  packet.put(gint32{frame.client->pid});
  packet.put(frame.client->uid);
  packet.put(frame.message_id);
  packet.put_text(frame.client->program);
  packet.put_bytes(body);
  const Sent sent = send(packet.bytes());
  if (sent == Sent::yes) {
    next_frame_ = number + 1;
    lost_ = 0;
  }
  return sent;
}

void MonitorPeer::frame_came(const Frame &frame, std::span<const guint8> body) {
  if (!subscribed_) return;
  const guint64 number = history_.end() - 1;
  const bool is_kept = number >= history_.first();
  if (is_kept && next_frame_ < number) return;  // it is sent from the history
  lost_ += number - next_frame_;
  next_frame_ = number;
  const Sent sent = send_frame(frame, body, number);
  if (sent == Sent::failed) end();
  if (sent == Sent::full) watch_output(true);
}

// The frames that the next one will report as lost.
guint64 MonitorPeer::lost_until_now() const {
  if (!subscribed_ || next_frame_ >= history_.first()) return lost_;
  return lost_ + (history_.first() - next_frame_);
}

// False if the socket is full or the peer has ended.
bool MonitorPeer::send_frames() {
  for (guint count = 0; count < frames_per_dispatch && is_behind(); ++count) {
    if (next_frame_ < history_.first()) {
      lost_ += history_.first() - next_frame_;
      next_frame_ = history_.first();
      if (!is_behind()) break;
    }
    const Sent sent = send_frame(history_.frame(next_frame_), history_.body(next_frame_), next_frame_);
    if (sent == Sent::failed) end();
    if (sent != Sent::yes) return false;
  }
  return true;
}

MonitorPeer::Sent MonitorPeer::send_figures() {
  if (answer_ == Answer::driver) return send(driver_packet(driver_, serial_).bytes());
  const Client *client = driver_.accounting().next_client(next_client_);
  if (client == nullptr) answer_ = Answer::end;
  if (answer_ == Answer::end) {
    PacketWriter packet({PacketKind::end_of_figures, 0, serial_});
    packet.put(lost_until_now());
    return send(packet.bytes());
  }
  const Sent sent = send(client_packet(*client, serial_).bytes());
  if (sent == Sent::yes) ++next_client_;
  return sent;
}

// False as send_frames().
bool MonitorPeer::send_answer() {
  for (guint count = 0; count < figures_per_dispatch && answer_ != Answer::none; ++count) {
    const Sent sent = send_figures();
    if (sent == Sent::failed) end();
    if (sent != Sent::yes) return false;
    if (answer_ == Answer::driver) {
      answer_ = Answer::clients;
    } else if (answer_ == Answer::end) {
      answer_ = Answer::none;
    }
  }
  return true;
}

void MonitorPeer::handle(std::span<const guint8> packet) {
  PacketReader reader(packet);
  const PacketHeader header = reader.header();
  if (reader.failed()) return end();
  switch (header.kind) {
    case PacketKind::figures:
      driver_.look_at_clients();
      serial_ = header.serial;
      next_client_ = 0;
      answer_ = Answer::driver;
      break;
    case PacketKind::subscribe:
      if (!subscribed_) {
        subscribed_at_ = history_.end();
        next_frame_ = (header.flags & subscribe_with_past) != 0 ? history_.first() : history_.end();
      }
      subscribed_ = true;
      break;
    default:
      return end();
  }
  asked_ = true;
  take_turn();
}

void MonitorPeer::read_request() {
  std::array<guint8, longest_request> packet;
  const ssize_t length = recv(fd_.get(), packet.data(), packet.size(), MSG_DONTWAIT | MSG_TRUNC);
  if (length < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (length <= 0 || static_cast<std::size_t>(length) > packet.size()) return end();
  handle(std::span(packet).first(static_cast<std::size_t>(length)));
}

void MonitorPeer::take_turn() {
  if (!ended_ && (is_behind() || answer_ != Answer::none)) (void)(send_frames() && send_answer());
  if (ended_) return;
  watch_output(is_behind() || answer_ != Answer::none);
  watch_input(answer_ == Answer::none);
}

void MonitorPeer::serve() {
  if (!ended_ && answer_ == Answer::none) read_request();
  take_turn();
}

// Either may remove its source. The server frees a peer that has ended later.
gboolean MonitorPeer::on_input(gint, GIOCondition, gpointer peer) {
  static_cast<MonitorPeer *>(peer)->read_request();
  return G_SOURCE_CONTINUE;
}

gboolean MonitorPeer::on_output(gint, GIOCondition, gpointer peer) {
  static_cast<MonitorPeer *>(peer)->take_turn();
  return G_SOURCE_CONTINUE;
}

}  // namespace ptz_kit
