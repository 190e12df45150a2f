// The bytes of every command and inquiry.
#include "commands.h"

#include <gtest/gtest.h>

#include <string>

namespace visca {

namespace {

std::string text(ByteSpan bytes) {
  std::string hexadecimal;
  for (const Byte byte : bytes) {
    char digits[4];
    snprintf(digits, sizeof digits, "%s%02X", hexadecimal.empty() ? "" : " ", byte);
    hexadecimal += digits;
  }
  return hexadecimal;
}

struct Case {
  const char *name;
  Packet packet;
  const char *bytes;
};

void PrintTo(const Case &of, std::ostream *stream) { *stream << of.name; }

class EachCommand : public testing::TestWithParam<Case> {};

TEST_P(EachCommand, HasTheBytesOfTheProtocol) { EXPECT_EQ(text(GetParam().packet.bytes()), GetParam().bytes); }

const Case line_cases[] = {
    {"AddressSet", address_set(), "88 30 01 FF"},
    {"InterfaceClearAll", interface_clear_all(), "88 01 00 01 FF"},
    {"InterfaceClearOne", interface_clear(3), "83 01 00 01 FF"},
    {"CancelSocket1", cancel(1, 1), "81 21 FF"},
    {"CancelSocket2OfCamera7", cancel(7, 2), "87 22 FF"},
};
INSTANTIATE_TEST_SUITE_P(Line, EachCommand, testing::ValuesIn(line_cases),
                         [](const auto &info) { return std::string(info.param.name); });

const Case pan_tilt_cases[] = {
    {"DriveLeftUp", pan_tilt_drive(1, {0x18, 0x14}, PanDirection::left, TiltDirection::up),
     "81 01 06 01 18 14 01 01 FF"},
    {"DriveRightDown", pan_tilt_drive(1, {1, 2}, PanDirection::right, TiltDirection::down),
     "81 01 06 01 01 02 02 02 FF"},
    {"DriveStop", pan_tilt_drive(2, {1, 1}, PanDirection::stop, TiltDirection::stop), "82 01 06 01 01 01 03 03 FF"},
    {"Absolute", pan_tilt_absolute(1, {0x10, 0x0c}, {0x08db, 0x04b0}), "81 01 06 02 10 0C 00 08 0D 0B 00 04 0B 00 FF"},
    {"AbsoluteNegative", pan_tilt_absolute(1, {0x10, 0x0c}, {-2267, -400}),
     "81 01 06 02 10 0C 0F 07 02 05 0F 0E 07 00 FF"},
    {"AbsoluteFiveNibbles", pan_tilt_absolute(1, {0x10, 0x0c}, {-1, 1, 5}),
     "81 01 06 02 10 0C 0F 0F 0F 0F 0F 00 00 00 01 FF"},
    {"Relative", pan_tilt_relative(1, {1, 1}, {-2, 3}), "81 01 06 03 01 01 0F 0F 0F 0E 00 00 00 03 FF"},
    {"Home", pan_tilt_home(1), "81 01 06 04 FF"},
    {"Reset", pan_tilt_reset(1), "81 01 06 05 FF"},
    {"LimitSet", limit_set(1, LimitCorner::up_right, {0x1234, 0x0567}), "81 01 06 07 00 01 01 02 03 04 00 05 06 07 FF"},
    {"LimitClear", limit_clear(1, LimitCorner::down_left), "81 01 06 07 01 00 07 0F 0F 0F 07 0F 0F 0F FF"},
};
INSTANTIATE_TEST_SUITE_P(PanTilt, EachCommand, testing::ValuesIn(pan_tilt_cases),
                         [](const auto &info) { return std::string(info.param.name); });

const Case camera_cases[] = {
    {"PowerOn", power(1, true), "81 01 04 00 02 FF"},
    {"PowerOff", power(1, false), "81 01 04 00 03 FF"},
    {"ZoomStop", zoom_stop(1), "81 01 04 07 00 FF"},
    {"ZoomTele", zoom_drive(1, ZoomDirection::tele, 5), "81 01 04 07 25 FF"},
    {"ZoomWide", zoom_drive(1, ZoomDirection::wide, 7), "81 01 04 07 37 FF"},
    {"ZoomDriveStop", zoom_drive(1, ZoomDirection::stop, 7), "81 01 04 07 00 FF"},
    {"ZoomDirect", zoom_direct(1, 0x3b4b), "81 01 04 47 03 0B 04 0B FF"},
    {"FocusStop", focus_stop(1), "81 01 04 08 00 FF"},
    {"FocusFar", focus_drive(1, FocusDirection::far, 3), "81 01 04 08 23 FF"},
    {"FocusNear", focus_drive(1, FocusDirection::near, 0), "81 01 04 08 30 FF"},
    {"FocusDirect", focus_direct(1, 0x1a2b), "81 01 04 48 01 0A 02 0B FF"},
    {"FocusAuto", focus_mode(1, FocusMode::automatic), "81 01 04 38 02 FF"},
    {"FocusManual", focus_mode(1, FocusMode::manual), "81 01 04 38 03 FF"},
    {"FocusToggle", focus_mode(1, FocusMode::toggle), "81 01 04 38 10 FF"},
    {"FocusOnePush", focus_one_push(1), "81 01 04 18 01 FF"},
    {"ExposureAuto", exposure_mode(1, ExposureMode::automatic), "81 01 04 39 00 FF"},
    {"ExposureManual", exposure_mode(1, ExposureMode::manual), "81 01 04 39 03 FF"},
    {"ShutterPriority", exposure_mode(1, ExposureMode::shutter_priority), "81 01 04 39 0A FF"},
    {"IrisPriority", exposure_mode(1, ExposureMode::iris_priority), "81 01 04 39 0B FF"},
    {"IrisUp", iris_step(1, IrisStep::up), "81 01 04 0B 02 FF"},
    {"IrisDown", iris_step(1, IrisStep::down), "81 01 04 0B 03 FF"},
    {"IrisReset", iris_step(1, IrisStep::reset), "81 01 04 0B 00 FF"},
    {"IrisDirect", iris_direct(1, 0x1c), "81 01 04 4B 00 00 01 0C FF"},
    {"Night", night_mode(1, true), "81 01 04 01 02 FF"},
    {"Day", night_mode(1, false), "81 01 04 01 03 FF"},
    {"AutomaticNightOn", automatic_night_mode(1, true), "81 01 04 51 02 FF"},
    {"AutomaticNightOff", automatic_night_mode(1, false), "81 01 04 51 03 FF"},
    {"MemoryReset", memory(1, MemoryAction::reset, 0), "81 01 04 3F 00 00 FF"},
    {"MemorySet", memory(1, MemoryAction::set, 0x0f), "81 01 04 3F 01 0F FF"},
    {"MemoryRecall", memory(1, MemoryAction::recall, 0xfe), "81 01 04 3F 02 FE FF"},
};
INSTANTIATE_TEST_SUITE_P(Camera, EachCommand, testing::ValuesIn(camera_cases),
                         [](const auto &info) { return std::string(info.param.name); });

const Case inquiry_cases[] = {
    {"Version", inquiry(1, InquiryKind::version), "81 09 00 02 FF"},
    {"Power", inquiry(1, InquiryKind::power), "81 09 04 00 FF"},
    {"ZoomPosition", inquiry(1, InquiryKind::zoom_position), "81 09 04 47 FF"},
    {"FocusPosition", inquiry(1, InquiryKind::focus_position), "81 09 04 48 FF"},
    {"FocusMode", inquiry(1, InquiryKind::focus_mode), "81 09 04 38 FF"},
    {"PanTiltPosition", inquiry(1, InquiryKind::pan_tilt_position), "81 09 06 12 FF"},
    {"PanTiltMaxSpeed", inquiry(1, InquiryKind::pan_tilt_max_speed), "81 09 06 11 FF"},
    {"PanTiltStatus", inquiry(2, InquiryKind::pan_tilt_status), "82 09 06 10 FF"},
};
INSTANTIATE_TEST_SUITE_P(Inquiry, EachCommand, testing::ValuesIn(inquiry_cases),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
}  // namespace visca
