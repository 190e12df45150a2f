// Anybody on the machine may connect. These are the peers that do not play by the rules, against both ends at work.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <deque>
#include <map>
#include <random>
#include <thread>

#include "clock.h"
#include "command_ends.h"
#include "faults.h"
#include "peers.h"

using namespace ptz_test;

namespace {

constexpr std::uint32_t impossible_lengths[] = {0, 1, 4, 7, 2561, 4096, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFE, 0xFFFFFFFF};

// A driver that answers what it is asked, and a daemon that must not notice what the others do.
class MisbehavingClients : public testing::Test {
 protected:
  TempDir dir;
  std::string path = dir.file("driver");
  std::vector<std::unique_ptr<Answer>> answers;
  CommandServer driver{path};
  CommandClient daemon{path};
  GlibLogCapture criticals;

  void SetUp() override {
    ASSERT_TRUE(run_until([this] { return driver.client_count() == 1; }));
    driver.echo();
  }
  void TearDown() override { EXPECT_EQ(criticals.criticals(), 0u); }

  Descriptor connect() { return connect_client(driver, path); }

  // The number of iterations of the main loop that one request took.
  int ask(const std::string &body) {
    answers.push_back(std::make_unique<Answer>());
    Answer &answer = *answers.back();
    EXPECT_TRUE(daemon.send(body, &answer));
    for (int iterations = 0; iterations < 10'000; ++iterations) {
      if (answer.calls > 0) {
        EXPECT_EQ(answer.body, body);
        return iterations;
      }
      iterate();
    }
    ADD_FAILURE() << "no answer";
    return -1;
  }
};

TEST_F(MisbehavingClients, ImpossibleLengthsCloseTheirSenderOnly) {
  for (const std::uint32_t length : impossible_lengths) {
    const Descriptor liar = connect(), other = connect();
    send_all(other.get(), frame(1, "other").substr(0, 9));
    send_all(liar.get(), frame_claiming(length, 0, body_of(100)));
    EXPECT_GE(ask(body_of(200, length % 251)), 0);
    run_pending();
    EXPECT_TRUE(was_closed(liar.get())) << length;
    send_all(other.get(), frame(1, "other").substr(9));
    run_pending();
    EXPECT_EQ(receive_waiting(other.get()), frame(1, "other")) << length;
  }
}

TEST_F(MisbehavingClients, HalfFramesDelayNobody) {
  std::vector<Descriptor> slow;
  for (std::size_t at = 1; at < 20; ++at) {
    slow.push_back(connect());
    send_all(slow.back().get(), frame(7, "takes its time").substr(0, at));
    EXPECT_LT(ask("quick"), 20);
  }
  for (std::size_t i = 0; i < slow.size(); ++i) {
    send_all(slow[i].get(), frame(7, "takes its time").substr(i + 1));
    EXPECT_LT(ask("quick"), 20);
  }
  run_pending();
  for (const Descriptor &peer : slow) EXPECT_EQ(receive_waiting(peer.get()), frame(7, "takes its time"));
}

// Every client sends frames of its own, cut anywhere; some die in the middle of one and others take their place.
TEST_F(MisbehavingClients, BytesOfClientsThatStallInterleaveAndDieNeverMix) {
  std::mt19937 random(20'240'229);
  const auto up_to = [&](std::size_t limit) { return std::uniform_int_distribution<std::size_t>(0, limit)(random); };
  struct Sender {
    Descriptor fd;
    unsigned number = 0;
    std::uint32_t next_id = 0;
    std::string unsent = {};
    std::deque<std::string> expected = {};
  };
  std::vector<Sender> senders(12);
  unsigned numbers = 0;
  const auto text_of = [](unsigned number, std::uint32_t id) {
    return "client " + std::to_string(number) + " frame " + std::to_string(id) + " " +
           body_of(1 + (number * 37 + id * 101) % 600, number + id);
  };
  int frames = 0;
  for (int step = 0; step < 4000; ++step) {
    Sender &sender = senders[up_to(senders.size() - 1)];
    if (!sender.fd) sender = {.fd = connect_to(path), .number = ++numbers};
    if (sender.unsent.empty()) {
      const std::string text = text_of(sender.number, sender.next_id);
      sender.unsent = frame(sender.next_id, text);
      sender.expected.push_back(frame(sender.next_id, text));
      ++sender.next_id;
    }
    const std::size_t piece = 1 + up_to(std::min<std::size_t>(sender.unsent.size() - 1, 200));
    ASSERT_TRUE(send_all(sender.fd.get(), std::string_view(sender.unsent).substr(0, piece)));
    sender.unsent.erase(0, piece);
    if (step % 3 == 0) iterate(static_cast<int>(up_to(4)));
    if (step % 97 == 0) {
      Sender &dying = senders[up_to(senders.size() - 1)];
      dying.fd.reset();
    }
    if (step % 50 == 0) {
      EXPECT_GE(ask("still here"), 0);
      run_pending();
      for (Sender &each : senders) {
        if (!each.fd) continue;
        std::string got = receive_waiting(each.fd.get());
        while (!got.empty()) {
          ASSERT_FALSE(each.expected.empty());
          ASSERT_EQ(got.substr(0, each.expected.front().size()), each.expected.front());
          got.erase(0, each.expected.front().size());
          each.expected.pop_front();
          ++frames;
        }
      }
    }
  }
  EXPECT_GT(frames, 300);
  for (const Message &message : driver.messages) {
    if (message.body == "still here") continue;
    unsigned number = 0;
    std::uint32_t id = 0;
    ASSERT_EQ(std::sscanf(message.body.c_str(), "client %u frame %u", &number, &id), 2);
    EXPECT_EQ(message.body, text_of(number, id));
  }
}

TEST_F(MisbehavingClients, TwoHundredClientsAreServedSideBySide) {
  constexpr std::size_t count = 200;
  std::vector<Descriptor> peers;
  for (std::size_t i = 0; i < count; ++i) {
    // No more than the listening socket queues.
    if (i % 100 == 99) run_pending();
    peers.push_back(connect_to(path));
  }
  ASSERT_TRUE(run_until([this] { return driver.client_count() == 1 + count; }));
  for (std::uint32_t round = 0; round < 3; ++round) {
    for (std::size_t i = 0; i < count; ++i) {
      send_all(peers[i].get(), frame(round, "client " + std::to_string(i)).substr(0, 4 + i % 8));
    }
    run_pending();
    for (std::size_t i = 0; i < count; ++i) {
      send_all(peers[i].get(), frame(round, "client " + std::to_string(i)).substr(4 + i % 8));
    }
    EXPECT_LE(ask("in between"), static_cast<int>(count) + 10);
    run_pending();
    for (std::size_t i = 0; i < count; ++i) {
      EXPECT_EQ(receive_waiting(peers[i].get()), frame(round, "client " + std::to_string(i)));
    }
  }
  for (std::size_t i = 0; i < count; i += 2) peers[i].reset();
  ASSERT_TRUE(run_until([this] { return driver.client_count() == 1 + count / 2; }));
  send_all(peers[1].get(), frame(9, "left"));
  run_pending();
  EXPECT_EQ(receive_waiting(peers[1].get()), frame(9, "left"));
}

TEST_F(MisbehavingClients, TwoHundredDaemonsAreServedSideBySide) {
  constexpr std::size_t count = 200;
  std::vector<Answer> own(count);
  std::vector<std::unique_ptr<CommandClient>> daemons;
  for (std::size_t i = 0; i < count; ++i) {
    daemons.push_back(std::make_unique<CommandClient>(path));
    ASSERT_TRUE(daemons.back()->send("daemon " + std::to_string(i), &own[i]));
    iterate();
  }
  for (std::size_t i = 0; i < count; ++i) {
    ASSERT_TRUE(run_until([&] { return own[i].calls > 0; })) << i;
    EXPECT_EQ(own[i].body, "daemon " + std::to_string(i));
  }
}

struct Flood {
  const char *description;
  std::string bytes;
};

class FloodingClients : public MisbehavingClients, public testing::WithParamInterface<Flood> {
 protected:
  // As much of it as fits.
  struct Sender {
    Descriptor fd;
    std::string unsent;
  };
  static void flood(Sender &sender) {
    for (;;) {
      while (sender.unsent.size() < 65'536) sender.unsent += GetParam().bytes;
      const ssize_t sent = send(sender.fd.get(), sender.unsent.data(), 2000, MSG_DONTWAIT | MSG_NOSIGNAL);
      if (sent <= 0) return;
      sender.unsent.erase(0, static_cast<std::size_t>(sent));
      // Nobody waits for the replies.
      (void)receive_waiting(sender.fd.get());
    }
  }
};

INSTANTIATE_TEST_SUITE_P(Of, FloodingClients,
                         testing::Values(Flood{"Requests", frame(0, "flood")}, Flood{"EmptyFrames", frame(0, "")},
                                         Flood{"LongestFrames", frame(0, body_of(2552))}),
                         [](const auto &tested) { return tested.param.description; });

TEST_P(FloodingClients, StarveNeitherOthersNorNewClientsNorTimers) {
  std::vector<Sender> senders;
  for (int i = 0; i < 4; ++i) senders.push_back({connect(), ""});
  Descriptor late;
  int timer_runs = 0;
  const guint timer = g_timeout_add(
      1,
      [](gpointer runs) -> gboolean {
        ++*static_cast<int *>(runs);
        return G_SOURCE_CONTINUE;
      },
      &timer_runs);
  answers.push_back(std::make_unique<Answer>());
  Answer &answer = *answers.back();
  bool asked = false;
  std::string heard;
  for (int i = 0; i < 60; ++i) {
    for (Sender &sender : senders) flood(sender);
    if (i == 10) {
      EXPECT_TRUE(daemon.send("daemon", &answer));
      asked = true;
      late = connect_to(path);
      send_all(late.get(), frame(3, "late"));
      advance_clock(2);
    }
    iterate();
    if (late) heard += receive_waiting(late.get());
  }
  g_source_remove(timer);
  EXPECT_TRUE(asked);
  EXPECT_TRUE(answer.replied());
  EXPECT_EQ(heard, frame(3, "late"));
  EXPECT_GT(timer_runs, 0);
}

TEST_F(MisbehavingClients, AClientThatNeverReadsCostsNobodyAnything) {
  const Descriptor deaf = connect();
  const auto start = real_time_ms();
  for (std::uint32_t id = 0; id < 400; ++id) {
    send(deaf.get(), frame(id, body_of(2000)).data(), 2008, MSG_DONTWAIT | MSG_NOSIGNAL);
    iterate(2);
    if (id % 20 == 0) ask("still here");
  }
  EXPECT_LT(real_time_ms() - start, 5000);
}

TEST_F(MisbehavingClients, AReplyForOneThatHasGoneReachesNobodyElse) {
  // Each connection is likely to have the descriptor of the one before.
  std::vector<Message> unanswered;
  driver.on_message = [&](const Message &message) {
    unanswered.push_back(message);
    return TRUE;
  };
  for (std::uint32_t id = 0; id < 20; ++id) {
    const Descriptor peer = connect();
    send_all(peer.get(), frame(0, "mine " + std::to_string(id)));
    run_pending();
  }
  run_pending();
  ASSERT_EQ(unanswered.size(), 20u);
  const Descriptor last = connect();
  send_all(last.get(), frame(0, "the last"));
  run_pending();
  ASSERT_EQ(unanswered.size(), 21u);
  for (std::size_t i = 0; i < 20; ++i) EXPECT_FALSE(driver.answer(unanswered[i], "not for the last"));
  EXPECT_TRUE(driver.answer(unanswered[20], "for the last"));
  EXPECT_EQ(receive_waiting(last.get()), frame(0, "for the last"));
}

TEST_F(MisbehavingClients, DescriptorsAboveThoseOfAnFdSetAreServed) {
  const Descriptor high = move_up(Descriptor(dup(STDERR_FILENO)), 1100);
  if (!high) GTEST_SKIP() << "this system allows no such descriptor";
  std::vector<Descriptor> occupied;
  do {
    occupied.emplace_back(dup(STDERR_FILENO));
  } while (occupied.back().get() < 1050);
  const Descriptor peer = connect();
  EXPECT_GT(driver.client(0)->fd, 1023);
  send_all(peer.get(), frame(1, "question"));
  run_pending();
  EXPECT_EQ(receive_waiting(peer.get()), frame(1, "question"));
  CommandClient high_daemon(path);
  EXPECT_GT(high_daemon.fd(), 1023);
  auto reply = in_thread([&] { return high_daemon.sync_send("question"); });
  ASSERT_TRUE(run_until([&] { return is_ready(reply); }));
  EXPECT_EQ(reply.get(), "question");
}

// No condition of a descriptor keeps the main loop busy.

class SpinningServer : public MisbehavingClients {
 protected:
  ~SpinningServer() override { EXPECT_LT(iterations_within(30), 15); }
};

TEST_F(SpinningServer, NotOnAClientThatHalfClosed) {
  const Descriptor peer = connect();
  shutdown(peer.get(), SHUT_WR);
  run_pending();
  EXPECT_EQ(driver.client_count(), 2u);
  EXPECT_GE(ask("still here"), 0);
}

TEST_F(SpinningServer, NotOnAClientThatShutItsReadingSide) {
  const Descriptor peer = connect();
  shutdown(peer.get(), SHUT_RD);
  send_all(peer.get(), frame(0, "question"));
  EXPECT_GE(ask("still here"), 0);
}

TEST_F(SpinningServer, NotOnAClientThatLeftAHalfFrame) {
  Descriptor peer = connect();
  send_all(peer.get(), frame(0, "question").substr(0, 11));
  run_pending();
  peer.reset();
  run_pending();
  EXPECT_EQ(driver.client_count(), 1u);
}

TEST_F(SpinningServer, NotOnADescriptorThatWasClosedUnderTheWatch) {
  const Descriptor peer = connect();
  send_all(peer.get(), frame(0, "question").substr(0, 11));
  run_pending();
  close(driver.client(0)->fd);
  run_pending();
  EXPECT_EQ(driver.client_count(), 1u);
  EXPECT_GE(ask("still here"), 0);
}

TEST_F(SpinningServer, NotOnAnErrorWithoutAHangUp) {
  const Descriptor peer = connect();
  const InjectedEvents events(driver.client(0)->fd, G_IO_ERR);
  run_pending();
  EXPECT_EQ(driver.client_count(), 1u);
}

TEST_F(SpinningServer, NotOnAHangUpWithAHalfFrameInFrontOfIt) {
  Descriptor peer = connect();
  send_all(peer.get(), frame(0, "question").substr(0, 3));
  peer.reset();
  run_pending();
  EXPECT_EQ(driver.client_count(), 1u);
}

// A daemon whose driver does not play by the rules.
class MisbehavingServer : public testing::Test {
 protected:
  Pair pair;
  int peer = pair.theirs.get();
  std::vector<std::unique_ptr<Answer>> answers;
  CommandClient daemon{pair.ours.get()};
  GlibLogCapture criticals;

  void TearDown() override {
    EXPECT_LT(iterations_within(30), 15);
    EXPECT_EQ(criticals.criticals(), 0u);
  }
  Answer &send(std::string_view body = "question") {
    answers.push_back(std::make_unique<Answer>());
    EXPECT_TRUE(daemon.send(body, answers.back().get()));
    return *answers.back();
  }
  void reply(std::string_view bytes) {
    send_all(peer, bytes);
    run_pending();
  }
};

TEST_F(MisbehavingServer, HalfClosesInTheMiddleOfAReply) {
  for (const std::size_t at : {0, 3, 4, 7, 8, 12}) {
    Pair line;
    Answer answer;
    CommandClient other(line.ours.get());
    EXPECT_TRUE(other.send("question", &answer));
    send_all(line.theirs.get(), frame(0, "answer").substr(0, at));
    shutdown(line.theirs.get(), SHUT_WR);
    EXPECT_LT(iterations_within(10), 10) << at;
    EXPECT_FALSE(other.watched()) << at;
    EXPECT_TRUE(answer.untouched()) << at;
    other.drop();
    EXPECT_EQ(answer.freed, 1) << at;
  }
}

TEST_F(MisbehavingServer, ErrsWithoutAHangUp) {
  Answer &answer = send();
  const InjectedEvents events(daemon.fd(), G_IO_ERR);
  EXPECT_TRUE(run_until([this] { return !daemon.watched(); }, 1000));
  EXPECT_TRUE(answer.untouched());
}

TEST_F(MisbehavingServer, TheWatchGoesOnWhereItWasStartedAgain) {
  Answer &answer = send();
  {
    const InjectedEvents events(daemon.fd(), G_IO_ERR);
    EXPECT_TRUE(run_until([this] { return !daemon.watched(); }, 1000));
  }
  send_all(peer, frame(0, "answer"));
  run_pending();
  EXPECT_TRUE(answer.untouched());
  ptz_socket_client_add_poll(daemon.base());
  run_pending();
  EXPECT_TRUE(answer.replied());
}

TEST_F(MisbehavingServer, StartingTheWatchOfADeadDescriptorDoesNotSpin) {
  pair.theirs.reset();
  run_pending();
  for (int i = 0; i < 3; ++i) {
    ptz_socket_client_add_poll(daemon.base());
    EXPECT_LT(iterations_within(10), 10);
    EXPECT_FALSE(daemon.watched());
  }
}

TEST_F(MisbehavingServer, RepeatsItself) {
  Answer &answer = send();
  std::string replies;
  for (int i = 0; i < 200; ++i) replies += frame(0, "answer " + std::to_string(i));
  reply(replies);
  EXPECT_TRUE(answer.replied());
  EXPECT_EQ(answer.body, "answer 0");
}

TEST_F(MisbehavingServer, AnswersWhatNobodyAsked) {
  for (std::uint32_t id = 0; id < 100; ++id) reply(frame(id * 0x01010101u, body_of(id)));
  Answer &answer = send();
  reply(frame(0, "answer"));
  EXPECT_EQ(answer.body, "answer");
}

TEST_F(MisbehavingServer, FloodsASynchronousRequestWithRepliesToOthers) {
  std::atomic<bool> done = false;
  auto flooding = in_thread([&] {
    const auto request = receive_frame(peer);
    for (int i = 0; i < 2000; ++i) send_all(peer, frame(0xABCD0000u + static_cast<std::uint32_t>(i), body_of(30)));
    if (request) send_all(peer, frame(request->id, "at last"));
    done = true;
  });
  EXPECT_EQ(daemon.sync_send("question"), "at last");
  flooding.wait();
  EXPECT_TRUE(done);
}

TEST_F(MisbehavingServer, FloodsASynchronousRequestBeyondItsTenSeconds) {
  const auto start = real_time_ms();
  std::atomic<bool> stop = false;
  auto flooding = in_thread([&] {
    while (!stop) {
      // A minute passes in a few milliseconds.
      advance_clock(100);
      send_all(peer, frame(0xABCD, body_of(30)));
    }
  });
  EXPECT_EQ(daemon.sync_send("question"), std::nullopt);
  stop = true;
  while (!is_ready(flooding)) (void)receive_waiting(daemon.fd());
  EXPECT_LT(real_time_ms() - start, 5000);
  (void)receive_waiting(daemon.fd());
}

TEST_F(MisbehavingServer, AnswersByteByByteForLongerThanAnyoneWaits) {
  auto dripping = in_thread([&] {
    const std::string whole = frame(0, body_of(300));
    for (const char byte : whole) {
      advance_clock(100);
      send_all(peer, {&byte, 1});
      g_usleep(100);
    }
  });
  EXPECT_EQ(daemon.sync_send("question"), std::nullopt);
  dripping.wait();
}

// Replies cut anywhere, lies and departures in between; whatever the daemon believes was said to it.
TEST(MisbehavingServers, NothingIsMadeUpAndNothingIsCalledTwice) {
  std::mt19937 random(7);
  const auto up_to = [&](unsigned limit) { return std::uniform_int_distribution<unsigned>(0, limit)(random); };
  const GlibLogCapture criticals;
  int replied = 0, requests = 0;
  for (int round = 0; round < 60; ++round) {
    Pair pair;
    std::map<std::uint32_t, std::unique_ptr<Answer>> answers;
    CommandClient daemon(pair.ours.get());
    for (int step = 0; step < 40; ++step) {
      const std::uint32_t next_id = daemon.get()->next_id;
      auto answer = std::make_unique<Answer>();
      // Refused where the connection has been given up.
      if (daemon.send("question", answer.get())) answers.emplace(next_id, std::move(answer));
      const auto id = up_to(static_cast<unsigned>(answers.size() + 2));
      std::string bytes = frame(id, "answer " + std::to_string(id));
      const unsigned lie = up_to(40);
      if (lie == 0) {
        bytes = frame_claiming(impossible_lengths[up_to(9)], id, body_of(up_to(60)));
      } else if (lie == 1 && pair.theirs) {
        shutdown(pair.theirs.get(), SHUT_WR);
      } else if (lie == 2) {
        pair.theirs.reset();
      }
      while (!bytes.empty() && pair.theirs) {
        const std::size_t piece = 1 + up_to(static_cast<unsigned>(bytes.size() - 1));
        if (!send_all(pair.theirs.get(), bytes.substr(0, piece))) break;
        bytes.erase(0, piece);
        iterate(static_cast<int>(up_to(2)));
      }
      if (pair.theirs) (void)receive_waiting(pair.theirs.get());
    }
    run_pending();
    EXPECT_LT(iterations_within(3), 30);
    daemon.drop();
    for (const auto &[id, answer] : answers) {
      EXPECT_EQ(answer->calls + answer->freed, 1);
      EXPECT_EQ(answer->body, answer->calls > 0 ? "answer " + std::to_string(id) : "");
      replied += answer->calls;
      ++requests;
    }
  }
  EXPECT_GT(replied, requests / 10);
  EXPECT_EQ(criticals.criticals(), 0u);
}

}  // namespace
