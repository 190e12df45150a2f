// A bus that is not there, or goes away under a server and a client. The class's connection is that of the whole
// process, so each test has a process of its own.
#include <gtest/gtest.h>
#include <ptz_g_dbus_client.h>
#include <ptz_g_dbus_server.h>
#include <ptz_legacy_config.h>
#include <ptz_legacy_config_dynamic.h>
#include <syslog.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "bus.h"
#include "fresh_process.h"
#include "syslog_capture.h"

namespace {

using namespace ptz_test;

using Skeleton = Object<GDBusInterfaceSkeleton>;

constexpr char no_bus[] = "unix:path=/nonexistent/bus";
constexpr char no_bus_message[] = "Could not connect to the bus: Could not connect: No such file or directory";

Object<PTZGDBusServer> make_server() {
  return Object<PTZGDBusServer>(PTZ_G_DBUS_SERVER(g_object_new(PTZ_TYPE_G_DBUS_SERVER, nullptr)));
}

Skeleton make_skeleton() {
  return Skeleton(G_DBUS_INTERFACE_SKELETON(ptz_legacy_config_dynamic_configuration_legacy_skeleton_new()));
}

void use_bus(const std::string &address) { setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1); }

TEST(NoBus, ServerCarriesOnAndEverythingFails) {
  in_fresh_process([] {
    use_bus(no_bus);
    const SyslogCapture log;
    const GlibLogCapture criticals;
    const auto server = make_server(), second = make_server();
    EXPECT_EQ(PTZ_G_DBUS_SERVER_GET_CLASS(server.get())->connection, nullptr);
    EXPECT_EQ(log.lines(), (std::vector<LogLine>{{LOG_ERR, no_bus_message}}));

    const auto skeleton = make_skeleton();
    const SyslogCapture failures;
    EXPECT_FALSE(ptz_g_dbus_server_dbus_register(server.get(), skeleton.get(), "a.b", 3));
    EXPECT_FALSE(ptz_g_dbus_server_dbus_register_obj_full_path(server.get(), skeleton.get(), "/a"));
    EXPECT_FALSE(ptz_g_dbus_server_dbus_request_name(server.get(), "a"));
    EXPECT_FALSE(ptz_g_dbus_server_dbus_request_name_full_path(server.get(), "a.b"));
    EXPECT_EQ(failures.lines(),
              (std::vector<LogLine>{
                  {LOG_ERR, "_ptz_g_dbus_server_register: Failed to get name fo /com/velk/PTZ/a/b/3. (no err"},
                  {LOG_ERR, "Failed to get name: (NULL)"},
                  {LOG_ERR, "Failed to get name: (NULL)"},
                  {LOG_ERR, "Failed to get name: (NULL)"}}));
    EXPECT_EQ(server->skeleton, nullptr);
    EXPECT_TRUE(criticals.messages().empty());
  });
}

TEST(NoBus, BridgeIsNotSetUp) {
  in_fresh_process([] {
    use_bus(no_bus);
    const auto skeleton = make_skeleton();
    const SyslogCapture log;
    EXPECT_EQ(ptz_legacy_config_setup(skeleton.get(), "event", "owner", "ptz"), nullptr);
    EXPECT_EQ(log.lines(),
              (std::vector<LogLine>{
                  {LOG_ERR, no_bus_message},
                  {LOG_ERR, "_ptz_g_dbus_server_register: Failed to get name fo /com/velk/PTZ/ptz. (no err"},
                  {LOG_ERR, "ptz_legacy_config_setup: Failed to register DBus object ptz!"}}));
  });
}

TEST(NoBus, ClientsTypeMayBeAskedForWithoutABus) {
  in_fresh_process([] {
    use_bus(no_bus);
    EXPECT_STREQ(g_type_name(PTZ_TYPE_G_DBUS_CLIENT), "PTZGDBusClient");
  });
}

TEST(NoBus, ClientEndsTheProcessWithStatus42AndTheReason) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(
      {
        use_bus(no_bus);
        static const SyslogCapture log;
        atexit([] {
          for (const auto &line : log.lines()) std::fprintf(stderr, "<%d> %s\n", line.priority, line.text.c_str());
        });
        ptz_g_dbus_client_new();
      },
      testing::ExitedWithCode(42), "<3> Could not connect to the bus: Could not connect: No such file or directory");
}

// --- a bus that goes away -----------------------------------------------------------------------------------------

struct LostBus : testing::Test {
  Bus bus;
  LostBus() { use_bus(bus.address()); }

  // Runs the loop until the process's connection has noticed.
  void lose() {
    auto *shared = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    bus.kill();
    ASSERT_TRUE(run_until([&] { return g_dbus_connection_is_closed(shared) == TRUE; }));
    run_pending();
    g_object_unref(shared);
  }
};

TEST_F(LostBus, ServerAndItsProcessLiveOn) {
  in_fresh_process([this] {
    const auto server = make_server();
    const auto skeleton = make_skeleton(), second = make_skeleton();
    ASSERT_TRUE(ptz_g_dbus_server_dbus_register(server.get(), skeleton.get(), "ptz", -1));
    ASSERT_TRUE(ptz_g_dbus_server_dbus_request_name(server.get(), "ptz"));
    lose();
    bus.start();
    const SyslogCapture log;
    EXPECT_FALSE(ptz_g_dbus_server_dbus_request_name(server.get(), "ptz"));
    EXPECT_EQ(log.lines(), (std::vector<LogLine>{{LOG_ERR, "Failed to get name: The connection is closed"}}));
    EXPECT_EQ(server->skeleton, skeleton.get());
    bus.kill();
  });
}

TEST_F(LostBus, ClientAndItsProcessLiveOn) {
  in_fresh_process([this] {
    int left = 0;
    const Object<PTZGDBusClient> client(ptz_g_dbus_client_new());
    ASSERT_TRUE(ptz_g_dbus_client_set_proxy(client.get(), "ptz", -1));
    ASSERT_TRUE(ptz_g_dbus_client_connect_destroy_signal(
        client.get(), [](gpointer number) { ++*static_cast<int *>(number); }, &left));
    lose();
    bus.start();
    const Variant reply(
        g_dbus_proxy_call_sync(client->proxy, "Sync", nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
    EXPECT_EQ(reply, nullptr);
    EXPECT_EQ(left, 0);

    const SyslogCapture log;
    const Object<PTZGDBusClient> another(ptz_g_dbus_client_new());
    EXPECT_FALSE(ptz_g_dbus_client_set_proxy(another.get(), "ptz", -1));
    EXPECT_EQ(log.containing("Failed to setup proxy: "), 1U);
    EXPECT_FALSE(ptz_g_dbus_client_connect_destroy_signal(another.get(), nullptr, nullptr));
    bus.kill();
  });
}

TEST_F(LostBus, BridgeLivesOnAndCleansUp) {
  in_fresh_process([this] {
    const auto skeleton = make_skeleton();
    auto *handler = ptz_legacy_config_setup(skeleton.get(), "event", "owner", "ptz");
    ASSERT_NE(handler, nullptr);
    lose();
    const SyslogCapture log;
    GValue value = G_VALUE_INIT;
    g_value_init(&value, G_TYPE_INT);
    ptz_legacy_config_prop_changed(handler, "Speed", &value);
    EXPECT_FALSE(ptz_legacy_config_send_event(handler, 1, 2, nullptr));
    ptz_legacy_config_cleanup(handler);
    EXPECT_EQ(log.lines(), (std::vector<LogLine>{
                               {LOG_WARNING, "Failed to emit property changed signal: The connection is closed"},
                               {LOG_WARNING, "Failed to send configuration event, message = The connection is closed"},
                               {LOG_WARNING, "Could not undeclare The connection is closed"}}));
    EXPECT_EQ(g_dbus_interface_skeleton_get_connection(skeleton.get()), nullptr);
  });
}

}  // namespace
