// tests/tools/doctor.h - a system of its own with real drivers, which a test breaks, and what the doctor finds there.
#pragma once
#include <json-glib/json-glib.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "ptzctl.h"

namespace ptz_test {

struct Found {
  std::string id, severity, subject, what, why, command;
};

struct Examined {
  int status = -1;
  std::string text;
  std::vector<Found> findings = {};

  [[nodiscard]] const Found *find(const std::string &id) const {
    const auto found = std::ranges::find(findings, id, &Found::id);
    return found != findings.end() ? &*found : nullptr;
  }
  [[nodiscard]] std::string severity(const std::string &id) const {
    const auto *found = find(id);
    return found != nullptr ? found->severity : "";
  }
};

struct Doctor : Ptzctl {
  std::string folder = dir.path();  // runtime and state
  std::vector<std::unique_ptr<Process>> processes;

  Doctor() {
    use_folder(folder);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    const std::string tools = std::filesystem::path(PTZCTL).parent_path();
    const std::string path = getenv("PATH");
    if (path.rfind(tools, 0) != 0) setenv("PATH", (tools + ":" + path).c_str(), 1);
  }
  ~Doctor() override {
    for (const auto &each : processes) each->signal(SIGCONT);
  }

  void use_folder(const std::string &path) {
    folder = path;
    std::filesystem::create_directories(path);
    chmod(path.c_str(), 02770);
    setenv("PTZ_PLATFORM_RUNTIME_DIR", path.c_str(), 1);
    setenv("PTZ_PLATFORM_STATE_DIR", path.c_str(), 1);
  }
  [[nodiscard]] std::string file(const std::string &name) const { return folder + "/" + name; }
  [[nodiscard]] std::string socket() const { return file("head.socket"); }

  Process &spawn(const char *program, const std::vector<std::string> &arguments) {
    processes.push_back(std::make_unique<Process>(program, arguments, output.file("log")));
    return *processes.back();
  }
  [[nodiscard]] bool answers(const std::string &path) const {
    return run_until([&] { return run({"driver", "info", "--socket", path}).status == 0; });
  }
  Process &start_driver(const std::vector<std::string> &more = {}) {
    std::vector<std::string> arguments = {"--socket", socket(), "--instance", "1"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    Process &driver = spawn(SIM_DRIVER, arguments);
    EXPECT_TRUE(answers(socket())) << contents(output.file("log"));
    return driver;
  }

  [[nodiscard]] Examined examine(std::vector<std::string> arguments = {}) const {
    arguments.insert(arguments.begin(), {"doctor", "--json", "--timeout", "2000"});
    const Result result = run(arguments);
    Examined examined = {result.status, result.text};
    const std::unique_ptr<JsonParser, decltype(&g_object_unref)> parser(json_parser_new(), g_object_unref);
    if (json_parser_load_from_data(parser.get(), result.text.c_str(), -1, nullptr) == FALSE) return examined;
    auto *root = json_node_get_object(json_parser_get_root(parser.get()));
    auto *list = json_object_get_array_member(root, "findings");
    for (guint i = 0; i < json_array_get_length(list); ++i) {
      auto *each = json_array_get_object_element(list, i);
      const auto text = [each](const char *name) { return std::string(json_object_get_string_member(each, name)); };
      examined.findings.push_back(
          {text("id"), text("severity"), text("subject"), text("what"), text("why"), text("command")});
    }
    return examined;
  }
  // The first finding has this id, and the exit status fits its severity. On a busy machine a driver may be late, too.
  [[nodiscard]] Examined expect_first(const std::string &id, const std::string &severity,
                                      const std::vector<std::string> &arguments = {}) const {
    Examined examined;
    run_until([&] {
      examined = examine(arguments);
      return !examined.findings.empty() && examined.findings.front().id == id;
    });
    EXPECT_EQ(examined.findings.empty() ? "" : examined.findings.front().id, id) << examined.text;
    EXPECT_EQ(examined.severity(id), severity) << examined.text;
    EXPECT_EQ(examined.status, severity == "fault" ? 2 : severity == "warning" ? 1 : 0);
    return examined;
  }
  // Follows the command as a user would, and leaves a driver that it starts running.
  void follow(const Examined &examined, const std::string &id) {
    const auto *finding = examined.find(id);
    ASSERT_NE(finding, nullptr) << examined.text;
    ASSERT_NE(finding->command, "") << id;
    spawn("/bin/bash", {"-c", finding->command});
  }
  void expect_content(const std::vector<std::string> &arguments = {}) const {
    Examined last;
    const bool is_content = run_until([&] { return (last = examine(arguments)).status == 0; }, 20'000);
    EXPECT_TRUE(is_content) << last.text << contents(output.file("log"));
  }
  void expect_mended_by(const Examined &examined, const std::string &id,
                        const std::vector<std::string> &arguments = {}) {
    follow(examined, id);
    expect_content(arguments);
  }
};

}  // namespace ptz_test
