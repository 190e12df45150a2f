// What a driver counts: in all, and for each client.
#include <sys/resource.h>
#include <sys/socket.h>

#include "monitored_driver.h"

namespace {

constexpr char ask_name[] = "{'command': <'get_driver_name'>}";

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
  const gint64 now = g_get_real_time();
  const Variant figures = this->figures();
  ASSERT_NE(figures, nullptr);
  EXPECT_EQ(text_in(figures.get(), "name"), "recording");
  EXPECT_EQ(text_in(figures.get(), "socket"), path_);
  EXPECT_NE(text_in(figures.get(), "program").find("kit_monitor"), std::string::npos);
  EXPECT_EQ(text_in(figures.get(), "library-version"), "0.1.0");
  EXPECT_EQ(number_in(figures.get(), "pid"), getpid());
  EXPECT_EQ(number_in(figures.get(), "uid"), getuid());
  EXPECT_EQ(number_in(figures.get(), "instance"), 0);
  EXPECT_EQ(number_in(figures.get(), "protocol-version"), PTZ_KIT_PROTOCOL_VERSION);
  EXPECT_LE(number_in(figures.get(), "since"), number_in(figures.get(), "now"));
  EXPECT_NEAR(static_cast<double>(number_in(figures.get(), "now")), static_cast<double>(now), 10.0 * G_USEC_PER_SEC);
}

TEST_F(MonitorFigures, ShowClientThatHasSentNothing) {
  start();
  ptz_test::run_pending();
  const Variant figures = this->figures();
  ASSERT_NE(figures, nullptr);
  const auto clients = clients_in(figures.get());
  ASSERT_EQ(clients.size(), 1U);
  EXPECT_EQ(number_in(clients[0].get(), "requests"), 0);
  EXPECT_EQ(number_in(clients[0].get(), "last-request"), 0);
  EXPECT_EQ(number_in(clients[0].get(), "last-command"), -1);
  EXPECT_EQ(g_variant_lookup_value(clients[0].get(), "last-command", nullptr), nullptr);
}

TEST_F(MonitorFigures, ClientThatHasGoneIsDroppedAndStaysInTheSum) {
  start();
  ask(ask_name);
  client_.reset();
  ptz_test::run_pending();
  const Variant figures = this->figures();
  ASSERT_NE(figures, nullptr);
  EXPECT_EQ(number_in(figures.get(), "requests"), 1);
  EXPECT_TRUE(clients_in(figures.get()).empty());
}

TEST_F(MonitorFigures, NextClientWithSameDescriptorNumberIsAnotherClient) {
  start();
  ask(ask_name);
  for (int i = 0; i < 3; ++i) {
    client_.reset();
    ptz_test::run_pending();
    client_ = ptz_test::connect_to(path_);
    ask(ask_name);
  }
  const Variant figures = this->figures();
  ASSERT_NE(figures, nullptr);
  const auto clients = clients_in(figures.get());
  ASSERT_EQ(clients.size(), 1U);
  EXPECT_EQ(number_in(clients[0].get(), "client"), 4);
  EXPECT_EQ(number_in(clients[0].get(), "requests"), 1);
}

TEST_F(MonitorFigures, CountPendingRequestAndThenItsTimeout) {
  start();
  g_object_set(driver_, "reply-deadline", 200U, nullptr);
  send(bytes_of(auxiliary(AUXILIARY_LATER).c_str()));
  ASSERT_TRUE(ptz_test::run_until([&] { return driver_->deferred != nullptr; }));
  const Variant before = figures();
  EXPECT_EQ(number_in(before.get(), "pending"), 1);
  EXPECT_EQ(number_in(before.get(), "timeouts"), 0);
  EXPECT_EQ(number_in(clients_in(before.get())[0].get(), "pending"), 1);
  receive();
  const Variant after = figures();
  EXPECT_EQ(number_in(after.get(), "pending"), 0);
  EXPECT_EQ(number_in(after.get(), "timeouts"), 1);
  EXPECT_EQ(number_in(after.get(), "errors"), 1);
  EXPECT_EQ(number_in(clients_in(after.get())[0].get(), "timeouts"), 1);
  g_clear_object(&driver_->deferred);
}

TEST_F(MonitorFigures, CountErrorAtDriversEndAsNoTimeout) {
  start();
  send(bytes_of(auxiliary(AUXILIARY_NEITHER).c_str()));
  receive();
  const Variant figures = this->figures();
  EXPECT_EQ(number_in(figures.get(), "timeouts"), 0);
  EXPECT_EQ(number_in(figures.get(), "errors"), 1);
  g_clear_object(&driver_->deferred);
}

TEST_F(MonitorFigures, LatencyIsTheTimeFromRequestToReply) {
  start();
  const gint64 begin_us = g_get_monotonic_time();
  send(bytes_of(auxiliary(AUXILIARY_LATER).c_str()));
  ASSERT_TRUE(ptz_test::run_until([&] { return driver_->deferred != nullptr; }));
  const gint64 arrived_us = g_get_monotonic_time();
  g_usleep(30'000);
  ptz_kit_reply_error_literal(driver_->deferred, PTZ_KIT_ERROR_CODE_INTERNAL, "no");
  const gint64 end_us = g_get_monotonic_time();
  g_clear_object(&driver_->deferred);
  receive();
  const Variant figures = this->figures();
  const Variant latency(g_variant_lookup_value(figures.get(), "latency", G_VARIANT_TYPE("au")));
  EXPECT_GE(ptz_kit_latency_quantile(latency.get(), 1), 30'000);
  EXPECT_GE(end_us - begin_us, 30'000);
  EXPECT_LE(ptz_kit_latency_quantile(latency.get(), 0), static_cast<double>(end_us - begin_us) * 1.25);
  EXPECT_LE(arrived_us, end_us);
}

TEST_F(MonitorFigures, ReplyToClientThatHasGoneIsUnsent) {
  start();
  send(bytes_of(auxiliary(AUXILIARY_LATER).c_str()));
  ASSERT_TRUE(ptz_test::run_until([&] { return driver_->deferred != nullptr; }));
  client_.reset();
  ptz_test::run_pending();
  const Variant before = figures();  // drops the client, whose request is pending
  EXPECT_EQ(number_in(before.get(), "pending"), 1);
  ptz_kit_reply_error_literal(driver_->deferred, PTZ_KIT_ERROR_CODE_INTERNAL, "no");
  g_clear_object(&driver_->deferred);
  const Variant after = figures();
  EXPECT_EQ(number_in(after.get(), "unsent-replies"), 1);
  EXPECT_EQ(number_in(after.get(), "pending"), 0);
  EXPECT_EQ(number_in(after.get(), "bytes-sent"), 0);
}

TEST_F(MonitorFigures, ClientThatDoesNotReadHasUnsentReplies) {
  start();
  const ptz_test::Descriptor lazy = ptz_test::connect_to(path_);
  const std::string requests = [] {
    std::string bytes;
    for (int i = 0; i < 200; ++i) bytes += ptz_test::frame(1, bytes_of(ask_name));
    return bytes;
  }();
  Variant figures;
  for (int round = 0; round < 100; ++round) {
    ptz_test::send_all(lazy.get(), requests);
    ptz_test::run_pending();
    figures = this->figures();
    if (number_in(figures.get(), "unsent-replies") > 0) break;
  }
  EXPECT_GT(number_in(figures.get(), "unsent-replies"), 0);
  const auto clients = clients_in(figures.get());
  gint64 unsent = 0;
  for (const Variant &client : clients) {
    if (number_in(client.get(), "requests") > 0) unsent = number_in(client.get(), "unsent-replies");
  }
  EXPECT_EQ(unsent, number_in(figures.get(), "unsent-replies"));
}

TEST_F(MonitorFigures, BeginAnewWhenTheDriverStartsAgain) {
  start();
  ask(ask_name);
  client_.reset();
  ptz_kit_driver_stop(kit());
  start();
  const Variant figures = this->figures();
  EXPECT_EQ(number_in(figures.get(), "requests"), 0);
}

TEST_F(MonitorFigures, AreAnsweredForAThousandClients) {
  constexpr int count = 1000;
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_cur < 2 * count + 200) GTEST_SKIP() << "needs more descriptors";
  start();
  std::vector<ptz_test::Descriptor> others;
  for (int i = 0; i < count; ++i) {
    others.push_back(ptz_test::connect_to(path_));
    ptz_test::run_pending();
    send_to(others.back(), 1, ask_name);
  }
  ptz_test::run_pending();
  const Variant figures = this->figures();
  ASSERT_NE(figures, nullptr);
  EXPECT_EQ(number_in(figures.get(), "requests"), count);
  const auto clients = clients_in(figures.get());
  EXPECT_EQ(clients.size(), count + 1U);
  int with_one_request = 0;
  for (const Variant &client : clients) with_one_request += number_in(client.get(), "requests") == 1 ? 1 : 0;
  EXPECT_EQ(with_one_request, count);
}

}  // namespace
