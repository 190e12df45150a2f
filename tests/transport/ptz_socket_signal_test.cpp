#include "ptz_socket_signal.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <syslog.h>

#include <string>
#include <vector>

#include "clock.h"
#include "faults.h"
#include "fixtures.h"
#include "handles.h"
#include "peers.h"
#include "subclass.h"
#include "syslog_capture.h"

namespace {

using namespace ptz_test;
using namespace std::string_literals;

constexpr std::int64_t one_retry_ms = 2'000;

bool is_pending(guint timer) { return g_main_context_find_source_by_id(nullptr, timer) != nullptr; }

TEST(SocketSignalType, AddsNothingToTheEndpoint) {
  EXPECT_STREQ(g_type_name(PTZ_TYPE_SOCKET_SIGNAL), "PTZSocketSignal");
  EXPECT_EQ(g_type_parent(PTZ_TYPE_SOCKET_SIGNAL), PTZ_TYPE_SOCKET);
  EXPECT_EQ(sizeof(PTZSocketSignal), sizeof(PTZSocket));
  EXPECT_EQ(sizeof(PTZSocketSignalClass), sizeof(PTZSocketClass));
}

struct SocketSignal : testing::Test {
  TempDir dir;
  std::string path = dir.file("s");
  SyslogCapture log;

  [[nodiscard]] Object<PTZSocketSignal> make(int type = SOCK_STREAM) const {
    return Object<PTZSocketSignal>(ptz_socket_signal_new(path.c_str(), type));
  }
};

TEST_F(SocketSignal, NewConnectsAsAClient) {
  const Listener listener(path);
  const auto signal = make();
  const PTZSocket &endpoint = signal->parent_instance;
  EXPECT_EQ(G_OBJECT_TYPE(signal.get()), PTZ_TYPE_SOCKET_SIGNAL);
  EXPECT_GE(endpoint.fd, 0);
  EXPECT_EQ(endpoint.mode, PTZ_SOCKET_MODE_CLIENT);
  EXPECT_EQ(endpoint.type, SOCK_STREAM);
  EXPECT_STREQ(endpoint.socket, path.c_str());
  EXPECT_EQ(endpoint.retry_source, 0U);
  EXPECT_TRUE(listener.accept());
}

TEST_F(SocketSignal, NewWithoutAPathIsNotConnected) {
  const Object<PTZSocketSignal> signal(ptz_socket_signal_new(nullptr, SOCK_STREAM));
  ASSERT_NE(signal, nullptr);
  EXPECT_EQ(signal->parent_instance.fd, -1);
  EXPECT_EQ(signal->parent_instance.retry_source, 0U);
  ptz_socket_signal_emit(signal.get(), "text");
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SocketSignal, EmitSendsTheTextWithItsNul) {
  const Listener listener(path);
  const auto signal = make();
  const auto receiver = listener.accept();
  ptz_socket_signal_emit(signal.get(), "moved");
  ptz_socket_signal_emit(signal.get(), "stopped");
  EXPECT_EQ(receive_waiting(receiver.get()), "moved\0stopped\0"s);
}

TEST_F(SocketSignal, EmitOfAnEmptyTextSendsOneByte) {
  const Listener listener(path);
  const auto signal = make();
  const auto receiver = listener.accept();
  ptz_socket_signal_emit(signal.get(), "");
  EXPECT_EQ(receive_waiting(receiver.get()), "\0"s);
}

TEST_F(SocketSignal, EmitSendsDatagrams) {
  const Listener receiver(path, SOCK_DGRAM);
  const auto signal = make(SOCK_DGRAM);
  ptz_socket_signal_emit(signal.get(), "moved");
  ptz_socket_signal_emit(signal.get(), "stopped");
  EXPECT_EQ(receive(receiver.fd(), 6), "moved\0"s);
  EXPECT_EQ(receive(receiver.fd(), 8), "stopped\0"s);
}

TEST_F(SocketSignal, EmitOnNothingIsHarmless) {
  const GlibLogCapture criticals;
  ptz_socket_signal_emit(nullptr, "text");
  EXPECT_TRUE(criticals.messages().empty());
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SocketSignal, EmitWithoutAReceiverDropsTheTextSilently) {
  const auto signal = make();
  log = SyslogCapture();
  const guint timer = signal->parent_instance.retry_source;
  EXPECT_TRUE(is_pending(timer));
  ptz_socket_signal_emit(signal.get(), "text");
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(signal->parent_instance.retry_source, timer);
}

TEST_F(SocketSignal, EmitAfterTheReceiverClosedReconnectsInTheBackground) {
  Listener listener(path);
  const auto signal = make();
  listener.accept().reset();
  ptz_socket_signal_emit(signal.get(), "lost");
  EXPECT_EQ(signal->parent_instance.fd, -1);
  EXPECT_TRUE(is_pending(signal->parent_instance.retry_source));
  ptz_socket_signal_emit(signal.get(), "dropped");
  EXPECT_TRUE(log.lines().empty());

  advance_clock(one_retry_ms);
  run_pending();
  ASSERT_GE(signal->parent_instance.fd, 0);
  EXPECT_EQ(signal->parent_instance.retry_source, 0U);
  const auto receiver = listener.accept();
  ptz_socket_signal_emit(signal.get(), "delivered");
  EXPECT_EQ(receive_waiting(receiver.get()), "delivered\0"s);
}

TEST_F(SocketSignal, EmitToAReceiverThatDoesNotReadWaits100Milliseconds) {
  const Listener listener(path);
  const auto signal = make();
  const auto receiver = listener.accept();
  fill(signal->parent_instance.fd);
  std::vector<std::int64_t> waits;
  const Interposer slow([&](Attempt &attempt) -> std::optional<Outcome> {
    if (attempt.call != Call::poll) return std::nullopt;
    waits.push_back(attempt.argument);
    advance_clock(attempt.argument);
    return Outcome{0};
  });
  ptz_socket_signal_emit(signal.get(), "lost");
  EXPECT_EQ(waits, (std::vector<std::int64_t>{100}));
  EXPECT_EQ(signal->parent_instance.fd, -1);
  EXPECT_TRUE(is_pending(signal->parent_instance.retry_source));
}

TEST_F(SocketSignal, FinalizeClosesAndRemovesTheTimer) {
  const Listener listener(path);
  auto connected = make();
  const auto receiver = listener.accept();
  connected.reset();
  EXPECT_TRUE(is_at_end(receiver.get()));

  path = dir.file("nobody");
  auto waiting = make();
  const guint timer = waiting->parent_instance.retry_source;
  ASSERT_TRUE(is_pending(timer));
  waiting.reset();
  EXPECT_FALSE(is_pending(timer));
}

// --- what the write operation answers ---------------------------------------------------------------------------

std::vector<gssize> answers;
std::vector<std::string> written;
std::vector<gint> timeouts;
int retries = 0;

GType scripted_type() {
  static const GType type = subclass(PTZ_TYPE_SOCKET_SIGNAL, "TestScriptedSignal", [](gpointer klass, gpointer) {
    PTZ_SOCKET_CLASS(klass)->write = [](PTZSocket *self, gint fd, gconstpointer text, gsize length,
                                        gint timeout_ms) -> gssize {
      EXPECT_EQ(fd, self->fd);
      timeouts.push_back(timeout_ms);
      written.emplace_back(static_cast<const char *>(text), length);
      return written.size() <= answers.size() ? answers[written.size() - 1] : -1;
    };
    PTZ_SOCKET_CLASS(klass)->add_retry = [](PTZSocket *) -> guint { return static_cast<guint>(++retries); };
  });
  return type;
}

struct Script {
  const char *name;
  std::vector<gssize> answers;
  std::size_t writes;
  int retries;
};

void PrintTo(const Script &script, std::ostream *out) { *out << script.name; }

struct SocketSignalScript : testing::TestWithParam<Script> {};

// Where the write operation delivers a part, the whole text goes out once more.
TEST_P(SocketSignalScript, WritesTheWholeTextEachTimeAndRetriesWhereItCannotCount) {
  const TempDir dir;
  const Listener listener(dir.file("s"));
  const Object<PTZSocketSignal> signal(
      PTZ_SOCKET_SIGNAL(ptz_socket_new(scripted_type(), PTZ_SOCKET_MODE_CLIENT, dir.file("s").c_str(), SOCK_STREAM)));
  ASSERT_GE(signal->parent_instance.fd, 0);
  answers = GetParam().answers;
  written.clear();
  timeouts.clear();
  retries = 0;
  const SyslogCapture log;
  ptz_socket_signal_emit(signal.get(), "hello");
  EXPECT_EQ(written, std::vector(GetParam().writes, "hello\0"s));
  EXPECT_EQ(timeouts, std::vector(GetParam().writes, 100));
  EXPECT_EQ(retries, GetParam().retries);
  EXPECT_TRUE(log.lines().empty());
}

INSTANTIATE_TEST_SUITE_P(Answers, SocketSignalScript,
                         testing::Values(Script{"All", {6}, 1, 0}, Script{"Failure", {-1}, 1, 1},
                                         Script{"Nothing", {0}, 1, 1}, Script{"TwoHalves", {3, 3}, 2, 0},
                                         Script{"ThreeParts", {1, 2, 3}, 3, 0}, Script{"TooMuch", {4, 6}, 2, 1},
                                         Script{"TooMuchAtOnce", {7}, 1, 1}, Script{"PartThenFailure", {3, -1}, 2, 1},
                                         Script{"PartThenNothing", {5, 0}, 2, 1}),
                         [](const auto &info) { return info.param.name; });

TEST_F(SocketSignal, APartlySentTextIsSentAgainFromItsBeginning) {
  const Listener listener(path);
  const auto signal = make();
  const auto receiver = listener.accept();
  // Each write operation runs out of time after half of the text.
  const Interposer halves([&](Attempt &attempt) -> std::optional<Outcome> {
    if (attempt.call != Call::write || attempt.fd != signal->parent_instance.fd) return std::nullopt;
    attempt.argument = 3;
    advance_clock(100);
    return std::nullopt;
  });
  ptz_socket_signal_emit(signal.get(), "hello");
  EXPECT_EQ(receive_waiting(receiver.get()), "helhel");
  EXPECT_GE(signal->parent_instance.fd, 0);
}

}  // namespace
