// Commands of the lens and the sensor, and all inquiries.
#include "camera.h"

namespace visca_sim {

namespace {

constexpr std::int64_t late_us = 250'000;
constexpr double zoom_direct_speed = 0x4000 / 2.5, focus_direct_speed = 0x6000;

struct Length {
  std::uint8_t number;
  std::size_t packet;
};
// Of the commands of category 04; zoom direct may have a focus position as well.
constexpr Length lengths[] = {{0x01, 6}, {0x07, 6}, {0x08, 6}, {0x0b, 6}, {0x18, 6}, {0x38, 6},
                              {0x39, 6}, {0x3f, 7}, {0x47, 9}, {0x48, 9}, {0x4b, 9}, {0x51, 6}};

int value16(const Packet &packet, std::size_t at) {
  int value = 0;
  for (std::size_t index = at; index < at + 4; ++index) value = value << 4 | (packet[index] & 0x0f);
  return value;
}

void append16(Packet &packet, int value) {
  for (int shift = 12; shift >= 0; shift -= 4) packet.push_back(static_cast<std::uint8_t>(value >> shift & 0x0f));
}

// Whether the value is one that the command knows.
bool is_known(std::uint8_t number, std::uint8_t value) {
  switch (number) {
    case 0x01:
    case 0x51:
      return value == 0x02 || value == 0x03;
    case 0x0b:
      return value == 0x00 || value == 0x02 || value == 0x03;
    case 0x18:
      return value == 0x01;
    case 0x38:
      return value == 0x02 || value == 0x03 || value == 0x10;
    case 0x39:
      return value == 0x00 || value == 0x03 || value == 0x0a || value == 0x0b;
    default:
      return true;
  }
}

}  // namespace

void Camera::handle_lens(const Sender &sender, const Packet &packet) {
  const std::uint8_t number = packet[3];
  std::size_t length = 0;
  for (const Length &each : lengths) {
    if (each.number == number) length = each.packet;
  }
  if (length == 0) return error(sender, 0, 0x02);
  const bool has_both = number == 0x47 && packet.size() == 13;
  if (packet.size() != length && !has_both) return error(sender, 0, 0x01);
  if (!is_known(number, packet[4])) return error(sender, 0, 0x02);
  if (number == 0x07) return drive_lens(sender, zoom_, packet[4]);
  if (number == 0x08) return drive_lens(sender, focus_, packet[4]);
  if (number == 0x3f) return use_memory(sender, packet);
  if (number == 0x38) autofocus_ = packet[4] == 0x10 ? !autofocus_ : packet[4] == 0x02;
  if (number == 0x48 || has_both) focus_.go_to(focus_.clamped(value16(packet, has_both ? 8 : 4)), focus_direct_speed);
  if (number != 0x47) return begin(sender, Work::immediate);
  const int position = value16(packet, 4);
  if (!zoom_.contains(position)) return error(sender, 0, 0x02);
  replace(Work::zoom);
  zoom_.go_to(position, zoom_direct_speed * options_.speed_factor);
  begin(sender, Work::zoom);
}

void Camera::handle_inquiry(const Sender &sender, const Packet &packet) {
  if (packet.size() < 5) return error(sender, 0, 0x01);
  const unsigned what = static_cast<unsigned>(packet[2]) << 8 | packet[3];
  const bool is_position = what == 0x0447 || what == 0x0448 || what == 0x0612;
  if (is_position && options_.quirks.has(Quirk::no_answers)) return;
  if (options_.quirks.has(Quirk::no_inquiries)) return;
  const bool is_of_focus = what == 0x0448 || what == 0x0438;
  if ((is_position && options_.quirks.has(Quirk::no_position)) ||
      (what == 0x0447 && options_.quirks.has(Quirk::no_zoom_position)) ||
      (is_of_focus && options_.quirks.has(Quirk::no_focus))) {
    return error(sender, 0, 0x02);
  }
  if (!on_ && what != 0x0002 && what != 0x0400) return error(sender, 1, 0x41);
  Packet answer = {0x50};
  switch (what) {
    case 0x0002:
      answer.insert(answer.end(), {0x00, 0x01, 0x05, 0x0a, 0x01, 0x02, 0x02});
      break;
    case 0x0400:
      answer.push_back(on_ ? 0x02 : 0x03);
      break;
    case 0x0447:
      append16(answer, zoom_.position());
      break;
    case 0x0448:
      append16(answer, focus_.position());
      break;
    case 0x0438:
      answer.push_back(autofocus_ ? 0x02 : 0x03);
      break;
    case 0x0610:
      answer.insert(answer.end(), {0x10, static_cast<std::uint8_t>(moves() ? 0x04 : 0x00)});
      break;
    case 0x0611:
      answer.insert(answer.end(), {0x18, 0x14});
      break;
    case 0x0612:
      if (options_.quirks.has(Quirk::five_nibbles)) answer.push_back(pan_.position() < 0 ? 0x0f : 0x00);
      append16(answer, pan_.position());
      append16(answer, tilt_.position());
      break;
    case 0x7e7e:
      append16(answer, zoom_.position());
      answer.insert(answer.end(), {0x00, 0x00});
      append16(answer, focus_.position());
      answer.insert(answer.end(), {0x00, static_cast<std::uint8_t>(autofocus_ ? 1 : 0), 0x00});
      break;
    default:
      return error(sender, 0, 0x02);
  }
  send(sender, answer, options_.quirks.has(Quirk::late_answers) ? late_us : options_.ack_delay_us);
}

}  // namespace visca_sim
