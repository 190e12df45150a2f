// commands.h - the packets that a controller sends. `camera` is the address of the receiver, 1 to 7.
#pragma once
#include "packet.h"

namespace visca {

enum class PanDirection : Byte { left = 1, right = 2, stop = 3 };
enum class TiltDirection : Byte { up = 1, down = 2, stop = 3 };
enum class ZoomDirection : Byte { stop = 0, tele = 2, wide = 3 };
enum class FocusDirection : Byte { stop = 0, far = 2, near = 3 };
enum class FocusMode : Byte { automatic = 0x02, manual = 0x03, toggle = 0x10 };
enum class ExposureMode : Byte { automatic = 0x00, manual = 0x03, shutter_priority = 0x0a, iris_priority = 0x0b };
enum class IrisStep : Byte { reset = 0, up = 2, down = 3 };
enum class MemoryAction : Byte { reset = 0, set = 1, recall = 2 };
enum class LimitCorner : Byte { down_left = 0, up_right = 1 };

constexpr unsigned zoom_speeds = 8;  // 0 to 7

struct PanTiltSpeed {
  Byte pan = 1;
  Byte tilt = 1;
};

// A target or a distance in steps. `pan_nibbles` is 4, or 5 for models with a wider pan range.
struct PanTiltSteps {
  std::int32_t pan = 0;
  std::int32_t tilt = 0;
  unsigned pan_nibbles = 4;
};

// To the line.
[[nodiscard]] Packet address_set();
[[nodiscard]] Packet interface_clear_all();
[[nodiscard]] Packet interface_clear(Byte camera);
[[nodiscard]] Packet cancel(Byte camera, Byte socket);

// To a camera.
[[nodiscard]] Packet power(Byte camera, bool on);
[[nodiscard]] Packet pan_tilt_drive(Byte camera, PanTiltSpeed speed, PanDirection pan, TiltDirection tilt);
[[nodiscard]] Packet pan_tilt_absolute(Byte camera, PanTiltSpeed speed, const PanTiltSteps &target);
[[nodiscard]] Packet pan_tilt_relative(Byte camera, PanTiltSpeed speed, const PanTiltSteps &distance);
[[nodiscard]] Packet pan_tilt_home(Byte camera);
[[nodiscard]] Packet pan_tilt_reset(Byte camera);
[[nodiscard]] Packet limit_set(Byte camera, LimitCorner corner, const PanTiltSteps &limit);
[[nodiscard]] Packet limit_clear(Byte camera, LimitCorner corner);
[[nodiscard]] Packet zoom_stop(Byte camera);
[[nodiscard]] Packet zoom_drive(Byte camera, ZoomDirection direction, Byte speed);
[[nodiscard]] Packet zoom_direct(Byte camera, std::uint16_t position);
[[nodiscard]] Packet focus_stop(Byte camera);
[[nodiscard]] Packet focus_drive(Byte camera, FocusDirection direction, Byte speed);
[[nodiscard]] Packet focus_direct(Byte camera, std::uint16_t position);
[[nodiscard]] Packet focus_mode(Byte camera, FocusMode mode);
[[nodiscard]] Packet focus_one_push(Byte camera);
[[nodiscard]] Packet exposure_mode(Byte camera, ExposureMode mode);
[[nodiscard]] Packet iris_step(Byte camera, IrisStep step);
[[nodiscard]] Packet iris_direct(Byte camera, Byte position);
// Night: the filter is out of the light path.
[[nodiscard]] Packet night_mode(Byte camera, bool on);
[[nodiscard]] Packet automatic_night_mode(Byte camera, bool on);
[[nodiscard]] Packet memory(Byte camera, MemoryAction action, Byte number);

// The inquiries, and how many bytes of data their answers have.
enum class InquiryKind : Byte {
  version,
  power,
  zoom_position,
  focus_position,
  focus_mode,
  pan_tilt_position,
  pan_tilt_max_speed,
  pan_tilt_status,
};
[[nodiscard]] Packet inquiry(Byte camera, InquiryKind kind);

}  // namespace visca
