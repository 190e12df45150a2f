// The doctor examines the status, timings, settings, and the files of the platform.
#include <ptz_status_cache.h>
#include <ptz_timing_log.h>
#include <sys/mount.h>
#include <sys/prctl.h>

#include <cmath>

#include "doctor.h"

namespace {

using namespace ptz_test;
namespace fs = std::filesystem;

struct DoctorFiles : Doctor {
  // Another process publishes, and ends.
  template <typename Work>
  static void in_child(Work work) {
    const pid_t child = fork();
    if (child == 0) {
      work();
      _exit(0);
    }
    waitpid(child, nullptr, 0);
  }
  static void publish(guint instance, guint32 seconds, float pan) {
    gint32 rate = 2;
    struct {
      guint32 seconds, microseconds;
    } time = {seconds, 0};
    ptz_status_cache_create_group(PTZ_SC_GROUP_POSITION, instance);
    auto *handle = ptz_status_cache_setup_group(PTZ_SC_GROUP_POSITION, instance, 3);
    ptz_status_cache_add_param(handle, PTZ_SC_PARAM_POSITION_PAN, &pan);
    ptz_status_cache_add_param(handle, PTZ_SC_PARAM_POSITION_UPDATE_RATE, &rate);
    ptz_status_cache_add_param(handle, PTZ_SC_PARAM_POSITION_TIME_VAL, &time);
    EXPECT_TRUE(ptz_status_cache_update_group(handle));
    ptz_status_cache_free_group(handle);
  }
};

TEST_F(DoctorFiles, StaleStatusOfADriverThatRuns) {
  start_driver();
  Examined examined;
  // The driver publishes again within half a second.
  const auto is_found = [&] {
    in_child([] { publish(1, 1, 0); });
    return (examined = examine()).severity("status.stale") == "fault";
  };
  EXPECT_TRUE(run_until(is_found)) << examined.text;
  EXPECT_EQ(examined.status, 2);
  expect_mended_by(examined, "status.stale");
}

TEST_F(DoctorFiles, StatusWithoutAPublisherIsRemoved) {
  start_driver();
  in_child([] { publish(7, 1, 0); });
  const Examined examined = expect_first("status.publisher-dead", "warning");
  EXPECT_EQ(examined.findings.front().subject, "instance 7");
  expect_mended_by(examined, "status.publisher-dead");
}

// The second one is written without the kit, and has no entry that would keep the first one from starting.
TEST_F(DoctorFiles, TwoPublishersOfOneInstance) {
  Process &second = spawn(SIM_DRIVER, {"--socket", file("second.socket"), "--fault", "none", "--instance", "1"});
  ASSERT_TRUE(answers(file("second.socket"))) << contents(output.file("log"));
  start_driver();
  const Examined examined = expect_first("status.two-publishers", "fault");
  EXPECT_EQ(examined.findings.front().command, "kill " + std::to_string(second.pid()));
  follow(examined, "status.two-publishers");
  second.wait();
  expect_content();
}

TEST_F(DoctorFiles, ValueThatIsNoNumber) {
  start_driver();
  in_child([] { publish(7, static_cast<guint32>(g_get_monotonic_time() / G_USEC_PER_SEC), NAN); });
  const Examined examined = expect_first("status.values", "warning");
  EXPECT_NE(examined.findings.front().what.find("PAN_DEG"), std::string::npos);
}

TEST_F(DoctorFiles, DamagedStatusFileIsRemovedAndMadeAnew) {
  start_driver();
  std::fstream status(file("PTZ_POSITION_IS1.status"), std::ios::in | std::ios::out | std::ios::binary);
  status << std::string(64, 'x');
  status.close();
  expect_mended_by(expect_first("status.damaged", "fault"), "status.damaged");
}

TEST_F(DoctorFiles, StatusThatTheGroupCannotReadIsOpened) {
  start_driver();
  chmod(file("PTZ_POSITION_IS1.status").c_str(), 0600);
  expect_mended_by(expect_first("status.mode", "fault"), "status.mode");
}

TEST_F(DoctorFiles, StatusThatIsNotPublished) {
  Process &driver = start_driver();
  driver.signal(SIGSTOP);
  fs::remove(file("PTZ_POSITION_IS1.status"));
  const Examined examined = examine();
  EXPECT_EQ(examined.severity("status.not-published"), "fault") << examined.text;
  expect_mended_by(examined, "status.not-published");
}

TEST_F(DoctorFiles, TimingOfADeadOwnerIsRemoved) {
  start_driver();
  in_child([] {
    log_time_reset("ptzdt_driver_req_d2");
    log_time_start("ptzdt_driver_req_d2");
  });
  const Examined examined = expect_first("timing.dead-owner", "warning");
  expect_mended_by(examined, "timing.dead-owner");
}

struct DoctorSettings : DoctorFiles {
  std::string settings = file("sim driver.conf");

  void write(const std::string &text) const { std::ofstream(settings) << text; }
};

TEST_F(DoctorSettings, ThatTheDriverWouldRefuseAreTold) {
  write("[Pan]\nMin=-100\nMax=100\n");
  start_driver({"--config", settings});
  expect_content();
  write("[Pan]\nMin=100\nMax=-100\n");
  const Examined examined = expect_first("settings.bad", "fault");
  EXPECT_NE(examined.findings.front().what.find("[Pan] Min: 100 is not below Max"), std::string::npos) << examined.text;
  // The user's editor writes a good value.
  setenv("EDITOR", "sed -i s/Max=-100/Max=1000/", 1);
  expect_mended_by(examined, "settings.bad");
  unsetenv("EDITOR");
}

TEST_F(DoctorSettings, ProgramThatAnotherUserCanChangeIsNotRun) {
  const std::string program = file("driver");
  fs::copy_file(SIM_DRIVER, program);
  chmod(program.c_str(), 0777);
  write("[Pan]\nMin=-100\nMax=100\n");
  const std::string libraries = fs::path(SIM_DRIVER).parent_path() / "../..";
  setenv("LD_LIBRARY_PATH", (libraries + "/kit:" + libraries + "/src:" + libraries + "/platform/standalone").c_str(),
         1);
  spawn(program.c_str(), {"--socket", socket(), "--instance", "1", "--config", settings});
  unsetenv("LD_LIBRARY_PATH");
  ASSERT_TRUE(answers(socket())) << contents(output.file("log"));
  write("nonsense");
  const Examined examined = examine();
  EXPECT_EQ(examined.severity("settings.not-examined"), "note") << examined.text;
  EXPECT_EQ(examined.find("settings.bad"), nullptr) << examined.text;
}

struct DoctorParameters : DoctorFiles {
  DoctorParameters() { EXPECT_EQ(run({"param", "set", "PTZ.A", "1"}).status, 0); }
};

TEST_F(DoctorParameters, ThatTheDriverCannotWrite) {
  const char *program = SIM_DRIVER;
  std::vector<std::string> arguments = {"--socket", socket(), "--instance", "1"};
  // Root may write everything.
  if (geteuid() == 0) {
    constexpr gid_t nogroup = 65534;
    ASSERT_EQ(chown(folder.c_str(), 0, nogroup), 0);
    chmod(folder.c_str(), 02770);
    for (const auto &each : fs::directory_iterator(folder)) ASSERT_EQ(chown(each.path().c_str(), 0, nogroup), 0);
    arguments.insert(arguments.begin(), {"--reuid=65534", "--regid=65534", "--clear-groups", SIM_DRIVER});
    program = "/usr/bin/setpriv";
  }
  spawn(program, arguments);
  if (!answers(socket())) GTEST_SKIP() << "another user cannot run the driver here: " << contents(output.file("log"));
  chmod(file("params.db").c_str(), 0440);
  const Examined examined = expect_first("params.not-writable", "fault");
  EXPECT_NE(examined.findings.front().what.find(file("params.db")), std::string::npos);
  expect_mended_by(examined, "params.not-writable");
}

TEST_F(DoctorParameters, WithALargeLogAreFlushed) {
  start_driver();
  ASSERT_EQ(run({"param", "sync"}).status, 0);
  std::ofstream(file("params.db-wal"));
  fs::resize_file(file("params.db-wal"), 3 << 20);
  const Examined examined = expect_first("params.log-large", "warning");
  EXPECT_NE(examined.findings.front().what.find("3.0 MiB"), std::string::npos);
  expect_mended_by(examined, "params.log-large");
  EXPECT_EQ(run({"param", "get", "PTZ.A"}).text, "1\n");
}

TEST_F(DoctorParameters, DamagedCopiesAreTold) {
  start_driver();
  std::ofstream(file("params.db.damaged-1")) << "x";
  std::ofstream(file("params.db-wal.old")) << "x";
  expect_mended_by(expect_first("params.damaged-copy", "warning"), "params.damaged-copy");
  EXPECT_EQ(contents(file("damaged/params.db.damaged-1")), "x") << "the only copy is gone";
  EXPECT_EQ(contents(file("damaged/params.db-wal.old")), "x");
}

TEST_F(DoctorParameters, OfANewerReleaseOrDamagedAreTold) {
  start_driver();
  std::fstream tree(file("params.db"), std::ios::in | std::ios::out | std::ios::binary);
  tree.seekp(63);
  tree.put(9);
  tree.flush();
  const Examined newer = expect_first("params.newer-version", "fault");
  EXPECT_NE(newer.findings.front().what.find("version 9"), std::string::npos);
  tree.seekp(0);
  tree << "nonsense";
  tree.close();
  EXPECT_EQ(expect_first("params.damaged", "fault").findings.front().command, "") << "no backup is known";
}

TEST_F(DoctorParameters, AreNotTouchedByTheDoctor) {
  start_driver();
  const auto snapshot = [this] {
    std::string text;
    for (const auto &each : fs::recursive_directory_iterator(folder)) {
      struct stat status;
      if (lstat(each.path().c_str(), &status) != 0) continue;
      const bool is_status = each.path().extension() == ".status";  // the driver writes them
      text += each.path().string() + " " + std::to_string(status.st_mode) + " " + std::to_string(status.st_ino) + " " +
              (is_status ? "" : std::to_string(status.st_mtim.tv_nsec)) + "\n";
    }
    return text;
  };
  const std::string before = snapshot();
  EXPECT_EQ(examine().status, 0);
  EXPECT_EQ(snapshot(), before);
}

struct DoctorSpace : DoctorFiles {
  std::string mounted = dir.file("mounted");
  ~DoctorSpace() override {
    processes.clear();
    umount2(mounted.c_str(), MNT_DETACH);
  }
};

TEST_F(DoctorSpace, FullFileSystem) {
  fs::create_directory(mounted);
  if (geteuid() != 0 || mount("none", mounted.c_str(), "tmpfs", 0, "size=4m") != 0) {
    GTEST_SKIP() << "file systems may not be mounted here";
  }
  use_folder(mounted);
  start_driver();
  expect_content();
  std::ofstream large(file("large"));
  const std::string block(4096, 'x');
  while (large.write(block.data(), 4096).flush()) {
  }
  large.close();
  const Examined examined = expect_first("runtime.full", "fault");
  follow(examined, "runtime.full");
  EXPECT_TRUE(run_until([&] { return contents(output.file("log")).find(file("large")) != std::string::npos; }));
  fs::remove(file("large"));
  expect_content();
}

TEST_F(DoctorSpace, ReadOnlyFileSystem) {
  fs::create_directory(mounted);
  if (geteuid() != 0 || mount("none", mounted.c_str(), "tmpfs", 0, "size=4m") != 0) {
    GTEST_SKIP() << "file systems may not be mounted here";
  }
  use_folder(mounted);
  setenv("PTZ_PLATFORM_RUNTIME_DIR", dir.path().c_str(), 1);
  folder = dir.path();
  chmod(folder.c_str(), 02770);
  start_driver();
  expect_content();
  if (mount("none", mounted.c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, "size=4m") != 0) GTEST_SKIP();
  expect_mended_by(expect_first("state.read-only", "fault"), "state.read-only");
}

}  // namespace
