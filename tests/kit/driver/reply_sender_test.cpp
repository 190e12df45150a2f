// The clients are processes of their own, so that a process id in the log is not this one's by accident.
#include "driver/reply_sender.h"

#include <gtest/gtest.h>
#include <ptz_socket_server_command.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "clock.h"
#include "fixtures.h"
#include "peers.h"
#include "syslog_capture.h"

namespace {

using namespace ptz_test;
using ptz_kit::ReplySender;

constexpr std::array<guint8, 5> body = {'r', 'e', 'p', 'l', 'y'};
constexpr int second_ms = 1000;

// A process that sends requests and then waits until it is killed.
class ClientProcess {
  pid_t pid_;

 public:
  ClientProcess(const std::string &path, int requests) : pid_(fork()) {
    if (pid_ != 0) return;
    const Descriptor fd = connect_to(path);
    for (int i = 0; i < requests; ++i) send_all(fd.get(), frame(1, "request"));
    while (true) pause();
  }
  ClientProcess(const ClientProcess &) = delete;
  ~ClientProcess() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  [[nodiscard]] pid_t pid() const { return pid_; }
};

pid_t peer_of(int fd) {
  ucred peer{};
  socklen_t size = sizeof peer;
  EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size), 0);
  return peer.pid;
}

std::string process(pid_t pid) { return "process " + std::to_string(pid); }

std::string failed_to(const std::string &peer) { return "a reply of 5 bytes to " + peer + " could not be sent"; }

std::string failed_more(int count, const std::string &peer) {
  return "replies that could not be sent in the last second: " + std::to_string(count) + " more, the last one to " +
         peer;
}

// A server that keeps its reply contexts, and a sender.
class KitReplySender : public testing::Test {
  using Context = PTZSocketServerCommandReplyContext;

  const TempDir dir_;
  const std::string path_ = dir_.file("server");
  const ptz_kit::Object<PTZSocketServerCommand> server_{ptz_socket_server_command_new(path_.c_str(), SOCK_STREAM)};
  std::unique_ptr<ClientProcess> client_;

 protected:
  struct Request {
    Context *context;
    pid_t peer;
  };

  std::unique_ptr<ReplySender> sender_ = std::make_unique<ReplySender>();
  std::deque<Request> requests_;
  const SyslogCapture log_;

  KitReplySender() {
    ptz_socket_server_register_callback(
        PTZ_SOCKET_SERVER(server_.get()),
        [](gpointer self, gpointer context, gpointer, guint32) -> gboolean {
          auto &replies = *static_cast<KitReplySender *>(self);
          auto *const of_client = static_cast<Context *>(context);
          replies.requests_.push_back({of_client, peer_of(of_client->fd)});
          return TRUE;
        },
        this);
  }
  ~KitReplySender() override {
    while (!requests_.empty()) reply();
  }

  // Starts a client and waits for its requests.
  pid_t connect(int requests = 1) {
    const std::size_t expected = requests_.size() + static_cast<std::size_t>(requests);
    client_ = std::make_unique<ClientProcess>(path_, requests);
    EXPECT_TRUE(run_until([&] { return requests_.size() == expected; }));
    return client_->pid();
  }
  void disconnect() {
    client_.reset();
    EXPECT_TRUE(run_until([&] { return PTZ_SOCKET_SERVER(server_.get())->source->clients == nullptr; }));
  }
  void reply() {
    const Request request = requests_.front();
    requests_.pop_front();
    sender_->send(request.context, request.peer, body);
  }
  // Starts a client that leaves before the replies to its requests.
  pid_t connect_and_leave(int requests) {
    const pid_t peer = connect(requests);
    disconnect();
    return peer;
  }
  void fail(int count) {
    for (int i = 0; i < count; ++i) reply();
  }
  [[nodiscard]] std::vector<std::string> lines() const {
    std::vector<std::string> texts;
    for (const LogLine &line : log_.lines()) {
      if (line.priority == LOG_WARNING && line.text.find("could not be sent") != std::string::npos) {
        texts.push_back(line.text);
      }
    }
    return texts;
  }
};
using Lines = std::vector<std::string>;

void pass(int milliseconds) {
  advance_clock(milliseconds);
  run_pending();
}

TEST_F(KitReplySender, SentReplyIsNotLogged) {
  connect();
  reply();
  pass(second_ms);
  EXPECT_EQ(lines(), Lines{});
}

TEST_F(KitReplySender, FailureIsLoggedWithProcessIdOfClient) {
  const pid_t peer = connect_and_leave(1);
  fail(1);
  EXPECT_EQ(lines(), Lines{failed_to(process(peer))});
}

TEST_F(KitReplySender, FailuresInSameSecondAreLoggedAsOneNumberWhenItIsOver) {
  const pid_t peer = connect_and_leave(42);
  const gint64 start_us = g_get_monotonic_time();
  fail(42);
  EXPECT_EQ(lines(), Lines{failed_to(process(peer))});
  pass(second_ms / 2);
  if (g_get_monotonic_time() - start_us < G_USEC_PER_SEC) {  // as long as the machine is not very busy
    EXPECT_EQ(lines().size(), 1U);
  }
  pass(second_ms / 2);
  EXPECT_EQ(lines(), (Lines{failed_to(process(peer)), failed_more(41, process(peer))}));
}

TEST_F(KitReplySender, FailuresThatGoOnAreLoggedOnceASecond) {
  const pid_t first = connect_and_leave(2);
  const pid_t second = connect_and_leave(3);
  fail(2);
  pass(second_ms);
  fail(3);
  EXPECT_EQ(lines().size(), 2U);
  pass(second_ms);
  EXPECT_EQ(lines(),
            (Lines{failed_to(process(first)), failed_more(1, process(first)), failed_more(3, process(second))}));
}

TEST_F(KitReplySender, FailureAfterASecondWithoutAnyIsLoggedAtOnce) {
  const pid_t first = connect_and_leave(1);
  const pid_t second = connect_and_leave(1);
  fail(1);
  pass(second_ms);
  EXPECT_EQ(lines().size(), 1U);
  fail(1);
  EXPECT_EQ(lines(), (Lines{failed_to(process(first)), failed_to(process(second))}));
}

TEST_F(KitReplySender, SenderThatEndsTakesItsTimerAlong) {
  connect_and_leave(2);
  fail(2);
  sender_ = std::make_unique<ReplySender>();
  pass(second_ms);
  EXPECT_EQ(lines().size(), 1U);
}

TEST_F(KitReplySender, LateReplyThatFailsIsLoggedWithProcessThatAsked) {
  const pid_t first = connect_and_leave(1);
  connect();  // it has the descriptor of the first client
  fail(1);
  reply();
  EXPECT_EQ(lines(), Lines{failed_to(process(first))});
}

TEST_F(KitReplySender, FailureToUnknownPeerIsLoggedAsSuch) {
  connect_and_leave(2);
  for (Request &request : requests_) request.peer = 0;
  fail(2);
  pass(second_ms);
  EXPECT_EQ(lines(), (Lines{failed_to("an unknown process"), failed_more(1, "an unknown process")}));
}

}  // namespace
