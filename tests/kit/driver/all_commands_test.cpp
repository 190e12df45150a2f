// Every command of the description, sent to a driver that overrides all of them and to one that overrides none.
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <sstream>

#include "complete_driver.h"
#include "running_driver.h"

namespace {

const StatusStore store;

std::string word(gint32 command) { return {reinterpret_cast<const char *>(&command), sizeof command}; }

// By command: the golden body, or the command word alone.
std::map<gint32, std::string> requests() {
  std::map<gint32, std::string> bodies;
  for (gint32 command = 0; command < 64; ++command) {
    const gchar *const name = ptz_kit_command_name(command);
    if (name == nullptr) continue;
    std::string &body = bodies[command] = word(command);
    std::ifstream file(std::filesystem::path(GOLDEN_BODIES) / (std::string(name) + "_request"));
    if (!file) continue;
    body.clear();
    for (std::string line; std::getline(file, line) && !line.empty();) {
      std::istringstream words(line);
      for (int byte = 0; words >> std::hex >> byte;) body += static_cast<char>(byte);
    }
  }
  return bodies;
}

// Those whose answers are the class's alone.
const std::set<gint32> answered_by_class = {PTZ_COMMAND_QUERY_LIMIT_RANGES, PTZ_COMMAND_GET_DRIVER_NAME,
                                            PTZ_COMMAND_GET_DEVICE_TYPES,   PTZ_COMMAND_GET_CAPABILITIES,
                                            PTZ_COMMAND_SET_CAPABILITIES,   PTZ_COMMAND_GET_DRIVER_PROPERTY};

using KitDriverCommands = RunningDriver;

TEST_F(KitDriverCommands, EachReachesItsVirtualFunction) {
  make(complete_driver_get_type());
  start();
  ASSERT_EQ(requests().size(), 29U);
  for (const auto &[command, body] : requests()) {
    complete_driver_command = -1;
    const std::string reply = ask_bytes(body);
    if (answered_by_class.contains(command)) {
      EXPECT_FALSE(is_error(reply, PTZ_KIT_ERROR_CODE_UNSUPPORTED)) << reply;
    } else {
      EXPECT_EQ(complete_driver_command, command) << reply;
      EXPECT_TRUE(is_error(reply, PTZ_KIT_ERROR_CODE_DEVICE)) << reply;
    }
  }
}

TEST_F(KitDriverCommands, EachIsAnsweredWithoutVirtualFunctions) {
  make(silent_driver_get_type());
  start();
  for (const auto &[command, body] : requests()) {
    const std::string reply = ask_bytes(body);
    EXPECT_FALSE(is_error(reply, PTZ_KIT_ERROR_CODE_INTERNAL)) << reply;
    EXPECT_FALSE(is_error(reply, PTZ_KIT_ERROR_CODE_MALFORMED)) << reply;
  }
}

TEST_F(KitDriverCommands, ThoseWhoseCapabilityIsTakenAwayAreError2) {
  make(complete_driver_get_type());
  ptz_kit_driver_remove_capabilities(kit(), G_MAXUINT32, G_MAXUINT32);
  start();
  const std::set<gint32> of_a_capability = {
      PTZ_COMMAND_SET_PRESET,    PTZ_COMMAND_SET_DEVICE_PRESET, PTZ_COMMAND_GET_DEVICE_PRESETS,
      PTZ_COMMAND_GOTO_PRESET,   PTZ_COMMAND_AUXILIARY,         PTZ_COMMAND_GOTO_DEVICE_PRESET,
      PTZ_COMMAND_FIELD_ANGLES,  PTZ_COMMAND_OSD_MENU,          PTZ_COMMAND_AREA_ZOOM,
      PTZ_COMMAND_GET_AUXILIARY, PTZ_COMMAND_QUERY_ZOOMDELIM,   PTZ_COMMAND_DEFAULT_HOME_PRESET};
  for (const auto &[command, body] : requests()) {
    if (command == PTZ_COMMAND_MOVE) continue;  // by the kind of motion
    EXPECT_EQ(is_error(ask_bytes(body), PTZ_KIT_ERROR_CODE_UNSUPPORTED), of_a_capability.contains(command)) << command;
  }
}

TEST_F(KitDriverCommands, RandomBodiesHaveOneReplyEach) {
  start();
  std::minstd_rand random(1);
  for (int count = 0; count < 2000; ++count) {
    std::string body = word(static_cast<gint32>(random() % 40));
    for (std::size_t left = random() % 40; left > 0; --left) body += static_cast<char>(random() >> 8);
    ASSERT_NE(ask_bytes(body), "");
  }
  EXPECT_FALSE(ptz_test::is_readable(client_.get()));
}

TEST(KitDriverClass, SlotsKeepTheirPlaces) {
  const auto slot = [](std::size_t offset) { return (offset - sizeof(GObjectClass)) / sizeof(gpointer); };
  EXPECT_EQ(sizeof(PTZKitDriver), sizeof(GObject));
  EXPECT_EQ(slot(offsetof(PTZKitDriverClass, open)), 0U);
  EXPECT_EQ(slot(offsetof(PTZKitDriverClass, set_preset)), 3U);
  EXPECT_EQ(slot(offsetof(PTZKitDriverClass, move)), 8U);
  EXPECT_EQ(slot(offsetof(PTZKitDriverClass, auxiliary)), 12U);
  EXPECT_EQ(slot(offsetof(PTZKitDriverClass, move_command)), 19U);
  EXPECT_EQ(slot(offsetof(PTZKitDriverClass, get_driver_parameters)), 26U);
  EXPECT_EQ(slot(offsetof(PTZKitDriverClass, check_settings)), 27U);
  EXPECT_EQ(slot(offsetof(PTZKitDriverClass, started)), 28U);
  EXPECT_EQ(slot(offsetof(PTZKitDriverClass, reserved)), 29U);
  EXPECT_EQ(slot(sizeof(PTZKitDriverClass)), 43U);
}

}  // namespace
