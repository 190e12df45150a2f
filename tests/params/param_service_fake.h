// tests/params/param_service_fake.h - a parameter service of the test program's own, which keeps what it was asked.
//
// It takes the place of the platform's in the whole test program; without a FakeService alive every operation fails.
// Nobody really sleeps there.
#pragma once
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace ptz_test {

constexpr std::int32_t service_failure = -77;

class FakeService {
 public:
  struct Entry {
    std::string full_name;
    std::string name = "";  // "" is told as NULL
  };
  using Entries = std::vector<Entry>;
  using Calls = std::vector<std::string>;

  FakeService();
  FakeService(const FakeService &) = delete;
  ~FakeService();

  // What is there. A parameter that is set is kept here.
  std::map<std::string, std::string> tree;
  std::map<std::string, Entries> parameters;  // of groups; no walk begins in others
  std::map<std::string, Entries> children;
  std::string created = "created";  // what a creation returns, whatever it reports
  // Asked before each operation, with its text as calls() has it: what it reports. It may wait.
  std::function<std::int32_t(const std::string &call)> error;
  bool keeps_sets = true;
  bool answers_nothing = false;  // no error, and no value, text, walk or entry

  // Every operation since the last time, such as "get root.A", "set root.A=1 mode=9 extra=2",
  // "create root.PTZ.Preset from sim1_preset mode=1 number=2", "delete root.A mode=3", "sync mode=1", "params root.A",
  // "param root.A", "groups root.A", "group root.A", "cleanup root.A". Words of the option block stand there where they
  // were set after the block had been cleared.
  Calls calls();
  [[nodiscard]] std::string value(const std::string &path) const;  // of the tree; "" for none
};

// The seconds that somebody wanted to sleep, since the last time.
std::vector<unsigned> sleeps();

}  // namespace ptz_test
