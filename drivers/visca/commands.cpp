#include "commands.h"

namespace visca {

namespace {

constexpr Byte command = 0x01, question = 0x09;
constexpr Byte camera_category = 0x04, pan_tilt_category = 0x06;

Packet camera_command(Byte camera, Byte number, Byte value) {
  return Packet(camera, {command, camera_category, number, value}).ended();
}

// A position of 16 bits in four bytes.
Packet camera_position(Byte camera, Byte number, std::uint16_t position) {
  Packet packet(camera, {command, camera_category, number});
  packet.add_nibbles(position, 4);
  return packet.ended();
}

// Two's complement of as many bits as the nibbles have.
void add_steps(Packet &packet, const PanTiltSteps &steps) {
  packet.add_nibbles(static_cast<std::uint32_t>(steps.pan), steps.pan_nibbles);
  packet.add_nibbles(static_cast<std::uint32_t>(steps.tilt), 4);
}

Packet pan_tilt_move(Byte camera, Byte number, PanTiltSpeed speed, const PanTiltSteps &steps) {
  Packet packet(camera, {command, pan_tilt_category, number, speed.pan, speed.tilt});
  add_steps(packet, steps);
  return packet.ended();
}

// Without the terminator and the receiver.
struct Question {
  Byte category;
  Byte number;
};
constexpr Question questions[] = {{0x00, 0x02}, {0x04, 0x00}, {0x04, 0x47}, {0x04, 0x48},
                                  {0x04, 0x38}, {0x06, 0x12}, {0x06, 0x11}, {0x06, 0x10}};

}  // namespace

Packet address_set() { return Packet(broadcast, {0x30, 0x01}).ended(); }
Packet interface_clear_all() { return Packet(broadcast, {command, 0x00, 0x01}).ended(); }
Packet interface_clear(Byte camera) { return Packet(camera, {command, 0x00, 0x01}).ended(); }
Packet cancel(Byte camera, Byte socket) { return Packet(camera, {static_cast<Byte>(0x20 | socket)}).ended(); }

Packet power(Byte camera, bool on) { return camera_command(camera, 0x00, on ? 0x02 : 0x03); }

Packet pan_tilt_drive(Byte camera, PanTiltSpeed speed, PanDirection pan, TiltDirection tilt) {
  return Packet(camera, {command, pan_tilt_category, 0x01, speed.pan, speed.tilt, static_cast<Byte>(pan),
                         static_cast<Byte>(tilt)})
      .ended();
}
Packet pan_tilt_absolute(Byte camera, PanTiltSpeed speed, const PanTiltSteps &target) {
  return pan_tilt_move(camera, 0x02, speed, target);
}
Packet pan_tilt_relative(Byte camera, PanTiltSpeed speed, const PanTiltSteps &distance) {
  return pan_tilt_move(camera, 0x03, speed, distance);
}
Packet pan_tilt_home(Byte camera) { return Packet(camera, {command, pan_tilt_category, 0x04}).ended(); }
Packet pan_tilt_reset(Byte camera) { return Packet(camera, {command, pan_tilt_category, 0x05}).ended(); }

Packet limit_set(Byte camera, LimitCorner corner, const PanTiltSteps &limit) {
  Packet packet(camera, {command, pan_tilt_category, 0x07, 0x00, static_cast<Byte>(corner)});
  add_steps(packet, limit);
  return packet.ended();
}
Packet limit_clear(Byte camera, LimitCorner corner) {
  Packet packet(camera, {command, pan_tilt_category, 0x07, 0x01, static_cast<Byte>(corner)});
  for (int axis = 0; axis < 2; ++axis) packet.add_nibbles(0x7fff, 4);
  return packet.ended();
}

Packet zoom_stop(Byte camera) { return camera_command(camera, 0x07, 0x00); }
Packet zoom_drive(Byte camera, ZoomDirection direction, Byte speed) {
  if (direction == ZoomDirection::stop) return zoom_stop(camera);
  return camera_command(camera, 0x07, static_cast<Byte>(static_cast<Byte>(direction) << 4 | (speed & 0x07)));
}
Packet zoom_direct(Byte camera, std::uint16_t position) { return camera_position(camera, 0x47, position); }

Packet focus_stop(Byte camera) { return camera_command(camera, 0x08, 0x00); }
Packet focus_drive(Byte camera, FocusDirection direction, Byte speed) {
  if (direction == FocusDirection::stop) return focus_stop(camera);
  return camera_command(camera, 0x08, static_cast<Byte>(static_cast<Byte>(direction) << 4 | (speed & 0x07)));
}
Packet focus_direct(Byte camera, std::uint16_t position) { return camera_position(camera, 0x48, position); }
Packet focus_mode(Byte camera, FocusMode mode) { return camera_command(camera, 0x38, static_cast<Byte>(mode)); }
Packet focus_one_push(Byte camera) { return camera_command(camera, 0x18, 0x01); }

Packet exposure_mode(Byte camera, ExposureMode mode) { return camera_command(camera, 0x39, static_cast<Byte>(mode)); }
Packet iris_step(Byte camera, IrisStep step) { return camera_command(camera, 0x0b, static_cast<Byte>(step)); }
Packet iris_direct(Byte camera, Byte position) { return camera_position(camera, 0x4b, position); }

Packet night_mode(Byte camera, bool on) { return camera_command(camera, 0x01, on ? 0x02 : 0x03); }
Packet automatic_night_mode(Byte camera, bool on) { return camera_command(camera, 0x51, on ? 0x02 : 0x03); }

Packet memory(Byte camera, MemoryAction action, Byte number) {
  return Packet(camera, {command, camera_category, 0x3f, static_cast<Byte>(action), number}).ended();
}

Packet inquiry(Byte camera, InquiryKind kind) {
  const Question &asked = questions[static_cast<std::size_t>(kind)];
  return Packet(camera, {question, asked.category, asked.number}).ended();
}

}  // namespace visca
