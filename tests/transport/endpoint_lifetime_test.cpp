// The last reference of an endpoint goes in another thread, while the main loop runs its sources.
#include <gtest/gtest.h>
#include <ptz_socket_signal.h>
#include <sys/socket.h>

#include <atomic>
#include <functional>
#include <thread>

#include "command_ends.h"
#include "peers.h"
#include "syslog_capture.h"

using namespace ptz_test;

namespace {

constexpr int rounds = 150;

// Drops the reference in another thread, some microseconds later, while the main loop runs here.
void drop_in_thread(gpointer object, unsigned delay) {
  // One loop that keeps the context, as a program's does.
  ASSERT_TRUE(g_main_context_acquire(nullptr));
  std::atomic<bool> dropped = false;
  std::thread dropper([&] {
    for (unsigned i = 0; i < delay * 50; ++i) std::atomic_signal_fence(std::memory_order_seq_cst);
    g_object_unref(object);
    dropped = true;
    g_main_context_wakeup(nullptr);
  });
  while (!dropped) g_main_context_iteration(nullptr, FALSE);
  g_main_context_release(nullptr);
  dropper.join();
  run_pending();
}

class EndpointLifetime : public testing::Test {
 protected:
  GlibLogCapture log;
  void TearDown() override { EXPECT_TRUE(log.messages().empty()); }
};

TEST_F(EndpointLifetime, ClientMayEndInAnotherThreadWhileDataArrive) {
  for (int round = 0; round < rounds; ++round) {
    Pair pair;
    auto *client = ptz_socket_client_new(PTZ_TYPE_SOCKET_CLIENT, nullptr, pair.ours.get(), SOCK_STREAM);
    static std::atomic<int> calls;
    ptz_socket_client_register_callback(
        client, [](gpointer, gpointer, guint32) { ++calls; }, nullptr);
    for (int i = 0; i < 5; ++i) send_all(pair.theirs.get(), body_of(5000));
    drop_in_thread(client, static_cast<unsigned>(round));
  }
}

TEST_F(EndpointLifetime, CommandClientMayEndInAnotherThreadWhileRepliesArrive) {
  for (int round = 0; round < rounds; ++round) {
    Pair pair;
    auto *client = ptz_socket_client_command_new(nullptr, pair.ours.get(), SOCK_STREAM);
    std::atomic<int> done = 0;
    struct Request {
      std::atomic<int> *done;
    };
    std::vector<Request> requests(20, Request{&done});
    ptz_socket_client_register_callback(
        PTZ_SOCKET_CLIENT(client),
        [](gpointer request, gpointer, guint32) { ++*static_cast<Request *>(request)->done; }, nullptr);
    ptz_socket_client_command_register_free_callback(
        client, [](gpointer request, gpointer) { ++*static_cast<Request *>(request)->done; }, nullptr);
    for (Request &request : requests) EXPECT_TRUE(ptz_socket_client_command_async_send(client, "q", 1, &request));
    for (std::uint32_t id = 0; id < requests.size(); ++id) send_all(pair.theirs.get(), frame(id, "answer"));
    drop_in_thread(client, static_cast<unsigned>(round));
    EXPECT_EQ(done, 20);
  }
}

TEST_F(EndpointLifetime, CommandClientMayEndInAnotherThreadWithDeferredReplies) {
  for (int round = 0; round < rounds; ++round) {
    Pair pair;
    auto *client = ptz_socket_client_command_new(nullptr, pair.ours.get(), SOCK_STREAM);
    std::atomic<int> done = 0;
    ptz_socket_client_register_callback(
        PTZ_SOCKET_CLIENT(client), [](gpointer calls, gpointer, guint32) { ++*static_cast<std::atomic<int> *>(calls); },
        nullptr);
    ptz_socket_client_command_register_free_callback(
        client, [](gpointer calls, gpointer) { ++*static_cast<std::atomic<int> *>(calls); }, nullptr);
    for (int i = 0; i < 10; ++i) EXPECT_TRUE(ptz_socket_client_command_async_send(client, "q", 1, &done));
    for (std::uint32_t id = 0; id < 10; ++id) send_all(pair.theirs.get(), frame(id, "answer"));
    auto asking = in_thread([&] {
      guint8 reply[PTZ_SOCKET_BODY_MAX];
      guint32 length = 0;
      return ptz_socket_client_command_sync_send(client, "q", 1, reply, &length);
    });
    for (int i = 0; i < 11; ++i) EXPECT_TRUE(receive_frame(pair.theirs.get()));
    send_all(pair.theirs.get(), frame(10, "answer"));
    EXPECT_TRUE(asking.get());
    drop_in_thread(client, static_cast<unsigned>(round));
    EXPECT_EQ(done, 10);
  }
}

TEST_F(EndpointLifetime, RetryingClientMayEndInAnotherThread) {
  const TempDir dir;
  for (int round = 0; round < rounds; ++round) {
    auto *socket = ptz_socket_new(PTZ_TYPE_SOCKET, PTZ_SOCKET_MODE_CLIENT, dir.file("nobody").c_str(), SOCK_STREAM);
    // The timer is due at once, and again and again.
    GSource *timer = g_main_context_find_source_by_id(nullptr, socket->retry_source);
    g_source_set_ready_time(timer, 0);
    drop_in_thread(socket, static_cast<unsigned>(round));
  }
}

TEST_F(EndpointLifetime, ServerMayEndInAnotherThreadWhileClientsSend) {
  const TempDir dir;
  for (const GType type : {PTZ_TYPE_SOCKET_SERVER, PTZ_TYPE_SOCKET_SERVER_COMMAND}) {
    for (int round = 0; round < rounds; ++round) {
      const std::string path = dir.file("server");
      auto *server = ptz_socket_server_new(type, path.c_str(), SOCK_STREAM);
      ptz_socket_server_register_callback(
          server,
          [](gpointer, gpointer context, gpointer data, guint32 length) -> gboolean {
            ptz_socket_server_send(context, data, length);
            return TRUE;
          },
          nullptr);
      std::vector<Descriptor> peers;
      for (int i = 0; i < 4; ++i) {
        peers.push_back(connect_to(path));
        ASSERT_TRUE(peers.back());
        for (std::uint32_t id = 0; id < 5; ++id) send_all(peers.back().get(), frame(id, "question"));
      }
      send_all(peers[0].get(), frame(9, "half").substr(0, 9));
      drop_in_thread(server, static_cast<unsigned>(round));
      for (const Descriptor &peer : peers) {
        (void)receive_waiting(peer.get());
        EXPECT_TRUE(was_closed(peer.get()));
      }
      EXPECT_FALSE(connect_to(path));
    }
  }
}

TEST_F(EndpointLifetime, ServerMayEndInAnotherThreadDuringItsCallback) {
  const TempDir dir;
  const std::string path = dir.file("server");
  auto *server = ptz_socket_server_new(PTZ_TYPE_SOCKET_SERVER, path.c_str(), SOCK_STREAM);
  ptz_socket_server_register_callback(
      server,
      [](gpointer user_data, gpointer context, gpointer, guint32) -> gboolean {
        in_thread([=] { g_object_unref(user_data); }).wait();
        EXPECT_TRUE(ptz_socket_server_send(context, "answer", 6));
        return TRUE;
      },
      server);
  const Descriptor peer = connect_to(path);
  send_all(peer.get(), "question");
  run_pending();
  EXPECT_EQ(receive_waiting(peer.get()), "answer");
  EXPECT_TRUE(was_closed(peer.get()));
}

TEST_F(EndpointLifetime, ServerThatIsReplacedInItsCallbackLeavesThePathToItsSuccessor) {
  const TempDir dir;
  struct Servers {
    std::string path;
    PTZSocketServer *first;
    PTZSocketServer *second;
  } servers = {dir.file("server"), nullptr, nullptr};
  servers.first = ptz_socket_server_new(PTZ_TYPE_SOCKET_SERVER, servers.path.c_str(), SOCK_STREAM);
  ptz_socket_server_register_callback(
      servers.first,
      [](gpointer user_data, gpointer, gpointer, guint32) -> gboolean {
        auto *all = static_cast<Servers *>(user_data);
        g_clear_object(&all->first);
        all->second = ptz_socket_server_new(PTZ_TYPE_SOCKET_SERVER, all->path.c_str(), SOCK_STREAM);
        return TRUE;
      },
      &servers);
  const Descriptor peer = connect_to(servers.path);
  send_all(peer.get(), "go");
  run_pending();
  EXPECT_TRUE(was_closed(peer.get()));
  EXPECT_TRUE(connect_to(servers.path));
  g_object_unref(servers.second);
  EXPECT_FALSE(connect_to(servers.path));
}

TEST_F(EndpointLifetime, ClientStillWorksAfterRunDispose) {
  Pair pair;
  CommandClient client(pair.ours.get());
  Answer answer;
  g_object_run_dispose(G_OBJECT(client.get()));
  ASSERT_TRUE(client.send("question", &answer));
  send_all(pair.theirs.get(), frame(0, "answer"));
  run_pending();
  EXPECT_TRUE(answer.replied());
}

}  // namespace
