#include <gtest/gtest.h>
#include <ptz_socket_server.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <cstddef>
#include <map>

#include "clock.h"
#include "command_ends.h"
#include "faults.h"
#include "peers.h"
#include "subclass.h"
#include "syslog_capture.h"

using namespace ptz_test;

namespace {

// Subclasses, and programs in other languages, rely on this order.
static_assert(offsetof(PTZSocketServer, source) == sizeof(PTZSocket));
static_assert(offsetof(PTZSocketServer, context) == sizeof(PTZSocket) + sizeof(gpointer));
static_assert(offsetof(PTZSocketServerClass, send) == sizeof(PTZSocketClass));
static_assert(offsetof(PTZSocketServerClass, get_reply_context) == sizeof(PTZSocketClass) + sizeof(gpointer));
static_assert(sizeof(PTZSocketServerClass) == sizeof(PTZSocketClass) + 2 * sizeof(gpointer));
static_assert(offsetof(PTZSocketServerClient, fd) == 0);
static_assert(offsetof(PTZSocketServerClient, tag) == sizeof(gpointer));
static_assert(offsetof(PTZSocketServerSource, fd) == sizeof(GSource));
static_assert(offsetof(PTZSocketServerSource, fd) < offsetof(PTZSocketServerSource, tag));
static_assert(offsetof(PTZSocketServerSource, tag) < offsetof(PTZSocketServerSource, clients));
static_assert(offsetof(PTZSocketServerSource, clients) < offsetof(PTZSocketServerSource, server));
static_assert(offsetof(PTZSocketServerReplyContext, client) == 0);
static_assert(offsetof(PTZSocketServerReplyContext, server) == sizeof(gpointer));

class SocketServer : public testing::Test {
 protected:
  TempDir dir;
  std::string path = dir.file("server");
  PlainServer server{path};

  Descriptor connect() { return connect_client(server, path); }
};

// A subclass whose operations a test may replace.
struct Operations {
  std::function<gssize(gint fd, gpointer buffer, gsize length, gint timeout_ms)> read;
  std::function<gssize(gint fd, std::string_view data, gint timeout_ms)> write;
  std::function<gpointer(PTZSocketServer *, PTZSocketServerClient *)> get_reply_context;
  std::function<gboolean(gpointer context, std::string_view data)> send;
};
Operations operations;

gssize overriding_read(PTZSocket *self, gint fd, gpointer buffer, gsize length, gint timeout_ms) {
  if (operations.read) return operations.read(fd, buffer, length, timeout_ms);
  auto *base = static_cast<PTZSocketClass *>(g_type_class_peek(PTZ_TYPE_SOCKET_SERVER));
  return base->read(self, fd, buffer, length, timeout_ms);
}

gssize overriding_write(PTZSocket *self, gint fd, gconstpointer data, gsize length, gint timeout_ms) {
  if (operations.write) return operations.write(fd, {static_cast<const char *>(data), length}, timeout_ms);
  auto *base = static_cast<PTZSocketClass *>(g_type_class_peek(PTZ_TYPE_SOCKET_SERVER));
  return base->write(self, fd, data, length, timeout_ms);
}

gpointer overriding_get_reply_context(PTZSocketServer *self, PTZSocketServerClient *client) {
  if (operations.get_reply_context) return operations.get_reply_context(self, client);
  auto *base = static_cast<PTZSocketServerClass *>(g_type_class_peek(PTZ_TYPE_SOCKET_SERVER));
  return base->get_reply_context(self, client);
}

gboolean overriding_send(gpointer context, gconstpointer data, guint32 length) {
  if (operations.send) return operations.send(context, {static_cast<const char *>(data), length});
  auto *base = static_cast<PTZSocketServerClass *>(g_type_class_peek(PTZ_TYPE_SOCKET_SERVER));
  return base->send(context, data, length);
}

GType overriding_server_type() {
  static const GType type = subclass(PTZ_TYPE_SOCKET_SERVER, "OverridingServer", [](gpointer klass, gpointer) {
    PTZ_SOCKET_CLASS(klass)->read = overriding_read;
    PTZ_SOCKET_CLASS(klass)->write = overriding_write;
    PTZ_SOCKET_SERVER_CLASS(klass)->send = overriding_send;
    PTZ_SOCKET_SERVER_CLASS(klass)->get_reply_context = overriding_get_reply_context;
  });
  return type;
}

class OverriddenSocketServer : public testing::Test {
 protected:
  TempDir dir;
  PlainServer server{dir.file("server"), overriding_server_type()};
  Descriptor peer = connect_to(dir.file("server"));

  void SetUp() override {
    ASSERT_TRUE(run_until([this] { return server.client_count() == 1; }));
  }
  void TearDown() override { operations = {}; }
};

TEST_F(SocketServer, IsAClassOfItsOwnUnderTheEndpoint) {
  EXPECT_STREQ(g_type_name(PTZ_TYPE_SOCKET_SERVER), "PTZSocketServer");
  EXPECT_EQ(g_type_parent(PTZ_TYPE_SOCKET_SERVER), PTZ_TYPE_SOCKET);
  EXPECT_EQ(ptz_socket_server_get_type(), ptz_socket_server_get_type());
  EXPECT_TRUE(PTZ_IS_SOCKET_SERVER(server.get()));
}

TEST_F(SocketServer, ListensForEverybodyAndKnowsNobodyYet) {
  struct stat status {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0666u);
  EXPECT_EQ(PTZ_SOCKET(server.get())->mode, PTZ_SOCKET_MODE_SERVER);
  ASSERT_NE(server.get()->source, nullptr);
  EXPECT_EQ(server.get()->source->fd, server.fd());
  EXPECT_NE(server.get()->source->tag, nullptr);
  EXPECT_EQ(server.get()->source->server, server.get());
  EXPECT_EQ(server.clients(), nullptr);
}

TEST_F(SocketServer, ServesOnTheDefaultContextWhateverTheThreadsOwn) {
  const Context other(g_main_context_new());
  g_main_context_push_thread_default(other.get());
  const PlainServer made_under_another(dir.file("other"));
  g_main_context_pop_thread_default(other.get());
  EXPECT_EQ(made_under_another.get()->context, g_main_context_default());
  EXPECT_EQ(g_source_get_context(&made_under_another.get()->source->source), g_main_context_default());
}

TEST_F(SocketServer, IsReturnedEvenWhereItCannotListen) {
  const SyslogCapture log;
  const std::string bad_path = dir.file("no such folder/server");
  const PlainServer deaf(bad_path);
  ASSERT_NE(deaf.get(), nullptr);
  EXPECT_EQ(deaf.fd(), -1);
  EXPECT_EQ(
      log.count(LOG_ERR, "open_server_socket: Unable to bind to path '" + bad_path + "' No such file or directory."),
      1u);
  EXPECT_LT(iterations_within(30), 10);
}

TEST(SocketServerNew, RefusesATypeThatIsNoServer) {
  const TempDir dir;
  const GlibLogCapture log;
  EXPECT_EQ(ptz_socket_server_new(G_TYPE_OBJECT, dir.file("server").c_str(), SOCK_STREAM), nullptr);
  EXPECT_GE(log.criticals(), 1u);
}

TEST_F(SocketServer, AcceptsOneClientPerDispatchNewestFirst) {
  std::vector<Descriptor> peers;
  for (int i = 0; i < 3; ++i) peers.push_back(connect_to(path));
  std::vector<PTZSocketServerClient *> seen;
  for (guint i = 1; i <= 3; ++i) {
    iterate();
    ASSERT_EQ(server.client_count(), i);
    seen.insert(seen.begin(), server.client(0));
  }
  for (guint i = 0; i < 3; ++i) EXPECT_EQ(server.client(i), seen[i]);
}

TEST_F(SocketServer, WatchesAcceptedDescriptorsWithoutBlockingOrBequeathingThem) {
  const Descriptor peer = connect();
  EXPECT_NE(server.client(0)->tag, nullptr);
  EXPECT_TRUE(is_non_blocking(server.client(0)->fd));
  EXPECT_FALSE(is_inherited(server.client(0)->fd));
  EXPECT_FALSE(is_inherited(server.fd()));
}

TEST_F(SocketServer, AcceptsAClientWhoseFlagsCannotBeRead) {
  const Fault fault(Call::get_status_flags, EIO);
  const Descriptor peer = connect();
  send_all(peer.get(), "hello");
  run_pending();
  ASSERT_EQ(server.messages.size(), 1u);
  EXPECT_EQ(server.messages[0].body, "hello");
}

TEST_F(SocketServer, HandsOverAMessageWithItsSenderAndATerminatingNul) {
  const Descriptor peer = connect();
  send_all(peer.get(), "hello");
  run_pending();
  ASSERT_EQ(server.messages.size(), 1u);
  EXPECT_EQ(server.messages[0].body, "hello");
  EXPECT_TRUE(server.messages[0].terminated);
  EXPECT_EQ(server.messages[0].client_fd, server.client(0)->fd);
}

TEST_F(SocketServer, NamesItselfInTheReplyContext) {
  const Descriptor peer = connect();
  PTZSocketServer *named = nullptr;
  PTZSocketServerClient *client = nullptr;
  server.on_message = [&](const Message &message) {
    named = static_cast<PTZSocketServerReplyContext *>(message.context)->server;
    client = static_cast<PTZSocketServerReplyContext *>(message.context)->client;
    return TRUE;
  };
  send_all(peer.get(), "hello");
  run_pending();
  EXPECT_EQ(named, server.get());
  EXPECT_EQ(client, server.client(0));
}

TEST_F(SocketServer, UsesOneReplyContextForTheWholeProcess) {
  PlainServer second(dir.file("second"));
  const Descriptor peer = connect(), other = connect_to(dir.file("second"));
  send_all(peer.get(), "to the first");
  send_all(other.get(), "to the second");
  ASSERT_TRUE(run_until([&] { return server.messages.size() == 1 && second.messages.size() == 1; }));
  EXPECT_EQ(server.messages[0].context, second.messages[0].context);
}

TEST_F(SocketServer, ReplyGoesToItsOwnClientAfterAnotherServersMessageInANestedLoop) {
  PlainServer other(dir.file("other"));
  const Descriptor mine = connect(), theirs = connect_client(other, dir.file("other"));
  other.on_message = [](const Message &message) { return ptz_socket_server_send(message.context, "for theirs", 10); };
  server.on_message = [&](const Message &message) {
    send_all(theirs.get(), "other");
    EXPECT_TRUE(run_until([&] { return other.messages.size() == 1; }));
    EXPECT_TRUE(ptz_socket_server_send(message.context, "for mine", 8));
    return TRUE;
  };
  send_all(mine.get(), "hello");
  run_pending();
  EXPECT_EQ(receive_waiting(mine.get()), "for mine");
  EXPECT_EQ(receive_waiting(theirs.get()), "for theirs");
}

TEST_F(SocketServer, ReplyGoesToNoClientIfItsOwnWasClosedInANestedLoop) {
  PlainServer other(dir.file("other"));
  const Descriptor mine = connect(), theirs = connect_client(other, dir.file("other"));
  other.on_message = [&](const Message &) {
    ptz_socket_server_close(server.get(), server.client(0));
    return TRUE;
  };
  gboolean sent = TRUE;
  server.on_message = [&](const Message &message) {
    send_all(theirs.get(), "other");
    EXPECT_TRUE(run_until([&] { return other.messages.size() == 1; }));
    sent = ptz_socket_server_send(message.context, "for mine", 8);
    return TRUE;
  };
  send_all(mine.get(), "hello");
  run_pending();
  EXPECT_FALSE(sent);
  EXPECT_TRUE(was_closed(mine.get()));
  EXPECT_EQ(receive_waiting(theirs.get()), "");
}

TEST_F(SocketServer, ReadsAtMostTheLongestFrameAtOnce) {
  const Descriptor peer = connect();
  const std::string sent = body_of(PTZ_SOCKET_FRAME_MAX + 440);
  send_all(peer.get(), sent);
  iterate();
  ASSERT_EQ(server.messages.size(), 1u);
  EXPECT_EQ(server.messages[0].body, sent.substr(0, PTZ_SOCKET_FRAME_MAX));
  EXPECT_TRUE(server.messages[0].terminated);
  iterate();
  ASSERT_EQ(server.messages.size(), 2u);
  EXPECT_EQ(server.messages[1].body, sent.substr(PTZ_SOCKET_FRAME_MAX));
}

TEST_F(SocketServer, DeliversOneMessagePerDispatchNewestClientFirst) {
  const Descriptor older = connect(), newer = connect();
  send_all(older.get(), "from the older");
  send_all(newer.get(), "from the newer");
  iterate();
  ASSERT_EQ(server.messages.size(), 1u);
  EXPECT_EQ(server.messages[0].body, "from the newer");
  iterate();
  ASSERT_EQ(server.messages.size(), 2u);
  EXPECT_EQ(server.messages[1].body, "from the older");
}

TEST_F(SocketServer, ServesABurstNewestClientFirst) {
  const Descriptor older = connect(), newer = connect();
  send_all(older.get(), "from the older");
  const Descriptor late = connect_to(path);
  for (int i = 0; i < 10; ++i) {
    send_all(newer.get(), "from the newer");
    iterate();
    ASSERT_EQ(server.messages.size(), i + 1u);
    EXPECT_EQ(server.messages.back().body, "from the newer");
  }
  iterate();
  EXPECT_EQ(server.messages.back().body, "from the older");
  EXPECT_EQ(server.client_count(), 2u);
  iterate();
  EXPECT_EQ(server.client_count(), 3u);
}

TEST_F(SocketServer, LetsANewClientWaitForTheIterationAfterAMessage) {
  const Descriptor peer = connect();
  send_all(peer.get(), "hello");
  const Descriptor late = connect_to(path);
  iterate();
  EXPECT_EQ(server.messages.size(), 1u);
  EXPECT_EQ(server.client_count(), 1u);
  iterate();
  EXPECT_EQ(server.client_count(), 2u);
}

TEST_F(SocketServer, ReadsAndDropsMessagesWhileNobodyIsRegistered) {
  const Object<PTZSocketServer> mute(
      ptz_socket_server_new(PTZ_TYPE_SOCKET_SERVER, dir.file("mute").c_str(), SOCK_STREAM));
  const Descriptor first = connect_to(dir.file("mute")), second = connect_to(dir.file("mute"));
  ASSERT_TRUE(run_until([&] { return g_list_length(mute->source->clients) == 2; }));
  send_all(first.get(), "lost");
  send_all(second.get(), "lost");
  iterate();
  // Nothing was delivered, so one dispatch went through all of them.
  for (GList *link = mute->source->clients; link != nullptr; link = link->next) {
    EXPECT_FALSE(is_readable(static_cast<PTZSocketServerClient *>(link->data)->fd));
  }
  std::string heard;
  ptz_socket_server_register_callback(
      mute.get(),
      [](gpointer user_data, gpointer, gpointer data, guint32 length) -> gboolean {
        static_cast<std::string *>(user_data)->append(static_cast<const char *>(data), length);
        return TRUE;
      },
      &heard);
  send_all(first.get(), "heard");
  ASSERT_TRUE(run_until([&] { return !heard.empty(); }));
  EXPECT_EQ(heard, "heard");
}

TEST_F(SocketServer, AnswersTheSenderAndNobodyElse) {
  const Descriptor peer = connect(), other = connect();
  gboolean sent = FALSE;
  server.on_message = [&](const Message &message) {
    sent = ptz_socket_server_send(message.context, "answer", 6);
    return TRUE;
  };
  send_all(peer.get(), "question");
  run_pending();
  EXPECT_TRUE(sent);
  EXPECT_EQ(receive_waiting(peer.get()), "answer");
  EXPECT_EQ(receive_waiting(other.get()), "");
}

TEST_F(SocketServer, EndsItsSourceWhenTheCallbackSaysSo) {
  const Descriptor peer = connect();
  const Source source(g_source_ref(&server.get()->source->source));
  server.on_message = [](const Message &) { return FALSE; };
  send_all(peer.get(), "last");
  run_pending();
  EXPECT_TRUE(g_source_is_destroyed(source.get()));
  send_all(peer.get(), "unheard");
  const Descriptor late = connect_to(path);
  run_pending();
  EXPECT_EQ(server.messages.size(), 1u);
  EXPECT_LT(iterations_within(30), 10);
  server.drop();
  EXPECT_TRUE(was_closed(peer.get()));
}

TEST_F(SocketServer, DeliversWhatAClientSentBeforeItLeft) {
  Descriptor peer = connect();
  const Descriptor stays = connect();
  send_all(peer.get(), "last words");
  peer.reset();
  run_pending();
  ASSERT_EQ(server.messages.size(), 1u);
  EXPECT_EQ(server.messages[0].body, "last words");
  EXPECT_EQ(server.client_count(), 1u);
  send_all(stays.get(), "still here");
  run_pending();
  EXPECT_EQ(server.messages.size(), 2u);
}

TEST_F(SocketServer, ForgetsAClientThatDisconnects) {
  Descriptor first = connect(), second = connect(), third = connect();
  const int closed_fd = server.client(1)->fd;
  second.reset();
  run_pending();
  EXPECT_EQ(server.client_count(), 2u);
  EXPECT_FALSE(is_open(closed_fd));
  EXPECT_LT(iterations_within(30), 10);
}

TEST_F(SocketServer, ClosesAHalfClosedClient) {
  const Descriptor peer = connect();
  shutdown(peer.get(), SHUT_WR);
  run_pending();
  EXPECT_EQ(server.client_count(), 0u);
  EXPECT_TRUE(is_at_end(peer.get()));
}

TEST_F(SocketServer, ClosesAClientThatCannotBeRead) {
  const Descriptor bad = connect(), good = connect();
  const Fault fault(Call::read, EIO, {.fd = server.client(1)->fd});
  send_all(bad.get(), "unreadable");
  send_all(good.get(), "readable");
  run_pending();
  EXPECT_EQ(server.client_count(), 1u);
  EXPECT_TRUE(was_closed(bad.get()));
  ASSERT_EQ(server.messages.size(), 1u);
  EXPECT_EQ(server.messages[0].body, "readable");
}

TEST_F(SocketServer, RemovesAClientWhoseDescriptorFailsToCloseAndSaysSo) {
  Descriptor peer = connect();
  const int fd = server.client(0)->fd;
  const SyslogCapture log;
  {
    const Fault fault(Call::close, EIO, {.fd = fd});
    peer.reset();
    run_pending();
    EXPECT_EQ(fault.hits(), 1);
  }
  EXPECT_EQ(log.count(LOG_ERR, "ptz_socket_server_close: Failed to close client fd " + std::to_string(fd) +
                                   " Input/output error"),
            1u);
  EXPECT_EQ(server.client_count(), 0u);
  close(fd);
}

TEST_F(SocketServer, CloseForgetsTheClientItIsGiven) {
  const Descriptor older = connect(), newer = connect();
  const int fd = server.client(1)->fd;
  ptz_socket_server_close(server.get(), server.client(1));
  EXPECT_EQ(server.client_count(), 1u);
  EXPECT_FALSE(is_open(fd));
  EXPECT_TRUE(is_at_end(older.get()));
  send_all(newer.get(), "still here");
  run_pending();
  EXPECT_EQ(server.messages.size(), 1u);
}

TEST_F(SocketServer, StopsForGoodWhereAnAcceptFails) {
  const Descriptor served = connect();
  const SyslogCapture log;
  const Source source(g_source_ref(&server.get()->source->source));
  const Descriptor peer = connect_to(path);
  {
    const Fault fault(Call::accept, EMFILE, {.fd = server.fd()});
    run_pending();
    EXPECT_EQ(fault.hits(), 1);
  }
  EXPECT_EQ(log.count(LOG_ERR, "ptz_socket_server_source_dispatch: accept failed, errno=24, Too many open files"), 1u);
  EXPECT_EQ(reinterpret_cast<PTZSocketServerSource *>(source.get())->tag, nullptr);
  EXPECT_TRUE(g_source_is_destroyed(source.get()));
  send_all(served.get(), "unheard");
  run_pending();
  EXPECT_TRUE(server.messages.empty());
  EXPECT_LT(iterations_within(30), 10);
}

TEST_F(SocketServer, CanBeDroppedAfterAFailedAccept) {
  const Descriptor served = connect();
  {
    const Descriptor peer = connect_to(path);
    const Fault fault(Call::accept, ENFILE, {.fd = server.fd()});
    run_pending();
  }
  server.drop();
  EXPECT_TRUE(is_at_end(served.get()));
  EXPECT_FALSE(connect_to(path));
}

TEST_F(SocketServer, ClosesEverythingWhenItEnds) {
  const Descriptor first = connect(), second = connect();
  const int listening = server.fd(), accepted = server.client(0)->fd;
  const Source source(g_source_ref(&server.get()->source->source));
  server.drop();
  EXPECT_TRUE(is_at_end(first.get()));
  EXPECT_TRUE(is_at_end(second.get()));
  EXPECT_FALSE(is_open(listening));
  EXPECT_FALSE(is_open(accepted));
  EXPECT_NE(access(path.c_str(), F_OK), 0);
  EXPECT_TRUE(g_source_is_destroyed(source.get()));
  run_pending();
}

TEST_F(SocketServer, GivesAReferenceBackThroughTheReplyContext) {
  const Descriptor peer = connect();
  g_object_ref(server.get());
  const guint before = G_OBJECT(server.get())->ref_count;
  guint after = 0;
  server.on_message = [&](const Message &message) {
    ptz_socket_server_unref(message.context);
    after = G_OBJECT(server.get())->ref_count;
    return TRUE;
  };
  send_all(peer.get(), "hello");
  run_pending();
  // Whatever the dispatch holds itself, exactly the one that was added is gone when it is over.
  EXPECT_GE(after, before - 1);
  EXPECT_EQ(G_OBJECT(server.get())->ref_count, before - 1);
}

TEST_F(SocketServer, MayBeDroppedByItsCallback) {
  for (const bool result : {true, false}) {
    const std::string one = dir.file("one");
    auto dropped = std::make_unique<PlainServer>(one);
    const Descriptor peer = connect_to(one);
    ASSERT_TRUE(run_until([&] { return dropped->client_count() == 1; }));
    dropped->on_message = [&](const Message &) {
      dropped.reset();
      return result ? TRUE : FALSE;
    };
    send_all(peer.get(), "go");
    run_pending();
    EXPECT_EQ(dropped, nullptr);
    EXPECT_TRUE(is_at_end(peer.get()));
  }
}

TEST_F(SocketServer, AnswersNobodyOnceTheCallbackHasClosedTheClient) {
  const Descriptor other = connect(), peer = connect();
  gboolean sent = TRUE;
  bool forgotten = false;
  server.on_message = [&](const Message &message) {
    auto *context = static_cast<PTZSocketServerReplyContext *>(message.context);
    ptz_socket_server_close(server.get(), context->client);
    forgotten = context->client == nullptr;
    sent = ptz_socket_server_send(message.context, "answer", 6);
    return TRUE;
  };
  send_all(peer.get(), "close me");
  run_pending();
  EXPECT_TRUE(forgotten);
  EXPECT_FALSE(sent);
  EXPECT_EQ(receive_waiting(peer.get()), "");
  EXPECT_EQ(receive_waiting(other.get()), "");
  EXPECT_EQ(server.client_count(), 1u);
}

TEST_F(SocketServer, SurvivesACallbackThatClosesEveryClient) {
  std::vector<Descriptor> peers;
  for (int i = 0; i < 5; ++i) peers.push_back(connect());
  server.on_message = [&](const Message &) {
    while (server.clients() != nullptr) ptz_socket_server_close(server.get(), server.client(0));
    return TRUE;
  };
  for (const Descriptor &peer : peers) send_all(peer.get(), "hello");
  run_pending();
  EXPECT_EQ(server.messages.size(), 1u);
  EXPECT_EQ(server.client_count(), 0u);
}

// A nested main loop in a callback closes clients that the dispatch around it has not looked at yet.
TEST_F(SocketServer, SurvivesACallbackThatRunsTheMainLoop) {
  std::vector<Descriptor> peers;
  for (int i = 0; i < 4; ++i) peers.push_back(connect());
  server.on_message = [&](const Message &) {
    for (std::size_t i = 1; i < peers.size(); ++i) peers[i].reset();
    iterate(10);
    return TRUE;
  };
  for (const Descriptor &peer : peers) send_all(peer.get(), "hello");
  run_pending();
  EXPECT_EQ(server.client_count(), 1u);
}

TEST_F(SocketServer, IsNotCalledAgainFromAMainLoopInItsCallback) {
  const Descriptor first = connect(), second = connect();
  Descriptor late;
  int depth = 0, deepest = 0;
  server.on_message = [&](const Message &message) {
    deepest = std::max(deepest, ++depth);
    if (message.body == "one") {
      send_all(first.get(), "two");
      send_all(second.get(), "three");
      late = connect_to(path);
      EXPECT_LT(iterations_within(20), 10);
      EXPECT_EQ(server.messages.size(), 1u);
      EXPECT_TRUE(ptz_socket_server_send(message.context, "answer", 6));
    }
    --depth;
    return TRUE;
  };
  send_all(first.get(), "one");
  run_pending();
  EXPECT_EQ(server.messages.size(), 3u);
  EXPECT_EQ(deepest, 1);
  EXPECT_EQ(server.client_count(), 3u);
  EXPECT_EQ(receive_waiting(first.get()), "answer");
}

TEST_F(SocketServer, MayBeDroppedFromAMainLoopInItsCallback) {
  const Descriptor first = connect(), second = connect();
  server.on_message = [&](const Message &) {
    g_idle_add(
        [](gpointer dropped) -> gboolean {
          static_cast<PlainServer *>(dropped)->drop();
          return G_SOURCE_REMOVE;
        },
        &server);
    send_all(second.get(), "unheard");
    iterate(5);
    EXPECT_EQ(server.get(), nullptr);
    iterate(5);
    return TRUE;
  };
  send_all(first.get(), "go");
  run_pending();
  EXPECT_TRUE(was_closed(first.get()));
  EXPECT_TRUE(was_closed(second.get()));
}

TEST_F(SocketServer, MayCloseAClientFromAMainLoopInItsCallback) {
  const Descriptor first = connect(), second = connect();
  server.on_message = [&](const Message &) {
    iterate(2);
    ptz_socket_server_close(server.get(), server.client(0));
    iterate(2);
    return TRUE;
  };
  send_all(first.get(), "one");
  run_pending();
  EXPECT_TRUE(was_closed(second.get()));
  send_all(first.get(), "two");
  run_pending();
  EXPECT_EQ(server.client_count(), 0u);
  EXPECT_EQ(server.messages.size(), 2u);
}

TEST_F(SocketServer, KeepsAClientWhoseDescriptorWasClosedByNobodyElse) {
  const Descriptor peer = connect();
  EXPECT_LT(iterations_within(30), 10);
  EXPECT_EQ(server.client_count(), 1u);
}

TEST_F(SocketServer, ForgetsAClientWhoseDescriptorWasClosedUnderTheWatch) {
  const Descriptor peer = connect(), stays = connect();
  close(server.client(1)->fd);
  run_pending();
  EXPECT_EQ(server.client_count(), 1u);
  EXPECT_LT(iterations_within(30), 10);
  send_all(stays.get(), "still here");
  run_pending();
  EXPECT_EQ(server.messages.size(), 1u);
}

class SocketServerCondition : public SocketServer, public testing::WithParamInterface<GIOCondition> {};
INSTANTIATE_TEST_SUITE_P(WithoutData, SocketServerCondition, testing::Values(G_IO_HUP, G_IO_ERR, G_IO_NVAL),
                         [](const auto &tested) {
                           return tested.param == G_IO_HUP ? "HangUp" : tested.param == G_IO_ERR ? "Error" : "Invalid";
                         });

TEST_P(SocketServerCondition, OfAClientClosesIt) {
  const Descriptor peer = connect(), stays = connect();
  {
    const InjectedEvents events(server.client(1)->fd, GetParam());
    EXPECT_TRUE(run_until([&] { return server.client_count() == 1; }, 1000));
  }
  EXPECT_TRUE(is_at_end(peer.get()));
  EXPECT_LT(iterations_within(30), 10);
}

TEST_P(SocketServerCondition, OfTheListeningDescriptorEndsItsWatchAndNothingElse) {
  const Descriptor stays = connect();
  {
    const InjectedEvents events(server.fd(), GetParam());
    EXPECT_TRUE(run_until([&] { return server.get()->source->tag == nullptr; }, 1000));
    EXPECT_LT(iterations_within(30), 10);
  }
  const Descriptor late = connect_to(path);
  send_all(stays.get(), "still here");
  run_pending();
  EXPECT_EQ(server.messages.size(), 1u);
  EXPECT_EQ(server.client_count(), 1u);
}

TEST_F(SocketServer, StopsWatchingAListeningDescriptorThatWasClosedUnderIt) {
  const Descriptor stays = connect();
  close(server.fd());
  EXPECT_LT(iterations_within(30), 10);
  send_all(stays.get(), "still here");
  run_pending();
  EXPECT_EQ(server.messages.size(), 1u);
  PTZ_SOCKET(server.get())->fd = -1;
}

class SocketServerFairness : public SocketServer, public testing::WithParamInterface<bool> {};
constexpr int patience = 16;  // messages before turns are taken
INSTANTIATE_TEST_SUITE_P(, SocketServerFairness, testing::Bool(),
                         [](const auto &tested) { return tested.param ? "TheFloodIsNewest" : "TheFloodIsOldest"; });

TEST_P(SocketServerFairness, AFloodingClientStarvesNeitherClientsNorTheListeningSocket) {
  Descriptor quiet, flooding;
  if (GetParam()) quiet = connect();
  flooding = connect();
  if (!GetParam()) quiet = connect();
  Descriptor late;
  const auto heard = [&](std::string_view text) {
    return std::any_of(server.messages.begin(), server.messages.end(),
                       [&](const Message &message) { return message.body == text; });
  };
  for (int i = 0; i < patience + 20; ++i) {
    fill(flooding.get());
    if (i == 4) {
      send_all(quiet.get(), "quiet");
      late = connect_to(path);
      send_all(late.get(), "late");
    }
    if (i == 4 + patience + 6) {
      EXPECT_TRUE(heard("quiet"));
      EXPECT_EQ(server.client_count(), 3u);
    }
    iterate();
  }
  EXPECT_TRUE(heard("late"));
}

TEST_F(SocketServer, ManyFloodingClientsLeaveEachOtherTheirTurns) {
  constexpr int floods = 10;
  std::vector<Descriptor> peers;
  for (int i = 0; i < floods; ++i) peers.push_back(connect());
  for (const Descriptor &peer : peers) fill(peer.get());
  const Descriptor late = connect_to(path);
  std::map<int, int> turns;
  server.on_message = [&](const Message &message) {
    ++turns[message.client_fd];
    return TRUE;
  };
  for (int i = 0; i < patience + 4 * (floods + 1); ++i) {
    iterate();
    for (const Descriptor &peer : peers) fill(peer.get());
  }
  EXPECT_EQ(server.client_count(), floods + 1u);
  EXPECT_EQ(turns.size(), static_cast<std::size_t>(floods));
  for (const auto &[fd, count] : turns) EXPECT_GE(count, 3) << fd;
}

TEST_F(SocketServer, AMainLoopInsideTheCallbackNeitherServesNorSpins) {
  const Descriptor first = connect(), second = connect();
  int depth = 0, deepest = 0, inner_iterations = 0;
  std::size_t clients_inside = 0;
  Descriptor late;
  std::vector<std::string> received;
  server.on_message = [&](const Message &message) {
    deepest = std::max(deepest, ++depth);
    received.push_back(message.body);
    if (received.size() == 1) {
      send_all(first.get(), "while the callback runs");
      send_all(second.get(), "from another meanwhile");
      late = connect_to(path);
      inner_iterations = iterations_within(30);
      clients_inside = server.client_count();
    }
    --depth;
    return TRUE;
  };
  send_all(first.get(), "opening");
  EXPECT_TRUE(run_until([&] { return received.size() == 3 && server.client_count() == 3; }));
  EXPECT_EQ(deepest, 1);
  EXPECT_LT(inner_iterations, 50);
  EXPECT_EQ(clients_inside, 2u);
}

TEST_F(SocketServer, AMainLoopInsideTheCallbackMaySeeAClientClosed) {
  const Descriptor first = connect(), second = connect();
  server.on_message = [&](const Message &message) {
    run_pending();
    ptz_socket_server_close(server.get(), static_cast<PTZSocketServerReplyContext *>(message.context)->client);
    run_pending();
    return TRUE;
  };
  send_all(first.get(), "close me");
  EXPECT_TRUE(run_until([&] { return server.client_count() == 1; }));
  EXPECT_TRUE(is_at_end(first.get()));
  std::string heard;
  server.on_message = [&](const Message &message) {
    heard = message.body;
    return TRUE;
  };
  send_all(second.get(), "still here");
  EXPECT_TRUE(run_until([&] { return heard == "still here"; }));
}

TEST_F(OverriddenSocketServer, ReadsWithRoomForTheLongestFrameAndWithoutWaiting) {
  int reads = 0;
  operations.read = [&](gint fd, gpointer buffer, gsize length, gint timeout_ms) -> gssize {
    ++reads;
    EXPECT_EQ(fd, server.client(0)->fd);
    EXPECT_EQ(length, 2560u);
    EXPECT_EQ(timeout_ms, 0);
    EXPECT_EQ(receive_waiting(fd), "hello");
    std::fill_n(static_cast<char *>(buffer), length, 'x');
    return 2560;
  };
  send_all(peer.get(), "hello");
  run_pending();
  EXPECT_EQ(reads, 1);
  ASSERT_EQ(server.messages.size(), 1u);
  EXPECT_EQ(server.messages[0].body, std::string(2560, 'x'));
  EXPECT_TRUE(server.messages[0].terminated);
}

TEST_F(OverriddenSocketServer, CloseAClientWhoseReadIsNegative) {
  operations.read = [](gint, gpointer, gsize, gint) -> gssize { return -1; };
  send_all(peer.get(), "hello");
  run_pending();
  EXPECT_EQ(server.client_count(), 0u);
}

TEST_F(OverriddenSocketServer, TakesZeroForNothingRead) {
  operations.read = [](gint fd, gpointer, gsize, gint) -> gssize {
    EXPECT_EQ(receive_waiting(fd), "hello");
    return 0;
  };
  send_all(peer.get(), "hello");
  run_pending();
  EXPECT_EQ(server.client_count(), 1u);
  EXPECT_TRUE(server.messages.empty());
}

TEST_F(OverriddenSocketServer, ClosesAClientThatHungUpWithNothingRead) {
  operations.read = [](gint, gpointer, gsize, gint) -> gssize { return 0; };
  peer.reset();
  run_pending();
  EXPECT_EQ(server.client_count(), 0u);
}

TEST_F(OverriddenSocketServer, DoesNotCallBackWithoutAReplyContext) {
  const Descriptor second = connect_to(dir.file("server"));
  ASSERT_TRUE(run_until([&] { return server.client_count() == 2; }));
  const PTZSocketServerClient *newest = server.client(0);
  operations.get_reply_context = [&](PTZSocketServer *self, PTZSocketServerClient *client) -> gpointer {
    if (client == newest) return nullptr;
    auto *base = static_cast<PTZSocketServerClass *>(g_type_class_peek(PTZ_TYPE_SOCKET_SERVER));
    return base->get_reply_context(self, client);
  };
  send_all(second.get(), "ignored");
  send_all(peer.get(), "heard");
  iterate();
  // The same dispatch went on to the next client.
  ASSERT_EQ(server.messages.size(), 1u);
  EXPECT_EQ(server.messages[0].body, "heard");
  EXPECT_EQ(server.client_count(), 2u);
}

TEST_F(OverriddenSocketServer, ClosesItsClientInGetReplyContextWithoutACallback) {
  operations.get_reply_context = [](PTZSocketServer *self, PTZSocketServerClient *client) -> gpointer {
    ptz_socket_server_close(self, client);
    static PTZSocketServerReplyContext context = {nullptr, self};
    return &context;
  };
  send_all(peer.get(), "hello");
  run_pending();
  EXPECT_TRUE(server.messages.empty());
  EXPECT_EQ(server.client_count(), 0u);
}

TEST_F(OverriddenSocketServer, WriteThatClosesTheClientAndFailsIsHarmless) {
  const GlibLogCapture log;
  server.on_message = [this](const Message &message) {
    operations.write = [this](gint, std::string_view, gint) -> gssize {
      ptz_socket_server_close(server.get(), server.client(0));
      errno = EPIPE;
      return -1;
    };
    EXPECT_FALSE(ptz_socket_server_send(message.context, "answer", 6));
    return TRUE;
  };
  send_all(peer.get(), "hello");
  run_pending();
  EXPECT_EQ(server.client_count(), 0u);
  EXPECT_TRUE(log.messages().empty());
}

TEST_F(OverriddenSocketServer, ReadThatRunsAMainLoopIsNotCalledAgainFromThere) {
  int depth = 0, deepest = 0;
  operations.read = [&](gint fd, gpointer buffer, gsize length, gint) -> gssize {
    deepest = std::max(deepest, ++depth);
    iterate(5);
    --depth;
    return read(fd, buffer, length);
  };
  send_all(peer.get(), "hello");
  run_pending();
  EXPECT_EQ(deepest, 1);
  EXPECT_EQ(server.messages.size(), 1u);
}

TEST_F(OverriddenSocketServer, SendGoesThroughTheClassOfTheServer) {
  std::string sent;
  operations.send = [&](gpointer, std::string_view data) {
    sent = data;
    return TRUE;
  };
  server.on_message = [](const Message &message) {
    EXPECT_TRUE(ptz_socket_server_send(message.context, "answer", 6));
    return TRUE;
  };
  send_all(peer.get(), "question");
  run_pending();
  EXPECT_EQ(sent, "answer");
}

struct WriteCase {
  const char *description;
  gssize result;
  int error;
  gboolean sent;
  bool kept;
};

class SocketServerSend : public OverriddenSocketServer, public testing::WithParamInterface<WriteCase> {};
INSTANTIATE_TEST_SUITE_P(, SocketServerSend,
                         testing::Values(WriteCase{"EverythingIsTrue", 6, 0, TRUE, true},
                                         WriteCase{"APartIsTrue", 2, 0, TRUE, true},
                                         WriteCase{"NothingAtAllIsTrue", 0, 0, TRUE, true},
                                         WriteCase{"AFullSocketIsFalse", -1, EAGAIN, FALSE, true},
                                         WriteCase{"ASignalIsFalse", -1, EINTR, FALSE, true},
                                         WriteCase{"APeerThatHasGoneIsClosed", -1, EPIPE, FALSE, false},
                                         WriteCase{"AnyOtherErrorIsClosed", -1, EIO, FALSE, false}),
                         [](const auto &tested) { return tested.param.description; });

TEST_P(SocketServerSend, WaitsASecondForTheWrite) {
  const WriteCase &expected = GetParam();
  gboolean sent = !expected.sent;
  int writes = 0;
  operations.write = [&](gint fd, std::string_view data, gint timeout_ms) -> gssize {
    ++writes;
    EXPECT_EQ(fd, server.client(0)->fd);
    EXPECT_EQ(data, "answer");
    EXPECT_EQ(timeout_ms, 1000);
    errno = expected.error;
    return expected.result;
  };
  server.on_message = [&](const Message &message) {
    sent = ptz_socket_server_send(message.context, "answer", 6);
    return TRUE;
  };
  send_all(peer.get(), "question");
  run_pending();
  EXPECT_EQ(writes, 1);
  EXPECT_EQ(sent, expected.sent);
  EXPECT_EQ(server.client_count(), expected.kept ? 1u : 0u);
}

TEST_F(SocketServer, SpendsAtMostASecondOnAClientThatDoesNotRead) {
  const Descriptor peer = connect();
  send_all(peer.get(), "question");
  fill(server.client(0)->fd);
  const Interposer waiting([&](Attempt &attempt) -> std::optional<Outcome> {
    if (attempt.call != Call::poll || attempt.fd != server.client(0)->fd) return std::nullopt;
    EXPECT_LE(attempt.argument, 1000);
    advance_clock(attempt.argument);
    return Outcome{0};
  });
  gboolean sent = TRUE;
  server.on_message = [&](const Message &message) {
    sent = ptz_socket_server_send(message.context, "answer", 6);
    return TRUE;
  };
  const auto start = real_time_ms();
  run_pending();
  EXPECT_FALSE(sent);
  EXPECT_LT(real_time_ms() - start, 900);
}

TEST(SocketServerOnADescriptor, OpensNothingAndServesNobodyYet) {
  Pair pair;
  const PlainServer server(ptz_socket_server_fd_new(PTZ_TYPE_SOCKET_SERVER, pair.ours.get(), SOCK_STREAM));
  EXPECT_EQ(PTZ_SOCKET(server.get())->socket, nullptr);
  EXPECT_EQ(PTZ_SOCKET(server.get())->mode, PTZ_SOCKET_MODE_SERVER);
  EXPECT_EQ(server.fd(), pair.ours.get());
  EXPECT_EQ(server.get()->source->fd, pair.ours.get());
  EXPECT_EQ(server.get()->context, g_main_context_default());
  run_pending();
  EXPECT_EQ(server.client_count(), 0u);
}

TEST(SocketServerOnADescriptor, LeavesADescriptorThatNeverSpokeToItsOwner) {
  Pair pair;
  {
    const PlainServer server(ptz_socket_server_fd_new(PTZ_TYPE_SOCKET_SERVER, pair.ours.get(), SOCK_STREAM));
    run_pending();
  }
  EXPECT_TRUE(is_open(pair.ours.get()));
  EXPECT_FALSE(is_at_end(pair.theirs.get()));
}

TEST(SocketServerOnADescriptor, TakesItOnceAsAClientOfItsOwn) {
  Pair pair;
  // Blocking, unlike the end that a Pair offers.
  const int fd = pair.theirs.release();
  PlainServer server(ptz_socket_server_fd_new(PTZ_TYPE_SOCKET_SERVER, fd, SOCK_STREAM));
  server.on_message = [](const Message &message) {
    ptz_socket_server_send(message.context, message.body.data(), static_cast<guint32>(message.body.size()));
    return TRUE;
  };
  for (const std::string text : {"one", "two", "three"}) {
    send_all(pair.ours.get(), text);
    run_pending();
    EXPECT_EQ(receive_waiting(pair.ours.get()), text);
    ASSERT_EQ(server.client_count(), 1u);
    EXPECT_EQ(server.client(0)->fd, fd);
  }
  EXPECT_EQ(server.messages.size(), 3u);
  EXPECT_TRUE(is_non_blocking(fd));
  EXPECT_LT(iterations_within(30), 10);
  server.drop();
  EXPECT_FALSE(is_open(fd));
  EXPECT_TRUE(is_at_end(pair.ours.get()));
}

TEST(SocketServerOnADescriptor, ClosesItWithItsClientWhenThePeerHangsUp) {
  Pair pair;
  const int fd = pair.ours.release();
  PlainServer server(ptz_socket_server_fd_new(PTZ_TYPE_SOCKET_SERVER, fd, SOCK_STREAM));
  send_all(pair.theirs.get(), "last words");
  pair.theirs.reset();
  run_pending();
  ASSERT_EQ(server.messages.size(), 1u);
  EXPECT_EQ(server.messages[0].body, "last words");
  EXPECT_EQ(server.client_count(), 0u);
  EXPECT_EQ(server.fd(), -1);
  EXPECT_FALSE(is_open(fd));
  EXPECT_LT(iterations_within(30), 10);
}

TEST(SocketServerOnADescriptor, ClosesNothingOfOthersOnceItsClientHasGone) {
  Pair pair;
  const int fd = pair.ours.release();
  PlainServer server(ptz_socket_server_fd_new(PTZ_TYPE_SOCKET_SERVER, fd, SOCK_STREAM));
  pair.theirs.reset();
  run_pending();
  ASSERT_FALSE(is_open(fd));
  const Descriptor somebody_elses(dup2(STDERR_FILENO, fd));
  server.drop();
  EXPECT_TRUE(is_open(somebody_elses.get()));
}

}  // namespace
