// The driver program, asked through the library by a client in this process.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ptz_serialize.h>
#include <ptz_socket_client_command.h>
#include <ptz_status_cache.h>
#include <ptz_tessel.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "fixtures.h"
#include "messages.h"
#include "peers.h"
#include "process.h"

using namespace sim;
using namespace sim_test;
using ptz_test::contents;
using ptz_test::Process;

namespace {

class SimDriverProgram : public testing::Test {
 protected:
  ptz_test::TempDir dir_;
  const std::string socket_ = dir_.file("driver.socket");
  const std::string output_ = dir_.file("output");
  std::unique_ptr<Process> driver_;
  Object<PTZSocketClientCommand> client_;

  void start_driver(const std::vector<std::string> &more = {}) {
    driver_.reset();  // a second driver on the socket is refused
    std::vector<std::string> arguments = {"--socket", socket_, "--speed-factor", "20"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    driver_ = std::make_unique<Process>(SIM_DRIVER, arguments, output_);
    ASSERT_TRUE(ptz_test::run_until([&] { return bool(ptz_test::connect_to(socket_)); })) << contents(output_);
  }
  void connect() {
    client_.reset(ptz_socket_client_command_new(socket_.c_str(), -1, SOCK_STREAM));
    ASSERT_GE(PTZ_SOCKET(client_.get())->fd, 0);
  }
  void SetUp() override {
    // What the driver shares with other processes is not that of the machine.
    setenv("PTZ_PLATFORM_RUNTIME_DIR", dir_.path().c_str(), 1);
    start_driver();
    connect();
  }
  void TearDown() override {
    client_.reset();
    unsetenv("PTZ_PLATFORM_RUNTIME_DIR");
  }

  // The reply to a request; empty if there is none. A synchronous request must not be made on the main thread.
  Body ask(const Body &request) {
    Body reply;
    std::thread([&] {
      std::array<guint8, PTZ_SOCKET_BODY_MAX> buffer;
      guint32 length = 0;
      if (ptz_socket_client_command_sync_send(client_.get(), request.data(), static_cast<guint32>(request.size()),
                                              buffer.data(), &length)) {
        reply.assign(reinterpret_cast<const char *>(buffer.data()), length);
      }
    }).join();
    return reply;
  }
  // Instead of the driver that runs.
  void restart_driver(const std::vector<std::string> &more) {
    client_.reset();
    driver_.reset();
    start_driver(more);
    connect();
  }
  Body set_preset(guint32 number, const std::string &name) { return ask(make_body(Preset{number, name})); }
  std::string preset_names() {
    std::string names;
    for (const Preset &preset : read_presets(ask(make_body(PTZ_COMMAND_GET_DEVICE_PRESETS))))
      names += preset.name + ";";
    return names;
  }
  void expect_not_kept(const Body &reply) { EXPECT_EQ(refusal(reply), guint32{PTZ_KIT_ERROR_CODE_NOT_KEPT}); }
  Positions positions() { return read_positions(ask(make_body(PTZ_COMMAND_QUERY_POSITION))); }
  Limits limits() { return read_limits(ask(make_body(PTZ_COMMAND_QUERY_LIMIT_RANGES))); }
};

}  // namespace

TEST_F(SimDriverProgram, MovesInRealTimeAndArrives) {
  const MoveRequest move{PTZ_MOVE_ABSOLUTE, all_axes, full_speed, {40'00, -10'00, 2'00}};
  EXPECT_EQ(first_word(ask(make_body(move))), PTZ_COMMAND_MOVE);
  EXPECT_FALSE(positions().idle());
  EXPECT_TRUE(ptz_test::run_until([&] { return positions().idle(); }));
  EXPECT_EQ(positions().position, move.values);
}

TEST_F(SimDriverProgram, SleepsWhileTheHeadStandsStill) {
  const MoveRequest move{PTZ_MOVE_ABSOLUTE, axis_bit(pan), full_speed, {40'00, 0, 0}};
  EXPECT_EQ(first_word(ask(make_body(move))), PTZ_COMMAND_MOVE);
  ASSERT_TRUE(ptz_test::run_until([&] { return positions().idle(); }));
  g_usleep(100'000);  // the timer ends itself the next time it runs
  const auto wake_ups = [&] {
    const std::string status = contents("/proc/" + std::to_string(driver_->pid()) + "/status");
    const std::string name = "\nvoluntary_ctxt_switches:";
    const auto found = status.find(name);
    EXPECT_NE(found, std::string::npos);
    return std::atoi(status.c_str() + found + name.size());
  };
  const int before = wake_ups();
  g_usleep(200'000);
  EXPECT_EQ(wake_ups(), before);
}

TEST_F(SimDriverProgram, AnswersAsynchronousRequestsOnTheMainLoop) {
  struct Reply {
    gint32 command = 0;
  };
  std::array<Reply, 8> replies;
  ptz_socket_client_register_callback(
      PTZ_SOCKET_CLIENT(client_.get()),
      [](gpointer reply, gpointer data, guint32 length) {
        static_cast<Reply *>(reply)->command = first_word({static_cast<const char *>(data), length});
      },
      nullptr);
  const Body request = make_body(PTZ_COMMAND_GET_DRIVER_NAME);
  for (Reply &reply : replies) {
    ASSERT_TRUE(ptz_socket_client_command_async_send(client_.get(), request.data(),
                                                     static_cast<guint32>(request.size()), &reply));
  }
  const auto all_there = [&] {
    return std::ranges::all_of(replies,
                               [](const Reply &reply) { return reply.command == PTZ_COMMAND_GET_DRIVER_NAME; });
  };
  EXPECT_TRUE(ptz_test::run_until(all_there));
}

TEST_F(SimDriverProgram, RefusesBadRequestsAndLivesOn) {
  Body cut_short = make_body(MoveRequest{PTZ_MOVE_ABSOLUTE, all_axes, full_speed, {}});
  for (std::size_t size = cut_short.size() - 1; size > 0; --size) {
    cut_short.resize(size);
    EXPECT_EQ(first_word(ask(cut_short)), PTZ_COMMAND_ERROR_REPLY) << size;
  }
  EXPECT_EQ(first_word(ask(make_body(PTZCommand(30)))), PTZ_COMMAND_ERROR_REPLY);
  EXPECT_EQ(first_word(ask(make_body(PTZ_COMMAND_GET_DRIVER_NAME))), PTZ_COMMAND_GET_DRIVER_NAME);
}

TEST_F(SimDriverProgram, LogsProcessIdOfClientThatDoesNotReadItsReplies) {
  const auto client = ptz_test::connect_to(socket_);
  ASSERT_EQ(fcntl(client.get(), F_SETFL, O_NONBLOCK), 0);
  const Body request = make_body(PTZ_COMMAND_GET_DRIVER_NAME);
  const std::string bytes = ptz_test::frame(1, request);
  const std::string line = " to process " + std::to_string(getpid()) + " could not be sent\n";
  const auto is_logged = [&] { return contents(output_).find(line) != std::string::npos; };
  for (int requests = 0; requests < 10'000 && ptz_test::send_all(client.get(), bytes); ++requests) {
    if (requests % 100 == 0 && is_logged()) break;
  }
  EXPECT_TRUE(ptz_test::run_until(is_logged)) << contents(output_);
}

TEST_F(SimDriverProgram, EndsCleanlyOnASignalWhileItMoves) {
  for (const int signal : {SIGTERM, SIGINT}) {
    const MoveRequest move{PTZ_MOVE_CONTINUOUS, axis_bit(pan), 1, {10'00, 0, 0}};
    EXPECT_EQ(first_word(ask(make_body(move))), PTZ_COMMAND_MOVE);
    driver_->signal(signal);
    EXPECT_EQ(driver_->wait(), 0) << contents(output_);
    EXPECT_FALSE(std::filesystem::exists(socket_));
    EXPECT_EQ(ask(make_body(PTZ_COMMAND_QUERY_POSITION)), "");
    client_.reset();
    start_driver();
    connect();
  }
}

TEST_F(SimDriverProgram, SaysNothingUnlessItIsAskedTo) {
  EXPECT_EQ(first_word(ask(make_body(PTZ_COMMAND_GET_CAPABILITIES))), PTZ_COMMAND_GET_CAPABILITIES);
  driver_->signal(SIGTERM);
  EXPECT_EQ(driver_->wait(), 0);
  EXPECT_EQ(contents(output_), "");
}

TEST_F(SimDriverProgram, ListsItsCapabilitiesAndRequestsWhenVerbose) {
  start_driver({"--verbose"});
  client_.reset();
  connect();
  EXPECT_EQ(first_word(ask(make_body(PTZ_COMMAND_OSD_MENU))), PTZ_COMMAND_ERROR_REPLY);
  const std::string output = contents(output_);
  for (const char *line : {": driver_cap->move:\n", ": RelPan\n", ": DevicePreset\n",
                           ": error 2, this driver does not serve \"OSD Menu\"\n"}) {
    EXPECT_NE(output.find(line), std::string::npos) << line << output;
  }
}

TEST_F(SimDriverProgram, TakesItsLimitsAndFactoryPresetsFromSettings) {
  std::ofstream(dir_.file("more.conf")) << "[Pan]\nMin=-4000\n[Preset1]\nPan=0\n";
  restart_driver({"--config", SIM_DRIVER_SETTINGS, "--config", dir_.file("more.conf")});
  const Limits limits = this->limits();
  EXPECT_EQ(limits.minimum, (PerAxis{-40'00, -15'00, 1'00}));
  EXPECT_EQ(limits.maximum, (PerAxis{160'00, 90'00, 20'00}));
  EXPECT_EQ(preset_names(), "overview;far gate;");
}

TEST_F(SimDriverProgram, DoesNotStartWithSettingsThatMakeNoSense) {
  std::ofstream(dir_.file("bad.conf")) << "[Tilt]\nMaxSpeed=0\n";
  for (const auto &[file, told] : {std::pair{dir_.file("bad.conf"), "bad.conf:2: [Tilt] MaxSpeed: 0 is not within"},
                                   {dir_.file("missing.conf"), "missing.conf"}}) {
    Process driver(SIM_DRIVER, {"--socket", dir_.file("other.socket"), "--config", file}, output_);
    EXPECT_EQ(driver.wait(), 2);
    EXPECT_NE(contents(output_).find(told), std::string::npos) << contents(output_);
    EXPECT_FALSE(std::filesystem::exists(dir_.file("other.socket")));
  }
}

TEST_F(SimDriverProgram, KeepsItsPresetsWhenItIsKilled) {
  const std::vector<std::string> state = {"--state", dir_.file("new/folder/state")};
  restart_driver(state);
  const MoveRequest move{PTZ_MOVE_ABSOLUTE, all_axes, full_speed, {40'00, -10'00, 2'00}};
  EXPECT_EQ(first_word(ask(make_body(move))), PTZ_COMMAND_MOVE);
  ASSERT_TRUE(ptz_test::run_until([&] { return positions().idle(); }));
  EXPECT_EQ(first_word(set_preset(5, "gate")), PTZ_COMMAND_SET_DEVICE_PRESET);
  driver_->signal(SIGKILL);
  restart_driver(state);
  EXPECT_EQ(preset_names(), "gate;");
  EXPECT_NE(positions().position, move.values);
  EXPECT_EQ(first_word(ask(goto_preset(5, full_speed))), PTZ_COMMAND_GOTO_DEVICE_PRESET);
  EXPECT_TRUE(ptz_test::run_until([&] { return positions().idle(); }));
  EXPECT_EQ(positions().position, move.values);
}

TEST_F(SimDriverProgram, LosesItsPresetsWithoutAStateFile) {
  EXPECT_EQ(first_word(set_preset(5, "gate")), PTZ_COMMAND_SET_DEVICE_PRESET);
  EXPECT_EQ(preset_names(), "gate;");
  restart_driver({});
  EXPECT_EQ(preset_names(), "");
}

TEST_F(SimDriverProgram, LeavesAStateFileThatItCannotUseAsItIsAndLivesOn) {
  const std::string state = dir_.file("state");
  for (const std::string text : {"[Header]\nVersionMajor=9\nVersionMinor=0\n", "# broken\n[Head", ""}) {
    std::ofstream(state, std::ios::trunc) << text;
    std::filesystem::remove(output_);
    restart_driver({"--state", state});
    EXPECT_NE(contents(output_).find("no presets from '" + state), std::string::npos) << contents(output_);
    expect_not_kept(set_preset(1, "gate"));
    EXPECT_EQ(preset_names(), "");
    EXPECT_EQ(first_word(ask(make_body(PTZ_COMMAND_STOP))), PTZ_COMMAND_STOP);
    driver_->signal(SIGTERM);
    EXPECT_EQ(driver_->wait(), 0);
    EXPECT_EQ(contents(state), text);
  }
}

TEST_F(SimDriverProgram, RefusesAPresetThatItCannotStoreAndKeepsTheOneBefore) {
  std::filesystem::create_directory(dir_.file("disk"));
  const std::string state = dir_.file("disk/state");
  restart_driver({"--state", state});
  EXPECT_EQ(first_word(set_preset(1, "gate")), PTZ_COMMAND_SET_DEVICE_PRESET);
  const std::string before = contents(state);
  // The superuser may write to a folder that nobody may write to, but not to a file as if it were a folder.
  std::filesystem::rename(dir_.file("disk"), dir_.file("unplugged"));
  std::ofstream(dir_.file("disk")) << "";
  expect_not_kept(set_preset(1, "door"));
  expect_not_kept(set_preset(2, "door"));
  EXPECT_EQ(preset_names(), "gate;");
  EXPECT_EQ(contents(dir_.file("unplugged/state")), before);
  std::filesystem::remove(dir_.file("disk"));
  std::filesystem::rename(dir_.file("unplugged"), dir_.file("disk"));
  EXPECT_EQ(first_word(set_preset(2, "door")), PTZ_COMMAND_SET_DEVICE_PRESET);
  restart_driver({"--state", state});
  EXPECT_EQ(preset_names(), "gate;door;");
}

TEST_F(SimDriverProgram, ObeysAParameterThatWasChangedWhenItStartsAgainAndLeavesItsPositionAtTheEnd) {
  setenv("PTZ_PLATFORM_STATE_DIR", dir_.path().c_str(), 1);
  setenv("PTZ_PLATFORM_TEMPLATE_DIR", SIM_DRIVER_TEMPLATES, 1);
  const auto parameter = [](const char *path) {
    const Text value(ptz_tessel_get(path));
    return std::string(value ? value.get() : "(none)");
  };
  const auto pan_limit = [&] { return limits().maximum[pan]; };
  restart_driver({"--parameters", "1"});
  EXPECT_EQ(pan_limit(), 17000);
  EXPECT_EQ(ptz_tessel_set("root.PTZ.Head.H1.PanMax", "1234", FALSE, FALSE, FALSE, 0), 0);
  EXPECT_EQ(ptz_tessel_set("root.PTZ.Head.H1.ResumePosition", "true", FALSE, FALSE, FALSE, 0), 0);
  EXPECT_EQ(pan_limit(), 17000);
  driver_->signal(SIGTERM);
  EXPECT_EQ(driver_->wait(), 0);
  EXPECT_EQ(parameter("root.PTZ.State.S1.Ended"), "1");

  restart_driver({"--parameters", "1"});
  EXPECT_EQ(pan_limit(), 1234);
  EXPECT_EQ(first_word(ask(make_body(MoveRequest{PTZ_MOVE_ABSOLUTE, all_axes, 100, {1200, 300, 200}}))),
            PTZ_COMMAND_MOVE);
  EXPECT_TRUE(ptz_test::run_until([&] { return parameter("root.PTZ.State.S1.Pan") == "1200"; }))
      << "written when the head has come to rest";
  driver_->signal(SIGTERM);
  EXPECT_EQ(driver_->wait(), 0);

  restart_driver({"--parameters", "1"});
  EXPECT_TRUE(ptz_test::run_until([&] {
    return positions().position == PerAxis{1200, 300, 200};
  })) << "the head is where it was";
  unsetenv("PTZ_PLATFORM_STATE_DIR");
  unsetenv("PTZ_PLATFORM_TEMPLATE_DIR");
}

// A value that the driver publishes; -1 where there is none.
template <typename Value>
Value published(PTZSCGroup group, guint instance, PTZSCParam param) {
  Value value = -1;
  PTZStatusCacheGroup *const handle = ptz_status_cache_setup_group(group, instance, 1);
  ptz_status_cache_add_param(handle, param, &value);
  ptz_status_cache_fetch_group(handle);
  ptz_status_cache_free_group(handle);
  return value;
}

TEST_F(SimDriverProgram, PublishesWhereItsHeadIsAndWhatItDoes) {
  setenv("PTZ_PLATFORM_RUNTIME_DIR", dir_.file("run").c_str(), 1);
  restart_driver({"--instance", "12", "--config", SIM_DRIVER_SETTINGS});
  EXPECT_EQ(published<gint32>(PTZ_SC_GROUP_LIMIT, 12, PTZ_SC_PARAM_LIMIT_MAX_PAN), 160);
  EXPECT_EQ(published<gint32>(PTZ_SC_GROUP_LIMIT, 12, PTZ_SC_PARAM_LIMIT_MIN_TILT), -15);
  EXPECT_EQ(published<gint32>(PTZ_SC_GROUP_LIMIT, 12, PTZ_SC_PARAM_LIMIT_MAX_IRIS), 9999);
  EXPECT_EQ(published<gint32>(PTZ_SC_GROUP_POSITION, 12, PTZ_SC_PARAM_POSITION_UPDATE_RATE), 2) << "at rest";
  EXPECT_EQ(published<gint32>(PTZ_SC_GROUP_POSITION, 12, PTZ_SC_PARAM_POSITION_PAN_STATUS), PTZ_MOVE_STATUS_IDLE);

  const auto place = [] { return published<gfloat>(PTZ_SC_GROUP_POSITION, 12, PTZ_SC_PARAM_POSITION_PAN); };
  const auto status = [] { return published<gint32>(PTZ_SC_GROUP_POSITION, 12, PTZ_SC_PARAM_POSITION_PAN_STATUS); };
  const auto to_preset = [] {
    return published<gint32>(PTZ_SC_GROUP_VARIOUS, 12, PTZ_SC_PARAM_VARIOUS_PT_PRESET_MOVE);
  };
  ask(goto_preset(2, 10));
  EXPECT_TRUE(ptz_test::run_until([&] { return to_preset() == 1 && status() == PTZ_MOVE_STATUS_MOVING; }));
  EXPECT_TRUE(ptz_test::run_until([&] { return to_preset() == 0 && status() == PTZ_MOVE_STATUS_IDLE; }));
  EXPECT_FLOAT_EQ(place(), -120);
  const MoveRequest move{PTZ_MOVE_ABSOLUTE, axis_bit(pan), full_speed, {40'00, 0, 0}};
  ask(make_body(move));
  EXPECT_TRUE(ptz_test::run_until([&] { return place() == 40; }));
  EXPECT_EQ(to_preset(), 0);
}

TEST_F(SimDriverProgram, PublishesALiveSettingBeforeItAnswers) {
  setenv("PTZ_PLATFORM_RUNTIME_DIR", dir_.file("run").c_str(), 1);
  restart_driver({"--instance", "13"});
  const auto filter = [] { return published<gint32>(PTZ_SC_GROUP_VARIOUS, 13, PTZ_SC_PARAM_VARIOUS_IR_CUT_FILTER); };
  EXPECT_EQ(filter(), 0);
  ask(make_body(Auxiliary{"ir_cut_filter", PTZ_ENABLE_ON}));
  EXPECT_EQ(filter(), 1);
  ask(make_body(Auxiliary{"light", PTZ_ENABLE_ON}));
  EXPECT_EQ(filter(), 1);
  driver_->signal(SIGKILL);
  restart_driver({"--instance", "13"});
  EXPECT_EQ(filter(), 0) << "a driver that was started again";
}

TEST_F(SimDriverProgram, GoesOnWhereNothingCanBePublished) {
  std::ofstream(dir_.file("run")) << "no folder";
  setenv("PTZ_PLATFORM_RUNTIME_DIR", dir_.file("run").c_str(), 1);
  restart_driver({"--instance", "1"});
  for (int i = 0; i < 20; ++i) EXPECT_EQ(first_word(ask(make_body(PTZ_COMMAND_STOP))), PTZ_COMMAND_STOP);
  const std::string said = contents(output_);
  const std::string complaint = "Could not create status cache group PTZ_POSITION_IS1. Not a directory!";
  std::size_t times = 0;
  for (auto at = said.find(complaint); at != std::string::npos; at = said.find(complaint, at + 1)) ++times;
  EXPECT_EQ(times, 2U) << "the defaults, and the first update: " << said;
}

TEST_F(SimDriverProgram, SaysSoAndFailsWhereItCannotListen) {
  Process driver(SIM_DRIVER, {"--socket", dir_.file("missing") + "/driver.socket"}, output_);
  EXPECT_EQ(driver.wait(), 1);
  EXPECT_NE(contents(output_).find("sim-driver: cannot listen on '"), std::string::npos) << contents(output_);
}

TEST_F(SimDriverProgram, RefusesArgumentsThatMakeNoSense) {
  const std::vector<std::vector<std::string>> wrong = {{},
                                                       {"--socket"},
                                                       {"--socket", socket_, "more"},
                                                       {"--sockets", socket_},
                                                       {"--socket", socket_, "--speed-factor", "0"},
                                                       {"--socket", socket_, "--parameters", "-2"},
                                                       {"--socket", socket_, "--instance", "-1"}};
  for (const auto &arguments : wrong) EXPECT_EQ(Process(SIM_DRIVER, arguments, output_).wait(), 2);
}

TEST_F(SimDriverProgram, HelpHasItsOptionsAndOneLineForNumberedSettings) {
  EXPECT_EQ(Process(SIM_DRIVER, {"--help"}, output_).wait(), 0);
  const std::string help = contents(output_);
  for (const char *line : {"--dbus=NAME", "--parameters=N", "--speed-factor=N", "--fault=NAME", "[Zoom] MaxSpeed=1000",
                           "[Preset0] to [Preset31] Tilt=0"}) {
    EXPECT_NE(help.find(line), std::string::npos) << line << help;
  }
  EXPECT_EQ(help.find("[Preset1]"), std::string::npos) << help;
}
