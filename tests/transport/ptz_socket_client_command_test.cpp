#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <ptz_socket_client_command.h>
#include <sys/select.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <map>
#include <thread>

#include "clock.h"
#include "command_ends.h"
#include "faults.h"
#include "peers.h"
#include "select_hook.h"
#include "syslog_capture.h"

using namespace ptz_test;

namespace {

static_assert(sizeof(PTZSocketClientCommandClass) == sizeof(PTZSocketClientClass));

constexpr std::int64_t expiry_ms = 360'000;

std::string time_out_message(std::int32_t id) {
  return "ptz_socket_client_command_sync_send: Timeout waiting for response to message " + std::to_string(id) + "!";
}

// Lets every wait of a synchronous call pass at once, in time that did not.
class NobodyAnswers {
  std::vector<long> waits_;
  SelectHook hook_{[this](long timeout_ms) -> std::optional<int> {
    waits_.push_back(timeout_ms);
    advance_clock(timeout_ms);
    return 0;
  }};

 public:
  [[nodiscard]] const std::vector<long> &waits() const { return waits_; }
};

// What a socket takes before it is full, and the waiting for it to take more in time that does not pass.
class LittleRoom {
  std::int64_t room_;
  Interposer interposer_;

 public:
  LittleRoom(int fd, std::int64_t room)
      : room_(room), interposer_([this, fd](Attempt &attempt) -> std::optional<Outcome> {
          if (attempt.fd != fd) return std::nullopt;
          if (attempt.call == Call::poll && room_ == 0) {
            EXPECT_LE(attempt.argument, 1000);
            advance_clock(attempt.argument);
            return Outcome{0};
          }
          if (attempt.call != Call::write) return std::nullopt;
          if (room_ == 0) return Outcome{-1, EAGAIN};
          attempt.argument = std::min(attempt.argument, room_);
          room_ -= attempt.argument;
          return std::nullopt;
        }) {}
};

class SocketClientCommand : public testing::Test {
 protected:
  Pair pair;
  int peer = pair.theirs.get();
  std::vector<std::unique_ptr<Answer>> answers;  // outlives the client, which may release them
  CommandClient client{pair.ours.get()};

  Answer &send(std::string_view body = "question") {
    answers.push_back(std::make_unique<Answer>());
    EXPECT_TRUE(client.send(body, answers.back().get()));
    return *answers.back();
  }
  void reply(std::string_view bytes) {
    EXPECT_TRUE(send_all(peer, bytes));
    run_pending();
  }
  gssize read(gpointer out, gsize out_size) {
    auto *socket = PTZ_SOCKET(client.get());
    return PTZ_SOCKET_GET_CLASS(socket)->read(socket, client.fd(), out, out_size, 0);
  }
  // A peer that takes one request and then does this with its id.
  auto peer_does(std::function<void(std::uint32_t id)> with_request) {
    return in_thread([this, with_request] {
      const auto request = receive_frame(peer);
      if (request) with_request(request->id);
      return request.has_value();
    });
  }
};

TEST_F(SocketClientCommand, IsAClassOfItsOwnUnderTheClient) {
  EXPECT_STREQ(g_type_name(PTZ_TYPE_SOCKET_CLIENT_COMMAND), "PTZSocketClientCommand");
  EXPECT_EQ(g_type_parent(PTZ_TYPE_SOCKET_CLIENT_COMMAND), PTZ_TYPE_SOCKET_CLIENT);
  EXPECT_TRUE(PTZ_IS_SOCKET_CLIENT_COMMAND(client.get()));
}

TEST_F(SocketClientCommand, BeginsWithNoFrameAndNoRequest) {
  const Object<PTZSocketClientCommand> fresh(ptz_socket_client_command_new(nullptr, -1, SOCK_STREAM));
  EXPECT_EQ(fresh->fill, 0u);
  EXPECT_EQ(fresh->expected, 0xFFFFFFFFu);
  EXPECT_NE(fresh->buffer, nullptr);
  EXPECT_EQ(fresh->next_id, 0u);
  EXPECT_EQ(fresh->pending, nullptr);
  EXPECT_EQ(fresh->timeout_source, 0u);
  EXPECT_EQ(fresh->free_user_data, nullptr);
  EXPECT_EQ(fresh->free_callback, nullptr);
  EXPECT_EQ(fresh->parent_instance.callback, nullptr);
  EXPECT_TRUE(g_mutex_trylock(&fresh->mutex));
  g_mutex_unlock(&fresh->mutex);
}

TEST_F(SocketClientCommand, ConnectsToAPath) {
  const TempDir dir;
  const Listener listener(dir.file("server"));
  CommandClient on_path(dir.file("server"));
  const Descriptor accepted = listener.accept();
  EXPECT_TRUE(on_path.watched());
  EXPECT_TRUE(on_path.send("question", nullptr));
  EXPECT_EQ(receive(accepted.get(), 16), frame(0, "question"));
}

TEST_F(SocketClientCommand, AdoptsADescriptorWithoutOwningIt) {
  // The peer's end of a pair blocks, as a descriptor from elsewhere may.
  {
    const CommandClient adopting(pair.theirs.get());
    EXPECT_EQ(adopting.fd(), pair.theirs.get());
    EXPECT_TRUE(is_non_blocking(pair.theirs.get()));
  }
  EXPECT_TRUE(is_open(pair.theirs.get()));
}

TEST_F(SocketClientCommand, SendsAFrame) {
  EXPECT_TRUE(client.send("question", nullptr));
  EXPECT_EQ(receive_waiting(peer), frame(0, "question"));
}

TEST_F(SocketClientCommand, SendsHeaderAndBodyAsTwoWritesOfAtMostASecond) {
  const CallLog log;
  EXPECT_TRUE(client.send("question", nullptr));
  const auto writes = log.attempts(Call::write, client.fd()), waits = log.attempts(Call::poll, client.fd());
  ASSERT_EQ(writes.size(), 2u);
  EXPECT_EQ(writes[0].argument, 8);
  EXPECT_EQ(writes[1].argument, 8);
  for (const Attempt &wait : waits) EXPECT_EQ(wait.argument, 1000);
}

TEST_F(SocketClientCommand, CountsIdsFromZeroOverBothKindsOfRequests) {
  EXPECT_TRUE(client.send("async", nullptr));
  {
    const NobodyAnswers nobody;
    EXPECT_FALSE(client.sync_send("sync"));
  }
  send("async again");
  {
    const NobodyAnswers nobody;
    EXPECT_FALSE(client.sync_send("sync again"));
  }
  EXPECT_EQ(receive_waiting(peer),
            frame(0, "async") + frame(1, "sync") + frame(2, "async again") + frame(3, "sync again"));
  EXPECT_EQ(client.get()->next_id, 4u);
}

TEST_F(SocketClientCommand, GoesOnCountingFromTheLastId) {
  client.get()->next_id = 0xFFFFFFFF;
  Answer &last = send("last"), &first = send("first");
  EXPECT_EQ(receive_waiting(peer), frame(0xFFFFFFFF, "last") + frame(0, "first"));
  reply(frame(0, "to the first") + frame(0xFFFFFFFF, "to the last"));
  EXPECT_EQ(first.body, "to the first");
  EXPECT_EQ(last.body, "to the last");
}

class SocketClientCommandBody : public SocketClientCommand, public testing::WithParamInterface<std::size_t> {};
INSTANTIATE_TEST_SUITE_P(Length, SocketClientCommandBody, testing::Values(1, 3, 4, 5, 8, 255, 2551, 2552));

TEST_P(SocketClientCommandBody, TravelsUnchangedBothWaysAsynchronously) {
  const std::string body = body_of(GetParam());
  Answer &answer = send(body);
  EXPECT_EQ(receive_waiting(peer), frame(0, body));
  reply(frame(0, body_of(GetParam(), 1)));
  EXPECT_TRUE(answer.replied());
  EXPECT_EQ(answer.body, body_of(GetParam(), 1));
}

TEST_P(SocketClientCommandBody, TravelsUnchangedBothWaysSynchronously) {
  std::string got;
  const auto answering = in_thread([&] {
    got = receive(peer, GetParam() + 8);
    send_all(peer, frame(0, body_of(GetParam(), 1)));
  });
  EXPECT_EQ(client.sync_send(body_of(GetParam())), body_of(GetParam(), 1));
  answering.wait();
  EXPECT_EQ(got, frame(0, body_of(GetParam())));
}

TEST_F(SocketClientCommand, RefusesABodyThatFitsNoFrame) {
  const std::string too_long = body_of(PTZ_SOCKET_BODY_MAX + 1);
  Answer answer;
  EXPECT_FALSE(client.send(too_long, &answer));
  EXPECT_FALSE(client.send({too_long.data(), 0xFFFFFFFFu}, &answer));
  EXPECT_FALSE(client.sync_send(too_long));
  EXPECT_FALSE(client.sync_send({too_long.data(), 0xFFFFFFFFu}));
  EXPECT_EQ(receive_waiting(peer), "");
  EXPECT_EQ(client.pending_count(), 0u);
  client.drop();
  EXPECT_TRUE(answer.untouched());
}

TEST_F(SocketClientCommand, ReportsARequestWithoutABodyAsAFailure) {
  Answer answer;
  EXPECT_FALSE(client.send("", &answer));
  EXPECT_EQ(client.pending_count(), 0u);
  EXPECT_EQ(receive_waiting(peer), frame(0, ""));
  // The frame was whole, so that others may follow.
  EXPECT_FALSE(client.sync_send(""));
  send("question");
  EXPECT_EQ(receive_waiting(peer), frame(1, "") + frame(2, "question"));
  client.drop();
  EXPECT_TRUE(answer.untouched());
}

// Asynchronous requests.

TEST_F(SocketClientCommand, HandsAReplyToTheCallbackOnTheMainLoop) {
  Answer &answer = send();
  EXPECT_EQ(client.pending_count(), 1u);
  send_all(peer, frame(0, "answer"));
  EXPECT_TRUE(answer.untouched());
  run_pending();
  EXPECT_TRUE(answer.replied());
  EXPECT_EQ(answer.body, "answer");
  EXPECT_EQ(answer.thread, g_thread_self());
  EXPECT_EQ(client.pending_count(), 0u);
}

TEST_F(SocketClientCommand, MatchesRepliesByIdInAnyOrder) {
  for (int i = 0; i < 4; ++i) send();
  reply(frame(2, "2") + frame(0, "0") + frame(3, "3"));
  EXPECT_EQ(answers[0]->body, "0");
  EXPECT_TRUE(answers[1]->untouched());
  EXPECT_EQ(answers[2]->body, "2");
  EXPECT_EQ(answers[3]->body, "3");
  EXPECT_LT(answers[2]->turn, answers[0]->turn);
  reply(frame(1, "1"));
  EXPECT_EQ(answers[1]->body, "1");
}

TEST_F(SocketClientCommand, DropsUnknownAndRepeatedRepliesSilently) {
  const SyslogCapture log;
  const GlibLogCapture glib_log;
  Answer &answer = send();
  reply(frame(17, "unknown") + frame(0, "answer") + frame(0, "again") + frame(0xFFFFFFFF, "unknown"));
  EXPECT_TRUE(answer.replied());
  EXPECT_EQ(answer.body, "answer");
  EXPECT_TRUE(log.lines().empty());
  EXPECT_TRUE(glib_log.messages().empty());
}

TEST_F(SocketClientCommand, ReceivesAReplyInPiecesSplitAnywhere) {
  const std::string_view text = "answer in pieces";
  for (std::size_t at = 1; at < text.size() + 8; ++at) {
    Answer &answer = send();
    const std::string whole = frame(static_cast<std::uint32_t>(at - 1), text);
    reply(whole.substr(0, at));
    EXPECT_TRUE(answer.untouched()) << at;
    reply(whole.substr(at));
    EXPECT_TRUE(answer.replied()) << at;
    EXPECT_EQ(answer.body, text) << at;
  }
}

TEST_F(SocketClientCommand, ReceivesTheLongestReplyByteByByte) {
  Answer &answer = send();
  for (const char byte : frame(0, body_of(PTZ_SOCKET_BODY_MAX))) {
    EXPECT_TRUE(answer.untouched());
    reply({&byte, 1});
  }
  EXPECT_EQ(answer.body, body_of(PTZ_SOCKET_BODY_MAX));
}

TEST_F(SocketClientCommand, TellsAnEmptyReplyFromATimeOut) {
  Answer &answer = send();
  reply(frame(0, ""));
  EXPECT_EQ(answer.calls, 1);
  EXPECT_TRUE(answer.has_data);
  EXPECT_EQ(answer.body, "");
}

TEST_F(SocketClientCommand, KeepsNothingOfARequestWithoutAContext) {
  EXPECT_TRUE(client.send("forgotten", nullptr));
  EXPECT_EQ(client.get()->pending, nullptr);
  EXPECT_EQ(client.get()->timeout_source, 0u);
  reply(frame(0, "to nobody"));
  Answer &answer = send();
  reply(frame(1, "answer"));
  EXPECT_EQ(answer.body, "answer");
}

TEST_F(SocketClientCommand, ListsRequestsOldestFirstUnderOneTimer) {
  send();
  const gpointer oldest = client.get()->pending->data;
  const guint timer = client.get()->timeout_source;
  EXPECT_NE(timer, 0u);
  send();
  EXPECT_EQ(client.get()->pending->data, oldest);
  EXPECT_EQ(client.get()->timeout_source, timer);
  EXPECT_EQ(client.pending_count(), 2u);
}

TEST_F(SocketClientCommand, IgnoresRepliesWhileNoCallbackIsRegistered) {
  Answer &answer = send();
  ptz_socket_client_register_callback(client.base(), nullptr, nullptr);
  reply(frame(0, "ignored"));
  EXPECT_EQ(client.pending_count(), 1u);
  EXPECT_TRUE(answer.untouched());
  client.drop();
  EXPECT_EQ(answer.freed, 1);
}

TEST_F(SocketClientCommand, MayLoseItsLastReferenceInAReplyCallback) {
  Answer &answer = send(), &other = send();
  answer.then = [this] { client.drop(); };
  reply(frame(0, "answer") + frame(1, "too late"));
  EXPECT_TRUE(answer.replied());
  EXPECT_EQ(other.calls, 0);
  EXPECT_EQ(other.freed, 1);
}

TEST_F(SocketClientCommand, DoesNotHoldItsMutexInAReplyCallback) {
  Answer &answer = send();
  bool free_for_others = false;
  answer.then = [&] {
    free_for_others = in_thread([this] {
                        if (!g_mutex_trylock(&client.get()->mutex)) return false;
                        g_mutex_unlock(&client.get()->mutex);
                        return true;
                      }).get();
  };
  reply(frame(0, "answer"));
  EXPECT_TRUE(free_for_others);
}

TEST_F(SocketClientCommand, KeepsTheBytesOfAReplyWhileItsCallbackSends) {
  Answer &answer = send(), &other = send();
  std::string afterwards;
  answer.then = [&] {
    send("from inside");
    afterwards.assign(static_cast<const char *>(answer.data), answer.body.size());
    EXPECT_TRUE(other.untouched());
  };
  reply(frame(0, "the answer") + frame(1, "ANOTHER ONE"));
  EXPECT_EQ(afterwards, "the answer");
  EXPECT_EQ(other.body, "ANOTHER ONE");
  reply(frame(2, "to the one from inside"));
  EXPECT_EQ(answers[2]->body, "to the one from inside");
}

TEST_F(SocketClientCommand, KeepsTheBytesOfAReplyWhileItsCallbackWaitsForAnother) {
  Answer &answer = send(), &other = send();
  std::string afterwards;
  std::optional<std::string> inside;
  EXPECT_EQ(receive_waiting(peer), frame(0, "question") + frame(1, "question"));
  const auto answering = peer_does(
      [this](std::uint32_t id) { send_all(peer, frame(1, "to the other") + frame(id, "TO THE ONE INSIDE")); });
  answer.then = [&] {
    inside = client.sync_send("from inside");
    afterwards.assign(static_cast<const char *>(answer.data), answer.body.size());
  };
  reply(frame(0, "the answer"));
  answering.wait();
  EXPECT_EQ(inside, "TO THE ONE INSIDE");
  EXPECT_EQ(afterwards, "the answer");
  run_pending();
  EXPECT_EQ(other.body, "to the other");
  EXPECT_TRUE(client.watched());
}

TEST_F(SocketClientCommand, LosesNothingWhenEveryReplyCallbackSendsAgain) {
  constexpr std::uint32_t requests = 50;
  std::function<void()> again = [&] {
    if (answers.size() < requests) send().then = again;
  };
  send().then = again;
  for (std::uint32_t id = 0; id < requests; ++id) {
    ASSERT_EQ(receive_waiting(peer), frame(id, "question"));
    reply(frame(id, "answer"));
  }
  for (const auto &answer : answers) EXPECT_TRUE(answer->replied());
}

TEST_F(SocketClientCommand, IsNotCalledAgainFromAMainLoopInItsReplyCallback) {
  Answer &first = send(), &second = send();
  first.then = [&] {
    EXPECT_LT(iterations_within(20), 10);
    EXPECT_TRUE(second.untouched());
  };
  reply(frame(0, "first") + frame(1, "second"));
  EXPECT_TRUE(first.replied());
  EXPECT_TRUE(second.replied());
  EXPECT_TRUE(client.watched());
}

TEST_F(SocketClientCommand, AWatchThatWasStoppedInAReplyCallbackStaysStopped) {
  Answer &first = send(), &second = send();
  first.then = [&] {
    iterate(2);
    ptz_socket_client_remove_poll(client.base());
    iterate(2);
  };
  reply(frame(0, "first") + frame(1, "second"));
  EXPECT_TRUE(first.replied());
  EXPECT_TRUE(second.untouched());
  EXPECT_FALSE(client.watched());
  ptz_socket_client_add_poll(client.base());
  run_pending();
  EXPECT_TRUE(second.replied());
}

TEST_F(SocketClientCommand, AnExpiryInAMainLoopInAReplyCallbackIsDelivered) {
  Answer &first = send(), &second = send();
  first.then = [&] {
    advance_clock(expiry_ms + 1000);
    iterate(5);
    EXPECT_TRUE(second.timed_out());
  };
  reply(frame(0, "first"));
  EXPECT_TRUE(first.replied());
}

// Draining.

TEST_F(SocketClientCommand, HandlesUpToElevenRepliesBeforeItSends) {
  for (int i = 0; i < 15; ++i) send();
  EXPECT_EQ(receive_waiting(peer).size(), 15 * frame(0, "question").size());
  for (std::uint32_t id = 0; id < 15; ++id) send_all(peer, frame(id, "answer"));
  send();
  const auto replied = [this] {
    return std::count_if(answers.begin(), answers.end(), [](const auto &answer) { return answer->replied(); });
  };
  EXPECT_EQ(replied(), 11);
  run_pending();
  EXPECT_EQ(replied(), 15);
}

TEST_F(SocketClientCommand, HandlesWaitingRepliesInTheThreadThatSends) {
  Answer &answer = send();
  send_all(peer, frame(0, "answer"));
  const auto sender = in_thread([this] {
                        EXPECT_TRUE(client.send("another", nullptr));
                        return g_thread_self();
                      }).get();
  EXPECT_TRUE(answer.replied());
  EXPECT_EQ(answer.thread, sender);
}

TEST_F(SocketClientCommand, ASynchronousRequestHandsWaitingRepliesToTheMainLoop) {
  Answer &answer = send();
  send_all(peer, frame(0, "answer"));
  {
    const NobodyAnswers nobody;
    EXPECT_FALSE(in_thread([this] { return client.sync_send("another"); }).get());
  }
  EXPECT_TRUE(answer.untouched());
  run_pending();
  EXPECT_TRUE(answer.replied());
  EXPECT_EQ(answer.thread, g_thread_self());
}

TEST_F(SocketClientCommand, StopsHandlingWaitingRepliesAtAnIncompleteOne) {
  Answer &first = send(), &second = send();
  send_all(peer, frame(0, "answer") + frame(1, "in two pieces").substr(0, 10));
  send();
  EXPECT_TRUE(first.replied());
  EXPECT_TRUE(second.untouched());
  reply(frame(1, "in two pieces").substr(10));
  EXPECT_EQ(second.body, "in two pieces");
}

TEST_F(SocketClientCommand, HandlesNoOtherReplyFromWithinAReplyCallback) {
  Answer &first = send(), &second = send();
  first.then = [&] {
    EXPECT_TRUE(client.send("from inside", nullptr));
    EXPECT_TRUE(second.untouched());
  };
  reply(frame(0, "first") + frame(1, "second"));
  EXPECT_TRUE(second.replied());
}

TEST_F(SocketClientCommand, MayLoseItsLastReferenceWhileItDrains) {
  Answer &answer = send(), &other = send();
  answer.then = [this] { client.drop(); };
  send_all(peer, frame(0, "answer") + frame(1, "too late"));
  Answer third;
  client.send("in vain", &third);
  EXPECT_TRUE(answer.replied());
  EXPECT_LE(other.calls + other.freed, 1);
  run_pending();
  EXPECT_EQ(other.calls + other.freed, 1);
}

// The class's read.

TEST_F(SocketClientCommand, ReadCopiesTheFrameWithItsHeader) {
  Answer &answer = send();
  std::vector<char> out(PTZ_SOCKET_FRAME_MAX);
  EXPECT_LE(read(out.data(), out.size()), 0);
  send_all(peer, frame(0, "answer"));
  ASSERT_EQ(read(out.data(), out.size()), 14);
  EXPECT_EQ(std::string(out.data(), 14), frame(0, "answer"));
  EXPECT_TRUE(answer.replied());
  EXPECT_EQ(client.get()->fill, 0u);
  EXPECT_EQ(client.get()->expected, 0xFFFFFFFFu);
}

TEST_F(SocketClientCommand, ReadCopiesNoMoreThanFits) {
  for (gsize room = 1; room <= 14; ++room) {
    Answer &answer = send();
    std::vector<char> out(14, '-');
    const auto id = static_cast<std::uint32_t>(room - 1);
    send_all(peer, frame(id, "answer"));
    EXPECT_EQ(read(out.data(), room), static_cast<gssize>(room));
    EXPECT_EQ(std::string(out.data(), 14), frame(id, "answer").substr(0, room) + std::string(14 - room, '-'));
    EXPECT_EQ(answer.body, "answer");
  }
}

TEST_F(SocketClientCommand, ReadHandlesAReplyThatNobodyWantsACopyOf) {
  Answer &answer = send();
  send_all(peer, frame(0, "answer"));
  EXPECT_EQ(read(nullptr, 100), 0);
  EXPECT_TRUE(answer.replied());
}

TEST_F(SocketClientCommand, ReadOfNoDescriptorFails) {
  const SyslogCapture log;
  char out = 0;
  auto *socket = PTZ_SOCKET(client.get());
  EXPECT_EQ(PTZ_SOCKET_GET_CLASS(socket)->read(socket, -1, &out, 1, 0), -1);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SocketClientCommand, ReadKeepsHalfAHeaderAndHalfABody) {
  send_all(peer, frame(5, "body").substr(0, 3));
  EXPECT_EQ(read(nullptr, 0), 0);
  EXPECT_EQ(client.get()->fill, 3u);
  EXPECT_EQ(client.get()->expected, 0xFFFFFFFFu);
  send_all(peer, frame(5, "body").substr(3, 6));
  while (client.get()->fill < 9) ASSERT_EQ(read(nullptr, 0), 0);
  EXPECT_EQ(client.get()->expected, 12u);
}

struct ReadFailure {
  const char *description;
  int error;
  int reads_before;
  const char *message;  // empty where it is silent
};

class SocketClientCommandReadFailure : public SocketClientCommand, public testing::WithParamInterface<ReadFailure> {};
INSTANTIATE_TEST_SUITE_P(
    , SocketClientCommandReadFailure,
    testing::Values(ReadFailure{"NothingThereIsSilent", EAGAIN, 0, ""},
                    ReadFailure{"APeerThatHasGoneIsSilent", EPIPE, 0, ""},
                    ReadFailure{"AResetIsSilent", ECONNRESET, 0, ""},
                    ReadFailure{"AnythingElseInTheHeaderIsLogged", EIO, 0,
                                "ptz_socket_client_command_read_fd: Unexpected error reading header: "
                                "Input/output error"},
                    ReadFailure{"ASignalInTheHeaderIsLogged", EINTR, 0,
                                "ptz_socket_client_command_read_fd: Unexpected error reading header: "
                                "Interrupted system call"},
                    ReadFailure{"NothingBehindTheHeaderIsSilent", EAGAIN, 1, ""},
                    ReadFailure{"APeerThatHasGoneInTheBodyIsSilent", EPIPE, 1, ""},
                    ReadFailure{"AResetInTheBodyIsSilent", ECONNRESET, 1, ""},
                    ReadFailure{"AnythingElseInTheBodyIsLogged", ENOBUFS, 1,
                                "ptz_socket_client_command_read_fd: Unexpected error reading body: "
                                "No buffer space available"}),
    [](const auto &tested) { return tested.param.description; });

TEST_P(SocketClientCommandReadFailure, IsNegative) {
  const SyslogCapture log;
  send_all(peer, frame(0, "answer"));
  const Fault fault(Call::read, GetParam().error, {.fd = client.fd(), .times = 1, .skip = GetParam().reads_before});
  EXPECT_EQ(read(nullptr, 0), -1);
  EXPECT_EQ(fault.hits(), 1);
  EXPECT_EQ(log.lines().size(), *GetParam().message != '\0' ? 1u : 0u);
  EXPECT_EQ(log.count(LOG_WARNING, GetParam().message), *GetParam().message != '\0' ? 1u : 0u);
}

TEST_P(SocketClientCommandReadFailure, EndsASynchronousWaitUnlessNothingWasThere) {
  const SyslogCapture log;
  // The first read is the draining before the request.
  const Fault fault(Call::read, GetParam().error, {.fd = client.fd(), .times = 1, .skip = 1 + GetParam().reads_before});
  const auto answering = peer_does([this](std::uint32_t id) { send_all(peer, frame(id, "answer")); });
  const auto reply = client.sync_send("question");
  answering.wait();
  EXPECT_EQ(fault.hits(), 1);
  EXPECT_EQ(reply.has_value(), GetParam().error == EAGAIN);
  EXPECT_EQ(log.count(LOG_WARNING, time_out_message(0)), GetParam().error == EAGAIN ? 0u : 1u);
  EXPECT_EQ(log.count(LOG_WARNING, GetParam().message), *GetParam().message != '\0' ? 1u : 0u);
}

// Synchronous requests.

TEST_F(SocketClientCommand, AnswersASynchronousRequest) {
  const SyslogCapture log;
  const auto answering = peer_does([this](std::uint32_t id) { send_all(peer, frame(id, "answer")); });
  EXPECT_EQ(client.sync_send("question"), "answer");
  answering.wait();
  EXPECT_TRUE(client.watched());
  EXPECT_EQ(client.get()->pending, nullptr);
  EXPECT_EQ(client.get()->timeout_source, 0u);
  EXPECT_EQ(client.get()->fill, 0u);
  EXPECT_EQ(client.get()->expected, 0xFFFFFFFFu);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SocketClientCommand, AnswersASynchronousRequestWithAnEmptyReply) {
  const auto answering = peer_does([this](std::uint32_t id) { send_all(peer, frame(id, "")); });
  EXPECT_EQ(client.sync_send("question"), "");
}

TEST_F(SocketClientCommand, KeepsTheMainLoopAwayDuringASynchronousRequest) {
  bool watched_meanwhile = true;
  const auto answering = peer_does([&](std::uint32_t id) {
    watched_meanwhile = client.watched();
    send_all(peer, frame(id, "answer"));
  });
  EXPECT_EQ(client.sync_send("question"), "answer");
  answering.wait();
  EXPECT_FALSE(watched_meanwhile);
  EXPECT_TRUE(client.watched());
}

TEST_F(SocketClientCommand, AnswersASynchronousRequestInPiecesSplitAnywhere) {
  const std::string text = "answer";
  for (std::size_t at = 1; at < text.size() + 8; ++at) {
    const auto answering = peer_does([&](std::uint32_t id) {
      send_all(peer, frame(id, text).substr(0, at));
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
      send_all(peer, frame(id, text).substr(at));
    });
    EXPECT_EQ(client.sync_send("question"), text) << at;
  }
}

TEST_F(SocketClientCommand, AnswersASynchronousRequestByteByByte) {
  const auto answering = peer_does([&](std::uint32_t id) {
    for (const char byte : frame(id, "answer")) {
      send_all(peer, {&byte, 1});
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  EXPECT_EQ(client.sync_send("question"), "answer");
}

TEST_F(SocketClientCommand, WaitsTenSecondsForASynchronousReply) {
  const SyslogCapture log;
  const NobodyAnswers nobody;
  EXPECT_FALSE(client.sync_send("question"));
  EXPECT_EQ(nobody.waits(), std::vector<long>{10'000});
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{{LOG_WARNING, time_out_message(0)}}));
  EXPECT_TRUE(client.watched());
}

TEST_F(SocketClientCommand, NamesTheMessageThatTimedOut) {
  const SyslogCapture log;
  const NobodyAnswers nobody;
  EXPECT_FALSE(client.sync_send("question"));
  EXPECT_FALSE(client.sync_send("question"));
  client.get()->next_id = 0xFFFFFFFF;
  EXPECT_FALSE(client.sync_send("question"));
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{{LOG_WARNING, time_out_message(0)},
                                               {LOG_WARNING, time_out_message(1)},
                                               {LOG_WARNING, time_out_message(-1)}}));
}

TEST_F(SocketClientCommand, SpendsItsTenSecondsOnceWhateverArrivesMeanwhile) {
  std::vector<long> waits;
  const SelectHook hook([&](long timeout_ms) -> std::optional<int> {
    waits.push_back(timeout_ms);
    if (waits.size() <= 3) {
      advance_clock(3000);
      send_all(peer, frame(99, "not for this request"));
      return std::nullopt;
    }
    advance_clock(timeout_ms);
    return 0;
  });
  EXPECT_FALSE(client.sync_send("question"));
  ASSERT_EQ(waits.size(), 4u);
  for (std::size_t i = 0; i < waits.size(); ++i) EXPECT_NEAR(waits[i], 10'000 - 3000 * static_cast<long>(i), 100);
}

TEST_F(SocketClientCommand, ALateReplyToASynchronousRequestIsDropped) {
  {
    const NobodyAnswers nobody;
    EXPECT_FALSE(client.sync_send("question"));
  }
  ASSERT_TRUE(receive_frame(peer));
  reply(frame(0, "late"));
  const auto answering =
      peer_does([this](std::uint32_t id) { send_all(peer, frame(0, "later still") + frame(id, "answer")); });
  EXPECT_EQ(client.sync_send("another"), "answer");
}

TEST_F(SocketClientCommand, LogsAWaitThatFails) {
  const SyslogCapture log;
  const SelectHook hook([](long) -> std::optional<int> {
    errno = ENOMEM;
    return -1;
  });
  EXPECT_FALSE(client.sync_send("question"));
  EXPECT_EQ(log.lines(),
            (std::vector<LogLine>{{LOG_WARNING,
                                   "ptz_socket_client_command_sync_send: Error waiting for sync reply from socket! "
                                   "Cannot allocate memory"},
                                  {LOG_WARNING, time_out_message(0)}}));
  EXPECT_TRUE(client.watched());
}

TEST_F(SocketClientCommand, ASignalIsToldOnceAndNeitherEndsNorProlongsAWait) {
  const SyslogCapture log;
  int waits = 0;
  const SelectHook hook([&](long) -> std::optional<int> {
    ++waits;
    advance_clock(1000);
    errno = EINTR;
    return -1;
  });
  EXPECT_FALSE(client.sync_send("question"));
  EXPECT_NEAR(waits, 10, 1);
  EXPECT_EQ(log.lines(),
            (std::vector<LogLine>{{LOG_WARNING,
                                   "ptz_socket_client_command_sync_send: Error waiting for sync reply from socket! "
                                   "Interrupted system call"},
                                  {LOG_WARNING, time_out_message(0)}}));
}

TEST_F(SocketClientCommand, FailedWaitAfterAnInterruptedOneIsLoggedToo) {
  const SyslogCapture log;
  int waits = 0;
  const SelectHook hook([&](long) -> std::optional<int> {
    errno = ++waits == 1 ? EINTR : ENOMEM;
    return -1;
  });
  EXPECT_FALSE(client.sync_send("question"));
  const std::string prefix = "ptz_socket_client_command_sync_send: Error waiting for sync reply from socket! ";
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{{LOG_WARNING, prefix + "Interrupted system call"},
                                               {LOG_WARNING, prefix + "Cannot allocate memory"},
                                               {LOG_WARNING, time_out_message(0)}}));
}

TEST_F(SocketClientCommand, RealSignalsDoNotEndAWait) {
  struct sigaction action {
  }, before{};
  static std::atomic<int> signals = 0;
  action.sa_handler = [](int) { ++signals; };  // without SA_RESTART
  sigaction(SIGALRM, &action, &before);
  std::atomic<bool> done = false;
  std::optional<std::string> reply;
  std::thread requester([&] {
    reply = client.sync_send("question");
    done = true;
  });
  const auto request = receive_frame(peer);
  EXPECT_TRUE(request);
  for (int i = 0; i < 20; ++i) {
    pthread_kill(requester.native_handle(), SIGALRM);
    g_usleep(1000);
  }
  EXPECT_FALSE(done);
  send_all(peer, frame(0, "answer"));
  requester.join();
  sigaction(SIGALRM, &before, nullptr);
  EXPECT_GT(signals, 0);
  EXPECT_EQ(reply, "answer");
}

TEST_F(SocketClientCommand, ASynchronousRequestThatCannotBeSentFailsAtOnce) {
  const SyslogCapture log;
  {
    const Fault fault(Call::write, EPIPE, {.fd = client.fd()});
    EXPECT_FALSE(client.sync_send("question"));
  }
  EXPECT_TRUE(log.lines().empty());
  EXPECT_TRUE(client.watched());
  const auto answering = peer_does([this](std::uint32_t id) { send_all(peer, frame(id, "answer")); });
  EXPECT_EQ(client.sync_send("another"), "answer");
  EXPECT_EQ(client.get()->next_id, 2u);
}

TEST_F(SocketClientCommand, AnAsynchronousRequestThatCannotBeSentStopsTheWatch) {
  Answer answer;
  {
    const Fault fault(Call::write, EPIPE, {.fd = client.fd()});
    EXPECT_FALSE(client.send("question", &answer));
  }
  EXPECT_FALSE(client.watched());
  EXPECT_EQ(client.pending_count(), 0u);
  Answer &second = send("another");
  EXPECT_FALSE(client.watched());
  reply(frame(1, "answer"));
  EXPECT_TRUE(second.untouched());
  ptz_socket_client_add_poll(client.base());
  run_pending();
  EXPECT_TRUE(second.replied());
  client.drop();
  EXPECT_TRUE(answer.untouched());
}

TEST_F(SocketClientCommand, SendingToAPeerThatHasGoneFails) {
  pair.theirs.reset();
  Answer answer;
  EXPECT_FALSE(client.send("question", &answer));
  EXPECT_FALSE(client.sync_send("question"));
  client.drop();
  EXPECT_TRUE(answer.untouched());
}

TEST_F(SocketClientCommand, WorksOnDescriptorsAboveThoseOfAnFdSet) {
  for (const int number : {FD_SETSIZE - 1, FD_SETSIZE, FD_SETSIZE + 1, 3000}) {
    Pair high_pair;
    const Descriptor high = move_up(std::move(high_pair.ours), number);
    if (!high) GTEST_SKIP() << "this system allows no descriptor " << number;
    CommandClient high_client(high.get());
    const auto answering = in_thread([&] {
      for (int i = 0; i < 2; ++i) {
        const auto request = receive_frame(high_pair.theirs.get());
        if (request) send_all(high_pair.theirs.get(), frame(request->id, "answer"));
      }
    });
    EXPECT_EQ(high_client.sync_send("question"), "answer") << number;
    Answer answer;
    EXPECT_TRUE(high_client.send("question", &answer));
    EXPECT_TRUE(run_until([&] { return answer.replied(); })) << number;
  }
}

TEST_F(SocketClientCommand, WaitsOnDescriptorsAboveThoseOfAnFdSetForThatOneOnly) {
  Pair high_pair;
  const Descriptor high = move_up(std::move(high_pair.ours), 2 * FD_SETSIZE + 1);
  if (!high) GTEST_SKIP() << "this system allows no such descriptor";
  CommandClient high_client(high.get());
  std::future<void> answering;
  {
    const SelectHook hook([&](long) -> std::optional<int> {
      if (answering.valid()) return std::nullopt;
      answering = in_thread([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        send_all(high_pair.theirs.get(), frame(0, "answer"));
      });
      return std::nullopt;
    });
    EXPECT_EQ(high_client.sync_send("question"), "answer");
  }
  answering.wait();
}

TEST_F(SocketClientCommand, ASynchronousRequestOfAnUnconnectedClientFails) {
  const TempDir dir;
  CommandClient unconnected(dir.file("nobody"));
  const SyslogCapture log;
  const NobodyAnswers nobody;
  EXPECT_FALSE(unconnected.sync_send("question"));
  EXPECT_EQ(log.count(LOG_WARNING, time_out_message(0)), 1u);
}

TEST_F(SocketClientCommand, ASynchronousRequestNeedsNoReplyCallback) {
  ptz_socket_client_register_callback(client.base(), nullptr, nullptr);
  const auto answering = peer_does([this](std::uint32_t id) { send_all(peer, frame(id, "answer")); });
  EXPECT_EQ(client.sync_send("question"), "answer");
}

TEST_F(SocketClientCommand, EndsAWaitAtOnceWhenTheServerCloses) {
  const SyslogCapture log;
  for (const bool half_a_reply : {false, true}) {
    for (const bool only_half_closed : {false, true}) {
      Pair line;
      CommandClient waiting(line.ours.get());
      const auto closing = in_thread([&] {
        const auto request = receive_frame(line.theirs.get());
        if (half_a_reply) send_all(line.theirs.get(), frame(0, "answer").substr(0, 10));
        if (only_half_closed) {
          shutdown(line.theirs.get(), SHUT_WR);
        } else {
          line.theirs.reset();
        }
        return request.has_value();
      });
      const auto start = real_time_ms();
      timespec cpu_start{}, cpu_end{};
      clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu_start);
      EXPECT_FALSE(waiting.sync_send("question"));
      clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu_end);
      EXPECT_LT(real_time_ms() - start, 2000);
      const auto cpu_ms =
          (cpu_end.tv_sec - cpu_start.tv_sec) * 1000 + (cpu_end.tv_nsec - cpu_start.tv_nsec) / 1'000'000;
      EXPECT_LT(cpu_ms, 200);
      closing.wait();
      EXPECT_LT(iterations_within(20), 10);
    }
  }
  EXPECT_EQ(log.lines(), std::vector<LogLine>(4, {LOG_WARNING, time_out_message(0)}));
}

TEST_F(SocketClientCommand, HandsTheRepliesOfOthersToTheMainLoop) {
  Answer &first = send(), &second = send();
  ASSERT_TRUE(receive_frame(peer) && receive_frame(peer));
  const auto answering = peer_does([this](std::uint32_t id) {
    send_all(peer,
             frame(1, "second") + frame(77, "unknown") + frame(0, body_of(PTZ_SOCKET_BODY_MAX)) + frame(id, "answer"));
  });
  const auto reply = in_thread([this] { return client.sync_send("question"); }).get();
  EXPECT_EQ(reply, "answer");
  EXPECT_TRUE(first.untouched());
  EXPECT_TRUE(second.untouched());
  EXPECT_EQ(client.pending_count(), 2u);
  run_pending();
  EXPECT_TRUE(first.replied());
  EXPECT_TRUE(second.replied());
  EXPECT_EQ(first.body, body_of(PTZ_SOCKET_BODY_MAX));
  EXPECT_EQ(second.body, "second");
  EXPECT_EQ(first.thread, g_thread_self());
  EXPECT_LT(second.turn, first.turn);
  EXPECT_EQ(client.pending_count(), 0u);
}

TEST_F(SocketClientCommand, HandsOneRequestOnlyOneReplyEvenWhereTwoWereDeferred) {
  Answer &answer = send();
  ASSERT_TRUE(receive_frame(peer));
  const auto answering =
      peer_does([this](std::uint32_t id) { send_all(peer, frame(0, "one") + frame(0, "two") + frame(id, "answer")); });
  EXPECT_EQ(client.sync_send("question"), "answer");
  run_pending();
  EXPECT_TRUE(answer.replied());
  EXPECT_EQ(answer.body, "one");
}

class DeferredReply : public SocketClientCommand {
 protected:
  Answer &answer = send();

  void SetUp() override {
    ASSERT_TRUE(receive_frame(peer));
    const auto answering =
        peer_does([this](std::uint32_t id) { send_all(peer, frame(0, "deferred") + frame(id, "answer")); });
    ASSERT_EQ(client.sync_send("question"), "answer");
    ASSERT_TRUE(answer.untouched());
  }
};

TEST_F(DeferredReply, IsHarmlessOnceTheClientHasGone) {
  client.drop();
  run_pending();
  EXPECT_EQ(answer.calls + answer.freed, 1);
}

TEST_F(DeferredReply, MayDropTheClient) {
  Answer &other = send();
  answer.then = [this] { client.drop(); };
  run_pending();
  EXPECT_TRUE(answer.replied());
  EXPECT_EQ(other.freed, 1);
}

TEST_F(DeferredReply, IsDroppedWhereItsRequestTimedOutFirst) {
  advance_clock(expiry_ms + 1000);
  run_pending();
  EXPECT_EQ(answer.calls, 1);
  EXPECT_EQ(answer.freed, 0);
}

TEST_F(DeferredReply, IsIgnoredWithoutACallback) {
  ptz_socket_client_register_callback(client.base(), nullptr, nullptr);
  run_pending();
  EXPECT_TRUE(answer.untouched());
  EXPECT_EQ(client.pending_count(), 1u);
}

TEST_F(DeferredReply, MaySendFromItsCallback) {
  std::string afterwards;
  const auto answering = peer_does([this](std::uint32_t id) { send_all(peer, frame(id, "TO THE INNER")); });
  answer.then = [&] {
    EXPECT_EQ(client.sync_send("from inside"), "TO THE INNER");
    afterwards.assign(static_cast<const char *>(answer.data), answer.body.size());
  };
  run_pending();
  EXPECT_EQ(afterwards, "deferred");
}

// Time-outs.

class RequestExpiry : public SocketClientCommand {
 protected:
  void pass(std::int64_t milliseconds) {
    advance_clock(milliseconds);
    run_pending();
  }
};

TEST_F(RequestExpiry, ComesSixMinutesAfterTheRequest) {
  Answer &answer = send();
  pass(expiry_ms - 1500);
  EXPECT_TRUE(answer.untouched());
  pass(3000);
  EXPECT_TRUE(answer.timed_out());
  EXPECT_EQ(answer.thread, g_thread_self());
  EXPECT_EQ(client.pending_count(), 0u);
  EXPECT_EQ(client.get()->timeout_source, 0u);
}

TEST_F(RequestExpiry, IsRightToTheSecondAtAnyFractionOfOne) {
  for (int phase = 0; phase < 10; ++phase) {
    advance_clock(100);
    Answer &answer = send();
    std::int64_t elapsed = expiry_ms - 3000;
    pass(elapsed);
    for (; answer.untouched() && elapsed < expiry_ms + 3000; elapsed += 100) pass(100);
    EXPECT_TRUE(answer.timed_out());
    EXPECT_GE(elapsed, expiry_ms - 1000);
    EXPECT_LE(elapsed, expiry_ms + 1100);
  }
}

TEST_F(RequestExpiry, AReplyAfterItIsDropped) {
  Answer &answer = send();
  pass(expiry_ms + 1000);
  ASSERT_TRUE(answer.timed_out());
  reply(frame(0, "late"));
  EXPECT_TRUE(answer.timed_out());
}

TEST_F(RequestExpiry, ReachesOneRequestPerTimerRunOldestFirst) {
  for (int i = 0; i < 3; ++i) send();
  answers[0]->then = [this] { EXPECT_TRUE(answers[1]->untouched()); };
  answers[1]->then = [this] { EXPECT_TRUE(answers[2]->untouched()); };
  pass(expiry_ms + 1000);
  EXPECT_TRUE(answers[0]->timed_out());
  for (int i = 0; i < 3; ++i) pass(1000);
  for (const auto &answer : answers) EXPECT_TRUE(answer->timed_out());
  EXPECT_LT(answers[0]->turn, answers[1]->turn);
  EXPECT_LT(answers[1]->turn, answers[2]->turn);
  EXPECT_NE(answers[0]->source, answers[1]->source);
  EXPECT_NE(answers[1]->source, answers[2]->source);
  EXPECT_EQ(client.get()->timeout_source, 0u);
}

TEST_F(RequestExpiry, FollowsAtOnceForEveryRequestThatIsDue) {
  for (int phase = 0; phase < 10; ++phase) {
    advance_clock(100);
    for (int i = 0; i < 5; ++i) send();
    pass(expiry_ms + 1000);
    EXPECT_TRUE(std::all_of(answers.begin(), answers.end(), [](const auto &answer) { return answer->timed_out(); }))
        << "at " << phase * 100 << " ms of a second";
    for (int i = 0; i < 5; ++i) pass(1000);
    EXPECT_FALSE(receive_waiting(peer).empty());
  }
}

TEST_F(RequestExpiry, FollowsEachRequestsOwnTime) {
  Answer &first = send();
  pass(100'000);
  Answer &second = send();
  pass(expiry_ms - 100'000 + 1000);
  EXPECT_TRUE(first.timed_out());
  EXPECT_TRUE(second.untouched());
  pass(100'000 - 3000);
  EXPECT_TRUE(second.untouched());
  pass(4000);
  EXPECT_TRUE(second.timed_out());
}

TEST_F(RequestExpiry, OfALaterRequestIsNotHurriedByAnAnsweredOne) {
  Answer &first = send();
  pass(50'000);
  Answer &second = send();
  reply(frame(0, "answer"));
  EXPECT_TRUE(first.replied());
  pass(expiry_ms - 50'000 + 1000);
  EXPECT_TRUE(second.untouched());
  EXPECT_NE(client.get()->timeout_source, 0u);
  pass(50'000 + 1000);
  EXPECT_TRUE(second.timed_out());
}

TEST_F(RequestExpiry, TimerEndsWithTheLastRequestAndStartsWithTheNext) {
  send();
  reply(frame(0, "answer"));
  pass(expiry_ms + 1000);
  EXPECT_EQ(client.get()->timeout_source, 0u);
  Answer &answer = send();
  EXPECT_NE(client.get()->timeout_source, 0u);
  pass(expiry_ms + 1000);
  EXPECT_TRUE(answer.timed_out());
}

TEST_F(RequestExpiry, OfAnUnconnectedClientsRequestComesToo) {
  const TempDir dir;
  CommandClient unconnected(dir.file("nobody"));
  Answer answer;
  EXPECT_TRUE(unconnected.send("into the void", &answer));
  pass(expiry_ms + 1000);
  EXPECT_TRUE(answer.timed_out());
}

TEST_F(RequestExpiry, WithoutAReplyCallbackReleasesTheContext) {
  Answer &answer = send();
  ptz_socket_client_register_callback(client.base(), nullptr, nullptr);
  pass(expiry_ms + 1000);
  EXPECT_EQ(answer.calls, 0);
  EXPECT_EQ(answer.freed, 1);
  EXPECT_EQ(client.pending_count(), 0u);
}

TEST_F(RequestExpiry, WithoutAnyCallbackIsHarmless) {
  Answer &answer = send();
  ptz_socket_client_register_callback(client.base(), nullptr, nullptr);
  ptz_socket_client_command_register_free_callback(client.get(), nullptr, nullptr);
  pass(expiry_ms + 1000);
  EXPECT_TRUE(answer.untouched());
  EXPECT_EQ(client.pending_count(), 0u);
}

TEST_F(RequestExpiry, CallbackRunsUnderTheMutexAgainstOtherThreads) {
  Answer &answer = send();
  bool held = false;
  answer.then = [&] {
    held = in_thread([this] {
             if (!g_mutex_trylock(&client.get()->mutex)) return true;
             g_mutex_unlock(&client.get()->mutex);
             return false;
           }).get();
  };
  pass(expiry_ms + 1000);
  EXPECT_TRUE(held);
  EXPECT_TRUE(g_mutex_trylock(&client.get()->mutex));
  g_mutex_unlock(&client.get()->mutex);
}

TEST_F(RequestExpiry, CallbackMaySendAgainAndLosesNothing) {
  Answer &first = send(), &second = send();
  first.then = [this] { send("again"); };
  pass(expiry_ms + 1000);
  pass(1000);
  EXPECT_TRUE(first.timed_out());
  EXPECT_TRUE(second.timed_out());
  ASSERT_EQ(answers.size(), 3u);
  EXPECT_TRUE(answers[2]->untouched());
  EXPECT_EQ(receive_waiting(peer), frame(0, "question") + frame(1, "question") + frame(2, "again"));
  reply(frame(2, "answer"));
  EXPECT_TRUE(answers[2]->replied());
}

TEST_F(RequestExpiry, CallbackOfTheOnlyRequestMaySendTheNext) {
  for (int i = 0; i < 3; ++i) {
    Answer &answer = i == 0 ? send() : *answers.back();
    answer.then = [this] { send("again"); };
    pass(expiry_ms + 1000);
    EXPECT_TRUE(answer.timed_out());
    EXPECT_EQ(client.pending_count(), 1u);
    EXPECT_NE(client.get()->timeout_source, 0u);
  }
}

TEST_F(RequestExpiry, CallbackMaySendWhileRepliesWait) {
  Answer &first = send(), &second = send();
  first.then = [this] { send("again"); };
  advance_clock(expiry_ms + 1000);
  send_all(peer, frame(1, "just in time"));
  run_pending();
  pass(1000);
  EXPECT_EQ(first.calls, 1);
  EXPECT_EQ(second.calls, 1);
  EXPECT_EQ(answers.back()->calls, 0);
}

TEST_F(RequestExpiry, CallbackMayWaitForAnotherRequest) {
  Answer &first = send(), &second = send();
  EXPECT_EQ(receive_waiting(peer).size(), 32u);
  const auto answering =
      peer_does([this](std::uint32_t id) { send_all(peer, frame(1, "to the second") + frame(id, "to the inner")); });
  std::optional<std::string> inner;
  first.then = [&] { inner = client.sync_send("from inside"); };
  pass(expiry_ms + 1000);
  EXPECT_EQ(inner, "to the inner");
  pass(1000);
  EXPECT_EQ(second.calls, 1);
}

TEST_F(RequestExpiry, CallbackMayDropTheClient) {
  Answer &first = send(), &second = send();
  first.then = [this] { client.drop(); };
  pass(expiry_ms + 1000);
  EXPECT_TRUE(first.timed_out());
  EXPECT_EQ(second.calls, 0);
  EXPECT_EQ(second.freed, 1);
}

TEST_F(RequestExpiry, CallbackMayRunTheMainLoop) {
  Answer &first = send(), &second = send(), &third = send();
  first.then = [&] {
    send_all(peer, frame(1, "meanwhile"));
    iterate(10);
  };
  pass(expiry_ms + 1000);
  pass(1000);
  EXPECT_TRUE(first.timed_out());
  EXPECT_EQ(second.calls, 1);
  EXPECT_EQ(third.calls, 1);
  EXPECT_EQ(client.pending_count(), 0u);
  EXPECT_EQ(client.get()->timeout_source, 0u);
}

TEST_F(RequestExpiry, AnEntryWithoutDataIsLoggedAndRemoved) {
  send();
  g_mutex_lock(&client.get()->mutex);
  client.get()->pending = g_list_prepend(client.get()->pending, nullptr);
  g_mutex_unlock(&client.get()->mutex);
  const SyslogCapture log;
  pass(expiry_ms + 1000);
  pass(1000);
  EXPECT_EQ(log.count(LOG_ERR, "ptz_socket_client_command_cmd_timeout: Entry without data"), 1u);
  EXPECT_TRUE(answers[0]->timed_out());
}

TEST_F(RequestExpiry, TwoEntriesWithoutDataEndTheTimer) {
  Answer &answer = send();
  g_mutex_lock(&client.get()->mutex);
  for (int i = 0; i < 2; ++i) client.get()->pending = g_list_prepend(client.get()->pending, nullptr);
  g_mutex_unlock(&client.get()->mutex);
  const SyslogCapture log;
  pass(expiry_ms + 1000);
  EXPECT_EQ(log.containing("Entry without data"), 1u);
  EXPECT_EQ(client.get()->timeout_source, 0u);
  EXPECT_TRUE(answer.untouched());
  client.drop();
  EXPECT_EQ(answer.freed, 1);
}

// The end of a client.

TEST_F(SocketClientCommand, ReleasesEachPendingRequestOnceWhenItEnds) {
  for (int i = 0; i < 3; ++i) send();
  reply(frame(1, "answer"));
  const guint timer = client.get()->timeout_source;
  client.drop();
  EXPECT_EQ(answers[0]->freed, 1);
  EXPECT_TRUE(answers[1]->replied());
  EXPECT_EQ(answers[2]->freed, 1);
  EXPECT_EQ(answers[0]->free_user_data, &client);
  EXPECT_EQ(g_main_context_find_source_by_id(nullptr, timer), nullptr);
  advance_clock(expiry_ms + 1000);
  run_pending();
  EXPECT_EQ(answers[0]->calls, 0);
}

TEST_F(SocketClientCommand, EndsWithPendingRequestsAndNoFreeCallback) {
  Answer &answer = send();
  ptz_socket_client_command_register_free_callback(client.get(), nullptr, nullptr);
  client.drop();
  EXPECT_TRUE(answer.untouched());
}

TEST_F(SocketClientCommand, CleanupOfAnEntryReleasesItsContext) {
  Answer &answer = send();
  g_mutex_lock(&client.get()->mutex);
  gpointer entry = client.get()->pending->data;
  client.get()->pending = g_list_delete_link(client.get()->pending, client.get()->pending);
  g_mutex_unlock(&client.get()->mutex);
  cleanup_table_entry(entry, client.get());
  EXPECT_EQ(answer.freed, 1);
  EXPECT_EQ(answer.free_user_data, &client);
  client.drop();
  EXPECT_EQ(answer.freed, 1);
}

// Peers that lie, stall or leave.

class ReplyLength : public SocketClientCommand, public testing::WithParamInterface<std::uint32_t> {};
INSTANTIATE_TEST_SUITE_P(ThatCannotBe, ReplyLength,
                         testing::Values(0, 1, 2, 3, 4, 5, 6, 7, 2561, 2568, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFE,
                                         0xFFFFFFFF));

TEST_P(ReplyLength, StopsTheWatchAndLeavesRequestsToTheirTimeOut) {
  Answer &answer = send();
  reply(frame_claiming(GetParam(), 0, "").substr(0, 4));
  EXPECT_FALSE(client.watched());
  EXPECT_EQ(client.get()->fill, 0u);
  EXPECT_EQ(client.get()->expected, 0xFFFFFFFFu);
  EXPECT_LT(iterations_within(10), 10);
  EXPECT_TRUE(answer.untouched());
  advance_clock(expiry_ms + 1000);
  run_pending();
  EXPECT_TRUE(answer.timed_out());
}

TEST_P(ReplyLength, EndsAClientThatNoMainLoopWatches) {
  const Pair other;
  const Object<PTZSocket> socket(
      ptz_socket_fd_new(PTZ_TYPE_SOCKET_CLIENT_COMMAND, PTZ_SOCKET_MODE_CLIENT, other.ours.get(), SOCK_STREAM));
  send_all(other.theirs.get(), frame_claiming(GetParam(), 0, ""));
  guint8 reply[PTZ_SOCKET_BODY_MAX];
  guint32 length = 0;
  for (int i = 0; i < 2; ++i) {
    EXPECT_FALSE(ptz_socket_client_command_sync_send(PTZ_SOCKET_CLIENT_COMMAND(socket.get()), "q", 1, reply, &length));
  }
  EXPECT_EQ(length, 0u);
}

TEST_P(ReplyLength, LetsNothingBehindItPassForAReply) {
  Answer &answer = send();
  reply(frame_claiming(GetParam(), 0, body_of(12)) + frame(0, "forged"));
  EXPECT_FALSE(client.watched());
  // Each of these would look a little further for a reply.
  for (int i = 0; i < 10; ++i) client.send("another", nullptr);
  {
    const NobodyAnswers nobody;
    for (int i = 0; i < 10; ++i) client.sync_send("another");
  }
  run_pending();
  EXPECT_TRUE(answer.untouched());
}

TEST_P(ReplyLength, IsSeenByteByByteToo) {
  Answer &answer = send();
  for (const char byte : frame_claiming(GetParam(), 0, "").substr(0, 4)) {
    EXPECT_TRUE(client.watched());
    reply({&byte, 1});
  }
  EXPECT_FALSE(client.watched());
  EXPECT_TRUE(answer.untouched());
}

TEST_P(ReplyLength, EndsASynchronousWaitAtOnce) {
  const SyslogCapture log;
  const auto answering = peer_does(
      [this](std::uint32_t id) { send_all(peer, frame_claiming(GetParam(), id, "lies") + frame(id, "forged")); });
  const auto start = real_time_ms();
  EXPECT_FALSE(client.sync_send("question"));
  EXPECT_LT(real_time_ms() - start, 2000);
  EXPECT_EQ(log.count(LOG_WARNING, time_out_message(0)), 1u);
  answering.wait();
  EXPECT_FALSE(client.watched());
  EXPECT_LT(iterations_within(10), 10);
}

// A client on a path, whose server this test plays.
class SocketClientCommandAddRetry : public testing::Test {
 protected:
  TempDir dir;
  std::string path = dir.file("server");
  Listener listener{path};
  CommandClient client{path};
  Descriptor peer = listener.accept();

  guint add_retry() {
    auto *socket = PTZ_SOCKET(client.get());
    return PTZ_SOCKET_GET_CLASS(socket)->add_retry(socket);
  }
  void reconnect() {
    GSource *timer = g_main_context_find_source_by_id(nullptr, PTZ_SOCKET(client.get())->retry_source);
    ASSERT_NE(timer, nullptr);
    g_source_set_ready_time(timer, 0);
    ASSERT_TRUE(run_until([this] { return client.fd() >= 0; }));
    peer = listener.accept();
  }
  std::optional<std::string> ask() {
    auto reply = in_thread([this] { return client.sync_send("question"); });
    const auto request = receive_frame(peer.get());
    EXPECT_TRUE(request);
    if (request) send_all(peer.get(), frame(request->id, "answer"));
    return reply.get();
  }
};

TEST_F(SocketClientCommandAddRetry, ReturnsTheTimerAndClosesTheDescriptor) {
  const guint timer = add_retry();
  EXPECT_EQ(timer, PTZ_SOCKET(client.get())->retry_source);
  EXPECT_NE(timer, 0u);
  EXPECT_EQ(client.fd(), -1);
}

TEST_F(SocketClientCommandAddRetry, ForgetsAPartialFrame) {
  send_all(peer.get(), frame(7, "never completed").substr(0, 9));
  run_pending();
  ASSERT_EQ(client.get()->fill, 9u);
  add_retry();
  EXPECT_EQ(client.get()->fill, 0u);
  EXPECT_EQ(client.get()->expected, 0xFFFFFFFFu);
  reconnect();
  EXPECT_EQ(ask(), "answer");
}

TEST_F(SocketClientCommandAddRetry, ForgetsThatTheStreamIsDesynchronised) {
  send_all(peer.get(), frame_claiming(3, 0, ""));
  run_pending();
  ASSERT_FALSE(client.watched());
  add_retry();
  reconnect();
  EXPECT_EQ(ask(), "answer");
}

TEST_F(SocketClientCommandAddRetry, EndsASynchronousCallAtOnce) {
  const auto start = real_time_ms();
  auto reply = in_thread([this] { return client.sync_send("question"); });
  ASSERT_TRUE(receive_frame(peer.get()));
  add_retry();
  EXPECT_FALSE(reply.get());
  EXPECT_LT(real_time_ms() - start, 5000);
}

TEST_F(SocketClientCommand, StopsWatchingAtTheEndOfTheStream) {
  Answer &answered = send(), &pending = send();
  send_all(peer, frame(0, "last answer") + frame(1, "cut").substr(0, 9));
  shutdown(peer, SHUT_WR);
  EXPECT_LT(iterations_within(20), 15);
  EXPECT_FALSE(client.watched());
  EXPECT_TRUE(answered.replied());
  EXPECT_TRUE(pending.untouched());
  advance_clock(expiry_ms + 1000);
  run_pending();
  EXPECT_TRUE(pending.timed_out());
}

TEST_F(SocketClientCommand, StopsWatchingWhenThePeerHangsUp) {
  Answer &answer = send();
  pair.theirs.reset();
  EXPECT_LT(iterations_within(20), 15);
  EXPECT_FALSE(client.watched());
  EXPECT_TRUE(answer.untouched());
}

TEST_F(SocketClientCommand, StopsWatchingADescriptorThatWasClosedUnderIt) {
  pair.ours.reset();
  EXPECT_LT(iterations_within(20), 15);
  EXPECT_FALSE(client.watched());
}

struct CutRequest {
  const char *description;
  std::int64_t room;
};

class CutFrame : public SocketClientCommand, public testing::WithParamInterface<CutRequest> {};
INSTANTIATE_TEST_SUITE_P(, CutFrame,
                         testing::Values(CutRequest{"OneByteOfTheHeader", 1}, CutRequest{"MostOfTheHeader", 7},
                                         CutRequest{"TheHeaderAlone", 8}, CutRequest{"OneByteOfTheBody", 9},
                                         CutRequest{"MostOfTheBody", 15}),
                         [](const auto &tested) { return tested.param.description; });

TEST_P(CutFrame, OfAnAsynchronousRequestIsTheLastThingOnTheConnection) {
  Answer answer, later;
  {
    const LittleRoom room(client.fd(), GetParam().room);
    EXPECT_FALSE(client.send("question", &answer));
  }
  EXPECT_FALSE(client.send("another", &later));
  EXPECT_FALSE(client.sync_send("and another"));
  EXPECT_EQ(client.pending_count(), 0u);
  EXPECT_EQ(receive_waiting(peer), frame(0, "question").substr(0, static_cast<std::size_t>(GetParam().room)));
  EXPECT_TRUE(was_closed(peer));
  EXPECT_LT(iterations_within(10), 10);
  EXPECT_FALSE(client.watched());
  client.drop();
  EXPECT_TRUE(answer.untouched());
  EXPECT_TRUE(later.untouched());
}

TEST_P(CutFrame, OfASynchronousRequestIsTheLastThingOnTheConnection) {
  Answer later;
  {
    const LittleRoom room(client.fd(), GetParam().room);
    EXPECT_FALSE(client.sync_send("question"));
  }
  EXPECT_FALSE(client.send("another", &later));
  EXPECT_FALSE(client.sync_send("and another"));
  EXPECT_EQ(receive_waiting(peer), frame(0, "question").substr(0, static_cast<std::size_t>(GetParam().room)));
  EXPECT_TRUE(was_closed(peer));
  EXPECT_LT(iterations_within(10), 10);
  EXPECT_FALSE(client.watched());
}

TEST_P(CutFrame, OnADesynchronisedStreamLeavesWhatFollowsTheMalformedLengthUnread) {
  Answer &pending = send();
  reply(frame_claiming(0, 0, "").substr(0, 4) + frame(0, "forged"));
  {
    const LittleRoom room(client.fd(), GetParam().room);
    EXPECT_FALSE(client.send("question", nullptr));
  }
  EXPECT_FALSE(client.send("another", nullptr));
  EXPECT_FALSE(client.sync_send("and another"));
  run_pending();
  EXPECT_TRUE(pending.untouched());
}

// With a socket that is really full.
TEST_F(SocketClientCommand, AFrameThatFitsOnlyInPartIsTheLastThingOnTheConnection) {
  const int small = 1;
  setsockopt(client.fd(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  const Interposer waiting([this](Attempt &attempt) -> std::optional<Outcome> {
    if (attempt.call != Call::poll || attempt.fd != client.fd() || attempt.argument <= 1) return std::nullopt;
    advance_clock(attempt.argument - 1);
    attempt.argument = 1;
    return std::nullopt;
  });
  std::string whole;
  bool cut = false;
  for (std::uint32_t id = 0; id < 20; ++id) {
    if (client.send(body_of(2000), nullptr)) {
      EXPECT_FALSE(cut);
      whole += frame(id, body_of(2000));
    } else {
      cut = true;
    }
  }
  EXPECT_TRUE(cut);
  const std::string got = receive_waiting(peer);
  ASSERT_GE(got.size(), whole.size());
  EXPECT_EQ(got.substr(0, whole.size()), whole);
  EXPECT_LT(got.size() - whole.size(), 2008u);
  EXPECT_TRUE(got.size() == whole.size() || was_closed(peer));
}

TEST_F(SocketClientCommand, SpendsAtMostASecondOnAPeerThatDoesNotRead) {
  fill(client.fd());
  Answer answer;
  const auto start = real_time_ms();
  {
    const LittleRoom room(client.fd(), 0);
    EXPECT_FALSE(client.send("question", &answer));
    EXPECT_FALSE(client.sync_send("question"));
  }
  EXPECT_LT(real_time_ms() - start, 900);
  // Nothing of these frames went out, so that the connection is as good as before.
  EXPECT_FALSE(receive_waiting(peer).empty());
  Answer &later = send("another");
  EXPECT_EQ(receive_waiting(peer), frame(2, "another"));
  ptz_socket_client_add_poll(client.base());
  reply(frame(2, "answer"));
  EXPECT_TRUE(later.replied());
}

// A peer can guess the id of a request that is still being sent.
TEST_F(SocketClientCommand, ARequestIsNeverBothAnsweredAndRefused) {
  Answer answer;
  std::atomic<bool> handled = false;
  int writes = 0;
  const Interposer body_that_fails([&](Attempt &attempt) -> std::optional<Outcome> {
    if (attempt.call != Call::write || attempt.fd != client.fd() || ++writes != 2) return std::nullopt;
    send_all(peer, frame(0, "early"));
    for (int i = 0; i < 200 && !handled; ++i) g_usleep(1000);
    return Outcome{-1, EPIPE};
  });
  auto sent = in_thread([&] { return client.send("question", &answer); });
  run_until([&] { return answer.calls > 0 || is_ready(sent); });
  handled = true;
  const bool accepted = sent.get() != FALSE;
  client.drop();
  EXPECT_EQ(answer.calls + answer.freed, accepted ? 1 : 0);
}

TEST_F(SocketClientCommand, FramesOfSeveralThreadsNeverMix) {
  constexpr std::uint32_t threads = 4, each = 300;
  auto receiving = in_thread([this] {
    std::map<std::uint32_t, std::string> frames;
    while (frames.size() < threads * each) {
      const auto received = receive_frame(peer);
      if (!received) break;
      frames[received->id] = received->body;
    }
    return frames;
  });
  {
    std::vector<std::thread> senders;
    for (unsigned number = 0; number < threads; ++number) {
      senders.emplace_back([this, number] {
        for (std::uint32_t i = 0; i < each; ++i) EXPECT_TRUE(client.send(body_of(100 + number * 300, number), nullptr));
      });
    }
    for (std::thread &sender : senders) sender.join();
  }
  std::map<std::string, std::uint32_t> bodies;
  const auto frames = receiving.get();
  EXPECT_EQ(frames.size(), threads * each);
  EXPECT_EQ(frames.rbegin()->first, threads * each - 1);
  for (const auto &[id, body] : frames) ++bodies[body];
  for (unsigned number = 0; number < threads; ++number) {
    EXPECT_EQ(bodies[body_of(100 + number * 300, number)], each);
  }
}

}  // namespace
