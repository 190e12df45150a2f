// The doctor examines the registry, and the path of a driver's socket.
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "doctor.h"

namespace {

using namespace ptz_test;
namespace fs = std::filesystem;

using DoctorSocket = Doctor;

TEST_F(DoctorSocket, WithoutARuntimeFolderItIsMade) {
  fs::remove_all(folder);
  const Examined examined = expect_first("registry.no-folder", "fault");
  follow(examined, "registry.no-folder");
  ASSERT_TRUE(run_until([&] { return fs::exists(folder); }));
  start_driver();
  expect_content();
}

TEST_F(DoctorSocket, FileInThePlaceOfTheRuntimeFolderIsMovedAway) {
  const std::string path = dir.file("runtime");
  use_folder(path);
  fs::remove(path);
  std::ofstream(path) << "x";
  setenv("PTZ_PLATFORM_STATE_DIR", dir.path().c_str(), 1);
  const Examined examined = expect_first("registry.not-a-folder", "fault");
  follow(examined, "registry.not-a-folder");
  ASSERT_TRUE(run_until([&] { return fs::is_directory(path); }));
}

TEST_F(DoctorSocket, WithoutADriverNoHeadMoves) { static_cast<void>(expect_first("registry.no-driver", "fault")); }

TEST_F(DoctorSocket, DriverThatIsNotThereIsNamed) {
  start_driver();
  const Examined examined = expect_first("registry.driver-missing", "fault", {"--driver", "other"});
  EXPECT_NE(examined.findings.front().what.find("sim-driver:1"), std::string::npos);
}

TEST_F(DoctorSocket, DriverIsFoundByNameInstanceAndBoth) {
  start_driver();
  for (const char *name : {"sim-driver", "sim-driver:1", "1"}) expect_content({"--driver", name});
  expect_content({"--socket", socket()});
}

struct FolderMode {
  mode_t mode;
  const char *id, *severity;
};
struct DoctorFolderMode : Doctor, testing::WithParamInterface<FolderMode> {};

TEST_P(DoctorFolderMode, IsSetByTheCommand) {
  start_driver();
  chmod(folder.c_str(), GetParam().mode);
  const Examined examined = examine();
  EXPECT_EQ(examined.severity(GetParam().id), GetParam().severity) << examined.text;
  expect_mended_by(examined, GetParam().id);
}

INSTANTIATE_TEST_SUITE_P(DoctorSocket, DoctorFolderMode,
                         testing::Values(FolderMode{0700, "registry.folder-mode", "warning"},
                                         FolderMode{02777, "registry.folder-open", "fault"},
                                         FolderMode{02775, "registry.folder-mode", "warning"},
                                         FolderMode{0770, "registry.folder-mode", "warning"}));

TEST_F(DoctorSocket, WithAWrongModeTheGroupCannotConnect) {
  start_driver();
  chmod(socket().c_str(), 0700);
  const Examined examined = expect_first("socket.mode", "fault");
  expect_mended_by(examined, "socket.mode");
}

TEST_F(DoctorSocket, FolderOnTheWayThatTheGroupCannotEnterIsTold) {
  const std::string outer = dir.file("outer");
  use_folder(outer + "/inner");
  start_driver();
  chmod(outer.c_str(), 0700);
  const Examined examined = expect_first("socket.path-closed", "warning");
  expect_mended_by(examined, "socket.path-closed");
}

TEST_F(DoctorSocket, RegularFileInItsPlaceIsMovedAway) {
  start_driver();
  std::ofstream(file("new")) << "x";
  fs::rename(file("new"), socket());
  const Examined examined = expect_first("socket.not-a-socket", "fault");
  EXPECT_NE(examined.findings.front().what.find("a regular file"), std::string::npos);
  expect_mended_by(examined, "socket.not-a-socket");
  EXPECT_EQ(contents(socket() + ".old"), "x");
}

TEST_F(DoctorSocket, FifoInItsPlaceDoesNotBlockTheDoctor) {
  start_driver();
  ASSERT_EQ(mkfifo(file("new").c_str(), 0600), 0);
  fs::rename(file("new"), socket());
  const Examined examined = expect_first("socket.not-a-socket", "fault");
  expect_mended_by(examined, "socket.not-a-socket");
}

TEST_F(DoctorSocket, FolderInItsPlaceIsMovedAway) {
  start_driver();
  fs::remove(socket());
  fs::create_directory(file("new"));
  std::error_code error;
  // The driver listens there again at once if it is faster.
  run_until([&] {
    fs::remove(socket(), error);
    fs::rename(file("new"), socket(), error);
    return !error;
  });
  ASSERT_TRUE(fs::is_directory(socket()));
  expect_mended_by(expect_first("socket.not-a-socket", "fault"), "socket.not-a-socket");
}

TEST_F(DoctorSocket, MissingSocketOfAStoppedDriverIsToldAfterItsCause) {
  start_driver().signal(SIGSTOP);
  fs::remove(socket());
  const Examined examined = expect_first("process.stopped", "fault");
  EXPECT_EQ(examined.severity("socket.missing"), "fault") << examined.text;
  expect_mended_by(examined, "process.stopped");
}

TEST_F(DoctorSocket, StolenPathIsToldWithTheProcessThatListensThere) {
  start_driver().signal(SIGSTOP);
  fs::remove(socket());
  Process &thief = spawn(SIM_DRIVER, {"--socket", socket(), "--fault", "none"});
  ASSERT_TRUE(answers(socket()));
  chmod(socket().c_str(), 0700);
  const Examined examined = expect_first("process.stopped", "fault");
  ASSERT_NE(examined.find("socket.stolen"), nullptr) << examined.text;
  EXPECT_NE(examined.find("socket.stolen")->what.find("Process " + std::to_string(thief.pid())), std::string::npos);
  EXPECT_EQ(examined.find("socket.mode"), nullptr) << "of the socket of the thief";
  follow(examined, "socket.stolen");
  thief.wait();
  expect_mended_by(examined, "process.stopped");
}

TEST_F(DoctorSocket, LeftoverWithoutAnEntryIsRemoved) {
  start_driver();
  Process &other = spawn(SIM_DRIVER, {"--socket", file("other.socket"), "--fault", "none"});
  ASSERT_TRUE(answers(file("other.socket")));
  EXPECT_EQ(examine().severity("registry.other-socket"), "note");
  other.signal(SIGKILL);
  other.wait();
  const Examined examined = expect_first("registry.leftover-socket", "warning");
  EXPECT_EQ(examine({"--socket", file("other.socket")}).severity("socket.leftover"), "fault");
  expect_mended_by(examined, "registry.leftover-socket");
}

TEST_F(DoctorSocket, SocketOfAnotherTypeIsMovedAway) {
  start_driver();
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  file("new").copy(address.sun_path, sizeof address.sun_path - 1);
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
  chmod(file("new").c_str(), 0777);
  const Examined examined = expect_first("socket.wrong-type", "fault", {"--socket", file("new")});
  follow(examined, "socket.wrong-type");
  EXPECT_TRUE(run_until([&] { return !fs::exists(file("new")); }));
  close(fd);
}

TEST_F(DoctorSocket, DamagedEntryIsRemoved) {
  start_driver();
  std::ofstream(file("drivers/4194000-x.driver")) << "nonsense";
  const Examined examined = expect_first("registry.damaged-entry", "warning");
  expect_mended_by(examined, "registry.damaged-entry");
}

TEST_F(DoctorSocket, MissingSocketIsTold) {
  EXPECT_EQ(expect_first("socket.missing", "fault", {"--socket", file("none")}).findings.front().command, "");
  static_cast<void>(expect_first("socket.no-folder", "fault", {"--socket", file("none/socket")}));
}

TEST_F(DoctorSocket, CommandsQuoteThePathsForTheShell) {
  use_folder(dir.file("it's a $(touch broken) folder"));
  start_driver();
  std::ofstream(file("new")) << "x";
  fs::rename(file("new"), socket());
  expect_mended_by(expect_first("socket.not-a-socket", "fault"), "socket.not-a-socket");
  EXPECT_TRUE(fs::exists(socket() + ".old"));
  EXPECT_FALSE(fs::exists("broken"));
}

TEST_F(DoctorSocket, CommandWithALineBreakInAPathStaysOnOneLine) {
  use_folder(dir.file("two\nlines"));
  start_driver();
  chmod(socket().c_str(), 0700);
  const Examined examined = expect_first("socket.mode", "fault");
  EXPECT_EQ(examined.findings.front().command.find('\n'), std::string::npos);
  expect_mended_by(examined, "socket.mode");
}

TEST_F(DoctorSocket, MisuseHasAStatusOfItsOwn) {
  EXPECT_EQ(run({"doctor", "--nonsense"}).status, 64);
  EXPECT_EQ(run({"doctor", "word"}).status, 64);
  EXPECT_EQ(run({"doctor", "--timeout", "0"}).status, 64);
}

TEST_F(DoctorSocket, TextHasWhatWhyAndCommand) {
  start_driver();
  chmod(socket().c_str(), 0700);
  const Result result = run({"doctor"});
  EXPECT_TRUE(has(result, "fault    socket.mode: sim-driver:1\n  What:  Members of the group ")) << result.text;
  EXPECT_TRUE(has(result, "\n  Why:   ")) << result.text;
  EXPECT_TRUE(has(result, " && chmod 0660 -- " + socket() + "\n")) << result.text;
  EXPECT_TRUE(has(result, "\n1 driver, 13 examinations, 1 fault, 0 warnings")) << result.text;
}

}  // namespace
