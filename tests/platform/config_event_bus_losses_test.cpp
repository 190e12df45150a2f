// A bus that is not there, or goes away. The connection is that of the whole process, so each test has a process of its
// own.
#include <gtest/gtest.h>

#include <cstdlib>

#include "bus.h"
#include "fresh_process.h"
#include "platform/config_event.h"

namespace {

using namespace ptz_test;

using Event = std::unique_ptr<ConfigEvent, FreeWith<config_event_free>>;

constexpr char path[] = "/com/velk/PTZ/ptz";
constexpr char interface[] = "com.velk.Configuration.Legacy";

Event make() { return Event(config_event_new("presets", 0, 0)); }

TEST(ConfigEventsWithoutABus, FailWithAReason) {
  in_fresh_process([] {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    const auto event = make();
    ASSERT_NE(event, nullptr);
    Error error;
    EXPECT_FALSE(config_event_declare(event.get(), "owner", path, interface, Into(error)));
    EXPECT_STREQ(error->message, "Could not connect: No such file or directory");
    EXPECT_FALSE(config_event_undeclare(event.get(), "owner", path, interface, nullptr));
    EXPECT_FALSE(config_event_send(event.get(), "owner", path, interface, "key", 0, nullptr));
  });
}

TEST(ConfigEventsWithoutABus, BeginWhenTheBusDoes) {
  Bus bus;
  bus.kill();
  in_fresh_process([&] {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().c_str(), 1);
    const auto event = make();
    EXPECT_FALSE(config_event_declare(event.get(), "owner", path, interface, nullptr));
    bus.start();
    EXPECT_TRUE(config_event_declare(event.get(), "owner", path, interface, nullptr));
    bus.kill();
  });
}

struct ConfigEventsOfALostBus : testing::Test {
  Bus bus;

  // Declares, and sends in vain when the bus is gone.
  void lose(const Event &event) {
    Error error;
    ASSERT_TRUE(config_event_declare(event.get(), "owner", path, interface, nullptr));
    const Connection held(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
    bus.kill();
    ASSERT_TRUE(run_until([&] { return g_dbus_connection_is_closed(held.get()) == TRUE; }));
    run_pending();
    EXPECT_FALSE(config_event_send(event.get(), "owner", path, interface, "key", 0, Into(error)));
    EXPECT_TRUE(g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_CLOSED));
  }
};

TEST_F(ConfigEventsOfALostBus, FailAndTheProcessLivesOn) {
  in_fresh_process([&] {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().c_str(), 1);
    lose(make());
  });
}

TEST_F(ConfigEventsOfALostBus, GoOnWithTheNextOneWhereNobodyHoldsTheConnection) {
  in_fresh_process([&] {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().c_str(), 1);
    const auto event = make();
    lose(event);
    bus.start();
    EXPECT_TRUE(config_event_send(event.get(), "owner", path, interface, "key", 0, nullptr));
    bus.kill();
  });
}

}  // namespace
