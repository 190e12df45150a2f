#include <gtest/gtest.h>
#include <ptz_socket_server_command.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

#include "command_ends.h"
#include "faults.h"
#include "peers.h"
#include "subclass.h"
#include "syslog_capture.h"

using namespace ptz_test;

namespace {

static_assert(sizeof(PTZSocketServerCommandClass) == sizeof(PTZSocketServerClass));

class SocketServerCommand : public testing::Test {
 protected:
  TempDir dir;
  std::string path = dir.file("server");
  CommandServer server{path};

  Descriptor connect() { return connect_client(server, path); }
  void send_and_serve(const Descriptor &peer, std::string_view bytes) {
    EXPECT_TRUE(send_all(peer.get(), bytes));
    run_pending();
  }
  // What the class's read does for the newest client.
  gssize read_newest(gpointer out, gsize out_size) {
    auto *socket = PTZ_SOCKET(server.get());
    return PTZ_SOCKET_GET_CLASS(socket)->read(socket, server.client(0)->fd, out, out_size, 0);
  }
  std::vector<std::string> bodies() const {
    std::vector<std::string> all;
    for (const Message &message : server.messages) all.push_back(message.body);
    return all;
  }
};

TEST_F(SocketServerCommand, IsAClassOfItsOwnUnderTheServer) {
  EXPECT_STREQ(g_type_name(PTZ_TYPE_SOCKET_SERVER_COMMAND), "PTZSocketServerCommand");
  EXPECT_EQ(g_type_parent(PTZ_TYPE_SOCKET_SERVER_COMMAND), PTZ_TYPE_SOCKET_SERVER);
  EXPECT_TRUE(PTZ_IS_SOCKET_SERVER_COMMAND(server.get()));
}

TEST_F(SocketServerCommand, BeginsWithNoFrame) {
  EXPECT_EQ(server.get()->fill, 0u);
  EXPECT_EQ(server.get()->expected, 0xFFFFFFFFu);
  EXPECT_EQ(server.get()->message_id, 0u);
  EXPECT_NE(server.get()->buffer, nullptr);
  EXPECT_FALSE(server.get()->have_message);
  EXPECT_EQ(PTZ_SOCKET(server.get())->mode, PTZ_SOCKET_MODE_SERVER);
  EXPECT_EQ(PTZ_SOCKET(server.get())->type, SOCK_STREAM);
}

TEST_F(SocketServerCommand, DeliversTheBodyOfAFrame) {
  const Descriptor peer = connect();
  send_and_serve(peer, frame(7, "hello"));
  ASSERT_EQ(server.messages.size(), 1u);
  EXPECT_EQ(server.messages[0].body, "hello");
  EXPECT_TRUE(server.messages[0].terminated);
  EXPECT_EQ(server.get()->message_id, 7u);
  EXPECT_EQ(server.get()->fill, 0u);
  EXPECT_EQ(server.get()->expected, 0xFFFFFFFFu);
  EXPECT_FALSE(server.get()->have_message);
}

TEST_F(SocketServerCommand, NamesClientServerAndRequestInTheReplyContext) {
  const Descriptor peer = connect();
  send_and_serve(peer, frame(41, "hello"));
  ASSERT_EQ(server.messages.size(), 1u);
  const auto *context = static_cast<PTZSocketServerCommandReplyContext *>(server.messages[0].context);
  EXPECT_EQ(context->fd, server.client(0)->fd);
  EXPECT_EQ(context->server, server.base());
  EXPECT_EQ(context->message_id, 41u);
}

TEST_F(SocketServerCommand, DeliversAFrameInTwoPiecesSplitAnywhere) {
  const Descriptor peer = connect();
  const std::string whole = frame(3, "split body");
  for (std::size_t at = 1; at < whole.size(); ++at) {
    server.messages.clear();
    send_and_serve(peer, whole.substr(0, at));
    EXPECT_TRUE(server.messages.empty()) << at;
    send_and_serve(peer, whole.substr(at));
    EXPECT_EQ(bodies(), std::vector<std::string>{"split body"}) << at;
  }
}

TEST_F(SocketServerCommand, DeliversAFrameInThreePiecesSplitAnywhere) {
  const Descriptor peer = connect();
  const std::string whole = frame(3, "abc");
  for (std::size_t first = 1; first < whole.size() - 1; ++first) {
    for (std::size_t second = first + 1; second < whole.size(); ++second) {
      server.messages.clear();
      send_and_serve(peer, whole.substr(0, first));
      send_and_serve(peer, whole.substr(first, second - first));
      EXPECT_TRUE(server.messages.empty()) << first << " " << second;
      send_and_serve(peer, whole.substr(second));
      EXPECT_EQ(bodies(), std::vector<std::string>{"abc"}) << first << " " << second;
    }
  }
}

TEST_F(SocketServerCommand, DeliversTheLongestFrameByteByByte) {
  const Descriptor peer = connect();
  const std::string body = body_of(PTZ_SOCKET_BODY_MAX), whole = frame(9, body);
  for (const char byte : whole) {
    EXPECT_TRUE(server.messages.empty());
    send_and_serve(peer, {&byte, 1});
  }
  EXPECT_EQ(bodies(), std::vector<std::string>{body});
}

TEST_F(SocketServerCommand, DeliversFramesOfOneWriteOnePerDispatchInOrder) {
  const Descriptor peer = connect();
  send_all(peer.get(), frame(1, "one") + frame(2, body_of(PTZ_SOCKET_BODY_MAX)) + frame(3, "three"));
  for (std::size_t i = 1; i <= 3; ++i) {
    iterate();
    ASSERT_EQ(server.messages.size(), i);
    EXPECT_EQ(server.get()->message_id, i);
  }
  EXPECT_EQ(bodies(), (std::vector<std::string>{"one", body_of(PTZ_SOCKET_BODY_MAX), "three"}));
}

TEST_F(SocketServerCommand, DeliversOneFramePerDispatchNewestClientFirst) {
  const Descriptor older = connect(), newer = connect();
  send_all(older.get(), frame(0, "from the older"));
  send_all(newer.get(), frame(0, "from the newer"));
  iterate();
  EXPECT_EQ(bodies(), std::vector<std::string>{"from the newer"});
  iterate();
  EXPECT_EQ(bodies(), (std::vector<std::string>{"from the newer", "from the older"}));
}

TEST_F(SocketServerCommand, AHalfFrameDoesNotUseUpTheDispatch) {
  const Descriptor older = connect(), newer = connect();
  send_all(older.get(), frame(0, "whole"));
  send_all(newer.get(), frame(0, "half").substr(0, 10));
  iterate();
  EXPECT_EQ(bodies(), std::vector<std::string>{"whole"});
}

class SocketServerCommandBody : public SocketServerCommand, public testing::WithParamInterface<std::size_t> {};
INSTANTIATE_TEST_SUITE_P(Length, SocketServerCommandBody,
                         testing::Values(1, 2, 3, 4, 5, 7, 8, 9, 255, 256, 2551, 2552));

TEST_P(SocketServerCommandBody, TravelsUnchangedBothWays) {
  const Descriptor peer = connect();
  const std::string body = body_of(GetParam(), 5);
  server.echo();
  send_and_serve(peer, frame(0x01020304, body));
  EXPECT_EQ(bodies(), std::vector<std::string>{body});
  EXPECT_TRUE(server.messages[0].terminated);
  EXPECT_EQ(receive_waiting(peer.get()), frame(0x01020304, body));
}

TEST_F(SocketServerCommand, AFrameWithoutABodyReachesNobodyAndDisturbsNobody) {
  const Descriptor peer = connect();
  send_and_serve(peer, frame(1, ""));
  EXPECT_TRUE(server.messages.empty());
  EXPECT_EQ(server.client_count(), 1u);
  send_and_serve(peer, frame(2, "") + frame(3, "next"));
  EXPECT_EQ(bodies(), std::vector<std::string>{"next"});
  server.answer(server.messages[0], "answer");
  EXPECT_EQ(receive_waiting(peer.get()), frame(3, "answer"));
}

TEST_F(SocketServerCommand, FramesBehindOneWithoutABodyAreDeliveredAfterAHangUp) {
  Descriptor peer = connect();
  send_all(peer.get(), frame(0, "") + frame(1, "one") + frame(2, "two"));
  peer.reset();
  run_pending();
  EXPECT_EQ(bodies(), (std::vector<std::string>{"one", "two"}));
  EXPECT_EQ(server.client_count(), 0u);
}

TEST_F(SocketServerCommand, AFrameWithoutABodyLeavesNoMessageForAnotherClient) {
  const Descriptor older = connect(), newer = connect();
  send_all(older.get(), frame(8, "body"));
  send_all(newer.get(), frame(9, ""));
  run_pending();
  ASSERT_EQ(bodies(), std::vector<std::string>{"body"});
  EXPECT_EQ(static_cast<PTZSocketServerCommandReplyContext *>(server.messages[0].context)->message_id, 8u);
}

class SocketServerCommandLength : public SocketServerCommand, public testing::WithParamInterface<std::uint32_t> {};
INSTANTIATE_TEST_SUITE_P(ThatCannotBe, SocketServerCommandLength,
                         testing::Values(0, 1, 2, 3, 4, 5, 6, 7, 2561, 2568, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFE,
                                         0xFFFFFFFF));

TEST_P(SocketServerCommandLength, ClosesTheClientAtOnceAndNoOther) {
  const Descriptor good = connect(), bad = connect();
  send_and_serve(good, frame(5, "half of it").substr(0, 12));
  send_and_serve(bad, frame_claiming(GetParam(), 1, "").substr(0, 4));
  EXPECT_TRUE(was_closed(bad.get()));
  EXPECT_EQ(server.client_count(), 1u);
  send_and_serve(good, frame(5, "half of it").substr(12));
  EXPECT_EQ(bodies(), std::vector<std::string>{"half of it"});
}

TEST_P(SocketServerCommandLength, ClosesTheClientWhateverFollows) {
  const Descriptor good = connect(), bad = connect();
  send_and_serve(bad, frame_claiming(GetParam(), 1, body_of(4000)) + frame(2, "never"));
  EXPECT_TRUE(was_closed(bad.get()));
  EXPECT_TRUE(server.messages.empty());
  EXPECT_LT(iterations_within(20), 10);
  send_and_serve(good, frame(1, "good"));
  EXPECT_EQ(bodies(), std::vector<std::string>{"good"});
}

TEST_P(SocketServerCommandLength, IsSeenByteByByteToo) {
  const Descriptor bad = connect();
  for (const char byte : frame_claiming(GetParam(), 1, "").substr(0, 4)) {
    EXPECT_FALSE(was_closed(bad.get()));
    send_and_serve(bad, {&byte, 1});
  }
  EXPECT_TRUE(was_closed(bad.get()));
  EXPECT_EQ(server.client_count(), 0u);
}

TEST_P(SocketServerCommandLength, OfAFrameBehindAGoodOneLeavesTheGoodOneDelivered) {
  const Descriptor bad = connect();
  send_and_serve(bad, frame(1, "good") + frame_claiming(GetParam(), 2, "bad"));
  EXPECT_EQ(bodies(), std::vector<std::string>{"good"});
  EXPECT_EQ(server.client_count(), 0u);
}

TEST_F(SocketServerCommand, AHalfFrameOfAClientThatDiedTouchesNobodyElses) {
  for (std::size_t at = 1; at < 12; ++at) {
    Descriptor dies = connect();
    const Descriptor lives = connect();
    send_and_serve(dies, frame(1, "dead").substr(0, at));
    dies.reset();
    send_and_serve(lives, frame(2, "alive"));
    EXPECT_EQ(bodies(), std::vector<std::string>{"alive"}) << at;
    server.answer(server.messages[0], "answer");
    EXPECT_EQ(receive_waiting(lives.get()), frame(2, "answer")) << at;
    server.messages.clear();
  }
}

TEST_F(SocketServerCommand, FramesOfSeveralClientsNeverMix) {
  constexpr std::size_t clients = 5;
  std::vector<Descriptor> peers;
  std::vector<std::string> frames, expected;
  std::size_t longest = 0;
  for (unsigned i = 0; i < clients; ++i) {
    peers.push_back(connect());
    expected.push_back(body_of(3 + 11 * i, i));
    frames.push_back(frame(i, expected.back()));
    longest = std::max(longest, frames.back().size());
  }
  for (std::size_t at = 0; at < longest; ++at) {
    for (std::size_t i = 0; i < clients; ++i) {
      if (at < frames[i].size()) send_and_serve(peers[i], frames[i].substr(at, 1));
    }
  }
  EXPECT_EQ(bodies(), expected);
  for (std::size_t i = 0; i < clients; ++i) {
    server.answer(server.messages[i], "answer");
    EXPECT_EQ(receive_waiting(peers[i].get()), frame(static_cast<std::uint32_t>(i), "answer"));
  }
}

TEST_F(SocketServerCommand, AHalfSentFrameDelaysNobody) {
  const Descriptor slow = connect(), quick = connect();
  const std::string whole = frame(1, "takes its time");
  for (std::size_t at = 1; at < whole.size(); ++at) {
    send_and_serve(slow, whole.substr(at - 1, 1));
    server.messages.clear();
    send_and_serve(quick, frame(2, "quick"));
    EXPECT_EQ(bodies(), std::vector<std::string>{"quick"}) << at;
  }
  server.messages.clear();
  send_and_serve(slow, whole.substr(whole.size() - 1));
  EXPECT_EQ(bodies(), std::vector<std::string>{"takes its time"});
}

// Takes every free number up to this one, this one included, which is the last of them.
std::vector<Descriptor> occupy_up_to(int number) {
  std::vector<Descriptor> occupied;
  do {
    occupied.emplace_back(dup(STDERR_FILENO));
  } while (occupied.back().get() < number);
  EXPECT_EQ(occupied.back().get(), number);
  return occupied;
}

TEST_F(SocketServerCommand, AHalfFrameOfAClientThatDiedIsNotCompletedByTheNextOnItsDescriptor) {
  Descriptor dies = connect();
  const int fd = server.client(0)->fd;
  send_and_serve(dies, frame(1, "a frame that is cut").substr(0, 15));
  dies.reset();
  run_pending();
  ASSERT_EQ(server.client_count(), 0u);
  auto occupied = occupy_up_to(fd);
  const Descriptor next = connect_to(path);
  occupied.pop_back();
  ASSERT_TRUE(run_until([&] { return server.client_count() == 1; }));
  ASSERT_EQ(server.client(0)->fd, fd);
  send_and_serve(next, frame(2, "a frame of the next client"));
  EXPECT_EQ(bodies(), std::vector<std::string>{"a frame of the next client"});
}

TEST_F(SocketServerCommand, AReplyCarriesTheIdOfItsRequestAndTheLengthOfTheFrame) {
  const Descriptor peer = connect();
  for (const std::uint32_t id : {0u, 1u, 0x80000000u, 0xFFFFFFFFu}) {
    server.messages.clear();
    send_and_serve(peer, frame(id, "question"));
    ASSERT_EQ(server.messages.size(), 1u);
    EXPECT_TRUE(server.answer(server.messages[0], "answer"));
    const auto reply = receive_frame(peer.get());
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->id, id);
    EXPECT_EQ(reply->length, 6u + 8u);
    EXPECT_EQ(reply->body, "answer");
  }
}

TEST_F(SocketServerCommand, RepliesMayComeLateAndInAnyOrder) {
  const Descriptor first = connect(), second = connect();
  send_and_serve(first, frame(0, "a") + frame(1, "b"));
  send_and_serve(second, frame(0, "c") + frame(1, "d"));
  ASSERT_EQ(bodies(), (std::vector<std::string>{"a", "b", "c", "d"}));
  for (const std::size_t i : {3, 1, 0, 2}) EXPECT_TRUE(server.answer(server.messages[i], bodies()[i]));
  EXPECT_EQ(receive_waiting(first.get()), frame(1, "b") + frame(0, "a"));
  EXPECT_EQ(receive_waiting(second.get()), frame(1, "d") + frame(0, "c"));
}

TEST_F(SocketServerCommand, AReplyWithoutAContextSucceeds) {
  auto *klass = PTZ_SOCKET_SERVER_GET_CLASS(server.get());
  EXPECT_TRUE(klass->send(nullptr, "answer", 6));
}

TEST_F(SocketServerCommand, AReplyToAClientThatHasGoneReachesNobody) {
  Descriptor peer = connect();
  const Descriptor other = connect();
  send_and_serve(peer, frame(1, "question"));
  peer.reset();
  run_pending();
  ASSERT_EQ(server.client_count(), 1u);
  ASSERT_EQ(server.messages.size(), 1u);
  EXPECT_FALSE(server.answer(server.messages[0], "answer"));
  EXPECT_EQ(receive_waiting(other.get()), "");
}

TEST_F(SocketServerCommand, AReplyToAClientWhoseDeathWasNotNoticedYetIsHarmless) {
  Descriptor peer = connect();
  send_and_serve(peer, frame(1, "question"));
  peer.reset();
  ASSERT_EQ(server.messages.size(), 1u);
  EXPECT_FALSE(server.answer(server.messages[0], "answer"));
  run_pending();
  EXPECT_EQ(server.client_count(), 0u);
}

TEST_F(SocketServerCommand, AReplyNeverReachesTheNextClientOnTheDescriptor) {
  Descriptor peer = connect();
  const int fd = server.client(0)->fd;
  send_and_serve(peer, frame(1, "first") + frame(2, "second"));
  ASSERT_EQ(server.messages.size(), 2u);
  peer.reset();
  run_pending();
  auto occupied = occupy_up_to(fd);
  const Descriptor next = connect_to(path);
  occupied.pop_back();
  ASSERT_TRUE(run_until([&] { return server.client_count() == 1; }));
  ASSERT_EQ(server.client(0)->fd, fd);
  EXPECT_FALSE(server.answer(server.messages[0], "answer"));
  send_and_serve(next, frame(1, "of the next client"));
  EXPECT_FALSE(server.answer(server.messages[1], "answer"));
  ASSERT_EQ(server.messages.size(), 3u);
  EXPECT_TRUE(server.answer(server.messages[2], "answer to the next"));
  EXPECT_EQ(receive_waiting(next.get()), frame(1, "answer to the next"));
  EXPECT_EQ(server.client_count(), 1u);
}

TEST_F(SocketServerCommand, AReplyAfterTheCallbackClosedTheClientReachesNobody) {
  const Descriptor peer = connect(), other = connect();
  gboolean sent = TRUE;
  server.on_message = [&](const Message &message) {
    ptz_socket_server_close(server.base(), server.client(1));
    sent = server.answer(message, "answer");
    return TRUE;
  };
  send_and_serve(peer, frame(0, "close me"));
  EXPECT_FALSE(sent);
  EXPECT_TRUE(was_closed(peer.get()));
  EXPECT_EQ(receive_waiting(other.get()), "");
}

TEST_F(SocketServerCommand, MayBeDroppedByItsCallback) {
  const Descriptor peer = connect(), half = connect();
  send_and_serve(half, frame(0, "half").substr(0, 9));
  server.on_message = [&](const Message &) {
    server.drop();
    return TRUE;
  };
  send_and_serve(peer, frame(0, "go"));
  EXPECT_EQ(server.get(), nullptr);
  EXPECT_EQ(receive_waiting(peer.get()), frame(0, "end"));
  EXPECT_TRUE(was_closed(peer.get()));
  EXPECT_TRUE(was_closed(half.get()));
}

TEST_F(SocketServerCommand, EndsItsSourceWhenTheCallbackSaysSo) {
  const Descriptor peer = connect();
  const Source source(g_source_ref(&server.base()->source->source));
  server.on_message = [](const Message &) { return FALSE; };
  send_and_serve(peer, frame(0, "last") + frame(1, "unheard"));
  EXPECT_TRUE(g_source_is_destroyed(source.get()));
  EXPECT_EQ(bodies(), std::vector<std::string>{"last"});
  server.answer(server.messages[0], "answer");
  server.drop();
  EXPECT_FALSE(connect_to(path));
}

TEST_F(SocketServerCommand, KeepsItsReferenceUntilALateReply) {
  const Descriptor peer = connect();
  server.on_message = [&](const Message &) {
    g_object_ref(server.get());
    return TRUE;
  };
  send_and_serve(peer, frame(0, "later"));
  ASSERT_EQ(server.messages.size(), 1u);
  const guint before = G_OBJECT(server.get())->ref_count;
  ptz_socket_server_unref(server.messages[0].context);
  EXPECT_EQ(G_OBJECT(server.get())->ref_count, before - 1);
}

TEST_F(SocketServerCommand, ReadsAndDropsFramesWhileNobodyIsRegistered) {
  const Descriptor peer = connect();
  ptz_socket_server_register_callback(server.base(), nullptr, nullptr);
  send_and_serve(peer, frame(1, "lost") + frame(2, "lost too"));
  EXPECT_FALSE(is_readable(server.client(0)->fd));
  static std::vector<std::uint32_t> ids;
  ids.clear();
  ptz_socket_server_register_callback(
      server.base(),
      [](gpointer, gpointer context, gpointer data, guint32 length) -> gboolean {
        ids.push_back(static_cast<PTZSocketServerCommandReplyContext *>(context)->message_id);
        return ptz_socket_server_send(context, data, length);
      },
      nullptr);
  send_and_serve(peer, frame(3, "heard"));
  EXPECT_EQ(ids, std::vector<std::uint32_t>{3});
  EXPECT_EQ(receive_waiting(peer.get()), frame(3, "heard"));
}

TEST_F(SocketServerCommand, RefusesAReplyThatFitsNoFrame) {
  const Descriptor peer = connect();
  const std::string too_long = body_of(PTZ_SOCKET_BODY_MAX + 1);
  send_and_serve(peer, frame(1, "first") + frame(2, "second") + frame(3, "third"));
  ASSERT_EQ(server.messages.size(), 3u);
  EXPECT_FALSE(server.answer(server.messages[0], too_long));
  EXPECT_FALSE(server.answer(server.messages[1], {too_long.data(), 0xFFFFFFFFu}));
  EXPECT_EQ(receive_waiting(peer.get()), "");
  EXPECT_EQ(server.client_count(), 1u);
  EXPECT_TRUE(server.answer(server.messages[2], "answer"));
  EXPECT_EQ(receive_waiting(peer.get()), frame(3, "answer"));
}

TEST_F(SocketServerCommand, AReplyWithoutABodySendsTheHeaderAndReportsAFailure) {
  const Descriptor peer = connect();
  send_and_serve(peer, frame(1, "first") + frame(2, "second"));
  ASSERT_EQ(server.messages.size(), 2u);
  EXPECT_FALSE(server.answer(server.messages[0], ""));
  EXPECT_TRUE(server.answer(server.messages[1], "answer"));
  EXPECT_EQ(receive_waiting(peer.get()), frame(1, "") + frame(2, "answer"));
}

TEST_F(SocketServerCommand, AClientThatDoesNotReadCostsNothingButItsReply) {
  const Descriptor peer = connect();
  send_and_serve(peer, frame(1, "first") + frame(2, "second"));
  ASSERT_EQ(server.messages.size(), 2u);
  fill(server.client(0)->fd);
  const CallLog log;
  EXPECT_FALSE(server.answer(server.messages[0], "answer"));
  EXPECT_EQ(log.count(Call::poll), 0u);
  // Nothing of the frame went out, so that the connection is as good as before.
  ASSERT_EQ(server.client_count(), 1u);
  EXPECT_FALSE(receive_waiting(peer.get()).empty());
  EXPECT_TRUE(server.answer(server.messages[1], "answer"));
  EXPECT_EQ(receive_waiting(peer.get()), frame(2, "answer"));
}

struct CutReply {
  const char *description;
  std::int64_t header_bytes;  // that the socket takes; none for all of them
  std::int64_t body_bytes;
};

class SocketServerCommandCutReply : public SocketServerCommand, public testing::WithParamInterface<CutReply> {};
INSTANTIATE_TEST_SUITE_P(, SocketServerCommandCutReply,
                         testing::Values(CutReply{"OneByteOfTheHeader", 1, 0}, CutReply{"MostOfTheHeader", 7, 0},
                                         CutReply{"TheHeaderAlone", 8, 0}, CutReply{"OneByteOfTheBody", 8, 1},
                                         CutReply{"MostOfTheBody", 8, 5}),
                         [](const auto &tested) { return tested.param.description; });

TEST_P(SocketServerCommandCutReply, ClosesTheClientSoThatNothingFollows) {
  const Descriptor peer = connect(), other = connect();
  send_and_serve(peer, frame(1, "first") + frame(2, "second"));
  ASSERT_EQ(server.messages.size(), 2u);
  {
    std::int64_t room = GetParam().header_bytes + GetParam().body_bytes;
    const int fd = server.client(1)->fd;
    const Interposer full_socket([&](Attempt &attempt) -> std::optional<Outcome> {
      if (attempt.call != Call::write || attempt.fd != fd) return std::nullopt;
      if (room == 0) return Outcome{-1, EAGAIN};
      attempt.argument = std::min(attempt.argument, room);
      room -= attempt.argument;
      return std::nullopt;
    });
    EXPECT_FALSE(server.answer(server.messages[0], "answer"));
  }
  EXPECT_FALSE(server.answer(server.messages[1], "another"));
  run_pending();
  EXPECT_EQ(server.client_count(), 1u);
  const auto sent = static_cast<std::size_t>(GetParam().header_bytes + GetParam().body_bytes);
  EXPECT_EQ(receive_waiting(peer.get()), frame(1, "answer").substr(0, sent));
  EXPECT_TRUE(was_closed(peer.get()));
  send_and_serve(other, frame(3, "still here"));
  EXPECT_EQ(server.messages.size(), 3u);
}

// As above, with a socket that is really full.
TEST_F(SocketServerCommand, AReplyThatFitsOnlyInPartClosesTheClient) {
  const Descriptor peer = connect();
  const int small = 1;
  setsockopt(server.client(0)->fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  std::string questions;
  constexpr std::size_t count = 20;
  for (std::size_t i = 0; i < count; ++i) questions += frame(static_cast<std::uint32_t>(i), "question");
  send_and_serve(peer, questions);
  ASSERT_EQ(server.messages.size(), count);
  std::string whole;
  bool cut = false;
  for (std::size_t i = 0; i < count; ++i) {
    if (server.answer(server.messages[i], body_of(2000))) {
      EXPECT_FALSE(cut);
      whole += frame(static_cast<std::uint32_t>(i), body_of(2000));
    } else {
      cut = true;
    }
  }
  EXPECT_TRUE(cut);
  const std::string got = receive_waiting(peer.get());
  ASSERT_GE(got.size(), whole.size());
  EXPECT_EQ(got.substr(0, whole.size()), whole);
  // Whole frames, and at most one fragment at the very end of the connection.
  EXPECT_LT(got.size() - whole.size(), 2008u);
  EXPECT_TRUE(got.size() == whole.size() || was_closed(peer.get()));
}

TEST_F(SocketServerCommand, ReadsStepByStep) {
  const Descriptor peer = connect();
  std::vector<char> out(PTZ_SOCKET_FRAME_MAX);
  EXPECT_EQ(read_newest(out.data(), out.size()), 0);
  send_all(peer.get(), frame(6, "body").substr(0, 3));
  EXPECT_EQ(read_newest(out.data(), out.size()), 0);
  EXPECT_EQ(server.get()->fill, 3u);
  EXPECT_EQ(server.get()->expected, 0xFFFFFFFFu);
  send_all(peer.get(), frame(6, "body").substr(3, 4));
  EXPECT_EQ(read_newest(out.data(), out.size()), 0);
  EXPECT_EQ(server.get()->fill, 7u);
  EXPECT_EQ(server.get()->expected, 12u);
  EXPECT_FALSE(server.get()->have_message);
  send_all(peer.get(), frame(6, "body").substr(7));
  EXPECT_EQ(read_newest(out.data(), out.size()), 4);
  EXPECT_EQ(std::string(out.data(), 4), "body");
  EXPECT_EQ(server.get()->fill, 0u);
  EXPECT_EQ(server.get()->expected, 0xFFFFFFFFu);
  EXPECT_EQ(server.get()->message_id, 6u);
  EXPECT_TRUE(server.get()->have_message);
}

TEST_F(SocketServerCommand, MakesOneReplyContextForOneMessage) {
  const Descriptor peer = connect();
  auto *klass = PTZ_SOCKET_SERVER_GET_CLASS(server.get());
  EXPECT_EQ(klass->get_reply_context(server.base(), server.client(0)), nullptr);
  send_all(peer.get(), frame(6, "body"));
  char out[8];
  ASSERT_EQ(read_newest(out, PTZ_SOCKET_FRAME_MAX - 2548), 4);
  gpointer context = klass->get_reply_context(server.base(), server.client(0));
  ASSERT_NE(context, nullptr);
  EXPECT_FALSE(server.get()->have_message);
  EXPECT_EQ(klass->get_reply_context(server.base(), server.client(0)), nullptr);
  EXPECT_TRUE(ptz_socket_server_send(context, "answer", 6));
  EXPECT_EQ(receive_waiting(peer.get()), frame(6, "answer"));
}

TEST(SocketServerCommandReplyContext, HasThreeFields) {
  EXPECT_EQ(sizeof(PTZSocketServerCommandReplyContext), 2 * sizeof(gpointer) + sizeof(gpointer));
  EXPECT_EQ(offsetof(PTZSocketServerCommandReplyContext, message_id), 2 * sizeof(gpointer));
}

// A subclass that makes its reply contexts itself, as a driver's author would in C.
TEST(SocketServerCommandSubclass, ReplyThroughAContextOfItsOwnIsSent) {
  static const GType type = subclass(PTZ_TYPE_SOCKET_SERVER_COMMAND, "OwnContextServer", [](gpointer klass, gpointer) {
    PTZ_SOCKET_SERVER_CLASS(klass)->get_reply_context = [](PTZSocketServer *server,
                                                           PTZSocketServerClient *client) -> gpointer {
      auto *self = PTZ_SOCKET_SERVER_COMMAND(server);
      if (!self->have_message) return nullptr;
      self->have_message = FALSE;
      // Exactly as large as the three fields: a sanitizer sees a read beyond them.
      auto *context = static_cast<PTZSocketServerCommandReplyContext *>(
          g_malloc(offsetof(PTZSocketServerCommandReplyContext, message_id) + sizeof(guint32)));
      context->fd = client->fd;
      context->server = server;
      context->message_id = self->message_id;
      return context;
    };
  });
  const TempDir dir;
  const Object<PTZSocketServer> server(ptz_socket_server_new(type, dir.file("server").c_str(), SOCK_STREAM));
  ptz_socket_server_register_callback(
      server.get(),
      [](gpointer, gpointer context, gpointer data, guint32 length) -> gboolean {
        EXPECT_TRUE(ptz_socket_server_send(context, data, length));
        return TRUE;
      },
      nullptr);
  const Descriptor peer = connect_to(dir.file("server"));
  for (std::uint32_t id = 0; id < 3; ++id) {
    send_all(peer.get(), frame(id, "question"));
    run_pending();
    EXPECT_EQ(receive_waiting(peer.get()), frame(id, "question"));
  }
}

TEST_F(SocketServerCommand, CopiesNoMoreThanTheReaderHasRoomFor) {
  const Descriptor peer = connect();
  for (gsize out_size = 0; out_size <= 20; ++out_size) {
    send_all(peer.get(), frame(1, "eight by"));
    std::vector<char> out(20, '-');
    const gssize count = read_newest(out.data(), out_size);
    const std::size_t copied = std::min<gsize>(std::max<gsize>(out_size, 8) - 8, 8);
    EXPECT_EQ(std::max<gssize>(count, 0), static_cast<gssize>(copied)) << out_size;
    EXPECT_EQ(std::string(out.data(), out.size()),
              std::string("eight by").substr(0, copied) + std::string(20 - copied, '-'))
        << out_size;
  }
}

TEST_F(SocketServerCommand, ReadFailsOnAnyErrorButNothingBeingThere) {
  std::vector<char> out(PTZ_SOCKET_FRAME_MAX);
  for (const int reads_before : {0, 1}) {
    const Descriptor peer = connect();
    const int fd = server.client(0)->fd;
    send_all(peer.get(), frame(1, "body") + frame(2, "body"));
    {
      const Fault fault(Call::read, EAGAIN, {.fd = fd, .skip = reads_before});
      EXPECT_EQ(read_newest(out.data(), out.size()), 0);
    }
    EXPECT_EQ(read_newest(out.data(), out.size()), 4);
    const Fault fault(Call::read, EIO, {.fd = fd, .skip = reads_before});
    EXPECT_EQ(read_newest(out.data(), out.size()), -1);
  }
}

TEST_F(SocketServerCommand, ReadAtEndOfFileReturnsZero) {
  const Descriptor peer = connect();
  std::vector<char> out(PTZ_SOCKET_FRAME_MAX);
  send_all(peer.get(), frame(1, "body") + frame(2, "cut").substr(0, 9));
  shutdown(peer.get(), SHUT_WR);
  EXPECT_EQ(read_newest(out.data(), out.size()), 4);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(read_newest(out.data(), out.size()), 0);
}

TEST_F(SocketServerCommand, HalfClosedClientStaysUntilItHangsUp) {
  for (const std::size_t at : {0, 2, 4, 7, 8, 10}) {
    Descriptor peer = connect();
    send_all(peer.get(), frame(1, "cut").substr(0, at));
    shutdown(peer.get(), SHUT_WR);
    run_pending();
    EXPECT_EQ(server.client_count(), 1u) << at;
    EXPECT_LT(iterations_within(10), 10) << at;
    peer.reset();
    run_pending();
    EXPECT_EQ(server.client_count(), 0u) << at;
  }
  EXPECT_TRUE(server.messages.empty());
}

TEST_F(SocketServerCommand, HalfClosedClientGetsItsReplies) {
  const Descriptor peer = connect();
  server.echo();
  send_all(peer.get(), frame(1, "one") + frame(2, "two"));
  shutdown(peer.get(), SHUT_WR);
  run_pending();
  EXPECT_EQ(receive_waiting(peer.get()), frame(1, "one") + frame(2, "two"));
  EXPECT_FALSE(was_closed(peer.get()));
}

TEST_F(SocketServerCommand, HalfClosedClientGetsAReplyThatComesLater) {
  const Descriptor peer = connect();
  send_and_serve(peer, frame(1, "question"));
  shutdown(peer.get(), SHUT_WR);
  EXPECT_LT(iterations_within(10), 10);
  ASSERT_EQ(server.messages.size(), 1u);
  EXPECT_TRUE(server.answer(server.messages[0], "late"));
  EXPECT_EQ(receive_waiting(peer.get()), frame(1, "late"));
}

TEST_F(SocketServerCommand, HalfClosedClientStaysUnreadAfterANestedMainLoop) {
  const Descriptor peer = connect(), half_closed = connect();
  shutdown(half_closed.get(), SHUT_WR);
  run_pending();
  server.on_message = [](const Message &) {
    iterate(3);
    return TRUE;
  };
  send_and_serve(peer, frame(0, "question"));
  EXPECT_EQ(server.client_count(), 2u);
  const CallLog log;
  EXPECT_LT(iterations_within(10), 10);
  EXPECT_EQ(log.count(Call::read, server.client(0)->fd), 0u);
}

TEST(SocketServerCommandOnADescriptor, ServesFramesOnIt) {
  Pair pair;
  const int fd = pair.ours.release();
  const Object<PTZSocketServer> server(ptz_socket_server_fd_new(PTZ_TYPE_SOCKET_SERVER_COMMAND, fd, SOCK_STREAM));
  ptz_socket_server_register_callback(
      server.get(),
      [](gpointer, gpointer context, gpointer data, guint32 length) -> gboolean {
        return ptz_socket_server_send(context, data, length);
      },
      nullptr);
  for (std::uint32_t id = 0; id < 3; ++id) {
    send_all(pair.theirs.get(), frame(id, "question").substr(0, 5));
    run_pending();
    send_all(pair.theirs.get(), frame(id, "question").substr(5));
    run_pending();
    EXPECT_EQ(receive_waiting(pair.theirs.get()), frame(id, "question"));
  }
  send_all(pair.theirs.get(), frame_claiming(7, 0, "lies"));
  run_pending();
  EXPECT_TRUE(was_closed(pair.theirs.get()));
  EXPECT_LT(iterations_within(20), 10);
}

// A subclass that watches how replies are written.
struct Written {
  std::string data;
  gint timeout_ms;
  int error_before;
};
std::vector<Written> written;
int failing_write = -1;

GType watching_server_type() {
  static const GType type = subclass(PTZ_TYPE_SOCKET_SERVER_COMMAND, "WatchingServer", [](gpointer klass, gpointer) {
    PTZ_SOCKET_CLASS(klass)->write = [](PTZSocket *, gint, gconstpointer data, gsize length, gint timeout_ms) {
      written.push_back({{static_cast<const char *>(data), length}, timeout_ms, errno});
      errno = EIO;
      return static_cast<gssize>(static_cast<int>(written.size()) - 1 == failing_write ? -1 : length);
    };
  });
  return type;
}

class WatchedReply : public testing::Test {
 protected:
  TempDir dir;
  Object<PTZSocketServer> server{
      ptz_socket_server_new(watching_server_type(), dir.file("server").c_str(), SOCK_STREAM)};
  Descriptor peer = connect_to(dir.file("server"));
  gboolean sent = FALSE;

  void answer() {
    written.clear();
    ptz_socket_server_register_callback(
        server.get(),
        [](gpointer user_data, gpointer context, gpointer, guint32) -> gboolean {
          errno = ENOENT;
          *static_cast<gboolean *>(user_data) = ptz_socket_server_send(context, "answer", 6);
          return TRUE;
        },
        &sent);
    send_all(peer.get(), frame(4, "question"));
    run_pending();
  }
  void TearDown() override { failing_write = -1; }
};

TEST_F(WatchedReply, IsTwoWritesThatDoNotWaitWithNoOldError) {
  answer();
  ASSERT_EQ(written.size(), 2u);
  EXPECT_EQ(written[0].data + written[1].data, frame(4, "answer"));
  for (const Written &write : written) {
    EXPECT_EQ(write.timeout_ms, 0);
    EXPECT_EQ(write.error_before, 0);
  }
  EXPECT_EQ(written[1].data, "answer");
  EXPECT_TRUE(sent);
}

TEST_F(WatchedReply, FailsWithTheFirstWriteThatFails) {
  for (failing_write = 0; failing_write < 2; ++failing_write) {
    sent = TRUE;
    answer();
    EXPECT_EQ(written.size(), static_cast<std::size_t>(failing_write) + 1);
    EXPECT_FALSE(sent);
  }
}

}  // namespace
