#include "ptz_socket_client.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <syslog.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "clock.h"
#include "faults.h"
#include "fixtures.h"
#include "handles.h"
#include "peers.h"
#include "ptz_socket_client_signal_data_ready.h"
#include "subclass.h"
#include "syslog_capture.h"

namespace {

using namespace ptz_test;

// A descriptor that keeps the main loop busy makes thousands.
constexpr int few_iterations = 50;
constexpr int look_ms = 30;
constexpr std::int64_t one_retry_ms = 2'000;

gint descriptor_of(const PTZSocketClient *client) { return client->parent_instance.fd; }

// Whether the main loop watches the client's descriptor.
bool is_watched(const PTZSocketClient *client) {
  return reinterpret_cast<const PTZFileGSource *>(client->source)->tag != nullptr;
}

gssize read_once(PTZSocketClient *client, gpointer buffer, gsize length) {
  return PTZ_SOCKET_GET_CLASS(client)->read(PTZ_SOCKET(client), descriptor_of(client), buffer, length, 0);
}

// What a callback has received; it may do more.
struct Received {
  std::vector<std::string> messages;
  std::function<void()> then = [] {};

  static void callback(gpointer data, gpointer bytes, guint32 length) {
    auto *self = static_cast<Received *>(data);
    self->messages.emplace_back(static_cast<const char *>(bytes), length);
    self->then();
  }
  [[nodiscard]] std::string text() const {
    std::string all;
    for (const auto &message : messages) all += message;
    return all;
  }
};

// --- the types --------------------------------------------------------------------------------------------------

static_assert(offsetof(PTZSocketClient, source) == sizeof(PTZSocket));
static_assert(offsetof(PTZSocketClient, context) == sizeof(PTZSocket) + sizeof(gpointer));
static_assert(offsetof(PTZSocketClient, user_data) == sizeof(PTZSocket) + 2 * sizeof(gpointer));
static_assert(offsetof(PTZSocketClient, callback) == sizeof(PTZSocket) + 3 * sizeof(gpointer));

TEST(SocketClientTypes, FormOneLineAndAddNoOperations) {
  EXPECT_STREQ(g_type_name(PTZ_TYPE_SOCKET_CLIENT), "PTZSocketClient");
  EXPECT_EQ(g_type_parent(PTZ_TYPE_SOCKET_CLIENT), PTZ_TYPE_SOCKET);
  EXPECT_EQ(sizeof(PTZSocketClientClass), sizeof(PTZSocketClass));
  EXPECT_STREQ(g_type_name(PTZ_TYPE_SOCKET_CLIENT_SIGNAL_DATA_READY), "PTZSocketClientSignalDataReady");
  EXPECT_EQ(g_type_parent(PTZ_TYPE_SOCKET_CLIENT_SIGNAL_DATA_READY), PTZ_TYPE_SOCKET_CLIENT);
  EXPECT_EQ(sizeof(PTZSocketClientSignalDataReady), sizeof(PTZSocketClient));
  EXPECT_EQ(sizeof(PTZSocketClientSignalDataReadyClass), sizeof(PTZSocketClientClass));
}

TEST(SocketClientTypes, NewRefusesATypeThatIsNoClient) {
  const GlibLogCapture log;
  EXPECT_EQ(ptz_socket_client_new(PTZ_TYPE_SOCKET, nullptr, -1, SOCK_STREAM), nullptr);
  EXPECT_EQ(ptz_socket_client_signal_data_ready_new(PTZ_TYPE_SOCKET_CLIENT, nullptr, -1, SOCK_STREAM), nullptr);
  EXPECT_EQ(log.criticals(), 2U);
}

// --- a client on a path -----------------------------------------------------------------------------------------

struct SocketClientOnPath : testing::Test {
  TempDir dir;
  std::string path = dir.file("s");

  [[nodiscard]] Object<PTZSocketClient> make(gint fd = -1) const {
    return Object<PTZSocketClient>(ptz_socket_client_new(PTZ_TYPE_SOCKET_CLIENT, path.c_str(), fd, SOCK_STREAM));
  }
};

TEST_F(SocketClientOnPath, ConnectsAndIsWatchedOnTheDefaultMainContext) {
  const Listener listener(path);
  const Context other(g_main_context_new());
  g_main_context_push_thread_default(other.get());
  const auto client = make();
  g_main_context_pop_thread_default(other.get());
  EXPECT_GE(descriptor_of(client.get()), 0);
  EXPECT_EQ(client->parent_instance.mode, PTZ_SOCKET_MODE_CLIENT);
  EXPECT_EQ(client->callback, nullptr);
  EXPECT_EQ(client->user_data, nullptr);
  EXPECT_EQ(client->context, g_main_context_default());
  EXPECT_EQ(g_source_get_context(client->source), g_main_context_default());
  EXPECT_EQ(ptz_file_g_source_get_fd(client->source), descriptor_of(client.get()));
  EXPECT_TRUE(is_watched(client.get()));
  EXPECT_TRUE(listener.accept());
}

TEST_F(SocketClientOnPath, IgnoresADescriptorBesidesThePath) {
  const Listener listener(path);
  const Pair pair;
  const auto client = make(pair.ours.get());
  EXPECT_NE(descriptor_of(client.get()), pair.ours.get());
  EXPECT_TRUE(listener.accept());
}

TEST_F(SocketClientOnPath, FinalizeClosesTheDescriptorAndEndsTheSource) {
  const Listener listener(path);
  auto client = make();
  const auto peer = listener.accept();
  const Source source(g_source_ref(client->source));
  client.reset();
  EXPECT_TRUE(g_source_is_destroyed(source.get()));
  EXPECT_EQ(source->ref_count, 1U);
  EXPECT_TRUE(is_at_end(peer.get()));
}

// The watch stays where it was made; that is why clients are created once the server listens.
TEST_F(SocketClientOnPath, CreatedBeforeItsServerItConnectsLaterButIsNotWatched) {
  const auto client = make();
  EXPECT_EQ(descriptor_of(client.get()), -1);
  EXPECT_EQ(ptz_file_g_source_get_fd(client->source), -1);
  Received received;
  ptz_socket_client_register_callback(client.get(), Received::callback, &received);
  EXPECT_LT(iterations_within(look_ms), few_iterations);

  const Listener listener(path);
  advance_clock(one_retry_ms);
  run_pending();
  ASSERT_GE(descriptor_of(client.get()), 0);
  EXPECT_EQ(ptz_file_g_source_get_fd(client->source), -1);
  const auto peer = listener.accept();
  send_all(peer.get(), "abc");
  EXPECT_LT(iterations_within(look_ms), few_iterations);
  EXPECT_TRUE(received.messages.empty());

  EXPECT_TRUE(ptz_socket_client_async_send(client.get(), "def", 3));
  EXPECT_EQ(receive(peer.get(), 3), "def");
}

TEST_F(SocketClientOnPath, FinalizeStopsTheReconnection) {
  auto client = make();
  const guint timer = client->parent_instance.retry_source;
  ASSERT_NE(g_main_context_find_source_by_id(nullptr, timer), nullptr);
  client.reset();
  EXPECT_EQ(g_main_context_find_source_by_id(nullptr, timer), nullptr);
}

TEST_F(SocketClientOnPath, SendingWhileNotConnectedDoesNothingAndSucceeds) {
  const auto client = make();
  const SyslogCapture log;
  EXPECT_EQ(ptz_socket_client_async_send(client.get(), "abc", 3), TRUE);
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{{LOG_WARNING, "socket_write: not opened " + path}}));
}

// --- a client on a descriptor -----------------------------------------------------------------------------------

struct SocketClient : testing::Test {
  Pair pair;
  Object<PTZSocketClient> client = make(pair.ours.get());
  Received received;

  SocketClient() { ptz_socket_client_register_callback(client.get(), Received::callback, &received); }

  static Object<PTZSocketClient> make(int fd, int type = SOCK_STREAM) {
    return Object<PTZSocketClient>(ptz_socket_client_new(PTZ_TYPE_SOCKET_CLIENT, nullptr, fd, type));
  }
  gboolean send(std::string_view text) const {
    return ptz_socket_client_async_send(client.get(), text.data(), static_cast<guint32>(text.size()));
  }
  void expect_delivery(const std::string &text) {
    EXPECT_TRUE(run_until([&] { return received.text().size() >= text.size(); }, 2'000));
    EXPECT_EQ(received.text(), text);
  }
  void expect_stopped() {
    EXPECT_TRUE(run_until([&] { return !is_watched(client.get()); }, 2'000));
    EXPECT_LT(iterations_within(look_ms), few_iterations);
  }
};

TEST_F(SocketClient, AdoptsTheDescriptor) {
  EXPECT_EQ(descriptor_of(client.get()), pair.ours.get());
  EXPECT_EQ(client->parent_instance.socket, nullptr);
  EXPECT_EQ(client->parent_instance.retry_source, 0U);
  EXPECT_EQ(ptz_file_g_source_get_fd(client->source), pair.ours.get());
  EXPECT_EQ(client->callback, Received::callback);
  EXPECT_EQ(client->user_data, &received);
}

TEST_F(SocketClient, DoesNotCloseAnAdoptedDescriptor) {
  const Source source(g_source_ref(client->source));
  client.reset();
  EXPECT_TRUE(g_source_is_destroyed(source.get()));
  EXPECT_TRUE(is_open(pair.ours.get()));
  EXPECT_FALSE(is_at_end(pair.theirs.get()));
}

TEST_F(SocketClient, WithoutPathAndDescriptorIsHarmless) {
  const GlibLogCapture criticals;
  const SyslogCapture log;
  client = make(-1);
  EXPECT_EQ(descriptor_of(client.get()), -1);
  EXPECT_LT(iterations_within(look_ms), few_iterations);
  ptz_socket_client_remove_poll(client.get());
  ptz_socket_client_add_poll(client.get());
  EXPECT_LT(iterations_within(look_ms), few_iterations);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(send("abc"), TRUE);
  EXPECT_EQ(log.lines().size(), 1U);
  client.reset();
  EXPECT_TRUE(criticals.messages().empty());
}

TEST_F(SocketClient, FinalizesWithoutSourceAndContext) {
  g_source_destroy(client->source);
  g_source_unref(std::exchange(client->source, nullptr));
  g_main_context_unref(std::exchange(client->context, nullptr));
  ptz_socket_client_add_poll(client.get());
  ptz_socket_client_remove_poll(client.get());
  client.reset();
  EXPECT_TRUE(is_open(pair.ours.get()));
}

TEST_F(SocketClient, PassesWhatArrivesToTheCallback) {
  send_all(pair.theirs.get(), "abc");
  expect_delivery("abc");
  send_all(pair.theirs.get(), "def");
  expect_delivery("abcdef");
  EXPECT_EQ(received.messages.size(), 2U);
  EXPECT_LT(iterations_within(look_ms), few_iterations);
}

TEST_F(SocketClient, ReadsAtMost2560BytesAtATime) {
  send_all(pair.theirs.get(), std::string(6'000, 'x'));
  expect_delivery(std::string(6'000, 'x'));
  ASSERT_EQ(received.messages.size(), 3U);
  EXPECT_EQ(received.messages[0].size(), 2'560U);
  EXPECT_EQ(received.messages[1].size(), 2'560U);
  EXPECT_EQ(received.messages[2].size(), 880U);
}

TEST_F(SocketClient, ReadsOnceForEachDispatch) {
  send_all(pair.theirs.get(), "abc");
  const CallLog calls;
  expect_delivery("abc");
  EXPECT_EQ(calls.count(Call::read, pair.ours.get()), 1U);
  EXPECT_EQ(calls.attempts(Call::read, pair.ours.get())[0].argument, 2'560);
}

TEST_F(SocketClient, WithoutACallbackDataAreReadAndDropped) {
  ptz_socket_client_register_callback(client.get(), nullptr, nullptr);
  send_all(pair.theirs.get(), "dropped");
  EXPECT_LT(iterations_within(look_ms), few_iterations);
  EXPECT_FALSE(is_readable(pair.ours.get()));
  EXPECT_TRUE(is_watched(client.get()));
  ptz_socket_client_register_callback(client.get(), Received::callback, &received);
  send_all(pair.theirs.get(), "abc");
  expect_delivery("abc");
}

TEST_F(SocketClient, CallbackMayRegisterAnother) {
  Received other;
  received.then = [&] { ptz_socket_client_register_callback(client.get(), Received::callback, &other); };
  send_all(pair.theirs.get(), "abc");
  expect_delivery("abc");
  send_all(pair.theirs.get(), "def");
  EXPECT_TRUE(run_until([&] { return !other.messages.empty(); }));
  EXPECT_EQ(other.text(), "def");
  EXPECT_EQ(received.text(), "abc");
}

TEST_F(SocketClient, CallbackMaySend) {
  received.then = [&] { EXPECT_TRUE(send("answer")); };
  send_all(pair.theirs.get(), "abc");
  expect_delivery("abc");
  EXPECT_EQ(receive(pair.theirs.get(), 6), "answer");
  send_all(pair.theirs.get(), "def");
  expect_delivery("abcdef");
}

TEST_F(SocketClient, CallbackMayDropTheClient) {
  const Source source(g_source_ref(client->source));
  received.then = [&] { client.reset(); };
  send_all(pair.theirs.get(), "abc");
  expect_delivery("abc");
  EXPECT_TRUE(g_source_is_destroyed(source.get()));
  send_all(pair.theirs.get(), "def");
  EXPECT_LT(iterations_within(look_ms), few_iterations);
  EXPECT_EQ(received.text(), "abc");
}

TEST_F(SocketClient, CallbackMayDropAClientOnAPath) {
  const TempDir dir;
  const Listener listener(dir.file("s"));
  client.reset(ptz_socket_client_new(PTZ_TYPE_SOCKET_CLIENT, dir.file("s").c_str(), -1, SOCK_STREAM));
  ptz_socket_client_register_callback(client.get(), Received::callback, &received);
  const auto peer = listener.accept();
  received.then = [&] { client.reset(); };
  send_all(peer.get(), "abc");
  expect_delivery("abc");
  EXPECT_TRUE(is_at_end(peer.get()));
  run_pending();
}

// --- the read operation -----------------------------------------------------------------------------------------

TEST_F(SocketClient, ReadReturnsTheCountAndCallsTheCallback) {
  ptz_socket_client_remove_poll(client.get());
  std::array<char, 8> buffer{};
  send_all(pair.theirs.get(), "abcdef");
  const CallLog calls;
  EXPECT_EQ(read_once(client.get(), buffer.data(), 4), 4);
  EXPECT_EQ(std::string_view(buffer.data(), 4), "abcd");
  EXPECT_EQ(received.messages, (std::vector<std::string>{"abcd"}));
  EXPECT_EQ(read_once(client.get(), buffer.data(), 8), 2);
  EXPECT_EQ(received.messages, (std::vector<std::string>{"abcd", "ef"}));
  EXPECT_EQ(calls.count(Call::read, pair.ours.get()), 2U);
}

TEST_F(SocketClient, ReadOfNothingIsMinusOneAndTheWatchGoesOn) {
  std::array<char, 8> buffer{};
  EXPECT_EQ(read_once(client.get(), buffer.data(), buffer.size()), -1);
  EXPECT_TRUE(received.messages.empty());
  EXPECT_TRUE(is_watched(client.get()));
  send_all(pair.theirs.get(), "abc");
  expect_delivery("abc");
}

TEST_F(SocketClient, ReadAtTheEndIsMinusOne) {
  ptz_socket_client_remove_poll(client.get());
  shutdown(pair.theirs.get(), SHUT_WR);
  std::array<char, 8> buffer{};
  EXPECT_EQ(read_once(client.get(), buffer.data(), buffer.size()), -1);
  EXPECT_TRUE(received.messages.empty());
}

TEST_F(SocketClient, ReadErrorIsMinusOneAndSilent) {
  ptz_socket_client_remove_poll(client.get());
  send_all(pair.theirs.get(), "abc");
  const SyslogCapture log;
  const Fault fault(Call::read, EIO, {.fd = pair.ours.get()});
  std::array<char, 8> buffer{};
  EXPECT_EQ(read_once(client.get(), buffer.data(), buffer.size()), -1);
  EXPECT_EQ(fault.hits(), 1);
  EXPECT_TRUE(received.messages.empty());
  EXPECT_TRUE(log.lines().empty());
}

// --- what stops the watch ---------------------------------------------------------------------------------------

TEST_F(SocketClient, AHangUpStopsTheWatch) {
  pair.theirs.reset();
  expect_stopped();
  EXPECT_TRUE(received.messages.empty());
  ptz_socket_client_add_poll(client.get());
  EXPECT_TRUE(is_watched(client.get()));
  expect_stopped();
}

TEST_F(SocketClient, AnEndOfFileWithoutAHangUpStopsTheWatch) {
  shutdown(pair.theirs.get(), SHUT_WR);
  expect_stopped();
  EXPECT_TRUE(received.messages.empty());
  EXPECT_FALSE(g_source_is_destroyed(client->source));
  EXPECT_TRUE(send("still open"));
  EXPECT_EQ(receive(pair.theirs.get(), 10), "still open");
}

TEST_F(SocketClient, WhatCameBeforeAnEndOfFileIsDelivered) {
  send_all(pair.theirs.get(), std::string(3'000, 'x'));
  shutdown(pair.theirs.get(), SHUT_WR);
  expect_stopped();
  EXPECT_EQ(received.text(), std::string(3'000, 'x'));
}

TEST_F(SocketClient, ADescriptorClosedUnderTheWatchStopsIt) {
  run_pending();
  pair.ours.reset();
  expect_stopped();
  EXPECT_TRUE(received.messages.empty());
}

TEST_F(SocketClient, ADescriptorThatCannotBeReadStopsTheWatch) {
  const TempDir dir;
  const Descriptor folder(open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));  // always readable, never read
  client = make(folder.get());
  expect_stopped();
}

TEST_F(SocketClient, AReadThatIsInterruptedDoesNot) {
  for (const int error : {EINTR, EAGAIN}) {
    received.messages.clear();
    const Fault fault(Call::read, error, {.fd = pair.ours.get(), .times = 1});
    send_all(pair.theirs.get(), "abc");
    expect_delivery("abc");
    EXPECT_EQ(fault.hits(), 1);
    EXPECT_TRUE(is_watched(client.get()));
  }
}

TEST_F(SocketClient, AnEmptyDatagramIsNoEndOfFile) {
  const Pair datagrams(SOCK_DGRAM);
  client = make(datagrams.ours.get(), SOCK_DGRAM);
  ptz_socket_client_register_callback(client.get(), Received::callback, &received);
  ASSERT_EQ(::send(datagrams.theirs.get(), "", 0, 0), 0);
  run_pending();
  EXPECT_TRUE(is_watched(client.get()));
  send_all(datagrams.theirs.get(), "abc");
  expect_delivery("abc");
  EXPECT_EQ(received.messages.size(), 1U);
}

TEST_F(SocketClient, IsNotDispatchedWhileSwitchedOff) {
  ptz_socket_client_remove_poll(client.get());
  ptz_socket_client_remove_poll(client.get());
  send_all(pair.theirs.get(), "abc");
  EXPECT_LT(iterations_within(look_ms), few_iterations);
  EXPECT_TRUE(received.messages.empty());
  ptz_socket_client_add_poll(client.get());
  ptz_socket_client_add_poll(client.get());
  expect_delivery("abc");
}

TEST_F(SocketClient, WatchMayBeSwitchedAndDataSentFromAnotherThread) {
  ptz_socket_client_remove_poll(client.get());
  send_all(pair.theirs.get(), "abc");
  std::thread worker([&] {
    EXPECT_TRUE(send("def"));
    ptz_socket_client_add_poll(client.get());
  });
  expect_delivery("abc");
  worker.join();
  EXPECT_EQ(receive(pair.theirs.get(), 3), "def");
}

// --- sending ----------------------------------------------------------------------------------------------------

TEST_F(SocketClient, SendsWhatItIsGiven) {
  const CallLog calls;
  EXPECT_EQ(send("abc"), TRUE);
  EXPECT_EQ(receive(pair.theirs.get(), 3), "abc");
  EXPECT_EQ(calls.attempts(Call::poll, pair.ours.get())[0].argument, 1'000);
  EXPECT_TRUE(is_watched(client.get()));
}

TEST_F(SocketClient, AFailedSendStopsTheWatchUntilItIsSwitchedOnAgain) {
  const SyslogCapture log;
  {
    const Fault gone(Call::write, EPIPE, {.fd = pair.ours.get()});
    EXPECT_EQ(send("abc"), FALSE);
  }
  EXPECT_FALSE(is_watched(client.get()));
  send_all(pair.theirs.get(), "def");
  EXPECT_LT(iterations_within(look_ms), few_iterations);
  EXPECT_TRUE(received.messages.empty());
  EXPECT_TRUE(send("ghi"));
  EXPECT_FALSE(is_watched(client.get()));
  ptz_socket_client_add_poll(client.get());
  expect_delivery("def");
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SocketClient, ASendToAPeerThatHasGoneFails) {
  pair.theirs.reset();
  EXPECT_EQ(send("abc"), FALSE);
  EXPECT_FALSE(is_watched(client.get()));
  EXPECT_EQ(descriptor_of(client.get()), pair.ours.get());
  EXPECT_EQ(client->parent_instance.retry_source, 0U);
}

TEST_F(SocketClient, ASendOfNothingFailsAsAnyOther) {
  EXPECT_EQ(send(""), FALSE);
  EXPECT_FALSE(is_watched(client.get()));
}

struct ImpatientPeer {
  Interposer time_flies{[](Attempt &attempt) -> std::optional<Outcome> {
    if (attempt.call == Call::poll) advance_clock(std::exchange(attempt.argument, 0));
    return std::nullopt;
  }};
};

TEST_F(SocketClient, ASendToAPeerThatNeverReadsEndsAfterASecond) {
  fill(pair.ours.get());
  const ImpatientPeer peer;
  const CallLog calls;
  EXPECT_EQ(send("abc"), FALSE);
  EXPECT_EQ(calls.count(Call::poll, pair.ours.get()), 1U);
  EXPECT_FALSE(is_watched(client.get()));
}

TEST_F(SocketClient, ASendOfWhichAPartIsTakenSucceeds) {
  const ImpatientPeer peer;
  EXPECT_EQ(send(std::string(1 << 22, 'x')), TRUE);
  EXPECT_TRUE(is_watched(client.get()));
}

// --- subclasses -------------------------------------------------------------------------------------------------

struct OperationCall {
  gint fd = 0;
  gsize length = 0;
  gint timeout_ms = 0;
};
std::vector<OperationCall> reads;
std::vector<OperationCall> writes;
gssize write_answer = 0;

GType noting_type() {
  static const GType type = subclass(PTZ_TYPE_SOCKET_CLIENT, "TestNotingClient", [](gpointer klass, gpointer) {
    PTZ_SOCKET_CLASS(klass)->read = [](PTZSocket *, gint fd, gpointer, gsize length, gint timeout_ms) -> gssize {
      reads.push_back({fd, length, timeout_ms});
      static_cast<void>(receive_waiting(fd));
      return -1;
    };
    PTZ_SOCKET_CLASS(klass)->write = [](PTZSocket *, gint fd, gconstpointer, gsize length, gint timeout_ms) -> gssize {
      writes.push_back({fd, length, timeout_ms});
      return write_answer;
    };
  });
  return type;
}

struct SocketClientSubclass : SocketClient {
  SocketClientSubclass() {
    client.reset(ptz_socket_client_new(noting_type(), nullptr, pair.ours.get(), SOCK_STREAM));
    reads.clear();
    writes.clear();
  }
};

TEST_F(SocketClientSubclass, ReadsThroughItsOwnOperationWhoseResultIsIgnored) {
  for (std::size_t times = 1; times <= 2; ++times) {
    send_all(pair.theirs.get(), "abc");
    EXPECT_TRUE(run_until([&] { return reads.size() == times; }));
    EXPECT_EQ(reads.back().fd, pair.ours.get());
    EXPECT_EQ(reads.back().length, 2'560U);
    EXPECT_EQ(reads.back().timeout_ms, 0);
  }
  EXPECT_FALSE(g_source_is_destroyed(client->source));
}

TEST_F(SocketClientSubclass, ReadsFromTheWatchedDescriptorWhateverTheEndpointHoldsNow) {
  const Pair other;
  client->parent_instance.fd = other.ours.get();
  send_all(pair.theirs.get(), "abc");
  EXPECT_TRUE(run_until([&] { return !reads.empty(); }));
  EXPECT_EQ(reads[0].fd, pair.ours.get());
}

TEST_F(SocketClientSubclass, SendsThroughItsOwnOperation) {
  for (const auto &[answer, result] : {std::pair<gssize, gboolean>{3, TRUE}, {1, TRUE}, {0, TRUE}}) {
    write_answer = answer;
    EXPECT_EQ(send("abc"), result);
    EXPECT_TRUE(is_watched(client.get()));
  }
  write_answer = -1;
  EXPECT_EQ(send("abc"), FALSE);
  EXPECT_FALSE(is_watched(client.get()));
  ASSERT_EQ(writes.size(), 4U);
  EXPECT_EQ(writes[0].fd, pair.ours.get());
  EXPECT_EQ(writes[0].length, 3U);
  EXPECT_EQ(writes[0].timeout_ms, 1'000);
}

TEST(SocketClientReadOfASubclass, ThatReturnsZeroAtEndOfFileDoesNotSpin) {
  static const GType type = subclass(PTZ_TYPE_SOCKET_CLIENT, "ZeroAtEndClient", [](gpointer klass, gpointer) {
    PTZ_SOCKET_CLASS(klass)->read = [](PTZSocket *, gint fd, gpointer buffer, gsize length, gint) -> gssize {
      return read(fd, buffer, length);
    };
  });
  const Pair pair;
  const Object<PTZSocketClient> client(ptz_socket_client_new(type, nullptr, pair.ours.get(), SOCK_STREAM));
  shutdown(pair.theirs.get(), SHUT_WR);
  EXPECT_TRUE(run_until([&] { return !is_watched(client.get()); }));
  EXPECT_LT(iterations_within(look_ms), few_iterations);
}

// --- data ready -------------------------------------------------------------------------------------------------

struct SocketClientSignalDataReady : testing::Test {
  struct Call {
    gpointer data;
    guint32 length;
  };
  Pair pair;
  Object<PTZSocketClientSignalDataReady> ready{ptz_socket_client_signal_data_ready_new(
      PTZ_TYPE_SOCKET_CLIENT_SIGNAL_DATA_READY, nullptr, pair.ours.get(), SOCK_STREAM)};
  PTZSocketClient *client = PTZ_SOCKET_CLIENT(ready.get());
  std::vector<Call> calls;
  std::string drained;
  std::function<void()> then = [] {};

  void listen() { ptz_socket_client_register_callback(client, on_ready, this); }
  static void on_ready(gpointer user_data, gpointer data, guint32 length) {
    auto *self = static_cast<SocketClientSignalDataReady *>(user_data);
    self->calls.push_back({data, length});
    self->drained += receive_waiting(self->pair.ours.get());
    self->then();
  }
  void expect_stopped() {
    EXPECT_TRUE(run_until([&] { return !is_watched(client); }, 2'000));
    EXPECT_LT(iterations_within(look_ms), few_iterations);
  }
};

TEST_F(SocketClientSignalDataReady, TellsItsCallbackThatDataWait) {
  listen();
  send_all(pair.theirs.get(), "abc");
  const CallLog system_calls;
  EXPECT_TRUE(run_until([&] { return !calls.empty(); }));
  EXPECT_EQ(calls[0].data, nullptr);
  EXPECT_EQ(calls[0].length, 2'560U);
  EXPECT_EQ(drained, "abc");
  EXPECT_EQ(system_calls.count(ptz_test::Call::read, pair.ours.get()), 0U);
  send_all(pair.theirs.get(), "def");
  EXPECT_TRUE(run_until([&] { return calls.size() == 2; }));
  EXPECT_EQ(drained, "abcdef");
  EXPECT_LT(iterations_within(look_ms), few_iterations);
  EXPECT_EQ(calls.size(), 2U);
}

TEST_F(SocketClientSignalDataReady, IsCalledAgainAtOnceWhereTheCallbackDoesNotDrain) {
  listen();
  int left = 3;
  ptz_socket_client_register_callback(
      client,
      [](gpointer data, gpointer, guint32) {
        if (--*static_cast<int *>(data) == 0) g_main_context_wakeup(nullptr);
      },
      &left);
  send_all(pair.theirs.get(), "abc");
  EXPECT_TRUE(run_until([&] { return left <= 0; }));
  EXPECT_EQ(receive_waiting(pair.ours.get()), "abc");
}

TEST_F(SocketClientSignalDataReady, ReadReadsNothingAndReturnsTheLength) {
  listen();
  ptz_socket_client_remove_poll(client);
  send_all(pair.theirs.get(), "abc");
  std::array<char, 64> buffer{};
  EXPECT_EQ(read_once(client, buffer.data(), buffer.size()), 64);
  ASSERT_EQ(calls.size(), 1U);
  EXPECT_EQ(calls[0].data, nullptr);
  EXPECT_EQ(calls[0].length, 64U);
  EXPECT_EQ(buffer[0], '\0');
}

TEST_F(SocketClientSignalDataReady, ConnectsToAPath) {
  const TempDir dir;
  const Listener listener(dir.file("s"));
  ready.reset(ptz_socket_client_signal_data_ready_new(PTZ_TYPE_SOCKET_CLIENT_SIGNAL_DATA_READY, dir.file("s").c_str(),
                                                      -1, SOCK_STREAM));
  EXPECT_GE(descriptor_of(PTZ_SOCKET_CLIENT(ready.get())), 0);
  const auto peer = listener.accept();
  ready.reset();
  EXPECT_TRUE(is_at_end(peer.get()));
}

TEST_F(SocketClientSignalDataReady, WithoutACallbackWaitingDataStopTheWatch) {
  send_all(pair.theirs.get(), "abc");
  expect_stopped();
  listen();
  ptz_socket_client_add_poll(client);
  EXPECT_TRUE(run_until([&] { return !calls.empty(); }));
  EXPECT_EQ(drained, "abc");
}

TEST_F(SocketClientSignalDataReady, AnEndOfFileIsToldOnceThenTheWatchStops) {
  listen();
  shutdown(pair.theirs.get(), SHUT_WR);
  expect_stopped();
  EXPECT_EQ(calls.size(), 1U);
}

TEST_F(SocketClientSignalDataReady, EndOfFileBehindDataIsReportedOnceAfterTheData) {
  listen();
  std::vector<std::size_t> drained_at_call;
  then = [&] { drained_at_call.push_back(drained.size()); };
  send_all(pair.theirs.get(), "abc");
  shutdown(pair.theirs.get(), SHUT_WR);
  expect_stopped();
  EXPECT_EQ(drained, "abc");
  EXPECT_EQ(drained_at_call, (std::vector<std::size_t>{3, 3}));
}

TEST_F(SocketClientSignalDataReady, AHangUpStopsTheWatchUntold) {
  listen();
  pair.theirs.reset();
  expect_stopped();
  EXPECT_TRUE(calls.empty());
}

TEST_F(SocketClientSignalDataReady, CallbackMayDropTheClient) {
  listen();
  then = [&] { ready.reset(); };
  send_all(pair.theirs.get(), "abc");
  EXPECT_TRUE(run_until([&] { return !calls.empty(); }));
  send_all(pair.theirs.get(), "def");
  EXPECT_LT(iterations_within(look_ms), few_iterations);
  EXPECT_EQ(calls.size(), 1U);
}

TEST_F(SocketClientSignalDataReady, CallbackMayDropTheClientAtTheEndOfFile) {
  listen();
  then = [&] { ready.reset(); };
  shutdown(pair.theirs.get(), SHUT_WR);
  EXPECT_TRUE(run_until([&] { return !calls.empty(); }));
  EXPECT_LT(iterations_within(look_ms), few_iterations);
  EXPECT_EQ(calls.size(), 1U);
}

}  // namespace
