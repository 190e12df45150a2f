// ptzctl replay with made-up recordings: against the simulated driver, and against recordings that play the driver.
#include <ptz_enum_types.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <chrono>
#include <csignal>
#include <sstream>
#include <thread>

#include "ptzctl.h"
#include "wire_frames.h"

namespace {

using namespace ptz_test;

struct WireReplay : Ptzctl {
  const std::string file = dir.file("made-up.pcapng"), socket = dir.file("driver.socket");
  MadeUpRecording made;

  [[nodiscard]] Result replay(std::vector<std::string> options = {"--fast"}) const {
    made.save(file);
    std::vector<std::string> words = {"replay", file, "--socket", socket};
    words.insert(words.end(), options.begin(), options.end());
    return run(words);
  }
  void await_socket() const {
    for (int i = 0; i < 5000 && !is_listened_on(); ++i) usleep(2000);
    ASSERT_TRUE(is_listened_on());
  }
  [[nodiscard]] bool is_listened_on() const {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    socket.copy(address.sun_path, sizeof address.sun_path - 1);
    struct stat ignored = {};
    const bool is_it =
        stat(socket.c_str(), &ignored) == 0 && connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    close(fd);
    return is_it;
  }
};

struct WireReplayToSimulatedDriver : WireReplay {
  Process driver{SIM_DRIVER, {"--socket", socket, "--speed-factor", "20"}, dir.file("log")};
  WireReplayToSimulatedDriver() { await_socket(); }
};

TEST_F(WireReplayToSimulatedDriver, EqualRepliesAreNoDifference) {
  made.request(request_of(ask_name));
  made.reply(name_reply("sim-driver"));
  made.request(request_of(ask_position));
  made.reply(position_reply("[0, 0, 100]"));
  const Result result = replay();
  EXPECT_EQ(result.text, "2 requests sent, 2 replies compared, 0 differences\n");
  EXPECT_EQ(result.status, 0);
}

TEST_F(WireReplayToSimulatedDriver, DifferenceIsToldByFrameCommandAndField) {
  made.request(request_of(ask_position));
  made.reply(position_reply("[1000, 0, 100]"));
  const Result result = replay();
  EXPECT_TRUE(has(result, "frame 2, Query position: position.pan 1000 became 0\n")) << result.text;
  EXPECT_TRUE(has(result, "1 request sent, 1 reply compared, 1 difference\n")) << result.text;
  EXPECT_EQ(result.status, 1);
}

TEST_F(WireReplayToSimulatedDriver, JsonHasDifferencesAndSummary) {
  made.request(request_of(ask_name));
  made.reply(name_reply("other"));
  made.request(request_of(ask_position));
  made.reply(position_reply("[7, 0, 100]"));
  const Result result = replay({"--fast", "--json"});
  EXPECT_EQ(result.text, R"({"frame":2,"client":1,"command":"Get driver name","field":"name","recorded":"other",)"
                         R"("received":"sim-driver"})"
                         "\n"
                         R"({"frame":4,"client":1,"command":"Query position","field":"position.pan","recorded":7,)"
                         R"("received":0})"
                         "\n"
                         R"({"requests":2,"compared":2,"differences":2})"
                         "\n");
}

TEST_F(WireReplayToSimulatedDriver, ValueOfParameterWithNameOfSecretIsHidden) {
  made.request(request_of("{'command': <'get_driver_parameters'>}"));
  made.reply(reply_of(
      "{'command': <'get_driver_parameters'>, 'parameters': <[{'group': <1>, 'name': <'WlanPassword'>, 'label': "
      "<''>, 'value': <'x1y2z3'>, 'kind': <2>, 'flags': <0>, 'range': <''>}]>}"));
  const Result result = replay();
  EXPECT_TRUE(has(result, "parameters[0].value (hidden) became ")) << result.text;
  EXPECT_FALSE(has(result, "x1y2z3")) << result.text;
}

struct Ignored {
  std::string field;
  int status;
};
struct WireReplayIgnoring : WireReplayToSimulatedDriver, testing::WithParamInterface<Ignored> {};

TEST_P(WireReplayIgnoring, ComparesTheOtherFields) {
  made.request(request_of(ask_position));
  made.reply(position_reply("[1000, 0, 100]"));
  const Result result = replay({"--fast", "--ignore", GetParam().field});
  EXPECT_EQ(result.status, GetParam().status) << result.text;
}

INSTANTIATE_TEST_SUITE_P(Fields, WireReplayIgnoring,
                         testing::Values(Ignored{"position", 0}, Ignored{"position.pan", 0},
                                         Ignored{"position.tilt", 1}, Ignored{"status.position", 0},
                                         Ignored{"status", 1}, Ignored{"query_position", 0},
                                         Ignored{"query_position.position.pan", 0}, Ignored{"query_speed", 1},
                                         Ignored{"get_preset_position.position", 1}));

TEST_F(WireReplayToSimulatedDriver, UnknownFieldToIgnoreIsMisuse) {
  made.request(request_of(ask_position));
  const Result result = replay({"--ignore", "positon"});
  EXPECT_EQ(result.status, 2);
  EXPECT_TRUE(has(result, "--ignore 'positon' is no field of a reply (did you mean 'position'?)")) << result.text;
}

TEST_F(WireReplayToSimulatedDriver, ToleranceIsForPositionsOnly) {
  made.request(request_of(ask_position));
  made.reply(position_reply("[30, 0, 100]"));
  EXPECT_EQ(replay({"--fast", "--tolerance", "30"}).status, 0);
  EXPECT_EQ(replay({"--fast", "--tolerance", "29"}).status, 1);
  made.request(request_of("{'command': <'set_device_preset'>, 'number': <1>, 'name': <'gate'>}"));
  made.reply(reply_of("{'command': <'set_device_preset'>, 'number': <2>}"));
  EXPECT_EQ(replay({"--fast", "--tolerance", "30"}).status, 1);
}

TEST_F(WireReplayToSimulatedDriver, HeadAtRestInTheRecordingIsWaitedFor) {
  made.request(request_of("{'command': <'move'>, 'kind': <1>, 'axes': <1>, 'speed': <100>, 'value': <[9000, 0, 0]>}"));
  made.reply(reply_of("{'command': <'move'>}"));
  made.request(request_of(ask_position));
  made.reply(position_reply("[9000, 0, 100]"));
  EXPECT_EQ(replay().status, 0);
  EXPECT_EQ(replay({"--fast", "--exact"}).status, 0);  // it is there already
}

TEST_F(WireReplayToSimulatedDriver, ExactReplayDoesNotWaitForTheHead) {
  made.request(request_of("{'command': <'move'>, 'kind': <1>, 'axes': <1>, 'speed': <1>, 'value': <[9000, 0, 0]>}"));
  made.reply(reply_of("{'command': <'move'>}"));
  made.request(request_of(ask_position));
  made.reply(position_reply("[9000, 0, 100]"));
  EXPECT_EQ(replay({"--fast", "--exact"}).status, 1);
}

TEST_F(WireReplayToSimulatedDriver, PositionOfAxisThatMovedInTheRecordingIsNotCompared) {
  made.request(request_of(ask_position));
  made.reply(position_reply("[1234, 0, 100]", "[1, 0, 0]"));
  EXPECT_EQ(replay().status, 0);
  EXPECT_EQ(replay({"--fast", "--exact"}).status, 1);
}

TEST_F(WireReplayToSimulatedDriver, RefusalInsteadOfReplyIsADifference) {
  made.request(request_of("{'command': <'goto_preset'>, 'number': <9>, 'speed': <50>}"));
  made.reply(reply_of("{'command': <'goto_preset'>}"));
  const Result result = replay();
  EXPECT_TRUE(has(result, "frame 2, Goto preset: a reply to goto_preset became error 5: ")) << result.text;
  EXPECT_EQ(result.status, 1);
}

TEST_F(WireReplayToSimulatedDriver, MalformedBodyIsSentAsRecorded) {
  made.request({13, 0, 0, 0, 9, 9});
  made.reply(reply_of("{'command': <'error'>, 'code': <uint32 3>, 'text': <''>}"));
  EXPECT_EQ(replay({"--fast", "--ignore", "error.text"}).status, 0);
}

TEST_F(WireReplayToSimulatedDriver, MalformedFrameIsSentAsRecordedAndItsClientGoesOn) {
  made.request(request_of(ask_name)).bytes[0] = 7;  // a length below that of a header
  made.request(request_of(ask_name));
  made.reply(name_reply("sim-driver"));
  EXPECT_EQ(replay().status, 0);
}

TEST_F(WireReplayToSimulatedDriver, RequestsOfOtherClientsAreLeftOut) {
  made.request(request_of(ask_name), 1);
  made.reply(name_reply("other"), 1);
  made.request(request_of(ask_name), 2);
  made.reply(name_reply("sim-driver"), 2);
  const Result result = replay({"--fast", "--client", "2"});
  EXPECT_TRUE(has(result, "1 request sent")) << result.text;
  EXPECT_EQ(result.status, 0);
  EXPECT_TRUE(has(replay({"--client", "3"}), "has no request of this client"));
}

TEST_F(WireReplayToSimulatedDriver, RequestsKeepTheirTimes) {
  made.request(request_of(ask_name));
  made.reply(name_reply("sim-driver"));
  made.pass(300);
  made.request(request_of(ask_name));
  made.reply(name_reply("sim-driver"));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(replay({}).status, 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
}

TEST_F(WireReplayToSimulatedDriver, FastReplayDoesNotWaitForTheRecordedTimes) {
  made.request(request_of(ask_name));
  made.reply(name_reply("sim-driver"));
  made.pass(3'600'000);
  made.request(request_of(ask_name));
  made.reply(name_reply("sim-driver"));
  EXPECT_EQ(replay().status, 0);
}

TEST_F(WireReplayToSimulatedDriver, ReplyWhereTheRecordingIsSilentIsADifference) {
  made.request(request_of(ask_name));
  made.pass(2000);
  made.request(request_of(ask_name));
  made.reply(name_reply("sim-driver"));
  const Result result = replay({"--fast", "--timeout", "200"});
  EXPECT_TRUE(has(result, "frame 1, Get driver name: a reply, but none was recorded\n")) << result.text;
  EXPECT_EQ(result.status, 1);
}

TEST_F(WireReplayToSimulatedDriver, RecordingThatEndsWithinASecondOfTheRequestProvesNothing) {
  made.request(request_of(ask_name));
  made.pass(500);
  made.request(request_of(ask_position));
  made.reply(position_reply("[0, 0, 100]"));
  EXPECT_EQ(replay().status, 0);
}

TEST_F(WireReplayToSimulatedDriver, SilenceAfterLostFramesProvesNothing) {
  made.request(request_of(ask_name));
  made.pass(2000);
  made.request(request_of(ask_name)).lost = 1;
  made.reply(name_reply("sim-driver"));
  const Result result = replay({"--fast", "--timeout", "200"});
  EXPECT_TRUE(has(result, "lacks 1 frames that were lost")) << result.text;
  EXPECT_EQ(result.status, 0);
}

TEST_F(WireReplayToSimulatedDriver, RepliesWithoutTheirRequestsAreCountedOnly) {
  made.reply_to(77, name_reply("other"));
  made.request(request_of(ask_name));
  made.reply(name_reply("sim-driver"));
  const Result result = replay();
  EXPECT_TRUE(has(result, "has 1 replies without their requests")) << result.text;
  EXPECT_EQ(result.status, 0);
}

TEST_F(WireReplayToSimulatedDriver, PipelinedRequestsOfOneMessageIdAreMatchedInOrder) {
  made.request(request_of(ask_name));
  made.request(request_of(ask_name)).bytes = ptzctl::frame_of(0, request_of(ask_name));
  made.reply_to(0, name_reply("sim-driver"));
  made.reply_to(0, name_reply("sim-driver"));
  const Result result = replay();
  EXPECT_EQ(result.text, "2 requests sent, 2 replies compared, 0 differences\n");
}

TEST_F(WireReplayToSimulatedDriver, ClientsMayUseTheSameMessageIds) {
  made.request(request_of(ask_name), 1).bytes = ptzctl::frame_of(0, request_of(ask_name));
  made.request(request_of(ask_position), 2).bytes = ptzctl::frame_of(0, request_of(ask_position));
  made.reply_to(0, position_reply("[0, 0, 100]"), 2);
  made.reply_to(0, name_reply("sim-driver"), 1);
  EXPECT_EQ(replay().status, 0);
}

TEST_F(WireReplayToSimulatedDriver, StoppedDriverIsNoDriver) {
  made.request(request_of(ask_name));
  made.reply(name_reply("sim-driver"));
  driver.signal(SIGSTOP);
  const Result result = replay({"--fast", "--timeout", "100"});
  driver.signal(SIGCONT);
  EXPECT_TRUE(has(result, "frame 2, Get driver name: no reply within 100 ms\n")) << result.text;
  EXPECT_EQ(result.status, 3);
}

TEST_F(WireReplayToSimulatedDriver, ReplayEndsAfterThreeRequestsInARowWithoutReply) {
  for (int i = 0; i < 50; ++i) {
    made.request(request_of(ask_name));
    made.reply(name_reply("sim-driver"));
  }
  driver.signal(SIGSTOP);
  const Result result = replay({"--fast", "--timeout", "50"});
  driver.signal(SIGCONT);
  EXPECT_TRUE(has(result, "stopped after 3 requests without a reply")) << result.text;
  EXPECT_TRUE(has(result, "3 requests sent")) << result.text;
  EXPECT_EQ(result.status, 3);
}

TEST_F(WireReplay, DriverThatClosesTheConnectionBeforeItsReplyIsTold) {
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  socket.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener, 1), 0);
  std::thread closing([listener] { close(accept(listener, nullptr, nullptr)); });
  made.request(request_of(ask_name));
  made.reply(name_reply("sim-driver"));
  const Result result = replay();
  closing.join();
  close(listener);
  EXPECT_TRUE(has(result, "frame 2, Get driver name: the driver closed the connection before its reply"))
      << result.text;
  EXPECT_EQ(result.status, 3);
}

TEST_F(WireReplay, NoDriverIsStatusThree) {
  made.request(request_of(ask_name));
  made.reply(name_reply("sim-driver"));
  const Result result = replay();
  EXPECT_TRUE(has(result, "no driver at " + socket + ": No such file or directory")) << result.text;
  EXPECT_EQ(result.status, 3);
}

TEST_F(WireReplay, RecordingWithoutRequestIsAFailure) {
  const Result result = replay();
  EXPECT_TRUE(has(result, "has no request")) << result.text;
  EXPECT_EQ(result.status, 1);
}

TEST_F(WireReplay, FileThatIsNoRecordingIsTold) {
  const Result result = run({"replay", "/etc/passwd", "--socket", socket});
  EXPECT_TRUE(has(result, "cannot read /etc/passwd: ")) << result.text;
  EXPECT_EQ(result.status, 1);
}

// One recording plays the driver, another is replayed to it.
struct WirePlayedDriver : WireReplay {
  MadeUpRecording played;
  const std::string played_file = dir.file("played.pcapng"), told_file = dir.file("told");

  // Of the kernel's list: a connection would play the first recorded client.
  [[nodiscard]] bool is_listening() const {
    constexpr char accepts_connections[] = " 00010000 ";
    std::istringstream lines(contents("/proc/net/unix"));
    for (std::string line; std::getline(lines, line);) {
      if (line.ends_with(" " + socket) && line.find(accepts_connections) != std::string::npos) return true;
    }
    return false;
  }
  // The text of both, and the status of the played driver.
  Result play(const std::vector<std::string> &options, Result &replayed) {
    played.save(played_file);
    std::vector<std::string> words = {"replay", played_file, "--as-driver", "--socket", socket};
    words.insert(words.end(), options.begin(), options.end());
    Process driver(PTZCTL, words, told_file);
    EXPECT_TRUE(run_until([&] { return is_listening(); }));
    replayed = replay();
    driver.signal(SIGTERM);
    const int status = driver.wait();
    return {status, contents(told_file)};
  }
};

TEST_F(WirePlayedDriver, AnswersAsRecordedWithTheIdOfTheRequest) {
  played.request(request_of(ask_position));
  played.reply(position_reply("[7, 8, 900]"));
  made.request(request_of(ask_name));
  made.reply(name_reply("played"));
  made.request(request_of(ask_position));
  made.reply(position_reply("[7, 8, 900]"));
  played.request(request_of(ask_name));
  played.reply(name_reply("played"));
  Result replayed;
  const Result driver = play({}, replayed);
  EXPECT_EQ(replayed.status, 0) << replayed.text;
  EXPECT_EQ(driver.status, 0) << driver.text;
  EXPECT_TRUE(has(driver, "2 requests, 0 not in the recording")) << driver.text;
}

TEST_F(WirePlayedDriver, ValueOfPropertyWithNameOfSecretIsHidden) {
  for (auto *const recording : {&played, &made}) {
    recording->request(request_of("{'command': <'get_driver_property'>, 'name': <'api-token'>}"));
    recording->reply(reply_of(std::string("{'command': <'get_driver_property'>, 'value': <'") +
                              (recording == &made ? "x1y2z3" : "x4y5z6") + "'>}"));
  }
  Result replayed;
  EXPECT_EQ(play({}, replayed).status, 0);
  EXPECT_TRUE(has(replayed, "frame 2, Get driver property: value (hidden) became (hidden)\n")) << replayed.text;
}

TEST_F(WirePlayedDriver, EqualRequestsGetTheirRepliesInTurnAndTheLastRepeats) {
  for (const char *position : {"[1, 0, 100]", "[2, 0, 100]"}) {
    played.request(request_of(ask_position));
    played.reply(position_reply(position));
  }
  for (const char *position : {"[1, 0, 100]", "[2, 0, 100]", "[2, 0, 100]"}) {
    made.request(request_of(ask_position));
    made.reply(position_reply(position));
  }
  Result replayed;
  EXPECT_EQ(play({}, replayed).status, 0);
  EXPECT_EQ(replayed.status, 0) << replayed.text;
}

TEST_F(WirePlayedDriver, RequestThatIsNotInTheRecordingIsRefusedAndTold) {
  played.request(request_of(ask_name));
  played.reply(name_reply("played"));
  made.request(request_of(ask_position));
  made.reply(reply_of("{'command': <'error'>, 'code': <uint32 2>, 'text': <'the recording has no such request'>}"));
  Result replayed;
  const Result driver = play({}, replayed);
  EXPECT_EQ(replayed.status, 0) << replayed.text;
  EXPECT_EQ(driver.status, 1);
  EXPECT_TRUE(has(driver, "request 1, Query position: the recording has no such request")) << driver.text;
}

TEST_F(WirePlayedDriver, InOrderARequestWithOtherFieldsGetsTheRecordedReplyAndIsTold) {
  played.request(request_of("{'command': <'goto_preset'>, 'number': <1>, 'speed': <50>}"));
  played.reply(reply_of("{'command': <'goto_preset'>}"));
  played.request(request_of(ask_position));
  played.reply(position_reply("[7, 8, 900]"));
  made.request(request_of("{'command': <'goto_preset'>, 'number': <2>, 'speed': <50>}"));
  made.reply(reply_of("{'command': <'goto_preset'>}"));
  made.request(request_of(ask_name));
  made.reply(reply_of("{'command': <'error'>, 'code': <uint32 2>, 'text': <'the recording has another request'>}"));
  Result replayed;
  const Result driver = play({"--match", "order"}, replayed);
  EXPECT_EQ(replayed.status, 0) << replayed.text;
  EXPECT_EQ(driver.status, 1);
  EXPECT_TRUE(has(driver, "request 1, Goto preset: frame 1 has Goto preset with other fields")) << driver.text;
  EXPECT_TRUE(has(driver, "request 2, Get driver name: frame 3 has Query position")) << driver.text;
}

TEST_F(WirePlayedDriver, RepliesComeWithTheRecordedLatency) {
  played.request(request_of(ask_name));
  played.pass(300);
  played.reply(name_reply("played"));
  made.request(request_of(ask_name));
  made.reply(name_reply("played"));
  Result replayed;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(play({}, replayed).status, 0);
  EXPECT_EQ(replayed.status, 0) << replayed.text;
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
}

TEST_F(WirePlayedDriver, FastDriverRepliesWithoutTheRecordedLatency) {
  played.request(request_of(ask_name));
  played.pass(3'600'000);
  played.reply(name_reply("played"));
  made.request(request_of(ask_name));
  made.reply(name_reply("played"));
  Result replayed;
  EXPECT_EQ(play({"--fast"}, replayed).status, 0);
  EXPECT_EQ(replayed.status, 0) << replayed.text;
}

TEST_F(WirePlayedDriver, FileInThePlaceOfItsSocketIsKept) {
  played.request(request_of(ask_name));
  played.save(played_file);
  std::filesystem::create_directory(socket);
  const Result result = run({"replay", played_file, "--as-driver", "--socket", socket});
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(has(result, "exists and is no socket")) << result.text;
}

// A socket at the path, which nothing listens on unless asked to.
int socket_at(const std::string &path, int type, bool listens) {
  const int fd = ::socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
  EXPECT_TRUE(!listens || listen(fd, 1) == 0);
  return fd;
}

TEST_F(WirePlayedDriver, SocketOfAnotherTypeInThePlaceOfItsOwnIsKept) {
  played.request(request_of(ask_name));
  played.save(played_file);
  const int fd = socket_at(socket, SOCK_SEQPACKET, true);
  const Result result = run({"replay", played_file, "--as-driver", "--socket", socket});
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(has(result, "may be in use: Protocol wrong type for socket")) << result.text;
  EXPECT_TRUE(std::filesystem::is_socket(socket));
  close(fd);
}

TEST_F(WirePlayedDriver, SocketThatNoProcessListensOnIsReplaced) {
  close(socket_at(socket, SOCK_STREAM, false));
  played.request(request_of(ask_name));
  played.reply(name_reply("played"));
  made.request(request_of(ask_name));
  made.reply(name_reply("played"));
  Result replayed;
  EXPECT_EQ(play({}, replayed).status, 0);
  EXPECT_EQ(replayed.status, 0) << replayed.text;
  EXPECT_FALSE(std::filesystem::exists(socket));
}

TEST_F(WirePlayedDriver, SocketOfASuccessorIsKeptAtItsEnd) {
  played.request(request_of(ask_name));
  played.save(played_file);
  Process driver(PTZCTL, {"replay", played_file, "--as-driver", "--socket", socket}, told_file);
  ASSERT_TRUE(run_until([&] { return is_listening(); }));
  std::filesystem::rename(socket, dir.file("moved"));  // keeps its inode in use
  const int successor = socket_at(socket, SOCK_STREAM, true);
  driver.signal(SIGTERM);
  (void)driver.wait();
  EXPECT_TRUE(std::filesystem::is_socket(socket));
  close(successor);
}

TEST_F(WirePlayedDriver, DaemonThatHasShutDownItsSendingSideReceivesItsReplies) {
  played.request(request_of(ask_name));
  played.pass(100);
  played.reply(name_reply("played"));
  played.save(played_file);
  Process driver(PTZCTL, {"replay", played_file, "--as-driver", "--socket", socket}, told_file);
  ASSERT_TRUE(run_until([&] { return is_listening(); }));
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  socket.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
  const std::vector<guint8> frame = ptzctl::frame_of(7, request_of(ask_name));
  ASSERT_EQ(send(fd, frame.data(), frame.size(), MSG_NOSIGNAL), static_cast<ssize_t>(frame.size()));
  shutdown(fd, SHUT_WR);
  const std::vector<guint8> expected = ptzctl::frame_of(7, name_reply("played"));
  std::vector<guint8> reply(expected.size());
  EXPECT_EQ(recv(fd, reply.data(), reply.size(), MSG_WAITALL), static_cast<ssize_t>(reply.size()));
  EXPECT_EQ(reply, expected);
  char rest = 0;
  EXPECT_EQ(recv(fd, &rest, 1, 0), 0) << "it does not close the connection";
  close(fd);
  EXPECT_EQ(driver.wait(), 0) << contents(told_file);
}

TEST_F(WirePlayedDriver, OptionsOfTheOtherRoleAreMisuse) {
  played.request(request_of(ask_name));
  played.save(played_file);
  EXPECT_EQ(run({"replay", played_file, "--as-driver"}).status, 2);
  EXPECT_EQ(run({"replay", played_file, "--as-driver", "--socket", socket, "--exact"}).status, 2);
  EXPECT_EQ(run({"replay", played_file, "--match", "order"}).status, 2);
  EXPECT_EQ(run({"replay", played_file, "--as-driver", "--socket", socket, "--match", "x"}).status, 2);
}

}  // namespace
