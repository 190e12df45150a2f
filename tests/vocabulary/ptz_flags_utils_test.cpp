#include <gtest/gtest.h>
#include <ptz_flags_utils.h>

namespace {

struct Case {
  const char *description;
  PTZDriverCapabilities announced;
  gboolean usable;
  guint32 extra_afterwards;
};

class FlagsUtilsUsable : public testing::TestWithParam<Case> {};

constexpr guint32 device_type = PTZ_DRIVER_EXTRA_CAPABILITIES_DEVICETYPE;
constexpr guint32 aux = PTZ_DRIVER_EXTRA_CAPABILITIES_AUX;

INSTANTIATE_TEST_SUITE_P(
    All, FlagsUtilsUsable,
    testing::Values(
        Case{"NothingAtAllIsNotUsable", {0, 0}, FALSE, 0},
        Case{"DeviceTypeAloneIsNotUsableAndIsCleared", {0, device_type}, FALSE, 0},
        Case{"AnyOtherExtraIsUsableAndDeviceTypeIsCleared", {0, device_type | aux}, TRUE, aux},
        Case{"ExtraWithoutDeviceTypeIsUsableAsItStands",
             {0, PTZ_DRIVER_EXTRA_CAPABILITIES_OVERVIEW},
             TRUE,
             PTZ_DRIVER_EXTRA_CAPABILITIES_OVERVIEW},
        Case{"EveryOtherBitOfExtraCounts", {0, 0x80000000 | device_type}, TRUE, 0x80000000},
        Case{"MovementLeavesDeviceTypeInPlace", {PTZ_DRIVER_MOVE_CAPABILITIES_PAN, device_type}, TRUE, device_type},
        Case{"MovementAloneIsUsable", {PTZ_DRIVER_MOVE_CAPABILITIES_TILT, 0}, TRUE, 0},
        Case{"TheSignBitOfMoveCounts", {PTZ_DRIVER_MOVE_CAPABILITIES_ZOOMMAG, device_type}, TRUE, device_type}),
    [](const auto &tested) { return tested.param.description; });

TEST_P(FlagsUtilsUsable, DecidesAndWritesBack) {
  PTZDriverCapabilities record = GetParam().announced;
  EXPECT_EQ(ptz_flags_utils_ptz_usable(&record), GetParam().usable);
  EXPECT_EQ(record.move, GetParam().announced.move);
  EXPECT_EQ(record.extra, GetParam().extra_afterwards);
}

TEST_P(FlagsUtilsUsable, DecidesTheSameASecondTime) {
  PTZDriverCapabilities record = GetParam().announced;
  ptz_flags_utils_ptz_usable(&record);
  EXPECT_EQ(ptz_flags_utils_ptz_usable(&record), GetParam().usable);
  EXPECT_EQ(record.extra, GetParam().extra_afterwards);
}

TEST(FlagsUtils, NullIsNotUsable) { EXPECT_FALSE(ptz_flags_utils_ptz_usable(nullptr)); }

}  // namespace
