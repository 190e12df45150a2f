// What a subscriber of the monitor socket receives.
#include <sys/socket.h>

#include <utility>

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
    ASSERT_EQ(monitor.open(), "");
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

TEST_F(MonitorSubscription, ShowsMalformedRequestsAndTheirReplies) {
  start();
  Monitor monitor(path_);
  subscribe(monitor);
  ask_bytes("\x01");
  ask_bytes(std::string("\x99\x00\x00\x00", 4));
  ASSERT_TRUE(wait_for(monitor, 4));
  EXPECT_EQ(body_of(*monitor.frames[0]), "\x01");
  EXPECT_TRUE(is_error(text_of(body_of(*monitor.frames[1])), PTZ_KIT_ERROR_CODE_MALFORMED));
  EXPECT_TRUE(is_error(text_of(body_of(*monitor.frames[3])), PTZ_KIT_ERROR_CODE_UNKNOWN_COMMAND));
}

TEST_F(MonitorSubscription, ShowsDeferredReplyThatCouldNotBeSentAsUnsent) {
  start();
  Monitor monitor(path_);
  subscribe(monitor);
  send(bytes_of(auxiliary(AUXILIARY_LATER).c_str()));
  ASSERT_TRUE(ptz_test::run_until([&] { return driver_->deferred != nullptr; }));
  client_.reset();
  ptz_test::run_pending();
  figures();  // the client leaves the table
  ptz_kit_reply_error_literal(driver_->deferred, PTZ_KIT_ERROR_CODE_INTERNAL, "no");
  g_clear_object(&driver_->deferred);
  ASSERT_TRUE(wait_for(monitor, 2));
  EXPECT_TRUE(monitor.frames[1]->unsent);
  EXPECT_EQ(monitor.frames[1]->client, 1U);
  EXPECT_EQ(monitor.frames[1]->pid, getpid());
}

TEST_F(MonitorSubscription, FramesThatArriveDuringFiguresAreEmittedLater) {
  start();
  Monitor monitor(path_);
  subscribe(monitor);
  ask(ask_name);  // in the socket of the monitor now
  GError *error = nullptr;
  EXPECT_EQ(ptz_kit_monitor_get_figures(monitor.get(), 20, nullptr, &error), nullptr);  // the driver cannot run
  EXPECT_EQ(Monitor::text_of(error), kit_error(PTZ_KIT_ERROR_TIMED_OUT));
  ASSERT_TRUE(wait_for(monitor, 2));
  ask(ask_name);
  ASSERT_TRUE(wait_for(monitor, 4));
  EXPECT_EQ(monitor.frames[3]->message_id, 2U);
}

TEST_F(MonitorSubscription, ClosedIsEmittedWhenDriverStops) {
  start();
  Monitor monitor(path_);
  subscribe(monitor);
  end();
  EXPECT_TRUE(ptz_test::run_until([&] { return monitor.closed == 1; }));
  EXPECT_EQ(monitor.subscribe(), kit_error(PTZ_KIT_ERROR_NOT_CONNECTED));
  EXPECT_EQ(monitor.open(), io_error(G_IO_ERROR_NOT_FOUND));
}

TEST_F(MonitorSubscription, OpensAgainAfterDriverHasStartedAgain) {
  start();
  Monitor monitor(path_);
  subscribe(monitor);
  end();
  ASSERT_TRUE(ptz_test::run_until([&] { return monitor.closed == 1; }));
  start();
  subscribe(monitor);
  ask(ask_name);
  EXPECT_TRUE(wait_for(monitor, 2));
}

// Receives what is there, and counts frames and what they say was lost.
struct Reading {
  guint64 frames = 0;
  guint64 lost = 0;
  guint64 with_loss = 0;

  void read(int fd) {
    std::vector<char> packet(65536);
    ssize_t length = 0;
    while ((length = recv(fd, packet.data(), packet.size(), MSG_DONTWAIT)) > 0) {
      ASSERT_GE(length, 50);
      guint64 lost_before = 0;
      std::memcpy(&lost_before, packet.data() + 24, sizeof lost_before);
      lost += GUINT64_FROM_LE(lost_before);
      with_loss += lost_before != 0 ? 1 : 0;
      ++frames;
    }
  }
};

class SlowSubscriber : public MonitorSubscription {
 protected:
  ptz_test::Descriptor slow_;

  void subscribe_slowly() {
    slow_ = ptz_test::connect_to(monitor_path_, SOCK_SEQPACKET);
    ASSERT_TRUE(slow_);
    constexpr char request[] = {2, 0, 0, 0, 0, 0, 0, 0};
    ASSERT_EQ(::send(slow_.get(), request, sizeof request, 0), ssize_t{sizeof request});
    ptz_test::run_pending();
  }
  static constexpr int round_trips = 4000;
};

TEST_F(SlowSubscriber, LosesFramesAndIsToldHowManyWhileTheDriverGoesOn) {
  start();
  subscribe_slowly();
  for (int i = 0; i < round_trips; ++i) ask(ask_name);
  Reading reading;
  ASSERT_NO_FATAL_FAILURE(reading.read(slow_.get()));
  EXPECT_LT(reading.frames, 2U * round_trips);
  EXPECT_EQ(reading.lost, 0U);
  ptz_test::run_until([&] {  // from the history
    reading.read(slow_.get());
    return reading.frames + reading.lost == 2U * round_trips;
  });
  EXPECT_EQ(reading.frames + reading.lost, 2U * round_trips);
  EXPECT_EQ(reading.with_loss, 1U);
  EXPECT_GT(reading.lost, 1000U);
}

TEST_F(SlowSubscriber, WithoutHistoryIsToldOfLossWithNextFrame) {
  make();
  g_object_set(driver_, "monitor-history", 0U, nullptr);
  start();
  subscribe_slowly();
  for (int i = 0; i < round_trips; ++i) ask(ask_name);
  Reading reading;
  ASSERT_NO_FATAL_FAILURE(reading.read(slow_.get()));
  ask(ask_name);
  reading.read(slow_.get());
  EXPECT_EQ(reading.frames + reading.lost, 2U * round_trips + 2);
  EXPECT_EQ(reading.with_loss, 1U);
}

TEST_F(SlowSubscriber, WithFullSocketAtFrameLargerThanHistoryReceivesTheNextOnesFromHistory) {
  make();
  g_object_set(driver_, "monitor-history", 1000U, nullptr);
  start();
  subscribe_slowly();
  const std::string large(2000, '\xff');
  constexpr int large_round_trips = 400;
  for (int i = 0; i < large_round_trips; ++i) ask_bytes(large);
  Reading reading;
  EXPECT_TRUE(ptz_test::run_until([&] {
    reading.read(slow_.get());
    return reading.frames + reading.lost == 2U * large_round_trips;
  })) << reading.frames
      << " frames, " << reading.lost << " lost";
  EXPECT_GT(reading.lost, 0U);
}

TEST_F(SlowSubscriber, WithoutHistoryIsToldOfLossWithFigures) {
  make();
  g_object_set(driver_, "monitor-history", 0U, nullptr);
  start();
  subscribe_slowly();
  for (int i = 0; i < round_trips; ++i) ask(ask_name);
  Reading reading;
  ASSERT_NO_FATAL_FAILURE(reading.read(slow_.get()));
  constexpr char request[] = {1, 0, 0, 0, 7, 0, 0, 0};
  ASSERT_EQ(::send(slow_.get(), request, sizeof request, 0), ssize_t{sizeof request});
  std::vector<unsigned char> packet(65536);
  ssize_t length = 0;
  const auto is_end_of_figures = [&] { return length >= 8 && packet[0] == 3 && packet[1] == 1; };
  ASSERT_TRUE(ptz_test::run_until([&] {
    while (!is_end_of_figures() && (length = recv(slow_.get(), packet.data(), packet.size(), MSG_DONTWAIT)) > 0)
      continue;
    return is_end_of_figures();
  }));
  ASSERT_GE(length, 16);
  guint64 lost = 0;
  std::memcpy(&lost, packet.data() + 8, sizeof lost);
  EXPECT_EQ(reading.frames + GUINT64_FROM_LE(lost), 2U * round_trips);
}

TEST_F(SlowSubscriber, ThatDoesNotReadDoesNotKeepTheMainLoopAwake) {
  start();
  subscribe_slowly();
  for (int i = 0; i < round_trips; ++i) ask(ask_name);
  EXPECT_LT(ptz_test::iterations_within(100), 50);
}

TEST_F(SlowSubscriber, ThatHasReceivedEverythingDoesNotKeepTheMainLoopAwake) {
  start();
  subscribe_slowly();
  ask(ask_name);
  EXPECT_LT(ptz_test::iterations_within(100), 50);
}

TEST_F(MonitorSubscription, HistoryKeepsTheLastFramesThatFit) {
  make();
  g_object_set(driver_, "monitor-history", 1000U, nullptr);
  start();
  for (int i = 0; i < 40; ++i) ask(ask_name);
  Monitor monitor(path_);
  subscribe(monitor, true);
  ask(ask_name);
  ASSERT_TRUE(ptz_test::run_until([&] { return !monitor.frames.empty() && monitor.frames.back()->message_id == 41; }));
  ptz_test::run_pending();
  const std::size_t past = monitor.frames.size() - 2;
  EXPECT_GE(past, 8U);
  EXPECT_LE(past, 24U);
  for (std::size_t i = 0; i < past; ++i) {
    EXPECT_TRUE(monitor.frames[i]->past);
    EXPECT_EQ(monitor.frames[i]->message_id, 40 - (past - 1 - i) / 2);
  }
}

TEST_F(MonitorSubscription, WithoutHistoryThereIsNoPast) {
  make();
  g_object_set(driver_, "monitor-history", 0U, nullptr);
  start();
  ask(ask_name);
  Monitor monitor(path_);
  subscribe(monitor, true);
  ask(ask_name);
  ASSERT_TRUE(wait_for(monitor, 2));
  EXPECT_EQ(monitor.frames[0]->message_id, 2U);
  EXPECT_EQ(monitor.frames[0]->lost, 0U);
}

TEST_F(MonitorSubscription, HistoryNamesClientThatHasGone) {
  start();
  ask(ask_name);
  client_.reset();
  ptz_test::run_pending();
  figures();
  Monitor monitor(path_);
  subscribe(monitor, true);
  ASSERT_TRUE(wait_for(monitor, 2));
  EXPECT_EQ(monitor.frames[0]->client, 1U);
  EXPECT_EQ(monitor.frames[0]->pid, getpid());
  EXPECT_NE(std::strstr(monitor.frames[0]->program, "kit_monitor"), nullptr);
}

TEST_F(MonitorSubscription, HandlerMayDropTheMonitor) {
  start();
  PTZKitMonitor *monitor = ptz_kit_monitor_new(path_.c_str());
  ASSERT_TRUE(ptz_kit_monitor_open(monitor, nullptr));
  ASSERT_TRUE(ptz_kit_monitor_subscribe(monitor, FALSE, nullptr));
  gboolean gone = FALSE;
  g_object_weak_ref(
      G_OBJECT(monitor), [](gpointer flag, GObject *) { *static_cast<gboolean *>(flag) = TRUE; }, &gone);
  const auto drop = +[](PTZKitMonitor *self, const PTZKitMonitorFrame *, gpointer dropped) {
    if (std::exchange(*static_cast<bool *>(dropped), true)) return;
    g_object_unref(self);
  };
  bool dropped = false;
  g_signal_connect(monitor, "frame", G_CALLBACK(drop), &dropped);
  ptz_test::run_pending();
  send(bytes_of(ask_name));
  EXPECT_TRUE(ptz_test::run_until([&] { return gone != FALSE; }));
}

}  // namespace
