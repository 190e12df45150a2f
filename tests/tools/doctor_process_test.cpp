// The doctor examines processes, the conversation with a driver, and its clients.
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <thread>

#include "doctor.h"

namespace {

using namespace ptz_test;
namespace fs = std::filesystem;

struct DoctorProcess : Doctor {
  // A socket at the path at which this process listens.
  [[nodiscard]] static int listen_at(const std::string &path, int backlog = 8) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    chmod(path.c_str(), 0777);
    EXPECT_EQ(listen(fd, backlog), 0);
    return fd;
  }
  [[nodiscard]] static int connect_to(const std::string &path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) return fd;
    close(fd);
    return -1;
  }
};

TEST_F(DoctorProcess, HealthySystemHasNoFindingButNotes) {
  start_driver();
  const Examined examined = examine();
  EXPECT_EQ(examined.status, 0) << examined.text;
  for (const auto &each : examined.findings) EXPECT_EQ(each.severity, "note") << each.id;
  const Result result = run({"doctor"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.text.rfind("1 driver, 13 examinations, nothing wrong", 0), 0U) << result.text;
  EXPECT_EQ(run({"doctor", "--quiet"}).text, "");
}

TEST_F(DoctorProcess, KilledDriverIsDead) {
  Process &driver = start_driver();
  driver.signal(SIGKILL);
  driver.wait();
  const Examined examined = expect_first("process.dead", "fault");
  EXPECT_EQ(examined.findings.front().subject, "sim-driver:1");
  EXPECT_EQ(examined.severity("status.publisher-dead"), "note") << examined.text;
  EXPECT_EQ(examined.findings.front().command, "") << "its options are not known";
  EXPECT_NE(examined.findings.front().why.find("as it was started before"), std::string::npos);
  start_driver();
  expect_content();
}

// The kernel releases the lock of the entry some time after the process has gone: the copies of the files keep it.
TEST_F(DoctorProcess, KilledDriverWhoseLockIsReleasedLaterIsDead) {
  Process &driver = start_driver();
  const int process = static_cast<int>(syscall(SYS_pidfd_open, driver.pid(), 0));
  std::vector<int> kept;
  for (int fd = 3; fd < 64; ++fd) {
    const std::string link = "/proc/" + std::to_string(driver.pid()) + "/fd/" + std::to_string(fd);
    std::error_code error;
    if (fs::read_symlink(link, error).extension() != ".driver") continue;
    kept.push_back(static_cast<int>(syscall(SYS_pidfd_getfd, process, fd, 0)));
  }
  close(process);
  if (kept.empty() || kept.front() < 0) GTEST_SKIP() << "files of other processes may not be shared here";
  driver.signal(SIGKILL);
  driver.wait();
  std::thread kernel([&kept] {
    g_usleep(500'000);
    for (const int fd : kept) close(fd);
  });
  const Examined examined = examine();
  kernel.join();
  EXPECT_EQ(examined.severity("process.dead"), "fault") << examined.text;
  EXPECT_EQ(examined.find("socket.leftover"), nullptr) << examined.text;
  EXPECT_EQ(examined.find("process.missing"), nullptr) << examined.text;
}

TEST_F(DoctorProcess, ZombieOfAParentThatCollectsItSoonIsNone) {
  Process &driver = start_driver();
  driver.signal(SIGKILL);
  std::thread parent([&driver] {
    g_usleep(150'000);
    driver.wait();
  });
  const Examined examined = examine();
  parent.join();
  EXPECT_EQ(examined.severity("process.dead"), "fault") << examined.text;
  EXPECT_EQ(examined.find("process.zombie"), nullptr) << examined.text;
}

TEST_F(DoctorProcess, DriverThatIsKilledDuringTheExaminationIsDead) {
  Process &driver = start_driver();
  std::thread killer([&driver] {
    g_usleep(250'000);
    driver.signal(SIGKILL);
    driver.wait();
  });
  const Examined examined = examine();
  killer.join();
  EXPECT_EQ(examined.findings.empty() ? "" : examined.findings.front().id, "process.dead") << examined.text;
}

TEST_F(DoctorProcess, StoppedDriverIsContinued) {
  start_driver().signal(SIGSTOP);
  const Examined examined = expect_first("process.stopped", "fault");
  EXPECT_EQ(examined.find("handshake.no-answer"), nullptr) << examined.text;
  expect_mended_by(examined, "process.stopped");
}

// Connections that a stopped driver does not accept stay in its backlog, which takes 128.
TEST_F(DoctorProcess, StoppedDriverGetsNoConnectionOfTheDoctor) {
  start_driver().signal(SIGSTOP);
  std::vector<int> clients;
  for (int i = 0; i < 64; ++i) clients.push_back(connect_to(socket()));
  EXPECT_EQ(examine().find("socket.backlog"), nullptr);
  const Examined second = examine();
  EXPECT_EQ(second.find("socket.backlog"), nullptr) << second.text;
  clients.push_back(connect_to(socket()));
  EXPECT_EQ(examine().severity("socket.backlog"), "warning");
  for (const int fd : clients) close(fd);
}

TEST_F(DoctorProcess, DriverUnderADebuggerIsTraced) {
  Process &driver = start_driver();
  const pid_t debugger = fork();
  if (debugger == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    ptrace(PTRACE_ATTACH, driver.pid(), nullptr, nullptr);
    for (;;) pause();
  }
  const bool is_traced = run_until(
      [&] { return contents("/proc/" + std::to_string(driver.pid()) + "/stat").find(") t") != std::string::npos; },
      2000);
  if (!is_traced) {
    kill(debugger, SIGKILL);
    waitpid(debugger, nullptr, 0);
    GTEST_SKIP() << "processes may not be traced here";
  }
  const Examined examined = expect_first("process.traced", "fault");
  follow(examined, "process.traced");
  EXPECT_EQ(waitpid(debugger, nullptr, 0), debugger);
  driver.signal(SIGCONT);
  expect_content();
}

TEST_F(DoctorProcess, ZombieIsToldWithItsParent) {
  // The shell becomes a program that does not wait for its child.
  const std::string command = std::string(SIM_DRIVER) + " --socket " + socket() + " --instance 1 & exec sleep 60";
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  Process &parent = spawn("/bin/sh", {"-c", command});
  ASSERT_TRUE(answers(socket()));
  const std::string children =
      contents("/proc/" + std::to_string(parent.pid()) + "/task/" + std::to_string(parent.pid()) + "/children");
  const pid_t driver = static_cast<pid_t>(std::strtol(children.c_str(), nullptr, 10));
  ASSERT_GT(driver, 0);
  kill(driver, SIGKILL);
  ASSERT_TRUE(run_until(
      [&] { return contents("/proc/" + std::to_string(driver) + "/stat").find(") Z") != std::string::npos; }));
  const Examined examined = expect_first("process.zombie", "fault");
  EXPECT_NE(examined.find("process.zombie")->what.find("(sleep)"), std::string::npos);
  follow(examined, "process.zombie");
  parent.wait();
  ASSERT_TRUE(run_until([&] { return waitpid(driver, nullptr, WNOHANG) == driver; }));
  prctl(PR_SET_CHILD_SUBREAPER, 0);
  static_cast<void>(expect_first("process.dead", "fault"));
  start_driver();
  expect_content();
}

struct DoctorDescriptors : DoctorProcess {
  std::vector<int> clients;

  DoctorDescriptors() {
    spawn("/bin/sh",
          {"-c", "ulimit -S -n 64; exec " + std::string(SIM_DRIVER) + " --socket " + socket() + " --instance 1"});
    EXPECT_TRUE(answers(socket()));
  }
  ~DoctorDescriptors() override {
    for (const int fd : clients) close(fd);
  }
  [[nodiscard]] std::size_t used() const {
    const fs::directory_iterator files("/proc/" + std::to_string(processes.front()->pid()) + "/fd");
    return static_cast<std::size_t>(std::distance(begin(files), end(files)));
  }
  void use(std::size_t number) {
    while (used() < number) {
      const std::size_t before = used();
      clients.push_back(connect_to(socket()));
      run_until([&] { return used() > before; }, 1000);  // unless another client has just gone
    }
  }
};

TEST_F(DoctorDescriptors, LimitThatIsNearIsRaised) {
  use(52);
  expect_mended_by(expect_first("process.descriptors", "warning"), "process.descriptors");
}

TEST_F(DoctorDescriptors, LimitThatIsReachedIsRaised) {
  use(56);
  for (int i = 0; i < 3; ++i) clients.push_back(connect_to(socket()));
  const Examined examined = expect_first("process.descriptors-used-up", "fault");
  EXPECT_EQ(examined.severity("handshake.failed"), "note") << examined.text;
  expect_mended_by(examined, "process.descriptors-used-up");
}

TEST_F(DoctorProcess, BusyDriverUsesAWholeProcessor) {
  spawn(SIM_DRIVER, {"--socket", socket(), "--fault", "process.idle"});
  ASSERT_TRUE(answers(socket()));
  Examined examined;
  EXPECT_TRUE(run_until(
      [&] {
        return (examined = examine({"--socket", socket()})).severity("process.busy") == "warning";
      },
      30'000))
      << examined.text;
  EXPECT_EQ(examined.status, 1) << examined.text;
}

TEST_F(DoctorProcess, DriverThatIsStuckDoesNotAnswer) {
  const int fd = listen_at(socket());
  const Examined examined = expect_first("handshake.no-answer", "fault", {"--socket", socket()});
  EXPECT_NE(examined.findings.front().what.find("2000 ms"), std::string::npos);
  close(fd);
}

TEST_F(DoctorProcess, DeviceThatDoesNotAnswerIsAFault) {
  const fs::path program = fs::path(SIM_DRIVER).parent_path() / "../visca/visca-driver";
  if (!fs::exists(program)) GTEST_SKIP() << "the VISCA driver is not built";
  spawn(program.c_str(), {"--socket", socket(), "--instance", "1", "--device", "udp:127.0.0.1:1"});
  ASSERT_TRUE(run_until([&] { return run({"driver", "send", "u32:21", "--socket", socket()}).status == 0; }));
  const Examined examined = expect_first("handshake.no-device", "fault");
  EXPECT_EQ(examined.findings.front().subject, "visca-driver:1") << examined.text;
}

TEST_F(DoctorProcess, PeerThatHangsUpIsNoDriver) {
  const int fd = listen_at(socket());
  const pid_t peer = fork();
  if (peer == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (;;) close(accept(fd, nullptr, nullptr));
  }
  close(fd);
  static_cast<void>(expect_first("handshake.failed", "fault", {"--socket", socket()}));
  kill(peer, SIGKILL);
  waitpid(peer, nullptr, 0);
}

TEST_F(DoctorProcess, FullBacklogIsSeenWhileTheDriverIsStopped) {
  Process &driver = start_driver();
  driver.signal(SIGSTOP);
  std::vector<int> clients;
  while (clients.size() < 10'000) {
    const int fd = connect_to(socket());
    if (fd < 0) break;
    clients.push_back(fd);
  }
  const Examined examined = expect_first("process.stopped", "fault");
  EXPECT_EQ(examined.severity("socket.backlog-full"), "fault") << examined.text;
  expect_mended_by(examined, "process.stopped");
  for (const int fd : clients) close(fd);
}

TEST_F(DoctorProcess, FullBacklogIsEmptiedByTheRestart) {
  start_driver().signal(SIGSTOP);
  std::vector<int> clients;
  while (clients.size() < 10'000) {
    const int fd = connect_to(socket());
    if (fd < 0) break;
    clients.push_back(fd);
  }
  expect_mended_by(examine(), "socket.backlog-full");
  for (const int fd : clients) close(fd);
}

TEST_F(DoctorProcess, ClientThatFloodsIsNamedWithItsProcess) {
  start_driver();
  const pid_t client = fork();
  if (client == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int fd = connect_to(socket());
    const guint32 request[] = {12, 1, 21};  // Get driver name
    char reply[256];
    for (;;) {
      if (write(fd, request, sizeof request) < 0 && errno != EAGAIN) _exit(1);
      while (read(fd, reply, sizeof reply) > 0) {
      }
      usleep(200);
    }
  }
  Examined examined;
  EXPECT_TRUE(run_until([&] { return (examined = examine()).severity("clients.flood") == "warning"; }, 10'000))
      << examined.text;
  ASSERT_NE(examined.find("clients.flood"), nullptr);
  EXPECT_NE(examined.find("clients.flood")->what.find("rocess " + std::to_string(client)), std::string::npos);
  EXPECT_EQ(examined.status, 1) << examined.text;
  follow(examined, "clients.flood");
  EXPECT_EQ(waitpid(client, nullptr, 0), client);
  expect_content();
}

}  // namespace
