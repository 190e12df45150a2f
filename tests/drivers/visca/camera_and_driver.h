// camera_and_driver.h - the simulated camera and the driver as programs, and a link to the driver.
#pragma once
#include <gtest/gtest.h>
#include <ptz_kit.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "fixtures.h"
#include "peers.h"
#include "process.h"

namespace visca_test {

using Position = std::array<gint32, 3>;
constexpr guint deadline_ms = 5000;

class CameraAndDriver {
  ptz_test::TempDir dir_;
  std::unique_ptr<ptz_test::Process> camera_, driver_;
  PTZKitLink *link_ = nullptr;
  std::string device_;
  std::string last_error_;
  guint32 auxiliary_state_ = G_MAXUINT32;

  bool took(GError *error) {
    last_error_ = error != nullptr ? error->message : "";
    const bool good = error == nullptr;
    g_clear_error(&error);
    return good;
  }

 public:
  const std::string kind;
  explicit CameraAndDriver(std::string transport) : kind(std::move(transport)) {
    setenv("PTZ_PLATFORM_RUNTIME_DIR", dir_.path().c_str(), 1);
    setenv("PTZ_PLATFORM_STATE_DIR", dir_.path().c_str(), 1);
  }
  ~CameraAndDriver() { g_clear_object(&link_); }
  std::string file(const std::string &name) const { return dir_.file(name); }
  const std::string &last_error() const { return last_error_; }
  ptz_test::Process &camera() { return *camera_; }
  ptz_test::Process &driver() { return *driver_; }

  // Again at the same address, if it was started before.
  void start_camera(std::vector<std::string> more = {}, const std::string &factor = "8") {
    camera_.reset();
    const std::string output = dir_.file("camera");
    unlink(output.c_str());
    std::string port = "0";
    if (!device_.empty() && kind != "serial") port = device_.substr(device_.rfind(':') + 1);
    std::vector<std::string> arguments = {"--log", dir_.file("log"), "--speed-factor", factor};
    if (kind == "serial") {
      arguments.insert(arguments.end(), {"--pty", dir_.file("tty")});
    } else {
      arguments.insert(arguments.end(), {"--" + kind, port});
    }
    arguments.insert(arguments.end(), more.begin(), more.end());
    camera_ = std::make_unique<ptz_test::Process>(VISCA_SIM, arguments, output);
    ASSERT_TRUE(ptz_test::run_until([&] { return ptz_test::contents(output).find('\n') != std::string::npos; }));
    std::istringstream line(ptz_test::contents(output));
    std::string word;
    line >> word >> port;
    ASSERT_EQ(word, kind == "serial" ? "pty" : kind) << ptz_test::contents(output);
    device_ = kind == "serial" ? "serial:" + dir_.file("tty") : kind + ":127.0.0.1:" + port;
  }
  void stop_camera() { camera_.reset(); }
  const std::string &device() const { return device_; }
  void set_device(const std::string &device) { device_ = device; }

  void start_driver(std::vector<std::string> more = {}) {
    driver_.reset();
    g_clear_object(&link_);
    const std::string socket = dir_.file("socket");
    std::vector<std::string> arguments = {"--socket", socket, "--device", device_, "--state", dir_.file("state")};
    arguments.insert(arguments.end(), more.begin(), more.end());
    driver_ = std::make_unique<ptz_test::Process>(VISCA_DRIVER, arguments, dir_.file("output"));
    link_ = ptz_kit_link_new(socket.c_str());
    ptz_kit_link_open(link_);
    GError *error = nullptr;
    const bool ready = ptz_kit_link_wait_ready(link_, 10'000, &error) != FALSE;
    ASSERT_TRUE(took(error) && ready) << last_error_ << output();
  }
  std::string output() const { return ptz_test::contents(dir_.file("output")); }
  void start(std::vector<std::string> camera = {}, std::vector<std::string> driver = {}) {
    start_camera(std::move(camera));
    start_driver(std::move(driver));
    ASSERT_TRUE(is_there_soon()) << output();
  }
  PTZKitLink *link() { return link_; }

  bool move(PTZMove kind_of_move, guint8 axes, Position value, guint16 speed = 100) {
    PTZKitMoveRequest request = {};
    request.kind = kind_of_move;
    request.axes = axes;
    request.speed = speed;
    std::copy(value.begin(), value.end(), request.value);
    GError *error = nullptr;
    ptz_kit_link_move(link_, &request, deadline_ms, nullptr, &error);
    return took(error);
  }
  bool go_to(Position position, guint16 speed = 100) { return move(PTZ_MOVE_ABSOLUTE, 7, position, speed); }
  bool command(PTZMoveCmd direction, guint16 speed = 100) {
    const PTZKitMoveCommandRequest request = {static_cast<guint32>(direction), speed};
    GError *error = nullptr;
    ptz_kit_link_move_command(link_, &request, deadline_ms, nullptr, &error);
    return took(error);
  }
  bool stop() {
    GError *error = nullptr;
    ptz_kit_link_stop(link_, deadline_ms, nullptr, &error);
    return took(error);
  }
  // Position, and whether an axis moves; false if the driver refuses.
  bool ask(Position &position, bool &moves) {
    GError *error = nullptr;
    PTZKitQueryPositionReply *reply = ptz_kit_link_query_position(link_, deadline_ms, nullptr, &error);
    if (reply != nullptr) {
      std::copy(std::begin(reply->position), std::end(reply->position), position.begin());
      moves = std::ranges::any_of(reply->status, [](auto status) { return status == PTZ_MOVE_STATUS_MOVING; });
      ptz_kit_query_position_reply_free(reply);
    }
    return took(error);
  }
  bool is_there_soon(int limit_ms = 10'000) {
    Position position;
    bool moves = false;
    return ptz_test::run_until([&] { return ask(position, moves); }, limit_ms);
  }
  // The position at rest; the test fails if it does not come to rest.
  Position rest(int limit_ms = 10'000) {
    Position position = {};
    bool moves = true;
    EXPECT_TRUE(ptz_test::run_until([&] { return ask(position, moves) && !moves; }, limit_ms)) << last_error_;
    return position;
  }
  bool set_preset(guint32 number, const char *name) {
    const PTZKitSetDevicePresetRequest request = {number, const_cast<gchar *>(name)};
    GError *error = nullptr;
    PTZKitSetDevicePresetReply *reply = ptz_kit_link_set_device_preset(link_, &request, deadline_ms, nullptr, &error);
    if (reply != nullptr) ptz_kit_set_device_preset_reply_free(reply);
    return took(error);
  }
  bool goto_preset(guint32 number) {
    const PTZKitGotoDevicePresetRequest request = {number, 100};
    GError *error = nullptr;
    ptz_kit_link_goto_device_preset(link_, &request, deadline_ms, nullptr, &error);
    return took(error);
  }
  bool switch_auxiliary(const char *name, PTZEnable state) {
    const PTZKitAuxiliaryRequest request = {const_cast<gchar *>(name), static_cast<guint32>(state)};
    GError *error = nullptr;
    PTZKitAuxiliaryReply *reply = ptz_kit_link_auxiliary(link_, &request, deadline_ms, nullptr, &error);
    if (reply != nullptr) {
      auxiliary_state_ = reply->state;
      ptz_kit_auxiliary_reply_free(reply);
    }
    return took(error);
  }

  // In the last reply.
  guint32 auxiliary_state() const { return auxiliary_state_; }

  // The last packets, for failures.
  std::string log() const {
    const std::string all = ptz_test::contents(dir_.file("log"));
    return "\n" + all.substr(all.size() > 2000 ? all.size() - 2000 : 0);
  }
  // How often the camera received the packet.
  std::size_t received(const std::string &packet) const {
    std::ifstream log(dir_.file("log"));
    std::size_t count = 0;
    for (std::string line; std::getline(log, line);) count += line.ends_with("> " + packet) ? 1 : 0;
    return count;
  }
  void clear_log() const { std::ofstream(dir_.file("log"), std::ios::trunc).close(); }
};

}  // namespace visca_test
