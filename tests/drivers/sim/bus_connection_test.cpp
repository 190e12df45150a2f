// The connection to a bus that does not answer.
#include "bus_connection.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "fixtures.h"
#include "peers.h"

namespace {

guint limit_ms = 0;

}  // namespace

// The limit passes at once.
extern "C" GSource *g_timeout_source_new(guint interval) {
  static const auto real = reinterpret_cast<GSource *(*)(guint)>(dlsym(RTLD_NEXT, "g_timeout_source_new"));
  limit_ms = interval;
  return real(10);
}

TEST(BusConnection, BusThatDoesNotAnswerIsAnErrorAfterTheLimit) {
  const ptz_test::TempDir dir;
  const ptz_test::Listener mute(dir.file("bus"));
  setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + dir.file("bus")).c_str(), 1);
  sim::BusConnection bus;
  GError *error = nullptr;
  EXPECT_FALSE(bus.open(&error));
  unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
  EXPECT_FALSE(bus.is_open());
  EXPECT_EQ(limit_ms, 5'000U);
  ASSERT_NE(error, nullptr);
  EXPECT_TRUE(g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT)) << error->message;
  EXPECT_STREQ(error->message, "no system bus: it does not answer");
  g_error_free(error);
}

TEST(BusConnection, NameIsOneOfABusAndOfAnObject) {
  for (const char *good : {"sim", "a", "_", "Head2"}) EXPECT_TRUE(sim::is_bus_name(good)) << good;
  for (const char *bad : {"", "a b", "1", "a..b", "a.b", "a-b", "a/b", "\xff", "."}) {
    EXPECT_FALSE(sim::is_bus_name(bad)) << bad;
  }
  EXPECT_FALSE(sim::is_bus_name(std::string(250, 'x').c_str()));
}
