// The doctor examines units and the system bus, and gives examinations up that do not end.
#include "bus.h"
#include "doctor.h"
#include "doctor/shell_text.h"
#include "doctor/supervision.h"

namespace {

using namespace ptz_test;
namespace fs = std::filesystem;

// systemctl as a script of the test.
struct DoctorUnits : Doctor {
  std::string before = getenv("PATH");

  DoctorUnits() { start_driver(); }
  ~DoctorUnits() override { setenv("PATH", before.c_str(), 1); }

  void make_systemctl(const std::string &script) const {
    const std::string path = output.file("systemctl");
    std::ofstream(path) << "#!/bin/sh\n" << script << "\n";
    chmod(path.c_str(), 0755);
    setenv("PATH", (output.path() + ":" + before).c_str(), 1);
  }
  // What "systemctl show" prints of a driver's unit.
  void show(const std::string &state, const std::string &sub_state, const std::string &result, int restarts, int status,
            const std::string &options = "", const std::string &file_state = "enabled") const {
    std::ofstream(output.file("units")) << "Id=other.service\nActiveState=failed\nExecStart={ path=/bin/other ; "
                                           "argv[]=/bin/other ; ignore_errors=no }\n\n"
                                        << "Id=head.service\nLoadState=loaded\nActiveState=" << state
                                        << "\nSubState=" << sub_state << "\nResult=" << result
                                        << "\nUnitFileState=" << file_state << "\nMainPID=0\nNRestarts=" << restarts
                                        << "\nExecMainStatus=" << status << "\nExecStart={ path=" << SIM_DRIVER
                                        << " ; argv[]=" << SIM_DRIVER << " --socket " << file("unit.socket") << options
                                        << " ; ignore_errors=no ; start_time=[n/a] ; pid=0 }\n";
    make_systemctl("if test \"$1\" = show; then cat " + output.file("units") + "; else echo \"$@\" >>" +
                   output.file("calls") + "; sed -i s/ActiveState=.*/ActiveState=active/ " + output.file("units") +
                   "; sed -i s/NRestarts=.*/NRestarts=0/ " + output.file("units") + "; fi");
  }
};

TEST_F(DoctorUnits, ActiveUnitIsInOrder) {
  show("active", "running", "success", 0, 0);
  const Examined examined = examine();
  EXPECT_EQ(examined.status, 0) << examined.text;
  EXPECT_EQ(examined.find("unit.no-systemd"), nullptr);
}

TEST_F(DoctorUnits, WithoutSystemdIsANote) {
  make_systemctl("echo 'System has not been booted with systemd' >&2; exit 1");
  const Examined examined = examine();
  EXPECT_EQ(examined.status, 0) << examined.text;
  EXPECT_EQ(examined.severity("unit.no-systemd"), "note");
}

TEST_F(DoctorUnits, SystemctlThatHangsIsGivenUp) {
  make_systemctl("exec sleep 60");
  static_cast<void>(expect_first("unit.no-answer", "fault"));
}

TEST_F(DoctorUnits, FailedUnitIsStartedByTheCommand) {
  show("failed", "failed", "exit-code", 0, 1);
  const Examined examined = expect_first("unit.failed", "fault");
  EXPECT_EQ(examined.findings.front().subject, "head.service");
  expect_mended_by(examined, "unit.failed");
  EXPECT_EQ(contents(output.file("calls")), "reset-failed head.service\nstart head.service\n");
}

TEST_F(DoctorUnits, StartLimitIsToldAndReset) {
  show("failed", "failed", "start-limit-hit", 5, 1);
  expect_mended_by(expect_first("unit.start-limit-hit", "fault"), "unit.start-limit-hit");
}

TEST_F(DoctorUnits, UnitThatEndsAgainAndAgain) {
  show("activating", "auto-restart", "exit-code", 12, 1);
  const Examined examined = expect_first("unit.restarting", "fault");
  EXPECT_NE(examined.findings.front().what.find("12 times"), std::string::npos);
}

TEST_F(DoctorUnits, UnitThatWasRestartedOften) {
  show("active", "running", "success", 7, 0);
  expect_mended_by(expect_first("unit.restarts", "warning"), "unit.restarts");
}

TEST_F(DoctorUnits, EnabledUnitThatDoesNotRun) {
  show("inactive", "dead", "success", 0, 0);
  expect_mended_by(expect_first("unit.inactive", "warning"), "unit.inactive");
}

TEST_F(DoctorUnits, SettingsOfAUnitThatDoesNotStartAreChecked) {
  const std::string settings = file("bad.conf");
  std::ofstream(settings) << "[Pan]\nMin=100\nMax=-100\n";
  chmod(settings.c_str(), 0644);
  show("failed", "failed", "exit-code", 0, 2, " --config " + settings);
  const Examined examined = expect_first("unit.failed", "fault");
  ASSERT_NE(examined.find("settings.bad"), nullptr) << examined.text;
  EXPECT_NE(examined.find("settings.bad")->what.find("[Pan] Min"), std::string::npos);
}

TEST_F(DoctorUnits, SettingsOfAUnitAreCheckedAsItsUser) {
  if (geteuid() != 0) GTEST_SKIP() << "only root becomes another user";
  const std::string settings = file("good.conf");
  std::ofstream(settings) << "[Pan]\nMin=-100\nMax=100\n";
  chmod(settings.c_str(), 0600);
  show("failed", "failed", "exit-code", 0, 2, " --config " + settings);
  const Examined as_root = expect_first("unit.failed", "fault");
  EXPECT_EQ(as_root.find("settings.bad"), nullptr) << as_root.text;
  std::ofstream(output.file("units"), std::ios::app) << "User=nobody\n";
  const Examined as_nobody = expect_first("unit.failed", "fault");
  EXPECT_EQ(as_nobody.severity("settings.bad"), "fault") << as_nobody.text;
}

TEST_F(DoctorUnits, DeadDriverIsStartedByItsUnit) {
  Process &driver = *processes.front();
  show("active", "running", "success", 0, 0);
  std::string units = contents(output.file("units"));
  units.replace(units.find(file("unit.socket")), file("unit.socket").size(), socket());
  std::ofstream(output.file("units")) << units;
  driver.signal(SIGKILL);
  driver.wait();
  EXPECT_EQ(expect_first("process.dead", "fault").findings.front().command, "systemctl restart head.service");
}

struct DoctorBus : Doctor {
  DoctorBus() { setenv("DBUS_SYSTEM_BUS_ADDRESS", system_bus().address().c_str(), 1); }
  // The policy is not installed on every machine that runs the tests.
  [[nodiscard]] static std::string other_fault(const Examined &examined) {
    for (const auto &each : examined.findings) {
      if (each.severity != "note" && each.id != "bus.no-policy") return each.id;
    }
    return "";
  }
};

TEST_F(DoctorBus, NameOfTheDriverIsThere) {
  start_driver({"--dbus", "sim"});
  const Examined examined = examine();
  EXPECT_EQ(other_fault(examined), "") << examined.text;
  EXPECT_EQ(examined.find("bus.unreachable"), nullptr) << examined.text;
}

TEST_F(DoctorBus, BusThatIsGoneIsAFaultOfItsDrivers) {
  start_driver({"--dbus", "sim"});
  setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
  const Examined examined = examine();
  EXPECT_EQ(other_fault(examined), "bus.unreachable") << examined.text;
}

TEST_F(DoctorBus, NameOfAnotherProcess) {
  start_driver({"--dbus", "sim"});
  static Bus other;
  other.start();
  setenv("DBUS_SYSTEM_BUS_ADDRESS", other.address().c_str(), 1);
  EXPECT_EQ(other_fault(examine()), "bus.no-name");
  const Connection thief = connect_to(other);
  EXPECT_EQ(request_name(thief.get(), "com.velk.PTZ.sim"), 1U);
  const Examined examined = examine();
  EXPECT_EQ(other_fault(examined), "bus.name-taken") << examined.text;
  EXPECT_EQ(examined.find("bus.name-taken")->command, "kill " + std::to_string(getpid()));
}

// --- supervision ------------------------------------------------------------------------------------------------

using ptzctl::Findings;
using ptzctl::Severity;

Findings result_of(const std::function<void(Findings &)> &examine, guint deadline_ms = 200) {
  Findings findings;
  ptzctl::run_jobs({{"thing", "head", examine}}, deadline_ms, findings);
  return findings;
}

TEST(Supervision, FindingsAndDriversComeBackWhole) {
  const Findings found = result_of(
      [](Findings &findings) {
        findings.fault({.id = "a.b", .subject = "\xff", .what = "w", .why = "y", .command = "c"});
        findings.add(
            ptzctl::Driver{.name = "n", .socket = "/s", .pid = 7, .instance = 3, .since_us = 9, .is_registered = true});
        findings.figure("n", 1.5);
      },
      10'000);
  ASSERT_EQ(found.list().size(), 1U);
  EXPECT_EQ(found.list().front().id, "a.b");
  EXPECT_EQ(found.list().front().subject, "\xff");
  EXPECT_EQ(found.list().front().command, "c");
  EXPECT_EQ(found.list().front().severity, Severity::fault);
  ASSERT_EQ(found.drivers().size(), 1U);
  EXPECT_EQ(found.drivers().front().label(), "n:3");
  EXPECT_EQ(found.drivers().front().pid, 7);
  EXPECT_EQ(found.figures().at("n"), 1.5);
}

TEST(Supervision, ExaminationThatDoesNotEndIsGivenUp) {
  const gint64 start_us = g_get_monotonic_time();
  const Findings found = result_of([](Findings &) {
    for (;;) pause();
  });
  EXPECT_LT(g_get_monotonic_time() - start_us, 10 * G_USEC_PER_SEC);
  ASSERT_EQ(found.list().size(), 1U);
  EXPECT_EQ(found.list().front().id, "doctor.no-answer");
  EXPECT_EQ(found.list().front().severity, Severity::fault);
}

TEST(Supervision, ExaminationThatCrashesIsTold) {
  const Findings found = result_of([](Findings &) { raise(SIGKILL); }, 10'000);
  ASSERT_EQ(found.list().size(), 1U);
  EXPECT_EQ(found.list().front().id, "doctor.failed");
}

TEST(Supervision, ManyExaminationsKeepTheirOrder) {
  std::vector<ptzctl::Job> jobs;
  for (int i = 0; i < 150; ++i) {
    jobs.push_back({"thing", "", [i](Findings &findings) {
                      if (i % 3 == 0) g_usleep(2000);
                      findings.note({.id = std::to_string(i)});
                    }});
  }
  Findings findings;
  ptzctl::run_jobs(jobs, 30'000, findings);
  ASSERT_EQ(findings.list().size(), 150U);
  for (int i = 0; i < 150; ++i) EXPECT_EQ(findings.list()[static_cast<std::size_t>(i)].id, std::to_string(i));
}

TEST(Supervision, ProgramThatIgnoresTheDeadlineIsKilled) {
  const auto result = ptzctl::run_program({"sh", "-c", "echo begun; trap '' TERM; sleep 60"}, 300);
  EXPECT_TRUE(result.is_late);
  EXPECT_EQ(result.output, "begun\n");
}

TEST(Supervision, ProgramIsKilledWithItsChildren) {
  const auto result = ptzctl::run_program({"sh", "-c", "sleep 60 & echo $!; wait"}, 300);
  EXPECT_TRUE(result.is_late);
  const std::string stat = "/proc/" + std::to_string(std::stoi(result.output)) + "/stat";
  EXPECT_TRUE(
      run_until([&] { return contents(stat).empty() || contents(stat).find(") Z") != std::string::npos; }, 5000));
}

TEST(Supervision, ProgramHasNoInputAndItsStatusIsKept) {
  const auto result = ptzctl::run_program({"sh", "-c", "cat; echo error >&2; exit 7"}, 10'000);
  EXPECT_EQ(result.status, 7);
  EXPECT_EQ(result.output, "error\n");
}

TEST(ShellText, IsReadBackByTheShellAsItWas) {
  const std::vector<std::string> words = {"",     "plain",   "two words", "it's", "$(id)", "`id`", "\\",
                                          "a\nb", "\x1b[1m", "\xff\x80",  "*",    "~",     "-x",   "ä"};
  for (const auto &word : words) {
    const auto result = ptzctl::run_program({"bash", "-c", "printf %s " + ptzctl::quoted(word)}, 10'000);
    EXPECT_EQ(result.output, word) << ptzctl::quoted(word);
  }
  EXPECT_EQ(ptzctl::quoted("/run/ptz/head.socket"), "/run/ptz/head.socket");
}

}  // namespace
