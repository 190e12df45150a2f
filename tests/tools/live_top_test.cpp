// ptzctl top, with simulated drivers: on a terminal, as lines, and as JSON.
#include <fcntl.h>
#include <sys/stat.h>

#include <csignal>
#include <regex>

#include "live_drivers.h"
#include "live_terminal.h"

namespace {

using namespace ptz_test;

struct LiveTop : LiveDrivers {
  [[nodiscard]] std::string pid(std::size_t driver) const { return std::to_string(drivers.at(driver)->pid()); }
  const std::vector<std::string> lines = {"top", "--lines", "--count=1", "--interval=100"};
  const std::vector<std::string> fast = {"top", "--interval=100"};
};

TEST_F(LiveTop, PrintsABlockOfLines) {
  start(1);
  start(2);
  PlainClient client(socket(1));
  ASSERT_TRUE(client.ask(stop_command));
  const auto block = run(lines);
  EXPECT_EQ(block.status, 0);
  const std::string figures = " +[0-9.k]+ +\\S+ +\\S+ +[0-9]+ +[0-9.k]+ +0 +0  ";
  EXPECT_TRUE(std::regex_search(
      block.text,
      std::regex("^[-0-9T:.]+Z\nDRIVER, #CLIENT +PID STATE +REQ/S +P50 +P99 +ERRORS +BYTES/S +PENDING +UNSENT  "
                 "STATUS, LAST COMMAND\n")))
      << block.text;
  EXPECT_TRUE(std::regex_search(block.text, std::regex("\nsim-driver:1 +" + pid(0) + " (sleeping|running) " + figures +
                                                       "status [0-9.]+m?s\n  #[0-9]+ ptzctl_live_test +" +
                                                       std::to_string(getpid()) + " \\S+ " + figures + "stop\n")))
      << block.text;
  EXPECT_TRUE(std::regex_search(block.text, std::regex("\nsim-driver:2 +" + pid(1) + " "))) << block.text;
}

TEST_F(LiveTop, PrintsAnObjectForEachLook) {
  start(1);
  PlainClient client(socket(1));
  ASSERT_TRUE(client.ask(unknown_command));
  const auto json = run({"top", "--json", "--count=2", "--interval=50"});
  EXPECT_EQ(json.status, 0);
  EXPECT_EQ(std::ranges::count(json.text, '\n'), 2);
  for (const std::string &part : {R"("interval_ms":50,"drivers":[{"name":"sim-driver","instance":1,"pid":)" + pid(0),
                                  std::string(R"("answers":true)"), std::string(R"("clients":[{"client":)"),
                                  std::string(R"("errors":1,)"), "\"socket\":\"" + socket(1) + "\"",
                                  std::string(R"("last_command":"77")"), std::string(R"("status_stale":false)")}) {
    EXPECT_TRUE(has(json, part)) << part << " in " << json.text;
  }
}

TEST_F(LiveTop, AStoppedDriverIsToldAndHoldsNothingUp) {
  start(1);
  start(2);
  drivers.front()->signal(SIGSTOP);
  const gint64 begin = g_get_monotonic_time();
  const auto block = run(lines);
  EXPECT_LT(g_get_monotonic_time() - begin, 5 * G_USEC_PER_SEC);
  EXPECT_TRUE(
      std::regex_search(block.text, std::regex("\nsim-driver:1 +" + pid(0) + " stopped .*  does not answer, status")))
      << block.text;
  EXPECT_TRUE(std::regex_search(block.text, std::regex("\nsim-driver:2 +" + pid(1) + " .* 0  status"))) << block.text;
  const auto json = run({"top", "--json", "--count=1", "--interval=50"});
  EXPECT_TRUE(has(json, R"("state":"stopped","answers":false,"problem":"does not answer")")) << json.text;
  drivers.front()->signal(SIGCONT);
}

// Sockets of drivers whose main loops are stuck: they listen, and do not answer.
class StuckDrivers {
  std::vector<int> fds_;

  void listen_at(const std::string &path, int type) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    fds_.push_back(socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    EXPECT_EQ(bind(fds_.back(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    EXPECT_EQ(listen(fds_.back(), 8), 0);
  }
  // The driver of an entry holds a lock on it.
  void write_locked(const std::string &path, const std::string &text) {
    fds_.push_back(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    EXPECT_EQ(write(fds_.back(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    EXPECT_EQ(fcntl(fds_.back(), F_OFD_SETLK, &lock), 0);
  }

 public:
  StuckDrivers(const TempDir &dir, int count) {
    for (int i = 0; i < count; ++i) {
      const std::string name = "stuck" + std::to_string(i), path = dir.file(name);
      listen_at(path, SOCK_STREAM);
      listen_at(path + ".monitor", SOCK_SEQPACKET);
      struct stat status = {};
      EXPECT_EQ(stat(path.c_str(), &status), 0);
      write_locked(dir.file("drivers/" + name + ".driver"),
                   "[Driver]\nName=\"" + name + "\"\nSocket=\"" + path +
                       "\"\nProgram=\"/stuck\"\nProcess=" + std::to_string(getpid()) +
                       "\nInstance=1\nProtocol=1\nSince=1\nDevice=" + std::to_string(status.st_dev) +
                       "\nInode=" + std::to_string(status.st_ino) + "\n");
    }
  }
  StuckDrivers(const StuckDrivers &) = delete;
  ~StuckDrivers() {
    for (const int fd : fds_) close(fd);
  }
};

TEST_F(LiveTop, ManyDriversThatDoNotAnswerDoNotKeepItFromTheOthers) {
  start(1);
  const StuckDrivers stuck(dir, 8);
  const gint64 begin = g_get_monotonic_time();
  const auto blocks = run({"top", "--lines", "--count=6", "--interval=50", "--sort=name"});
  EXPECT_LT(g_get_monotonic_time() - begin, 5 * G_USEC_PER_SEC);
  const std::string last = blocks.text.substr(blocks.text.rfind("DRIVER, #CLIENT"));
  EXPECT_TRUE(std::regex_search(last, std::regex("\nsim-driver:1 .* 0  status"))) << last;
  for (int i = 0; i < 8; ++i) {
    EXPECT_TRUE(std::regex_search(last, std::regex("\nstuck" + std::to_string(i) + ":1 .* -  does not answer")))
        << last;
  }
}

TEST_F(LiveTop, AKilledDriverIsDead) {
  start(1);
  const std::string killed = pid(0);
  drivers.front()->signal(SIGKILL);
  drivers.front()->wait();
  const auto block = run(lines);
  EXPECT_TRUE(std::regex_search(block.text, std::regex("\nsim-driver:1 +" + killed + " dead .*does not answer")))
      << block.text;
}

TEST_F(LiveTop, WithoutADriverLinesEndWithStatus3) {
  const auto none = run(lines);
  EXPECT_EQ(none.status, 3);
  EXPECT_EQ(none.text, "ptzctl: no driver runs\n");
}

TEST_F(LiveTop, FiltersAndSortsTheLines) {
  start(1);
  start(2);
  PlainClient client(socket(2));
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(client.ask(unknown_command));
  const auto sorted = run({"top", "--lines", "--count=1", "--interval=50", "--sort", "errors"});
  EXPECT_LT(sorted.text.find("sim-driver:2"), sorted.text.find("sim-driver:1")) << sorted.text;
  const auto named = run({"top", "--lines", "--count=1", "--interval=50", "--sort", "name"});
  EXPECT_GT(named.text.find("sim-driver:2"), named.text.find("sim-driver:1")) << named.text;
  const auto filtered = run({"top", "--lines", "--count=1", "--interval=50", "--filter", "SOCKET2"});
  EXPECT_TRUE(has(filtered, "sim-driver:2")) << filtered.text;
  EXPECT_FALSE(has(filtered, "sim-driver:1")) << filtered.text;
  EXPECT_EQ(run({"top", "--sort", "colour"}).status, 2);
}

TEST_F(LiveTop, AnInterruptEndsTheLinesWithStatus0) {
  start(1);
  Process process(PTZCTL, {"top", "--lines", "--interval=50"}, dir.file("top"));
  ASSERT_TRUE(run_until([&] { return contents(dir.file("top")).find("sim-driver:1") != std::string::npos; }));
  process.signal(SIGINT);
  EXPECT_EQ(process.wait(), 0);
}

TEST_F(LiveTop, AClosedPipeEndsTheLinesQuietly) {
  start(1);
  Process pipe("/bin/bash",
               {"-c", std::string(PTZCTL) + " top --lines --interval=50 | head -n 1; echo ${PIPESTATUS[0]}"},
               dir.file("top"));
  EXPECT_EQ(pipe.wait(), 0);
  EXPECT_TRUE(std::regex_match(contents(dir.file("top")), std::regex("\\S+Z\n0\n"))) << contents(dir.file("top"));
}

TEST_F(LiveTop, OnATerminalKeysSortFilterPauseAndQuit) {
  start(1);
  start(2);
  PlainClient client(socket(2));
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(client.ask(unknown_command));
  Terminal top(fast, 24, 120);
  ASSERT_TRUE(top.until("ptzctl top: 2 drivers, 1 client, by requests")) << top.text();
  ASSERT_TRUE(top.until("sim-driver:1") && top.until("sim-driver:2")) << top.text();
  EXPECT_TRUE(top.until("q quit  space pause")) << top.text();
  top.type("n");
  EXPECT_TRUE(top.until([&] { return top.has("by name") && top.line(2).find("sim-driver:1") == 0; })) << top.text();
  top.type("e");
  EXPECT_TRUE(top.until([&] { return top.has("by errors") && top.line(2).find("sim-driver:2") == 0; })) << top.text();
  top.type("/socket1");
  EXPECT_TRUE(top.until([&] { return top.has("filter: socket1_") && !top.has("sim-driver:2"); })) << top.text();
  top.type("\r");
  EXPECT_TRUE(top.until("filter 'socket1'")) << top.text();
  top.type("/\b\b\b\b\b\b\bnothing\r");
  EXPECT_TRUE(top.until("no driver and no client fits the filter")) << top.text();
  top.type("/\x1b");
  EXPECT_TRUE(top.until("sim-driver:2")) << top.text();
  top.type(" ");
  EXPECT_TRUE(top.until(", paused")) << top.text();
  top.type("q");
  EXPECT_EQ(top.wait(), 0);
}

TEST_F(LiveTop, APausedScreenDoesNotChange) {
  start(1);
  Terminal top(fast, 24, 120);
  ASSERT_TRUE(top.until("sim-driver:1")) << top.text();
  top.type(" ");
  ASSERT_TRUE(top.until("paused"));
  start(2);
  top.read_for(300);
  EXPECT_FALSE(top.has("sim-driver:2"));
  EXPECT_TRUE(top.has("1 driver,"));
  top.type(" ");
  EXPECT_TRUE(top.until("sim-driver:2")) << top.text();
}

TEST_F(LiveTop, AScreenThatIsTooSmallIsScrolled) {
  start(1);
  std::vector<std::unique_ptr<PlainClient>> clients;
  for (int i = 0; i < 12; ++i) {
    clients.push_back(std::make_unique<PlainClient>(socket(1)));
    ASSERT_TRUE(clients.back()->ask(stop_command));
  }
  Terminal top({"top", "--interval=100", "--sort", "name"}, 10, 100);
  ASSERT_TRUE(top.until("8 lines below")) << top.text();
  EXPECT_EQ(top.line(2).find("sim-driver:1"), 0U) << top.text();
  top.type(
      "\x1b"
      "B\x1b"
      "B");
  EXPECT_TRUE(top.until("2 lines above  6 lines below")) << top.text();
  EXPECT_FALSE(top.has("sim-driver:1"));
  top.type(
      "\x1b"
      "A");
  EXPECT_TRUE(top.until("1 line above  7 lines below")) << top.text();
  top.resize(30, 100);
  EXPECT_TRUE(top.until([&] {
    return top.has("sim-driver:1") && !top.has("lines below") && top.line(28).find("q quit") == 0;
  })) << top.text();
  top.type("q");
  EXPECT_EQ(top.wait(), 0);
}

TEST_F(LiveTop, ANarrowTerminalShowsWholeTitlesAndEachKey) {
  start(1);
  Terminal top(fast, 24, 80);
  ASSERT_TRUE(top.until("ERRORS  STATUS, LAST COMMAND")) << top.text();
  for (const char *key : {"r requests", "l latency", "e errors", "p pending", "n name", "arrows scroll"}) {
    EXPECT_TRUE(top.until(key)) << key << " in " << top.text();
  }
  top.type("q");
  EXPECT_EQ(top.wait(), 0);
}

TEST_F(LiveTop, AClientThatEndsBesideAStoppedDriverLosesItsRow) {
  start(1);
  Process client(
      "/usr/bin/env",
      {"python3", "-c",
       "import socket, time\ns = socket.socket(socket.AF_UNIX)\ns.connect('" + socket(1) + "')\ntime.sleep(60)\n"},
      dir.file("client"));
  Terminal top(fast, 24, 120);
  ASSERT_TRUE(top.until("  #")) << top.text();
  drivers.front()->signal(SIGSTOP);
  ASSERT_TRUE(top.until("does not answer")) << top.text();
  EXPECT_TRUE(top.has("  #"));
  client.signal(SIGKILL);
  client.wait();
  EXPECT_TRUE(top.until([&] { return !top.has("  #"); })) << top.text();
  drivers.front()->signal(SIGCONT);
  top.type("q");
  EXPECT_EQ(top.wait(), 0);
}

TEST_F(LiveTop, OnATerminalAStoppedDriverHoldsNoKeysUp) {
  start(1);
  Terminal top(fast, 24, 120);
  ASSERT_TRUE(top.until("sim-driver:1"));
  drivers.front()->signal(SIGSTOP);
  EXPECT_TRUE(top.until("does not answer")) << top.text();
  EXPECT_TRUE(top.has("stopped")) << top.text();
  top.type("n");
  EXPECT_TRUE(top.until("by name"));
  drivers.front()->signal(SIGCONT);
  EXPECT_TRUE(top.until([&] { return !top.has("does not answer"); })) << top.text();
  top.interrupt();
  EXPECT_EQ(top.wait(), 0);
}

}  // namespace
