// Both ends of the command channel together: in one process, between threads, and between processes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <thread>

#include "clock.h"
#include "command_ends.h"
#include "peers.h"
#include "syslog_capture.h"

using namespace ptz_test;

namespace {

// As an application runs it: asleep while there is nothing to do.
bool run_loop_until(const std::function<bool()> &condition) {
  const guint tick = g_timeout_add(
      1, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
  const auto end = real_time_ms() + 60'000;
  while (!condition() && real_time_ms() < end) g_main_context_iteration(nullptr, TRUE);
  g_source_remove(tick);
  return condition();
}

// Two threads wait for replies while the main loop keeps so many requests under way. The server sends back what it
// gets.
void use_concurrently(CommandClient &client, std::size_t outstanding) {
  constexpr int sync_requests = 1500;
  constexpr std::size_t async_requests = 3000;
  std::atomic<int> matched = 0, finished = 0;
  std::vector<std::thread> workers;
  for (unsigned number = 0; number < 2; ++number) {
    workers.emplace_back([&, number] {
      for (unsigned i = 0; i < sync_requests; ++i) {
        const std::string body = body_of(1 + (i * 13 + number * 7) % 2000, number);
        matched += client.sync_send(body) == body ? 1 : 0;
      }
      ++finished;
    });
  }
  std::vector<Answer> answers(async_requests);
  std::size_t sent = 0, answered = 0;
  const GThread *main_thread = g_thread_self();
  EXPECT_TRUE(run_loop_until([&] {
    for (; sent < async_requests && sent - answered < outstanding; ++sent) {
      answers[sent].then = [&] { ++answered; };
      EXPECT_TRUE(client.send(body_of(1 + sent % 300, 9), &answers[sent]));
    }
    return finished == 2 && answered == async_requests;
  }));
  for (std::thread &worker : workers) worker.join();
  EXPECT_EQ(matched, 2 * sync_requests);
  EXPECT_EQ(client.pending_count(), 0u);
  for (std::size_t i = 0; i < async_requests; ++i) {
    EXPECT_TRUE(answers[i].replied());
    EXPECT_EQ(answers[i].body, body_of(1 + i % 300, 9));
    EXPECT_EQ(answers[i].thread, main_thread);
  }
  client.drop();
}

class CommandChannel : public testing::Test {
 protected:
  TempDir dir;
  std::string path = dir.file("driver");
  std::vector<std::unique_ptr<Answer>> answers;
  CommandServer server{path};
  CommandClient client{path};

  Answer &send(CommandClient &sender, std::string_view body) {
    answers.push_back(std::make_unique<Answer>());
    EXPECT_TRUE(sender.send(body, answers.back().get()));
    return *answers.back();
  }
  std::optional<std::string> sync_send(CommandClient &sender, const std::string &body) {
    auto reply = in_thread([&] { return sender.sync_send(body); });
    EXPECT_TRUE(run_until([&] { return is_ready(reply); }));
    return reply.get();
  }
};

TEST_F(CommandChannel, AnswersASynchronousRequestFromAWorkerThread) {
  server.on_message = [this](const Message &message) {
    EXPECT_EQ(message.body, "question");
    EXPECT_TRUE(server.answer(message, "answer"));
    return TRUE;
  };
  EXPECT_EQ(sync_send(client, "question"), "answer");
  EXPECT_EQ(server.messages.size(), 1u);
}

TEST_F(CommandChannel, AnswersAnAsynchronousRequestOnTheMainLoop) {
  server.echo();
  Answer &answer = send(client, "question");
  ASSERT_TRUE(run_until([&] { return answer.replied(); }));
  EXPECT_EQ(answer.body, "question");
  EXPECT_EQ(answer.thread, g_thread_self());
}

TEST_F(CommandChannel, CarriesBodiesOfEveryLength) {
  server.echo();
  for (const std::size_t length : {1, 2, 3, 4, 7, 8, 9, 63, 64, 65, 1023, 2047, 2048, 2551, 2552}) {
    EXPECT_EQ(sync_send(client, body_of(length)), body_of(length)) << length;
    Answer &answer = send(client, body_of(length, 1));
    ASSERT_TRUE(run_until([&] { return answer.replied(); })) << length;
    EXPECT_EQ(answer.body, body_of(length, 1)) << length;
  }
}

TEST_F(CommandChannel, CarriesRequestsAndRepliesOfDifferentLengths) {
  server.on_message = [this](const Message &message) {
    EXPECT_TRUE(server.answer(message, body_of(PTZ_SOCKET_BODY_MAX + 1 - message.body.size())));
    return TRUE;
  };
  for (const std::size_t length : {1, 1000, 2552}) {
    EXPECT_EQ(sync_send(client, body_of(length)), body_of(PTZ_SOCKET_BODY_MAX + 1 - length));
  }
}

TEST_F(CommandChannel, MatchesRepliesThatComeLateAndOutOfOrder) {
  constexpr std::size_t requests = 32;
  for (std::size_t i = 0; i < requests; ++i) send(client, std::to_string(i));
  ASSERT_TRUE(run_until([this] { return server.messages.size() == requests; }));
  for (std::size_t i = 0; i < requests; ++i) {
    const Message &message = server.messages[i * 7 % requests];
    EXPECT_TRUE(server.answer(message, "to " + message.body));
  }
  ASSERT_TRUE(run_until([this] { return client.pending_count() == 0; }));
  for (std::size_t i = 0; i < requests; ++i) EXPECT_EQ(answers[i]->body, "to " + std::to_string(i));
}

TEST_F(CommandChannel, KeepsClientsWithTheSameIdsApart) {
  CommandClient second(path), third(path);
  const std::array<CommandClient *, 3> clients = {&client, &second, &third};
  for (int round = 0; round < 5; ++round) {
    for (CommandClient *each : clients) send(*each, "of " + std::to_string(each->fd()) + " " + std::to_string(round));
  }
  ASSERT_TRUE(run_until([this] { return server.messages.size() == 15; }));
  for (std::size_t i = 15; i-- > 0;) EXPECT_TRUE(server.answer(server.messages[i], server.messages[i].body));
  for (const CommandClient *each : clients) ASSERT_TRUE(run_until([&] { return each->pending_count() == 0; }));
  std::size_t i = 0;
  for (int round = 0; round < 5; ++round) {
    for (const CommandClient *each : clients) {
      EXPECT_EQ(answers[i++]->body, "of " + std::to_string(each->fd()) + " " + std::to_string(round));
    }
  }
}

TEST_F(CommandChannel, AnswersASynchronousRequestWhileAnotherWaitsForALateReply) {
  server.on_message = [this](const Message &message) {
    if (message.body != "later") server.answer(message, message.body);
    return TRUE;
  };
  Answer &late = send(client, "later");
  EXPECT_EQ(sync_send(client, "now"), "now");
  EXPECT_TRUE(late.untouched());
  server.answer(server.messages[0], "at last");
  ASSERT_TRUE(run_until([&] { return late.replied(); }));
  EXPECT_EQ(late.body, "at last");
}

TEST_F(CommandChannel, AReplyAfterItsRequestTimedOutReachesNobody) {
  Answer &answer = send(client, "question");
  ASSERT_TRUE(run_until([this] { return server.messages.size() == 1; }));
  advance_clock(361'000);
  ASSERT_TRUE(run_until([&] { return answer.timed_out(); }));
  EXPECT_TRUE(server.answer(server.messages[0], "late"));
  run_pending();
  EXPECT_TRUE(answer.timed_out());
  server.echo();
  EXPECT_EQ(sync_send(client, "next"), "next");
}

TEST_F(CommandChannel, EndsAWaitAtOnceWhenTheServerGoes) {
  server.on_message = [this](const Message &) {
    server.drop();
    return TRUE;
  };
  const auto start = real_time_ms();
  // The context that was open is answered as the server goes.
  EXPECT_EQ(sync_send(client, "question"), "end");
  EXPECT_EQ(sync_send(client, "another"), std::nullopt);
  EXPECT_LT(real_time_ms() - start, 3000);
  EXPECT_LT(iterations_within(20), 15);
}

TEST_F(CommandChannel, ANewClientServesWhereTheServerWasRestarted) {
  server.echo();
  EXPECT_EQ(sync_send(client, "before"), "before");
  server.drop();
  run_pending();
  CommandServer restarted(path);
  restarted.echo();
  EXPECT_EQ(sync_send(client, "to the old one"), std::nullopt);
  CommandClient reconnected(path);
  EXPECT_EQ(sync_send(reconnected, "after"), "after");
}

TEST_F(CommandChannel, MatchesEveryReplyUnderConcurrentUse) {
  std::vector<Message> kept;
  // Backwards, so that replies overtake each other.
  std::function<void()> answer_kept = [&] {
    for (; !kept.empty(); kept.pop_back()) EXPECT_TRUE(server.answer(kept.back(), kept.back().body));
  };
  server.on_message = [&](const Message &message) {
    kept.push_back(message);
    if (kept.size() >= 1 + message.body.size() % 5) answer_kept();
    return TRUE;
  };
  // For those that nothing comes behind.
  const guint stragglers = g_timeout_add(
      1,
      [](gpointer function) -> gboolean {
        (*static_cast<std::function<void()> *>(function))();
        return G_SOURCE_CONTINUE;
      },
      &answer_kept);
  use_concurrently(client, 12);  // more might fill the socket, which this thread has to empty
  g_source_remove(stragglers);
}

// Time-outs meet replies, in each other's callbacks and beside a thread that waits.
TEST_F(CommandChannel, CallsBackExactlyOnceWhereRequestsAreAnsweredAndExpireAtOnce) {
  constexpr std::size_t requests = 400;
  std::size_t received = 0;
  server.on_message = [&](const Message &message) {
    // Some are never answered, the late ones after they timed out.
    if (++received % 3 != 0) server.answer(message, message.body);
    return TRUE;
  };
  std::atomic<bool> stop = false;
  std::thread worker([&] {
    while (!stop) client.sync_send("synchronous");
  });
  std::vector<Answer> own(requests);
  std::size_t sent = 0, ended = 0;
  std::function<void()> send_next = [&] {
    if (sent == requests) return;
    Answer &answer = own[sent++];
    answer.then = [&] {
      ++ended;
      send_next();
    };
    EXPECT_TRUE(client.send("asynchronous", &answer));
  };
  for (int i = 0; i < 8; ++i) send_next();
  int turns = 0;
  EXPECT_TRUE(run_loop_until([&] {
    if (++turns % 20 == 0) advance_clock(180'500);
    return ended == requests;
  }));
  stop = true;
  server.drop();  // which ends a wait that is under way
  worker.join();
  for (const Answer &answer : own) EXPECT_EQ(answer.calls, 1);
  client.drop();
  for (const Answer &answer : own) EXPECT_EQ(answer.freed, 0);
}

TEST_F(CommandChannel, ServesAsynchronousRequestsOfSeveralThreads) {
  server.echo();
  constexpr int each = 300;
  std::vector<std::thread> senders;
  std::vector<std::unique_ptr<Answer>> own(3 * each);
  for (auto &answer : own) answer = std::make_unique<Answer>();
  std::atomic<int> failed = 0;
  for (int number = 0; number < 3; ++number) {
    senders.emplace_back([&, number] {
      for (int i = 0; i < each; ++i) {
        const int index = number * each + i;
        if (!client.send(std::to_string(index), own[static_cast<std::size_t>(index)].get())) ++failed;
        while (client.pending_count() > 12) g_usleep(100);
      }
    });
  }
  std::atomic<bool> sent = false;
  std::thread joiner([&] {
    for (std::thread &sender : senders) sender.join();
    sent = true;
  });
  EXPECT_TRUE(run_loop_until([&] { return sent && client.pending_count() == 0; }));
  joiner.join();
  EXPECT_EQ(failed, 0);
  for (std::size_t i = 0; i < own.size(); ++i) {
    EXPECT_EQ(own[i]->calls, 1);
    EXPECT_EQ(own[i]->body, std::to_string(i));
  }
  client.drop();
}

// Between processes.

constexpr const char *path_variable = "PTZ_TEST_SERVER_PATH";

// Serves in the process that a ServerProcess starts, for as long as that keeps the other end of the standard input.
TEST(ServerProcessMain, DISABLED_Serves) {
  const char *path = g_getenv(path_variable);
  if (path == nullptr) GTEST_SKIP() << "only of use to the tests that start it";
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  CommandServer server{std::string(path)};
  server.on_message = [&server](const Message &message) {
    if (message.body == "die") raise(SIGKILL);
    if (message.body != "silence") server.answer(message, message.body);
    return TRUE;
  };
  run_loop_until([] { return is_readable(STDIN_FILENO); });
}

class ServerProcess {
  pid_t pid_ = -1;
  Descriptor stdin_;

 public:
  explicit ServerProcess(const std::string &path) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) std::abort();
    const Descriptor theirs(ends[0]);
    stdin_ = Descriptor(ends[1]);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, theirs.get(), STDIN_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    g_setenv(path_variable, path.c_str(), TRUE);
    g_unsetenv("GTEST_OUTPUT");  // the report is the parent's
    std::string name = "test", filter = "--gtest_filter=ServerProcessMain.*",
                disabled = "--gtest_also_run_disabled_tests";
    const std::array<char *, 4> arguments = {name.data(), filter.data(), disabled.data(), nullptr};
    if (posix_spawn(&pid_, "/proc/self/exe", &actions, nullptr, arguments.data(), environ) != 0) std::abort();
    posix_spawn_file_actions_destroy(&actions);
    g_unsetenv(path_variable);
    listening_ = run_until([&] { return static_cast<bool>(connect_to(path)); }, 30'000);
  }
  ServerProcess(const ServerProcess &) = delete;
  ~ServerProcess() {
    if (pid_ < 0) return;
    kill(pid_, SIGKILL);
    wait();
  }
  // How the process ended.
  int wait() {
    int status = 0;
    waitpid(std::exchange(pid_, -1), &status, 0);
    return status;
  }
  [[nodiscard]] bool listening() const { return listening_; }
  void kill_now() {
    kill(pid_, SIGKILL);
    wait();
  }
  void end_input() { stdin_.reset(); }

 private:
  bool listening_ = false;
};

class CommandChannelBetweenProcesses : public testing::Test {
 protected:
  TempDir dir;
  std::string path = dir.file("driver");
  ServerProcess server{path};

  void SetUp() override { ASSERT_TRUE(server.listening()); }
};

TEST_F(CommandChannelBetweenProcesses, CarriesBothKindsOfRequests) {
  CommandClient client(path);
  Answer answer;
  EXPECT_TRUE(client.send("asynchronous", &answer));
  for (const std::size_t length : {1, 64, 2552}) EXPECT_EQ(client.sync_send(body_of(length)), body_of(length));
  EXPECT_TRUE(run_until([&] { return answer.replied(); }));
  EXPECT_EQ(answer.body, "asynchronous");
  server.end_input();
  EXPECT_EQ(server.wait(), 0);
}

TEST_F(CommandChannelBetweenProcesses, EndsAWaitAtOnceWhenTheServerIsKilled) {
  const SyslogCapture log;
  CommandClient client(path);
  const auto start = real_time_ms();
  EXPECT_EQ(client.sync_send("die"), std::nullopt);
  EXPECT_LT(real_time_ms() - start, 5000);
  EXPECT_EQ(log.count(LOG_WARNING, "ptz_socket_client_command_sync_send: Timeout waiting for response to message 0!"),
            1u);
  EXPECT_LT(iterations_within(20), 15);
  EXPECT_FALSE(client.watched());
}

TEST_F(CommandChannelBetweenProcesses, LeavesAPendingRequestToItsTimeOutWhenTheServerIsKilled) {
  Answer answer;
  CommandClient client(path);
  EXPECT_TRUE(client.send("silence", &answer));
  server.kill_now();
  EXPECT_TRUE(run_until([&] { return !client.watched(); }));
  EXPECT_TRUE(answer.untouched());
  EXPECT_FALSE(client.send("into the void", nullptr));
  advance_clock(361'000);
  EXPECT_TRUE(run_until([&] { return answer.timed_out(); }));
}

TEST_F(CommandChannelBetweenProcesses, GoesOnWithANewClientAfterARestart) {
  CommandClient client(path);
  EXPECT_EQ(client.sync_send("before"), "before");
  server.kill_now();
  const ServerProcess restarted(path);
  ASSERT_TRUE(restarted.listening());
  EXPECT_EQ(client.sync_send("to the old one"), std::nullopt);
  CommandClient reconnected(path);
  EXPECT_EQ(reconnected.sync_send("after"), "after");
}

TEST_F(CommandChannelBetweenProcesses, MatchesEveryReplyUnderConcurrentUse) {
  CommandClient client(path);
  use_concurrently(client, 32);
}

std::string inode_of(int fd) {
  struct stat status {};
  fstat(fd, &status);
  return "socket:[" + std::to_string(status.st_ino) + "]";
}

TEST_F(CommandChannel, NoDescriptorReachesAChildProgram) {
  ASSERT_TRUE(run_until([this] { return server.client_count() == 1; }));
  FILE *listing = popen("ls -l /proc/self/fd", "r");
  ASSERT_NE(listing, nullptr);
  std::string descriptors;
  std::array<char, 512> line{};
  while (fgets(line.data(), line.size(), listing) != nullptr) descriptors += line.data();
  pclose(listing);
  ASSERT_NE(descriptors.find(" -> "), std::string::npos);
  for (const int fd : {client.fd(), PTZ_SOCKET(server.get())->fd, server.client(0)->fd}) {
    EXPECT_EQ(descriptors.find(inode_of(fd)), std::string::npos) << fd;
  }
}

// Both end the process: with 0 if the library saw nothing worse than a failed send.
[[noreturn]] void send_requests_to_nobody() {
  signal(SIGPIPE, SIG_DFL);
  Pair pair;
  CommandClient client(pair.ours.get());
  pair.theirs.reset();
  const bool refused = !client.send("question", nullptr) && !client.sync_send("question");
  _exit(refused ? 0 : 1);
}

[[noreturn]] void send_replies_to_nobody() {
  signal(SIGPIPE, SIG_DFL);
  const TempDir dir;
  CommandServer server(dir.file("server"));
  PlainServer plain(dir.file("plain"));
  Descriptor peer = connect_to(dir.file("server")), plain_peer = connect_to(dir.file("plain"));
  bool refused = true;
  server.on_message = [&](const Message &message) {
    peer.reset();
    refused = refused && !server.answer(message, "answer");
    return TRUE;
  };
  plain.on_message = [&](const Message &message) {
    plain_peer.reset();
    refused = refused && !ptz_socket_server_send(message.context, "answer", 6);
    return TRUE;
  };
  send_all(peer.get(), frame(0, "question"));
  send_all(plain_peer.get(), "question");
  const bool served = run_until([&] { return server.messages.size() + plain.messages.size() == 2; });
  _exit(served && refused ? 0 : 1);
}

// Each in a fresh process, where the class has not chosen yet what the signal does.
class CommandChannelDeathTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
  static void TearDownTestSuite() { GTEST_FLAG_SET(death_test_style, "fast"); }
};

TEST_F(CommandChannelDeathTest, RequestsToAPeerThatHasGoneDoNotKill) {
  EXPECT_EXIT(send_requests_to_nobody(), testing::ExitedWithCode(0), "");
}

TEST_F(CommandChannelDeathTest, RepliesToAPeerThatHasGoneDoNotKill) {
  EXPECT_EXIT(send_replies_to_nobody(), testing::ExitedWithCode(0), "");
}

}  // namespace
