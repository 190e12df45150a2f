#include "camera.h"

#include <cstdio>
#include <utility>

namespace visca_sim {

namespace {

// Speeds of the axes in steps per second at the highest step: 100 and 90 degrees a second, the zoom range in 2.5 s.
constexpr double pan_speed = 1333, tilt_speed = 1200, zoom_speed = 0x4000 / 2.5, focus_speed = 0x6000;
constexpr int most_pan_step = 0x18, most_tilt_step = 0x14;
constexpr std::int64_t held_us = 20'000'000;

int value16(const Packet &packet, std::size_t at) {
  int value = 0;
  for (std::size_t index = at; index < at + 4; ++index) value = value << 4 | (packet[index] & 0x0f);
  return value;
}

int signed16(const Packet &packet, std::size_t at) { return static_cast<std::int16_t>(value16(packet, at)); }

bool all_nibbles(const Packet &packet, std::size_t from, std::size_t count) {
  for (std::size_t index = from; index < from + count; ++index) {
    if (packet[index] > 0x0f) return false;
  }
  return true;
}

}  // namespace

void Camera::send(const Sender &sender, Packet message, std::int64_t delay_us) {
  const std::uint8_t from = options_.quirks.has(Quirk::other_address) ? 2 : address_;
  message.insert(message.begin(), static_cast<std::uint8_t>(0x80 + 0x10 * from));
  message.push_back(0xff);
  sink_.reply(sender, message, delay_us);
}

void Camera::error(const Sender &sender, std::uint8_t socket, std::uint8_t code) {
  send(sender, {static_cast<std::uint8_t>(0x60 | socket), code}, options_.ack_delay_us);
}

void Camera::handle(const Sender &sender, const Packet &packet, std::int64_t now_us) {
  advance(now_us);
  if (packet.size() < 3 || packet.size() > 16) return error(sender, 0, 0x01);
  if (packet[1] == 0x01 && packet.size() == 5 && packet[2] == 0x00 && packet[3] == 0x01) {
    clear();
    return send(sender, {0x50});
  }
  if ((packet[1] & 0xf0) == 0x20 && packet.size() == 3) return handle_cancel(sender, packet[1] & 0x0f);
  if (packet[1] == 0x09) return handle_inquiry(sender, packet);
  if (packet[1] == 0x01 && packet.size() >= 5) return handle_command(sender, packet);
  error(sender, 0, 0x02);
}

void Camera::clear() {
  for (Socket &socket : sockets_) socket = {};
}

void Camera::handle_cancel(const Sender &sender, unsigned number) {
  const bool is_busy = (number == 1 || number == 2) && sockets_[number - 1].busy;
  if (!is_busy) return error(sender, static_cast<std::uint8_t>(number), 0x05);
  Socket &socket = sockets_[number - 1];
  // A motion that was replaced is not the one that runs.
  const bool is_current = socket.held_until_us == 0;
  if (is_current && (socket.work == Work::pan_tilt || socket.work == Work::recall)) {
    pan_.stop();
    tilt_.stop();
  }
  if (is_current && (socket.work == Work::zoom || socket.work == Work::recall)) zoom_.stop();
  socket = {};
  error(sender, static_cast<std::uint8_t>(number), 0x04);
}

void Camera::complete(unsigned index) {
  const Socket done = std::exchange(sockets_[index], {});
  const auto message = static_cast<std::uint8_t>(0x51 + index);
  send(done.sender, {message}, options_.ack_delay_us);
  if (options_.quirks.has(Quirk::complete_twice)) send(done.sender, {message}, options_.ack_delay_us);
}

bool Camera::is_moving(Work work) const {
  switch (work) {
    case Work::pan_tilt:
      return (pan_.moves() && pan_.has_target()) || (tilt_.moves() && tilt_.has_target());
    case Work::zoom:
      return zoom_.moves() && zoom_.has_target();
    case Work::recall:
      return moves();
    default:
      return false;
  }
}

// The motion that a socket carries out ends without having arrived.
void Camera::replace(Work work) {
  for (unsigned index = 0; index < sockets_.size(); ++index) {
    Socket &socket = sockets_[index];
    if (!socket.busy || socket.held_until_us != 0) continue;
    if (socket.work != work && socket.work != Work::recall) continue;
    if (options_.quirks.has(Quirk::keeps_replaced)) {
      socket.held_until_us = now_us_ + held_us;
    } else if (options_.quirks.has(Quirk::lost_completion)) {
      socket = {};
    } else {
      complete(index);
    }
  }
}

// Gives the command a socket. An immediate one is completed at once.
void Camera::begin(const Sender &sender, Work work, bool silent) {
  const unsigned index = sockets_[0].busy ? 1 : 0;
  Socket &socket = sockets_[index];
  const auto number = static_cast<std::uint8_t>(index + 1);
  if (silent) return;
  if (!options_.quirks.has(Quirk::no_ack))
    send(sender, {static_cast<std::uint8_t>(0x40 | number)}, options_.ack_delay_us);
  if (options_.quirks.has(Quirk::complete_empty) && index == 0 && !sockets_[1].busy) send(sender, {0x52});
  socket = {.busy = true, .work = work, .sender = sender};
  if (work == Work::immediate || !is_moving(work)) complete(index);
}

void Camera::advance(std::int64_t now_us) {
  if (now_us_ == 0) now_us_ = now_us;
  const double seconds = static_cast<double>(now_us - now_us_) / 1e6;
  now_us_ = now_us;
  for (Axis *axis : {&pan_, &tilt_, &zoom_, &focus_}) axis->advance(seconds);
  if (on_at_us_ != 0 && now_us >= on_at_us_) {
    on_ = true;
    on_at_us_ = 0;
  }
  for (unsigned index = 0; index < sockets_.size(); ++index) {
    Socket &socket = sockets_[index];
    if (!socket.busy) continue;
    if (socket.held_until_us != 0) {
      if (now_us >= socket.held_until_us) socket = {};
    } else if (!is_moving(socket.work)) {
      if (options_.quirks.has(Quirk::lost_completion)) {
        socket = {};
      } else {
        complete(index);
      }
    }
  }
}

void Camera::set_power(const Sender &sender, std::uint8_t value) {
  if (value != 0x02 && value != 0x03) return error(sender, 0, 0x02);
  if (value == 0x02 && !on_) on_at_us_ = now_us_ + options_.power_on_us;
  if (value == 0x03) {
    on_ = false;
    on_at_us_ = 0;
    for (Axis *axis : {&pan_, &tilt_, &zoom_, &focus_}) axis->stop();
  }
  begin(sender, Work::immediate);
}

void Camera::handle_command(const Sender &sender, const Packet &packet) {
  if (is_full()) return error(sender, 0, 0x03);
  const std::uint8_t category = packet[2], number = packet[3];
  if (category == 0x04 && number == 0x00 && packet.size() == 6) return set_power(sender, packet[4]);
  if (!on_) return error(sender, 1, 0x41);
  if (category == 0x04) return handle_lens(sender, packet);
  if (category == 0x06) return handle_pan_tilt(sender, packet);
  error(sender, 0, 0x02);
}

std::string Camera::describe() const {
  char text[96];
  snprintf(text, sizeof text, "pan %d tilt %d zoom %d focus %d%s%s", pan_.position(), tilt_.position(),
           zoom_.position(), focus_.position(), moves() ? " moving" : "", on_ ? "" : " off");
  return text;
}

void Camera::drive(const Sender &sender, const Packet &packet) {
  const int pan_step = packet[4], tilt_step = packet[5], pan_way = packet[6], tilt_way = packet[7];
  const bool is_good = pan_step >= 1 && pan_step <= most_pan_step && tilt_step >= 1 && tilt_step <= most_tilt_step &&
                       pan_way >= 1 && pan_way <= 3 && tilt_way >= 1 && tilt_way <= 3;
  if (!is_good) return error(sender, 0, 0x02);
  replace(Work::pan_tilt);
  const double pan = pan_speed * options_.speed_factor * pan_step / most_pan_step;
  const double tilt = tilt_speed * options_.speed_factor * tilt_step / most_tilt_step;
  pan_.run(pan_way == 1 ? -pan : pan_way == 2 ? pan : 0);
  tilt_.run(tilt_way == 1 ? tilt : tilt_way == 2 ? -tilt : 0);
  begin(sender, Work::immediate);
}

void Camera::go(const Sender &sender, const Packet &packet, bool relative) {
  const int pan_step = packet[4], tilt_step = packet[5];
  // The highest nibble of five is that of the sign.
  const std::size_t at = options_.quirks.has(Quirk::five_nibbles) ? 7 : 6;
  int pan = signed16(packet, at), tilt = signed16(packet, at + 4);
  if (relative) {
    pan = pan_.clamped(pan + pan_.position());
    tilt = tilt_.clamped(tilt + tilt_.position());
  }
  const bool is_good = pan_step >= 1 && pan_step <= most_pan_step && tilt_step >= 1 && tilt_step <= most_tilt_step &&
                       all_nibbles(packet, at, 8) && pan_.contains(pan) && tilt_.contains(tilt);
  if (!is_good) return error(sender, 0, 0x02);
  replace(Work::pan_tilt);
  pan_.go_to(pan, pan_speed * options_.speed_factor * pan_step / most_pan_step);
  tilt_.go_to(tilt, tilt_speed * options_.speed_factor * tilt_step / most_tilt_step);
  begin(sender, Work::pan_tilt);
}

void Camera::handle_pan_tilt(const Sender &sender, const Packet &packet) {
  switch (packet[3]) {
    case 0x01:
      return packet.size() == 9 ? drive(sender, packet) : error(sender, 0, 0x01);
    case 0x02:
    case 0x03:
      return packet.size() == (options_.quirks.has(Quirk::five_nibbles) ? 16U : 15U)
                 ? go(sender, packet, packet[3] == 0x03)
                 : error(sender, 0, 0x01);
    case 0x04:
    case 0x05:
      if (packet.size() != 5) return error(sender, 0, 0x01);
      replace(Work::pan_tilt);
      pan_.go_to(0, pan_speed * options_.speed_factor);
      tilt_.go_to(0, tilt_speed * options_.speed_factor);
      return begin(sender, Work::pan_tilt, packet[3] == 0x04 && options_.quirks.has(Quirk::no_ack_home));
    case 0x07:
      return packet.size() == 15 ? begin(sender, Work::immediate) : error(sender, 0, 0x01);
    default:
      return error(sender, 0, 0x02);
  }
}

void Camera::drive_lens(const Sender &sender, Axis &axis, std::uint8_t value) {
  const double most = &axis == &zoom_ ? zoom_speed : focus_speed;
  const unsigned way = value < 0x10 ? value : value >> 4;
  const double speed = most * options_.speed_factor * (value < 0x10 ? 4 : (value & 0x0f) + 1) / 8;
  if ((value >= 0x10 && (value & 0x0f) > 7) || (way != 0 && way != 2 && way != 3)) return error(sender, 0, 0x02);
  if (&axis == &zoom_) replace(Work::zoom);
  // Zoom positions grow towards tele, focus positions towards near.
  const double velocity = way == 2 ? speed : way == 3 ? -speed : 0;
  axis.run(&axis == &zoom_ ? velocity : -velocity);
  begin(sender, Work::immediate);
}

void Camera::use_memory(const Sender &sender, const Packet &packet) {
  const std::uint8_t action = packet[4], number = packet[5];
  if (action > 2 || number >= memory_.size()) return error(sender, 0, 0x02);
  auto &place = memory_[number];
  if (action == 0) place.reset();
  if (action == 1) place = {pan_.position(), tilt_.position(), zoom_.position(), focus_.position()};
  if (action != 2 || !place) return begin(sender, Work::immediate);
  replace(Work::pan_tilt);
  replace(Work::zoom);
  pan_.go_to(place->pan, pan_speed * options_.speed_factor);
  tilt_.go_to(place->tilt, tilt_speed * options_.speed_factor);
  zoom_.go_to(place->zoom, zoom_speed * options_.speed_factor);
  begin(sender, Work::recall);
}

}  // namespace visca_sim
