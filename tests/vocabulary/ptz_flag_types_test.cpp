#include <gtest/gtest.h>
#include <ptz_flag_types.h>
#include <syslog.h>
#include <syslog_capture.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "type_table.h"

namespace {

using ptz_test::FlagsTable;
using ptz_test::LogLine;
using ptz_test::SyslogCapture;

const std::vector<FlagsTable> &flags_tables() {
  static const std::vector<FlagsTable> tables = {
      FlagsTable{
          "PTZDriverMoveCapabilities",
          ptz_driver_move_capabilities_get_type,
          {
              {PTZ_DRIVER_MOVE_CAPABILITIES_NONE, 0x00000000, "None", "none"},
              {PTZ_DRIVER_MOVE_CAPABILITIES_PAN, 0x00000001, "Pan", "pan"},
              {PTZ_DRIVER_MOVE_CAPABILITIES_RELPAN, 0x00000002, "RelPan", "relpan"},
              {PTZ_DRIVER_MOVE_CAPABILITIES_CONTPAN, 0x00000004, "ContPan", "contpan"},
              {PTZ_DRIVER_MOVE_CAPABILITIES_TILT, 0x00000008, "Tilt", "tilt"},
              {PTZ_DRIVER_MOVE_CAPABILITIES_RELTILT, 0x00000010, "RelTilt", "reltilt"},
              {PTZ_DRIVER_MOVE_CAPABILITIES_CONTTILT, 0x00000020, "ContTilt", "conttilt"},
              {PTZ_DRIVER_MOVE_CAPABILITIES_ZOOM, 0x00000040, "Zoom", "zoom"},
              {PTZ_DRIVER_MOVE_CAPABILITIES_RELZOOM, 0x00000080, "RelZoom", "relzoom"},
              {PTZ_DRIVER_MOVE_CAPABILITIES_CONTZOOM, 0x00000100, "ContZoom", "contzoom"},
              {PTZ_DRIVER_MOVE_CAPABILITIES_DIGITALZOOM, 0x00000200, "DigitalZoom", "digitalzoom"},
              {PTZ_DRIVER_MOVE_CAPABILITIES_MAXZOOM, 0x00000400, "MaxZoom", "maxzoom"},
              {PTZ_DRIVER_MOVE_CAPABILITIES_FOCUS, 0x00000800, "Focus", "focus"},
              {PTZ_DRIVER_MOVE_CAPABILITIES_RELFOCUS, 0x00001000, "RelFocus", "relfocus"},
              {PTZ_DRIVER_MOVE_CAPABILITIES_CONTFOCUS, 0x00002000, "ContFocus", "contfocus"},
              {PTZ_DRIVER_MOVE_CAPABILITIES_AUTOFOCUS, 0x00004000, "AutoFocus", "autofocus"},
              {PTZ_DRIVER_MOVE_CAPABILITIES_IRIS, 0x00008000, "Iris", "iris"},
              {PTZ_DRIVER_MOVE_CAPABILITIES_RELIRIS, 0x00010000, "RelIris", "reliris"},
              {PTZ_DRIVER_MOVE_CAPABILITIES_CONTIRIS, 0x00020000, "ContIris", "contiris"},
              {PTZ_DRIVER_MOVE_CAPABILITIES_AUTOIRIS, 0x00040000, "AutoIris", "autoiris"},
              {PTZ_DRIVER_MOVE_CAPABILITIES_BRIGHTNESS, 0x00080000, "Brightness", "brightness"},
              {PTZ_DRIVER_MOVE_CAPABILITIES_RELBRIGHTNESS, 0x00100000, "RelBrightness", "relbrightness"},
              {PTZ_DRIVER_MOVE_CAPABILITIES_CONTBRIGHTNESS, 0x00200000, "ContBrightness", "contbrightness"},
              {PTZ_DRIVER_MOVE_CAPABILITIES_IRCUTFILTER, 0x00400000, "IrCutFilter", "ircutfilter"},
              {PTZ_DRIVER_MOVE_CAPABILITIES_AUTOIRCUTFILTER, 0x00800000, "AutoIrCutFilter", "autoircutfilter"},
              {PTZ_DRIVER_MOVE_CAPABILITIES_BACKLIGHT, 0x01000000, "BackLight", "backlight"},
              {PTZ_DRIVER_MOVE_CAPABILITIES_LOCKED, 0x20000000, "Locked", "locked"},
              {PTZ_DRIVER_MOVE_CAPABILITIES_SPEEDCONTROL, 0x02000000, "SpeedControl", "speedcontrol"},
              {PTZ_DRIVER_MOVE_CAPABILITIES_PROPORTIONALSPEED, 0x04000000, "ProportionalSpeed", "proportionalspeed"},
              {PTZ_DRIVER_MOVE_CAPABILITIES_PANOFFSET, 0x40000000, "PanOffset", "panoffset"},
              {PTZ_DRIVER_MOVE_CAPABILITIES_ZOOMMAG, 0x80000000, "ZoomMag", "zoommag"},
          }},
      FlagsTable{
          "PTZDriverExtraCapabilities",
          ptz_driver_extra_capabilities_get_type,
          {
              {PTZ_DRIVER_EXTRA_CAPABILITIES_NONE, 0x00000000, "None", "none"},
              {PTZ_DRIVER_EXTRA_CAPABILITIES_AUX, 0x00000001, "Aux", "aux"},
              {PTZ_DRIVER_EXTRA_CAPABILITIES_OSDMENU, 0x00000002, "Osdmenu", "osdmenu"},
              {PTZ_DRIVER_EXTRA_CAPABILITIES_AREAZOOM, 0x00000004, "AreaZoom", "areazoom"},
              {PTZ_DRIVER_EXTRA_CAPABILITIES_LENSOFFSET, 0x00000008, "LensOffset", "lensoffset"},
              {PTZ_DRIVER_EXTRA_CAPABILITIES_ACTIONNOTIFICATION, 0x00000010, "ActionNotification",
               "actionnotification"},
              {PTZ_DRIVER_EXTRA_CAPABILITIES_JOYSTICKEMULATION, 0x00000020, "JoystickEmulation", "joystickemulation"},
              {PTZ_DRIVER_EXTRA_CAPABILITIES_GENERICHTTP, 0x00000040, "GenericHttp", "generichttp"},
              {PTZ_DRIVER_EXTRA_CAPABILITIES_SERVERPRESET, 0x00000080, "ServerPreset", "serverpreset"},
              {PTZ_DRIVER_EXTRA_CAPABILITIES_DEVICEPRESET, 0x00000100, "DevicePreset", "devicepreset"},
              {PTZ_DRIVER_EXTRA_CAPABILITIES_DRIVERPRESET, 0x00000200, "DriverPreset", "driverpreset"},
              {PTZ_DRIVER_EXTRA_CAPABILITIES_STATUSCACHEPOSITION, 0x00000400, "StatusCachePosition",
               "statuscacheposition"},
              {PTZ_DRIVER_EXTRA_CAPABILITIES_ASYNCREPLY, 0x00000800, "AsyncReply", "asyncreply"},
              {PTZ_DRIVER_EXTRA_CAPABILITIES_PTZCOUNTER, 0x00001000, "PTZCounter", "ptzcounter"},
              {PTZ_DRIVER_EXTRA_CAPABILITIES_CMDIFDBUS, 0x00002000, "CmdIFDBus", "cmdifdbus"},
              {PTZ_DRIVER_EXTRA_CAPABILITIES_CMDIFSOCKET, 0x00004000, "CmdIFSocket", "cmdifsocket"},
              {PTZ_DRIVER_EXTRA_CAPABILITIES_IDLEMODE, 0x00008000, "IdleMode", "idlemode"},
              {PTZ_DRIVER_EXTRA_CAPABILITIES_POSITIONCACHE, 0x00010000, "PositionCache", "positioncache"},
              {PTZ_DRIVER_EXTRA_CAPABILITIES_OVERVIEW, 0x00020000, "Overview", "overview"},
              {PTZ_DRIVER_EXTRA_CAPABILITIES_DEVICETYPE, 0x00040000, "DeviceType", "devicetype"},
          }}};
  return tables;
}

class FlagTypes : public testing::TestWithParam<FlagsTable> {};

INSTANTIATE_TEST_SUITE_P(All, FlagTypes, testing::ValuesIn(flags_tables()),
                         [](const auto &table) { return table.param.type_name; });

TEST_P(FlagTypes, IsRegisteredUnderTheNameOfItsTypedef) { ptz_test::expect_registered_as(GetParam(), G_TYPE_FLAGS); }

TEST_P(FlagTypes, ListsEveryRowInTheOrderOfTheTable) { ptz_test::expect_rows_in_order(GetParam()); }

TEST_P(FlagTypes, EnumeratorsOfTheHeaderHaveTheirValues) { ptz_test::expect_enumerators(GetParam()); }

TEST_P(FlagTypes, EveryValueNameAndNickFindsItsRow) { ptz_test::expect_lookups_find_their_rows(GetParam()); }

TEST_P(FlagTypes, SecondCallReturnsTheSameTypeWithoutRegisteringAgain) { ptz_test::expect_same_type_again(GetParam()); }

TEST_P(FlagTypes, BitsOutsideTheTableFindNothing) {
  GFlagsClass *const flags = ptz_test::class_of(GetParam());
  guint defined = 0;
  for (const FlagsTable::Row &row : GetParam().rows) defined |= row.value;
  EXPECT_EQ(flags->mask, defined);
  for (int bit = 0; bit < 32; ++bit) {
    const guint flag = 1U << bit;
    const bool found = g_flags_get_first_value(flags, flag) != nullptr;
    EXPECT_EQ(found, (defined & flag) != 0) << "bit " << bit;
  }
}

// The listing registers the types where nobody has yet.
GType list_everything() {
  const PTZDriverCapabilities everything{0xffffffff, 0xffffffff};
  ptz_flag_types_list_all(&everything);
  return PTZ_TYPE_DRIVER_MOVE_CAPABILITIES;
}

TEST(FlagTypesDeathTest, ThreadsThatRaceForTheFirstCallGetOneType) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      ptz_test::race_for_first_calls({ptz_driver_move_capabilities_get_type, ptz_driver_extra_capabilities_get_type}),
      testing::ExitedWithCode(EXIT_SUCCESS), "");
}

TEST(FlagTypesDeathTest, ThreadsThatRaceForTheFirstListingGetOneType) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(ptz_test::race_for_first_calls({list_everything}), testing::ExitedWithCode(EXIT_SUCCESS), "");
}

// The whole listing with these names in its two sections.
std::vector<LogLine> listing(const std::vector<std::string> &move, const std::vector<std::string> &extra) {
  const std::string rule = "------------------";
  std::vector<LogLine> lines;
  const auto add = [&lines](const std::string &text) { lines.push_back({LOG_INFO, text}); };
  add("driver_cap->move:");
  add(rule);
  for (const auto &name : move) add(name);
  add(rule);
  add("driver_cap->extra:");
  add(rule);
  for (const auto &name : extra) add(name);
  add(rule);
  return lines;
}

std::vector<LogLine> listed(guint32 move, guint32 extra) {
  const SyslogCapture log;
  const PTZDriverCapabilities record{move, extra};
  ptz_flag_types_list_all(&record);
  EXPECT_EQ(record.move, move);
  EXPECT_EQ(record.extra, extra);
  return log.lines();
}

const std::vector<std::string> every_listed_move = {
    "Pan",       "RelPan",       "ContPan",           "Tilt",           "RelTilt",     "ContTilt",
    "Zoom",      "RelZoom",      "ContZoom",          "DigitalZoom",    "MaxZoom",     "Focus",
    "RelFocus",  "ContFocus",    "AutoFocus",         "Iris",           "RelIris",     "ContIris",
    "AutoIris",  "Brightness",   "RelBrightness",     "ContBrightness", "IrCutFilter", "AutoIrCutFilter",
    "BackLight", "SpeedControl", "ProportionalSpeed", "Locked",         "PanOffset"};
const std::vector<std::string> every_extra = {
    "Aux",         "Osdmenu",      "AreaZoom",     "LensOffset",   "ActionNotification",  "JoystickEmulation",
    "GenericHttp", "ServerPreset", "DevicePreset", "DriverPreset", "StatusCachePosition", "AsyncReply",
    "PTZCounter",  "CmdIFDBus",    "CmdIFSocket",  "IdleMode",     "PositionCache",       "Overview",
    "DeviceType"};

TEST(FlagTypesList, NullIsOneLine) {
  const SyslogCapture log;
  ptz_flag_types_list_all(nullptr);
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{{LOG_INFO, "driver_cap == NULL"}}));
}

TEST(FlagTypesList, EmptyRecordIsTheFrameOnly) { EXPECT_EQ(listed(0, 0), listing({}, {})); }

TEST(FlagTypesList, EveryDefinedMoveIsListedInTheOrderOfTheBitsButNotZoomMag) {
  EXPECT_EQ(listed(0xe7ffffff, 0), listing(every_listed_move, {}));
}

TEST(FlagTypesList, EveryDefinedExtraIsListedInTheOrderOfTheBits) {
  EXPECT_EQ(listed(0, 0x0007ffff), listing({}, every_extra));
}

TEST(FlagTypesList, SignBitAloneIsNotListed) {
  EXPECT_EQ(listed(PTZ_DRIVER_MOVE_CAPABILITIES_ZOOMMAG, 0), listing({}, {}));
}

TEST(FlagTypesList, HighestListedBitIsThirty) {
  EXPECT_EQ(listed(PTZ_DRIVER_MOVE_CAPABILITIES_PANOFFSET, 0), listing({"PanOffset"}, {}));
}

TEST(FlagTypesList, TheTwoWordsAreListedInTheirOwnSections) {
  EXPECT_EQ(listed(PTZ_DRIVER_MOVE_CAPABILITIES_PAN | PTZ_DRIVER_MOVE_CAPABILITIES_TILT,
                   PTZ_DRIVER_EXTRA_CAPABILITIES_AUX | PTZ_DRIVER_EXTRA_CAPABILITIES_DEVICETYPE),
            listing({"Pan", "Tilt"}, {"Aux", "DeviceType"}));
}

TEST(FlagTypesList, BitsThatTheTypesDoNotDefineArePassedOver) {
  EXPECT_EQ(listed(0x18000000, 0xfff80000), listing({}, {}));
  EXPECT_EQ(listed(0xffffffff, 0xffffffff), listing(every_listed_move, every_extra));
}

}  // namespace
