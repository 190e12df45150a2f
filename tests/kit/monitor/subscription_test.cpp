// What a subscriber of the monitor socket receives.
#include <sys/socket.h>

#include "monitored_driver.h"

namespace {

constexpr char ask_name[] = "{'command': <'get_driver_name'>}";

std::string body_of(const PTZKitMonitorFrame &frame) {
  gsize length = 0;
  const auto *data = static_cast<const char *>(g_bytes_get_data(frame.body, &length));
  return {data, length};
}

class MonitorSubscription : public MonitoredDriver {
 protected:
  // Until the monitor has this many frames.
  static bool wait_for(const Monitor &monitor, std::size_t count) {
    return ptz_test::run_until([&] { return monitor.frames.size() >= count; });
  }
  void subscribe(Monitor &monitor, bool with_past = false) {
    ASSERT_EQ(monitor.connect(), "");
    ASSERT_EQ(monitor.subscribe(with_past), "");
    ptz_test::run_pending();
  }
};

TEST_F(MonitorSubscription, ReceivesRequestAndReplyWithBothEnds) {
  start();
  Monitor monitor(path_);
  subscribe(monitor);
  const std::string reply = (send(bytes_of(ask_name)), receive());
  ASSERT_TRUE(wait_for(monitor, 2));
  const PTZKitMonitorFrame &asked = *monitor.frames[0];
  const PTZKitMonitorFrame &answered = *monitor.frames[1];
  EXPECT_EQ(asked.direction, PTZ_KIT_FRAME_REQUEST);
  EXPECT_EQ(answered.direction, PTZ_KIT_FRAME_REPLY);
  EXPECT_EQ(body_of(asked), bytes_of(ask_name));
  EXPECT_EQ(body_of(answered), reply);
  for (const PTZKitMonitorFrame *frame : {&asked, &answered}) {
    EXPECT_EQ(frame->client, 1U);
    EXPECT_EQ(frame->pid, getpid());
    EXPECT_EQ(frame->uid, getuid());
    EXPECT_EQ(frame->message_id, id_);
    EXPECT_EQ(frame->lost, 0U);
    EXPECT_FALSE(frame->past);
    EXPECT_FALSE(frame->unsent);
    EXPECT_NE(std::strstr(frame->program, "kit_monitor"), nullptr) << frame->program;
    EXPECT_LT(std::abs(frame->time_ns / 1000 - g_get_real_time()), 5 * G_USEC_PER_SEC);
  }
  EXPECT_EQ(asked.latency_ns, 0);
  EXPECT_EQ(answered.latency_ns, answered.time_ns - asked.time_ns);
  EXPECT_GT(answered.latency_ns, 0);
}

TEST_F(MonitorSubscription, ReceivesNoFramesFromBeforeUnlessAskedFor) {
  start();
  ask(ask_name);
  Monitor monitor(path_);
  subscribe(monitor);
  ask(ask_name);
  ASSERT_TRUE(wait_for(monitor, 2));
  EXPECT_EQ(monitor.frames[0]->message_id, 2U);
}

TEST_F(MonitorSubscription, WithPastBeginsWithFramesThatWereKept) {
  start();
  ask(ask_name);
  Monitor monitor(path_);
  subscribe(monitor, true);
  ask(ask_name);
  ASSERT_TRUE(wait_for(monitor, 4));
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(monitor.frames[i]->past != FALSE, i < 2);
    EXPECT_EQ(monitor.frames[i]->message_id, 1 + i / 2);
    EXPECT_EQ(monitor.frames[i]->lost, 0U);
  }
}

}  // namespace
