#include <fixtures.h>
#include <gtest/gtest.h>
#include <ptz_flag_types.h>
#include <syslog.h>
#include <syslog_capture.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using ptz_test::LogLine;
using ptz_test::SyslogCapture;

struct FlagsRow {
  guint enumerator;  // what the header's constant is
  guint value;       // what it has to be
  const char *name;
  const char *nick;
};

struct FlagsTable {
  std::string type_name;
  GType (*get_type)();
  std::vector<FlagsRow> rows;
};

GFlagsClass *class_of(GType type) { return static_cast<GFlagsClass *>(g_type_class_ref(type)); }

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

TEST_P(FlagTypes, IsAFlagsTypeUnderTheNameOfItsTypedef) {
  const GType type = GetParam().get_type();
  EXPECT_TRUE(G_TYPE_IS_FLAGS(type));
  EXPECT_EQ(g_type_name(type), GetParam().type_name);
  EXPECT_EQ(g_type_from_name(GetParam().type_name.c_str()), type);
}

TEST_P(FlagTypes, ListsEveryRowInTheOrderOfTheTable) {
  const GFlagsClass *const flags = class_of(GetParam().get_type());
  const auto &rows = GetParam().rows;
  ASSERT_EQ(flags->n_values, rows.size());
  for (std::size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE("row " + std::to_string(i));
    EXPECT_EQ(flags->values[i].value, rows[i].value);
    EXPECT_STREQ(flags->values[i].value_name, rows[i].name);
    EXPECT_STREQ(flags->values[i].value_nick, rows[i].nick);
  }
  EXPECT_EQ(flags->values[rows.size()].value_name, nullptr);
}

TEST_P(FlagTypes, EnumeratorsOfTheHeaderHaveTheirValues) {
  for (const FlagsRow &row : GetParam().rows) EXPECT_EQ(row.enumerator, row.value) << row.name;
}

TEST_P(FlagTypes, EveryBitNameAndNickFindsItsRow) {
  GFlagsClass *const flags = class_of(GetParam().get_type());
  for (std::size_t i = 0; i < GetParam().rows.size(); ++i) {
    const FlagsRow &row = GetParam().rows[i];
    const GFlagsValue *const listed = &flags->values[i];
    EXPECT_EQ(g_flags_get_first_value(flags, row.value), listed) << row.name;
    EXPECT_EQ(g_flags_get_value_by_name(flags, row.name), listed) << row.name;
    EXPECT_EQ(g_flags_get_value_by_nick(flags, row.nick), listed) << row.nick;
  }
}

TEST_P(FlagTypes, BitsOutsideTheTableFindNothing) {
  GFlagsClass *const flags = class_of(GetParam().get_type());
  guint defined = 0;
  for (const FlagsRow &row : GetParam().rows) defined |= row.value;
  EXPECT_EQ(flags->mask, defined);
  for (int bit = 0; bit < 32; ++bit) {
    const guint flag = 1U << bit;
    const bool found = g_flags_get_first_value(flags, flag) != nullptr;
    EXPECT_EQ(found, (defined & flag) != 0) << "bit " << bit;
  }
}

TEST_P(FlagTypes, SecondCallReturnsTheSameTypeWithoutRegisteringAgain) {
  const GType type = GetParam().get_type();
  const ptz_test::GlibLogCapture log;  // GLib warns when a name is registered twice
  EXPECT_EQ(GetParam().get_type(), type);
  EXPECT_TRUE(log.messages().empty());
}

using Types = std::array<GType, 2>;
std::atomic<int> threads_to_come = 8;

gpointer list_all_at_once(gpointer types) {
  --threads_to_come;
  while (threads_to_come > 0) {
  }
  const PTZDriverCapabilities everything{0xffffffff, 0xffffffff};
  ptz_flag_types_list_all(&everything);
  *static_cast<Types *>(types) = {ptz_driver_move_capabilities_get_type(), ptz_driver_extra_capabilities_get_type()};
  return nullptr;
}

// In a process of its own, where nothing is registered yet.
[[noreturn]] void race_for_the_first_call() {
  const ptz_test::GlibLogCapture log;
  const SyslogCapture system_log;
  std::array<Types, 8> seen{};
  std::array<GThread *, 8> threads{};
  for (std::size_t i = 0; i < threads.size(); ++i) {
    threads[i] = g_thread_new("lister", list_all_at_once, &seen[i]);
  }
  for (GThread *const thread : threads) g_thread_join(thread);
  bool same = log.messages().empty() && system_log.count(LOG_INFO, "Pan") == threads.size();
  for (const Types &types : seen) same = same && types == seen[0];
  std::_Exit(same ? EXIT_SUCCESS : EXIT_FAILURE);
}

TEST(FlagTypesDeathTest, ThreadsThatRaceForTheFirstCallGetOneType) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(race_for_the_first_call(), testing::ExitedWithCode(EXIT_SUCCESS), "");
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
