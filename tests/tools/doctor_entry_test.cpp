// The doctor compares a driver with its entry in the registry, and examines its clients and what it publishes.
#include <platform/status_store.h>
#include <ptz_status_cache.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <regex>

#include "doctor.h"

namespace {

using namespace ptz_test;
namespace fs = std::filesystem;

struct DoctorEntry : Doctor {
  [[nodiscard]] std::vector<std::string> entries() const {
    std::vector<std::string> found;
    for (const auto &each : fs::directory_iterator(file("drivers"))) {
      if (each.path().extension() == ".driver") found.push_back(each.path());
    }
    return found;
  }
  // In place, so that the driver's lock stays.
  static void edit(const std::string &entry, const std::string &key, const std::string &value) {
    const std::string text = std::regex_replace(contents(entry), std::regex(key + "=.*"), key + "=" + value);
    std::ofstream(entry) << text;
  }
  [[nodiscard]] int connect_to(const std::string &path) const {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    return fd;
  }
  // A client that sends a request again and again, and may read the replies.
  [[nodiscard]] pid_t start_client(guint32 command, useconds_t pause_us, bool reads) const {
    const pid_t client = fork();
    if (client != 0) return client;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int fd = connect_to(socket());
    const guint32 request[] = {12, 1, command};
    char reply[4096];
    for (;;) {
      if (send(fd, request, sizeof request, MSG_DONTWAIT | MSG_NOSIGNAL) < 0 && errno != EAGAIN) _exit(1);
      while (reads && recv(fd, reply, sizeof reply, MSG_DONTWAIT) > 0) {
      }
      usleep(pause_us);
    }
  }
  static void end(pid_t child) {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
  }
};

TEST_F(DoctorEntry, DriverWithAnotherName) {
  start_driver();
  edit(entries().front(), "Name", "\"other\"");
  const Examined examined = expect_first("handshake.other-name", "warning");
  EXPECT_NE(examined.findings.front().what.find("'sim-driver'"), std::string::npos);
}

TEST_F(DoctorEntry, ProcessThatRunsAnotherProgram) {
  start_driver();
  edit(entries().front(), "Program", "\"/bin/true\"");
  static_cast<void>(expect_first("process.other-program", "warning"));
}

TEST_F(DoctorEntry, ProcessThatIsYoungerThanItsEntry) {
  start_driver();
  edit(entries().front(), "Since", "1000000");
  EXPECT_EQ(examine().severity("process.start-time"), "note");
}

TEST_F(DoctorEntry, LockThatIsHeldByAnotherProcess) {
  start_driver();
  edit(entries().front(), "Process", "4194303");
  const Examined examined = examine();
  EXPECT_EQ(examined.severity("process.missing"), "warning") << examined.text;
}

TEST_F(DoctorEntry, TwoDriversOfOnePath) {
  start_driver();
  spawn(SIM_DRIVER, {"--socket", file("second.socket"), "--instance", "2"});
  ASSERT_TRUE(answers(file("second.socket")));
  expect_content();
  for (const auto &each : entries()) edit(each, "Socket", "\"" + socket() + "\"");
  const Examined examined = expect_first("registry.same-socket", "fault");
  EXPECT_EQ(examined.findings.front().command, "kill " + std::to_string(processes.back()->pid()));
}

TEST_F(DoctorEntry, PathThatIsTooLong) {
  start_driver();
  edit(entries().front(), "Socket", "\"/" + std::string(200, 'x') + "\"");
  static_cast<void>(expect_first("socket.path-too-long", "fault"));
}

TEST_F(DoctorEntry, EntryThatThisUserCannotRead) {
  if (geteuid() == 0) GTEST_SKIP() << "root reads every file";
  start_driver();
  chmod(entries().front().c_str(), 0);
  const Examined examined = examine();
  EXPECT_EQ(examined.severity("registry.unreadable-entry"), "warning") << examined.text;
}

TEST_F(DoctorEntry, ProgramThatWasReplaced) {
  const std::string program = file("driver");
  fs::copy_file(SIM_DRIVER, program);
  const std::string libraries = fs::path(SIM_DRIVER).parent_path() / "../..";
  setenv("LD_LIBRARY_PATH", (libraries + "/kit:" + libraries + "/src:" + libraries + "/platform/standalone").c_str(),
         1);
  spawn(program.c_str(), {"--socket", socket(), "--instance", "1"});
  unsetenv("LD_LIBRARY_PATH");
  ASSERT_TRUE(answers(socket()));
  fs::remove(program);
  EXPECT_EQ(examine().severity("process.old-program"), "note");
}

TEST_F(DoctorEntry, DebuggerThatOnlyWatchesIsANote) {
  Process &driver = start_driver();
  const pid_t debugger = fork();
  if (debugger == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    ptrace(PTRACE_SEIZE, driver.pid(), nullptr, nullptr);
    for (;;) pause();
  }
  const std::string line = "TracerPid:\t" + std::to_string(debugger);
  const bool is_traced = run_until(
      [&] { return contents("/proc/" + std::to_string(driver.pid()) + "/status").find(line) != std::string::npos; },
      2000);
  const Examined examined = examine();
  end(debugger);
  if (!is_traced) GTEST_SKIP() << "processes may not be traced here";
  EXPECT_EQ(examined.severity("process.watched"), "note") << examined.text;
}

TEST_F(DoctorEntry, StrangersAreToldThatTheyMayNotConnect) {
  if (geteuid() != 0) GTEST_SKIP() << "only root becomes another user";
  start_driver();
  const auto as_stranger = [this] {
    fs::remove(output.file("text"));
    Process process("/usr/bin/setpriv",
                    {"--reuid=65534", "--regid=65534", "--clear-groups", PTZCTL, "doctor", "--timeout", "2000"},
                    output.file("text"));
    const int status = process.wait();
    return Result{status, contents(output.file("text"))};
  };
  const Result closed = as_stranger();
  if (has(closed, "setpriv:")) GTEST_SKIP() << "another user cannot run the tool here";
  EXPECT_EQ(closed.status, 2);
  EXPECT_TRUE(has(closed, "fault    registry.no-access: ")) << closed.text;
  EXPECT_TRUE(has(closed, "adduser nobody root")) << closed.text;
  for (const std::string &each : {folder, file("drivers")}) chmod(each.c_str(), 02775);
  chmod(socket().c_str(), 0770);
  chmod(entries().front().c_str(), 0644);
  const Result refused = as_stranger();
  EXPECT_TRUE(has(refused, "fault    socket.no-access: sim-driver:1")) << refused.text;
  EXPECT_FALSE(has(refused, "status.publisher-dead")) << refused.text;
}

TEST_F(DoctorEntry, HalfFullBacklogIsAWarning) {
  Process &driver = start_driver();
  driver.signal(SIGSTOP);
  std::vector<int> clients;
  for (int i = 0; i < 80; ++i) clients.push_back(connect_to(socket()));
  const Examined examined = examine();
  EXPECT_EQ(examined.severity("socket.backlog"), "warning") << examined.text;
  driver.signal(SIGCONT);
  for (const int fd : clients) close(fd);
  expect_content();
}

TEST_F(DoctorEntry, ClientWhoseRequestsAreRefused) {
  start_driver();
  const pid_t client = start_client(31, 20'000, true);  // a command that does not exist
  Examined examined;
  EXPECT_TRUE(run_until([&] { return (examined = examine()).severity("clients.errors") == "warning"; }))
      << examined.text;
  end(client);
  expect_content();
}

TEST_F(DoctorEntry, ClientThatDoesNotReadItsReplies) {
  start_driver();
  const pid_t client = start_client(21, 50, false);
  Examined examined;
  EXPECT_TRUE(run_until([&] { return (examined = examine()).severity("clients.unsent-replies") == "warning"; }, 30'000))
      << examined.text;
  end(client);
  expect_content();
}

TEST_F(DoctorEntry, DriverThatIsSlowToAnswer) {
  spawn(SIM_DRIVER, {"--socket", socket(), "--fault", "latency.sequential"});
  ASSERT_TRUE(answers(socket())) << contents(output.file("log"));
  const Examined examined = expect_first("handshake.slow", "warning", {"--socket", socket()});
  EXPECT_EQ(examined.severity("clients.no-monitor"), "note") << examined.text;
}

struct DoctorValues : DoctorEntry {
  static void publish(guint instance, guint32 seconds) {
    gint32 rate = 2;
    guint32 time[] = {seconds, 0};
    ptz_status_cache_create_group(PTZ_SC_GROUP_POSITION, instance);
    auto *handle = ptz_status_cache_setup_group(PTZ_SC_GROUP_POSITION, instance, 2);
    ptz_status_cache_add_param(handle, PTZ_SC_PARAM_POSITION_UPDATE_RATE, &rate);
    ptz_status_cache_add_param(handle, PTZ_SC_PARAM_POSITION_TIME_VAL, &time);
    EXPECT_TRUE(ptz_status_cache_update_group(handle));
    ptz_status_cache_free_group(handle);
  }
};

TEST_F(DoctorValues, TimeInTheFuture) {
  start_driver();
  publish(7, static_cast<guint32>(g_get_monotonic_time() / G_USEC_PER_SEC + 100));
  const Examined examined = expect_first("status.future", "warning");
  EXPECT_EQ(examined.severity("status.unknown-publisher"), "note") << examined.text;
}

TEST_F(DoctorValues, RequestThatIsNotAnsweredForLong) {
  start_driver();
  struct {
    guint32 seconds, nanoseconds;
  } start = {1, 1};
  guint16 owner = static_cast<guint16>(getpid());
  StatusStoreParam time = {"start_time", sizeof start, &start, 5}, process = {"start_pid", sizeof owner, &owner, 1};
  StatusStoreParam *params[] = {&time, &process, nullptr};
  ASSERT_GE(status_store_create_group("ptzdt_driver_req_d2", 200, 0), 0);
  ASSERT_GE(status_store_set_group("ptzdt_driver_req_d2", params, 0), 0);
  static_cast<void>(expect_first("timing.long-request", "warning"));
}

TEST_F(DoctorValues, SettingsThatWereChangedAfterTheStart) {
  const std::string settings = file("driver.conf");
  std::ofstream(settings) << "[Pan]\nMin=-100\nMax=100\n";
  start_driver({"--config", settings});
  fs::last_write_time(settings, fs::file_time_type::clock::now() + std::chrono::seconds(60));
  EXPECT_EQ(examine().severity("settings.changed"), "note");
}

TEST_F(DoctorValues, WithoutAStateFolder) {
  start_driver();
  setenv("PTZ_PLATFORM_STATE_DIR", file("state").c_str(), 1);
  expect_mended_by(expect_first("params.no-folder", "fault"), "params.no-folder");
}

}  // namespace
