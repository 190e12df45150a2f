// What a driver counts: in all, and for each client.
#include <sys/socket.h>

#include "monitored_driver.h"

namespace {

constexpr char ask_name[] = "{'command': <'get_driver_name'>}";
constexpr char ask_unserved[] = "{'command': <'get_auxiliary'>}";

class MonitorFigures : public MonitoredDriver {};

TEST_F(MonitorFigures, OfTwoClientsCountTheirRequestsErrorsAndBytes) {
  start();
  const ptz_test::Descriptor other = ptz_test::connect_to(path_);
  for (int i = 0; i < 5; ++i) ask(ask_name);
  ask_bytes(std::string("\xff\xff", 2));
  send_to(other, 1, ask_name);
  receive_from(other);
  const Variant figures = this->figures();
  ASSERT_NE(figures, nullptr);
  EXPECT_EQ(number_in(figures.get(), "requests"), 7);
  EXPECT_EQ(number_in(figures.get(), "errors"), 1);
  EXPECT_EQ(number_in(figures.get(), "pending"), 0);
  const auto clients = clients_in(figures.get());
  ASSERT_EQ(clients.size(), 2U);
  const bool in_order = number_in(clients[0].get(), "client") == 1;
  GVariant *first = clients[in_order ? 0 : 1].get();
  GVariant *second = clients[in_order ? 1 : 0].get();
  EXPECT_EQ(number_in(first, "requests"), 6);
  EXPECT_EQ(number_in(first, "errors"), 1);
  EXPECT_EQ(number_in(second, "client"), 2);
  EXPECT_EQ(number_in(second, "requests"), 1);
  EXPECT_EQ(number_in(second, "errors"), 0);
  EXPECT_EQ(number_in(second, "bytes-received"), 12);
  EXPECT_EQ(number_in(second, "bytes-sent"), 8 + 4 + 2 + 9);
  EXPECT_EQ(number_in(second, "last-command"), PTZ_COMMAND_GET_DRIVER_NAME);
  EXPECT_EQ(number_in(second, "pid"), getpid());
  EXPECT_EQ(number_in(second, "uid"), getuid());
  const Variant latency(g_variant_lookup_value(first, "latency", G_VARIANT_TYPE("au")));
  EXPECT_EQ(sum_of(latency.get()), 6U);
}

TEST_F(MonitorFigures, NameTheDriver) {
  start();
  const Variant figures = this->figures();
  ASSERT_NE(figures, nullptr);
  EXPECT_EQ(text_in(figures.get(), "name"), "recording");
  EXPECT_EQ(number_in(figures.get(), "pid"), getpid());
}

}  // namespace
