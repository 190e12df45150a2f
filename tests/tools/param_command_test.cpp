#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "ptzctl.h"

namespace {

using namespace ptz_test;

struct PtzctlParam : Ptzctl {
  [[nodiscard]] Result param(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), "param");
    return run(arguments);
  }
  void provide_template(const std::string &text) const { std::ofstream(dir.file("t_grp.conf")) << text; }
  void expect(const std::vector<std::string> &arguments, const std::string &text) const {
    const auto result = param(arguments);
    EXPECT_EQ(result.status, 0) << arguments.front();
    EXPECT_EQ(result.text, text);
  }
  void expect_failure(const std::vector<std::string> &arguments, const std::string &text) const {
    const auto result = param(arguments);
    EXPECT_EQ(result.status, 1) << arguments.front();
    EXPECT_EQ(result.text, text);
  }
};

TEST_F(PtzctlParam, AValueThatWasSetIsReadWithOrWithoutTheRoot) {
  expect({"set", "PTZ.Driver.Name", "Gate camera"}, "");
  expect({"get", "root.PTZ.Driver.Name"}, "Gate camera\n");
  expect({"get", "PTZ.Driver.Name"}, "Gate camera\n");
  expect({"set", "root.PTZ.Driver.Name", ""}, "");
  expect({"get", "PTZ.Driver.Name"}, "\n");
  expect({"set", "rooted.Name", "below root"}, "");
  expect({"get", "root.rooted.Name"}, "below root\n");
  expect({"set", "--", "PTZ.Driver.Limit", "-5"}, "");
  expect({"get", "PTZ.Driver.Limit"}, "-5\n");
}

TEST_F(PtzctlParam, SeveralValuesAreTheirPathsAndThey) {
  expect({"set", "PTZ.A", "1"}, "");
  expect({"set", "PTZ.B", "two\nlines"}, "");
  expect({"get", "PTZ.A", "PTZ.B"}, "root.PTZ.A=1\nroot.PTZ.B=two?lines\n");
  expect({"get", "PTZ.B"}, "two\nlines\n");
  expect({"get", "--json", "PTZ.A", "PTZ.B"},
         "{\"path\":\"root.PTZ.A\",\"value\":\"1\"}\n{\"path\":\"root.PTZ.B\",\"value\":\"two\\nlines\"}\n");
  expect({"set", "--json", "PTZ.A", "caf\xE9"}, "{\"path\":\"root.PTZ.A\",\"value\":\"caf\xC3\xA9\"}\n");
  expect_failure({"get", "PTZ.A", "PTZ.C"},
                 "ptzctl: root.PTZ.C: there is no such parameter (error -1)\nroot.PTZ.A=caf\xC3\xA9\n");
}

TEST_F(PtzctlParam, AnEmptyTreeIsEmpty) {
  expect({"tree"}, "root\n");
  expect({"tree", "--json"}, "{\"group\":\"root\",\"parameters\":{},\"groups\":{}}\n");
  expect({"list"}, "");
}

TEST_F(PtzctlParam, AGroupIsListed) {
  expect({"set", "PTZ.Name", "x"}, "");
  expect({"set", "PTZ.Preset.P1.Name", "y"}, "");
  expect({"list"}, "root.PTZ.\n");
  expect({"list", "PTZ"}, "root.PTZ.Name=x\nroot.PTZ.Preset.\n");
  expect({"list", "root.PTZ.Preset."}, "root.PTZ.Preset.P1.\n");
  expect({"list", "PTZ", "--json"}, "{\"path\":\"root.PTZ.Name\",\"value\":\"x\"}\n{\"group\":\"root.PTZ.Preset\"}\n");
  expect_failure({"list", "PTZ.Missing"}, "ptzctl: root.PTZ.Missing: there is no such group (error -2)\n");
}

TEST_F(PtzctlParam, ATreeIsDrawn) {
  expect({"set", "PTZ.Name", "x"}, "");
  expect({"set", "PTZ.Preset.P1.Name", "y"}, "");
  expect({"set", "PTZ.Preset.P1.Pan", "5"}, "");
  expect({"set", "PTZ.Driver.A", "z"}, "");
  const std::string ascii =
      "root.PTZ\n|-- Name = x\n|-- Driver\n|   `-- A = z\n`-- Preset\n    `-- P1\n        |-- Name = y\n"
      "        `-- Pan = 5\n";
  expect({"tree", "PTZ"}, ascii);
  setenv("LC_ALL", "C.UTF-8", 1);
  expect({"tree", "PTZ.Preset"},
         "root.PTZ.Preset\n\u2514\u2500\u2500 P1\n    \u251C\u2500\u2500 Name = y\n"
         "    \u2514\u2500\u2500 Pan = 5\n");
  expect({"tree", "--json"},
         "{\"group\":\"root\",\"parameters\":{},\"groups\":{\"PTZ\":{\"parameters\":{\"Name\":\"x\"},\"groups\":{"
         "\"Driver\":{\"parameters\":{\"A\":\"z\"},\"groups\":{}},\"Preset\":{\"parameters\":{},\"groups\":{"
         "\"P1\":{\"parameters\":{\"Name\":\"y\",\"Pan\":\"5\"},\"groups\":{}}}}}}}}\n");
  expect_failure({"tree", "PTZ.Missing"}, "ptzctl: root.PTZ.Missing: there is no such group (error -2)\n");
}

TEST_F(PtzctlParam, ADynamicGroupIsCreatedAndDeleted) {
  provide_template("Name=none\n");
  expect({"create", "PTZ.Preset", "t"}, "root.PTZ.Preset.P0\n");
  expect({"create", "PTZ.Preset", "t", "7", "--json"}, "{\"group\":\"root.PTZ.Preset.P7\"}\n");
  expect_failure({"create", "PTZ.Preset", "t", "7"}, "ptzctl: root.PTZ.Preset.P7: the group exists (error -4)\n");
  expect_failure({"create", "PTZ.Preset", "u"},
                 "ptzctl: root.PTZ.Preset from u: there is no such template (error -3)\n");
  expect({"get", "PTZ.Preset.P7.Name"}, "none\n");
  expect({"delete", "PTZ.Preset.P7"}, "");
  expect({"delete", "PTZ.Preset.P0", "--json"}, "{\"group\":\"root.PTZ.Preset.P0\"}\n");
  expect_failure({"delete", "PTZ.Preset.P7"}, "ptzctl: root.PTZ.Preset.P7: there is no such group (error -2)\n");
}

TEST_F(PtzctlParam, ASyncSaysNothingWhereItWorks) {
  expect({"sync"}, "");
  expect({"sync", "--json"}, "{}\n");
}

TEST_F(PtzctlParam, ARefusedWriteIsToldWithTheReasonOfTheService) {
  expect_failure({"set", "PTZ..A", "v"},
                 "ptzctl: Parameter root.PTZ..A: not written: not the path of a parameter\n"
                 "ptzctl: root.PTZ..A is not written: this is no path (error -5)\n");
  setenv("PTZ_PLATFORM_STATE_DIR", dir.file("missing").c_str(), 1);
  expect_failure({"set", "PTZ.A", "v"}, "ptzctl: Parameter root.PTZ.A: not written to " +
                                            dir.file("missing/params.db") +
                                            ": cannot be created: No such file or directory\n"
                                            "ptzctl: root.PTZ.A is not written: the tree cannot be read or written "
                                            "(error -6)\n");
  EXPECT_EQ(param({"sync"}).status, 1);
  EXPECT_EQ(param({"tree"}).status, 1);
}

TEST_F(PtzctlParam, WhatMakesNoSenseIsRefused) {
  for (const auto &arguments : std::vector<std::vector<std::string>>{{"get"},
                                                                     {"set", "PTZ.A"},
                                                                     {"set", "PTZ.A", "v", "w"},
                                                                     {"list", "a", "b"},
                                                                     {"tree", "a", "b"},
                                                                     {"create", "PTZ.Preset"},
                                                                     {"create", "PTZ.Preset", "t", "x"},
                                                                     {"create", "PTZ.Preset", "t", "-1"},
                                                                     {"create", "PTZ.Preset", "t", "2147483648"},
                                                                     {"delete"},
                                                                     {"sync", "now"}}) {
    const auto result = param(arguments);
    EXPECT_EQ(result.status, 2) << arguments.front();
    EXPECT_EQ(result.text.rfind("ptzctl: ", 0), 0U) << result.text;
  }
}

}  // namespace
