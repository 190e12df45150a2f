// A server's path and descriptors while others work against it.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstring>
#include <thread>

#include "clock.h"
#include "command_ends.h"
#include "faults.h"
#include "interpose.h"
#include "peers.h"
#include "syslog_capture.h"

using namespace ptz_test;

namespace {

std::atomic<int> looks_that_succeed = INT_MAX;  // the calls of lstat() after them fail

class ServerOpening : public testing::Test {
 protected:
  TempDir dir;
  std::string path = dir.file("server");
};

// What a client does that cannot connect yet, at the moment when the server makes this call.
auto removing_before(Call call, const std::string &path, int times) {
  return Interposer([=, left = times](Attempt &attempt) mutable -> std::optional<Outcome> {
    if (attempt.call != call || left == 0) return std::nullopt;
    --left;
    unlink(path.c_str());
    return std::nullopt;
  });
}

class ServerOpeningStep : public ServerOpening, public testing::WithParamInterface<Call> {};
INSTANTIATE_TEST_SUITE_P(Step, ServerOpeningStep, testing::Values(Call::chmod, Call::listen),
                         [](const auto &info) { return std::string(info.param == Call::chmod ? "Chmod" : "Listen"); });

TEST_P(ServerOpeningStep, BindsAgainIfAClientRemovedThePathMeanwhile) {
  const SyslogCapture log;
  for (const int times : {1, 30}) {
    const CallLog calls;
    const auto client = removing_before(GetParam(), path, times);
    PlainServer server(path);
    EXPECT_EQ(calls.count(Call::bind), static_cast<std::size_t>(times) + 1);
    EXPECT_TRUE(connect_client(server, path)) << times;
  }
  EXPECT_TRUE(log.lines().empty());
}

TEST_P(ServerOpeningStep, GivesUpAfterThirtyRepeatsAndLogsIt) {
  const SyslogCapture log;
  const CallLog calls;
  const auto client = removing_before(GetParam(), path, -1);
  const PlainServer server(path);
  EXPECT_EQ(server.fd(), -1);
  EXPECT_EQ(calls.count(Call::bind), 31u);
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{{LOG_ERR, "open_server_socket: '" + path +
                                                             "' was removed or replaced each of the 31 times that it "
                                                             "was bound."}}));
}

TEST_F(ServerOpening, FailedChmodOfItsOwnPathIsNotRepeated) {
  const SyslogCapture log;
  const CallLog calls;
  const Fault fault(Call::chmod, EPERM);
  const PlainServer server(path);
  EXPECT_EQ(server.fd(), -1);
  EXPECT_EQ(calls.count(Call::bind), 1u);
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{{LOG_ERR, "open_server_socket: chmod failed on '" + path + "'."}}));
}

TEST_F(ServerOpening, ListensIfThePathCannotBeExamined) {
  const SyslogCapture log;
  const CallLog calls;
  for (const int skip : {0, 1, 2}) {
    looks_that_succeed = skip;
    PlainServer server(path);
    EXPECT_LT(looks_that_succeed, 0) << skip;
    looks_that_succeed = INT_MAX;
    EXPECT_TRUE(connect_client(server, path)) << skip;
  }
  EXPECT_EQ(calls.count(Call::bind), 3u);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(ServerOpening, KeepsItsPathWhileClientsRetryWithoutPause) {
  std::atomic<bool> stop = false;
  std::vector<std::thread> clients;
  for (int i = 0; i < 3; ++i) {
    clients.emplace_back([&] {
      sockaddr_un address = {};
      address.sun_family = AF_UNIX;
      std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
      while (!stop) {
        const Descriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0) unlink(path.c_str());
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    });
  }
  int reachable = 0;
  constexpr int starts = 100;
  for (int i = 0; i < starts; ++i) {
    PlainServer server(path);
    run_pending();
    reachable += access(path.c_str(), F_OK) == 0 ? 1 : 0;
  }
  stop = true;
  for (std::thread &client : clients) client.join();
  // A client that is kept from running between its failure and its unlink for longer than the server looks may still
  // remove the path.
  EXPECT_GE(reachable, starts - 2);
}

// While it lives, the process may open so many more descriptors.
class DescriptorsLeft {
  rlimit before_{};

 public:
  explicit DescriptorsLeft(rlim_t left) {
    getrlimit(RLIMIT_NOFILE, &before_);
    const Descriptor next(dup(STDERR_FILENO));
    rlimit now = before_;
    now.rlim_cur = static_cast<rlim_t>(next.get()) + left;
    setrlimit(RLIMIT_NOFILE, &now);
  }
  DescriptorsLeft(const DescriptorsLeft &) = delete;
  ~DescriptorsLeft() { setrlimit(RLIMIT_NOFILE, &before_); }
};

class ServerAtItsLimit : public ServerOpening {
 protected:
  CommandServer server{path};
  std::vector<Descriptor> peers;

  ServerAtItsLimit() { server.echo(); }
  void connect(int count) {
    for (int i = 0; i < count; ++i) peers.push_back(connect_to(path));
  }
  [[nodiscard]] bool is_served(const Descriptor &peer) {
    send_all(peer.get(), frame(0, "question"));
    run_pending();
    return receive_waiting(peer.get()) == frame(0, "question");
  }
};

TEST_F(ServerAtItsLimit, ClosesNewConnectionsAndServesTheOthers) {
  const SyslogCapture log;
  connect(30);
  {
    const DescriptorsLeft left(8 + 5);
    run_pending();
    EXPECT_EQ(server.client_count(), 5u);
    for (int i = 0; i < 5; ++i) EXPECT_TRUE(is_served(peers[i]));
    for (int i = 5; i < 30; ++i) EXPECT_TRUE(was_closed(peers[i].get()));
  }
  peers.resize(5);
  connect(1);
  run_pending();
  EXPECT_TRUE(is_served(peers.back()));
  EXPECT_EQ(log.containing("accept failed"), 0u);
}

TEST_F(ServerAtItsLimit, LogsOneLineAMinuteThatNamesThePeer) {
  const SyslogCapture log;
  const std::string peer = "connection of process " + std::to_string(getpid()) + ", user " + std::to_string(getuid());
  advance_clock(60'000);  // since a line of an earlier test
  connect(12);
  const DescriptorsLeft left(8);
  run_pending();
  EXPECT_EQ(log.containing(peer), 1u);
  advance_clock(60'000);
  {
    const Descriptor later = connect_to(path);
    run_pending();
  }
  EXPECT_EQ(log.containing(peer), 2u);
  EXPECT_EQ(log.containing("(11 others closed unlogged)"), 1u);
}

}  // namespace

INTERPOSE(int, lstat, (const char *path, struct stat *status)) {
  if (--looks_that_succeed >= 0) return REAL(lstat)(path, status);
  errno = EIO;
  return -1;
}

#ifdef __USE_LARGEFILE64
INTERPOSE(int, lstat64, (const char *path, struct stat64 *status)) {
  if (--looks_that_succeed >= 0) return REAL(lstat64)(path, status);
  errno = EIO;
  return -1;
}
#endif
