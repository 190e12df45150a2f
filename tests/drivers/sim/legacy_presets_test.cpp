// The presets of the driver program as configuration on a message bus, seen by strangers to it.
#include <gtest/gtest.h>
#include <ptz_g_dbus_error.h>
#include <ptz_socket_client_command.h>
#include <sys/socket.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "bus.h"
#include "messages.h"
#include "peers.h"
#include "process.h"

using namespace ptz_test;

namespace {

constexpr char bus_name[] = "com.velk.PTZ.sim";
constexpr char path[] = "/com/velk/PTZ/sim";

gint number_of(PTZKitErrorCode code) { return static_cast<gint>(code); }

struct LegacyPresetsOfTheDriver : testing::Test {
  TempDir dir;
  Connection peer = connect_to(system_bus());
  SignalLog properties{peer.get(), "org.freedesktop.DBus.Properties"};
  SignalLog events{peer.get(), "com.velk.PTZ.ConfigEvent"};
  std::unique_ptr<Process> driver;

  std::unique_ptr<Process> launch(const std::vector<std::string> &more = {}) {
    std::vector<std::string> arguments = {"--socket", dir.file("socket"), "--dbus",
                                          "sim",      "--config",         SIM_DRIVER_SETTINGS};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return std::make_unique<Process>(SIM_DRIVER, arguments, dir.file("output"));
  }
  void start(const std::vector<std::string> &more = {}) {
    driver.reset();
    ASSERT_TRUE(run_until([&] { return owner_of(peer.get(), bus_name).empty(); }));
    driver = launch(more);
    ASSERT_TRUE(run_until([&] { return !owner_of(peer.get(), bus_name).empty(); })) << contents(dir.file("output"));
    run_pending();
    properties.signals.clear();
    events.signals.clear();
  }
  void SetUp() override { start(); }

  Answer ask(const std::string &method, const std::string &parameters = "()") const {
    return call(peer.get(), bus_name, path, "com.velk.Configuration.Legacy", method, parameters);
  }
  // The code of the error that the service answers with; 0 for an answer that is none.
  gint refused(const std::string &method, const std::string &parameters) const {
    const auto answer = ask(method, parameters);
    return answer.error != nullptr ? ptz_g_dbus_error_get_remote_error_code(answer.error.get()) : 0;
  }
  std::vector<std::string> bodies(const SignalLog &log, std::size_t count) const {
    EXPECT_TRUE(run_until([&] { return log.signals.size() >= count; }));
    std::vector<std::string> bodies;
    for (const auto &signal : log.signals) bodies.push_back(signal.name + signal.body);
    return bodies;
  }
};

constexpr char factory_presets[] =
    "({1: {'Name': <'overview'>, 'Pan': <0>, 'Tilt': <1000>, 'Zoom': <100>}, "
    "2: {'Name': <'far gate'>, 'Pan': <-12000>, 'Tilt': <-500>, 'Zoom': <1500>}},)";

TEST_F(LegacyPresetsOfTheDriver, AreSetsWithEntries) {
  EXPECT_EQ(ask("GetConfigurations").text(), factory_presets);
  EXPECT_EQ(ask("GetConfigurationEntry", "(1, 'Name')").text(), "(<'overview'>,)");
  EXPECT_EQ(ask("GetConfigurationEntry", "(2, 'Pan')").text(), "(<-12000>,)");
}

TEST_F(LegacyPresetsOfTheDriver, AreAddedUnderTheNumberAskedForOrTheLowestFreeOne) {
  EXPECT_EQ(ask("AddConfiguration", "(7,)").text(), "(7,)");
  EXPECT_EQ(ask("AddConfiguration", "(-1,)").text(), "(3,)");
  EXPECT_EQ(ask("AddConfiguration", "(0,)").text(), "(4,)");
  EXPECT_EQ(ask("GetConfigurationEntry", "(7, 'Name')").text(), "(<'Preset7'>,)");
  EXPECT_EQ(ask("GetConfigurationEntry", "(7, 'Zoom')").text(), "(<100>,)");
  EXPECT_EQ(refused("AddConfiguration", "(7,)"), number_of(PTZ_KIT_ERROR_CODE_OUT_OF_RANGE));
  EXPECT_EQ(refused("AddConfiguration", "(33,)"), number_of(PTZ_KIT_ERROR_CODE_OUT_OF_RANGE));
}

TEST_F(LegacyPresetsOfTheDriver, RunOutOfNumbers) {
  for (int number = 3; number <= 32; ++number) {
    EXPECT_EQ(ask("AddConfiguration", "(-1,)").text(), "(" + std::to_string(number) + ",)");
  }
  EXPECT_EQ(refused("AddConfiguration", "(-1,)"), number_of(PTZ_KIT_ERROR_CODE_OUT_OF_RANGE));
}

TEST_F(LegacyPresetsOfTheDriver, AreRemoved) {
  EXPECT_EQ(ask("RemoveConfiguration", "(1,)").text(), "()");
  EXPECT_EQ(refused("GetConfigurationEntry", "(1, 'Name')"), number_of(PTZ_KIT_ERROR_CODE_NOT_FOUND));
  EXPECT_EQ(refused("RemoveConfiguration", "(1,)"), number_of(PTZ_KIT_ERROR_CODE_NOT_FOUND));
}

TEST_F(LegacyPresetsOfTheDriver, HaveEntriesThatMayBeSet) {
  EXPECT_EQ(ask("SetConfigurationEntry", "(1, 'Name', <'gate'>)").text(), "()");
  EXPECT_EQ(ask("SetConfigurationEntry", "(1, 'Tilt', <-300>)").text(), "()");
  EXPECT_EQ(ask("GetConfigurationEntry", "(1, 'Name')").text(), "(<'gate'>,)");
  EXPECT_EQ(ask("GetConfigurationEntry", "(1, 'Tilt')").text(), "(<-300>,)");
  EXPECT_EQ(ask("SetConfigurationEntry", "(1, 'Name', <b'bytes'>)").text(), "()");
  EXPECT_EQ(ask("GetConfigurationEntry", "(1, 'Name')").text(), "(<'bytes'>,)");
}

struct RefusalCase {
  const char *label;
  const char *method;
  const char *parameters;
  PTZKitErrorCode code;
};

void PrintTo(const RefusalCase &refusal, std::ostream *out) { *out << refusal.method << refusal.parameters; }

struct LegacyPresetsRefusals : LegacyPresetsOfTheDriver, testing::WithParamInterface<RefusalCase> {};

TEST_P(LegacyPresetsRefusals, HaveACodeAndChangeNothing) {
  EXPECT_EQ(refused(GetParam().method, GetParam().parameters), number_of(GetParam().code));
  EXPECT_EQ(ask("GetConfigurations").text(), factory_presets);
  EXPECT_TRUE(events.signals.empty());
}

INSTANTIATE_TEST_SUITE_P(
    All, LegacyPresetsRefusals,
    testing::Values(
        RefusalCase{"SetOfNoPreset", "SetConfigurationEntry", "(3, 'Name', <'x'>)", PTZ_KIT_ERROR_CODE_NOT_FOUND},
        RefusalCase{"SetOfANegativePreset", "SetConfigurationEntry", "(-1, 'Name', <'x'>)",
                    PTZ_KIT_ERROR_CODE_NOT_FOUND},
        RefusalCase{"SetOfNoEntry", "SetConfigurationEntry", "(1, 'Speed', <7>)", PTZ_KIT_ERROR_CODE_NOT_FOUND},
        RefusalCase{"SetOfOtherCase", "SetConfigurationEntry", "(1, 'pan', <7>)", PTZ_KIT_ERROR_CODE_NOT_FOUND},
        RefusalCase{"TextForANumber", "SetConfigurationEntry", "(1, 'Pan', <'7'>)", PTZ_KIT_ERROR_CODE_MALFORMED},
        RefusalCase{"OtherNumber", "SetConfigurationEntry", "(1, 'Pan', <uint32 7>)", PTZ_KIT_ERROR_CODE_MALFORMED},
        RefusalCase{"NumberForAText", "SetConfigurationEntry", "(1, 'Name', <7>)", PTZ_KIT_ERROR_CODE_MALFORMED},
        RefusalCase{"EmptyName", "SetConfigurationEntry", "(1, 'Name', <''>)", PTZ_KIT_ERROR_CODE_OUT_OF_RANGE},
        RefusalCase{"LongName", "SetConfigurationEntry", "(1, 'Name', <'123456789012345678901234567890123'>)",
                    PTZ_KIT_ERROR_CODE_OUT_OF_RANGE},
        RefusalCase{"NameThatIsNoText", "SetConfigurationEntry", "(1, 'Name', <b'\\377'>)",
                    PTZ_KIT_ERROR_CODE_OUT_OF_RANGE},
        RefusalCase{"BeyondALimit", "SetConfigurationEntry", "(1, 'Pan', <16001>)", PTZ_KIT_ERROR_CODE_OUT_OF_RANGE},
        RefusalCase{"GetOfNoPreset", "GetConfigurationEntry", "(2147483647, 'Name')", PTZ_KIT_ERROR_CODE_NOT_FOUND},
        RefusalCase{"GetOfNoEntry", "GetConfigurationEntry", "(1, '')", PTZ_KIT_ERROR_CODE_NOT_FOUND},
        RefusalCase{"RemoveOfNoPreset", "RemoveConfiguration", "(-2147483648,)", PTZ_KIT_ERROR_CODE_NOT_FOUND},
        RefusalCase{"SyncWithoutAFile", "Sync", "()", PTZ_KIT_ERROR_CODE_NOT_KEPT}),
    [](const auto &info) { return info.param.label; });

TEST_F(LegacyPresetsOfTheDriver, AreAnnouncedWhenTheyChange) {
  ASSERT_EQ(ask("SetConfigurationEntry", "(1, 'Name', <'main gate'>)").text(), "()");
  EXPECT_EQ(bodies(properties, 1),
            (std::vector<std::string>{"PropertiesChanged('com.velk.Configuration.Legacy', {'1.Name': <b'main gate'>}, "
                                      "@as [])"}));
  EXPECT_EQ(bodies(events, 1), (std::vector<std::string>{"Changed('PTZPresets', 'sim-driver', "
                                                         "'com.velk.Configuration.Legacy', '/com/velk/PTZ/sim/1', 0, "
                                                         "'Name=main%20gate')"}));
  EXPECT_EQ(events.signals[0].path, path);
  EXPECT_EQ(properties.signals[0].path, path);
}

TEST_F(LegacyPresetsOfTheDriver, AreNotAnnouncedWhenTheyStayTheSame) {
  ASSERT_EQ(ask("SetConfigurationEntry", "(1, 'Name', <'overview'>)").text(), "()");
  ASSERT_EQ(ask("SetConfigurationEntry", "(1, 'Pan', <7>)").text(), "()");
  EXPECT_EQ(bodies(properties, 1).size(), 1U);
}

TEST_F(LegacyPresetsOfTheDriver, AreAnnouncedWhenTheyComeAndGo) {
  ASSERT_EQ(ask("AddConfiguration", "(5,)").text(), "(5,)");
  ASSERT_EQ(ask("RemoveConfiguration", "(5,)").text(), "()");
  const auto seen = bodies(events, 2);
  EXPECT_EQ(bodies(properties, 4).size(), 4U);
  ASSERT_EQ(seen.size(), 2U);
  const std::string before =
      "Changed('PTZPresets', 'sim-driver', 'com.velk.Configuration.Legacy', '/com/velk/PTZ/sim/5', ";
  EXPECT_EQ(seen[0].substr(0, before.size() + 4), before + "1, '");
  for (const char *pair : {"Name=Preset5", "Pan=0", "Tilt=0", "Zoom=100"}) {
    EXPECT_NE(seen[0].find(pair), std::string::npos) << pair;
  }
  EXPECT_EQ(seen[1], before + "2, '')");
}

TEST_F(LegacyPresetsOfTheDriver, AreAnnouncedTogetherWithLiveSettings) {
  const sim::Object<PTZSocketClientCommand> client(
      ptz_socket_client_command_new(dir.file("socket").c_str(), -1, SOCK_STREAM));
  for (const guint32 state : {PTZ_ENABLE_ON, PTZ_ENABLE_ON, PTZ_ENABLE_OFF}) {  // the second time nothing changes
    const auto request = sim_test::make_body(sim_test::Auxiliary{"light", state});
    ASSERT_TRUE(ptz_socket_client_command_async_send(client.get(), request.data(), static_cast<guint32>(request.size()),
                                                     nullptr));
  }
  EXPECT_EQ(
      bodies(properties, 2),
      (std::vector<std::string>{"PropertiesChanged('com.velk.Configuration.Legacy', {'light': <true>}, @as [])",
                                "PropertiesChanged('com.velk.Configuration.Legacy', {'light': <false>}, @as [])"}));
  EXPECT_TRUE(events.signals.empty());
}

TEST_F(LegacyPresetsOfTheDriver, OutliveTheDriverInItsFile) {
  const std::vector<std::string> with_state = {"--state", dir.file("state")};
  start(with_state);
  ASSERT_EQ(ask("AddConfiguration", "(9,)").text(), "(9,)");
  ASSERT_EQ(ask("SetConfigurationEntry", "(9, 'Name', <'kept'>)").text(), "()");
  ASSERT_EQ(ask("AddConfiguration", "(8,)").text(), "(8,)");
  ASSERT_EQ(ask("RemoveConfiguration", "(8,)").text(), "()");
  ASSERT_EQ(ask("RemoveConfiguration", "(1,)").text(), "()");
  EXPECT_EQ(ask("Sync").text(), "()");
  driver->signal(SIGKILL);
  start(with_state);
  EXPECT_EQ(ask("GetConfigurationEntry", "(9, 'Name')").text(), "(<'kept'>,)");
  EXPECT_EQ(refused("GetConfigurationEntry", "(8, 'Name')"), number_of(PTZ_KIT_ERROR_CODE_NOT_FOUND));
  EXPECT_EQ(ask("GetConfigurationEntry", "(1, 'Name')").text(), "(<'overview'>,)");  // the factory's
}

TEST_F(LegacyPresetsOfTheDriver, MayBeRenamedIfTheyLieBeyondALimit) {
  std::ofstream(dir.file("state")) << "[Header]\nVersionMajor=1\nVersionMinor=0\n"
                                      "[DevicePreset1]\nName=far\nPan=17000\nTilt=0\nZoom=100\n";
  start({"--state", dir.file("state")});
  EXPECT_EQ(ask("SetConfigurationEntry", "(1, 'Name', <'gate'>)").text(), "()");
  EXPECT_EQ(ask("GetConfigurationEntry", "(1, 'Pan')").text(), "(<17000>,)");
}

TEST_F(LegacyPresetsOfTheDriver, AreDeclaredAndUndeclared) {
  driver->signal(SIGTERM);
  EXPECT_EQ(driver->wait(), 0);
  EXPECT_EQ(bodies(events, 1),
            (std::vector<std::string>{"Undeclared('PTZPresets', 'sim-driver', 'com.velk.Configuration.Legacy')"}));
}

TEST_F(LegacyPresetsOfTheDriver, NeedTheNameForThemselves) {
  TempDir elsewhere;
  Process second(SIM_DRIVER, {"--socket", elsewhere.file("socket"), "--dbus", "sim"}, elsewhere.file("output"));
  EXPECT_EQ(second.wait(), 1);
  EXPECT_NE(contents(elsewhere.file("output")).find("cannot serve presets as com.velk.PTZ.sim on the system bus"),
            std::string::npos);
  EXPECT_EQ(ask("GetConfigurations").text(), factory_presets);
}

TEST_F(LegacyPresetsOfTheDriver, SurviveClientsThatDoNotMatterToThem) {
  for (int i = 0; i < 20; ++i) {
    const auto client = connect_to(system_bus());
    g_dbus_connection_call(client.get(), bus_name, path, "com.velk.Configuration.Legacy", "GetConfigurations", nullptr,
                           nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr, nullptr);
    g_dbus_connection_flush_sync(client.get(), nullptr, nullptr);
    g_dbus_connection_close_sync(client.get(), nullptr, nullptr);
  }
  EXPECT_EQ(ask("GetConfigurations").text(), factory_presets);
}

// A driver with a system bus of its own.
struct SimDriverBus : testing::Test {
  TempDir dir;
  const std::string socket = dir.file("socket");
  const std::string output = dir.file("output");

  std::unique_ptr<Process> launch(const std::string &bus, const std::string &name, const char *more) const {
    const char *const before = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    const std::string old = before != nullptr ? before : "";
    setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.c_str(), 1);
    auto driver = std::make_unique<Process>(SIM_DRIVER,
                                            std::vector<std::string>{"--socket", socket, "--dbus", name, more}, output);
    before != nullptr ? setenv("DBUS_SYSTEM_BUS_ADDRESS", old.c_str(), 1) : unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    return driver;
  }
  [[nodiscard]] bool is_told(const std::string &text) const { return contents(output).find(text) != std::string::npos; }
};

TEST_F(SimDriverBus, ThatDoesNotAnswerHidesTheDriverThatSigtermEnds) {
  const Listener mute(dir.file("bus"));
  const auto driver = launch("unix:path=" + dir.file("bus"), "sim", "--verbose");
  const Descriptor connection = mute.accept();
  ASSERT_TRUE(connection);
  EXPECT_FALSE(std::filesystem::exists(socket));
  const gint64 start = g_get_monotonic_time();
  driver->signal(SIGTERM);
  EXPECT_EQ(driver->wait(), 0) << contents(output);
  EXPECT_LT(g_get_monotonic_time() - start, 4 * G_USEC_PER_SEC);  // the limit is 5
}

TEST_F(SimDriverBus, ThatIsNotThereIsStatus1BeforeTheDriverListens) {
  EXPECT_EQ(launch("unix:path=" + dir.file("none"), "sim", "--verbose")->wait(), 1);
  EXPECT_TRUE(is_told("no system bus: ")) << contents(output);
  EXPECT_FALSE(is_told("serving on")) << contents(output);
}

TEST_F(SimDriverBus, ThatEndsIsToldInTheLogAndTheDriverLivesOn) {
  Bus bus;
  const auto driver = launch(bus.address(), "sim", "--verbose");
  const Connection peer = connect_to(bus);
  ASSERT_TRUE(run_until([&] { return !owner_of(peer.get(), bus_name).empty(); })) << contents(output);
  bus.kill();
  EXPECT_TRUE(run_until([&] { return is_told("the system bus has gone"); })) << contents(output);
  EXPECT_TRUE(connect_to(socket));
  driver->signal(SIGTERM);
  EXPECT_EQ(driver->wait(), 0);
}

TEST_F(SimDriverBus, WithoutSuchANameIsAWrongOption) {
  for (const char *name : {"", "a b", "1", "a..b", "a-b"}) {
    EXPECT_EQ(launch("unix:path=" + dir.file("none"), name, "--verbose")->wait(), 2) << name;
    EXPECT_EQ(launch("unix:path=" + dir.file("none"), name, "--check-settings")->wait(), 2) << name;
    EXPECT_TRUE(is_told("--dbus is a name of letters")) << contents(output);
  }
}

}  // namespace
