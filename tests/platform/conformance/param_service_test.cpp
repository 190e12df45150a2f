#include <atomic>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "conformance.h"
#include "parameters.h"

namespace {

using namespace conformance;

constexpr char template_name[] = "ptz_conformance";

struct ParamService : ServiceTest {
  const std::string base = own_name("root.PTZConformance.T");
  ParamService() : ServiceTest("param_service") {}
  void TearDown() override {
    if (missing_of("param_service").empty()) delete_group("root.PTZConformance");
  }
  // A path of this length below the base.
  [[nodiscard]] std::string path_of_length(std::size_t length) const {
    return base + "." + std::string(length - base.size() - 1, 'x');
  }
};

// --- values -----------------------------------------------------------------------------------------------------

TEST_F(ParamService, SetCreatesTheParameterAndTheGroupsAboveIt) {
  EXPECT_EQ(set_param(base + ".A.B.Name", "value"), PARAM_SERVICE_OK);
  EXPECT_EQ(get_param(base + ".A.B.Name"), (Answer{"value", PARAM_SERVICE_OK}));
  gint32 error = 0;
  EXPECT_NE(begin_walk(param_service_get_child_groups, base, error), nullptr);
  EXPECT_EQ(error, PARAM_SERVICE_OK);
}

TEST_F(ParamService, SetReplacesTheValue) {
  EXPECT_EQ(set_param(base + ".Name", "a longer value"), PARAM_SERVICE_OK);
  EXPECT_EQ(set_param(base + ".Name", "b"), PARAM_SERVICE_OK);
  EXPECT_EQ(get_param(base + ".Name"), (Answer{"b", PARAM_SERVICE_OK}));
}

TEST_F(ParamService, GetReturnsEveryValueAsItWasWritten) {
  for (const std::string &value :
       {std::string(), std::string(" "), std::string("-5"), std::string("  spaces  "), std::string("two\nlines\t"),
        std::string("a=b;c#d"), std::string("\"quoted\" 'twice'"), std::string("C:\\\\temp\\n"), std::string("%s%n"),
        std::string("caf\xC3\xA9"), std::string("caf\xE9 \xFF\x01"), std::string(2000, 'x')}) {
    EXPECT_EQ(set_param(base + ".Name", value), PARAM_SERVICE_OK) << value;
    EXPECT_EQ(get_param(base + ".Name"), (Answer{value, PARAM_SERVICE_OK}));
  }
}

TEST_F(ParamService, GetOfAMissingParameterReportsNoParameter) {
  EXPECT_EQ(get_param(base + ".Missing"), (Answer{std::nullopt, PARAM_SERVICE_NO_PARAMETER}));
  set_param(base + ".A.Name", "value");
  EXPECT_EQ(get_param(base + ".A"), (Answer{std::nullopt, PARAM_SERVICE_NO_PARAMETER})) << "a group is no parameter";
}

TEST_F(ParamService, ResetOptionsClearsTheWholeBlock) {
  ParamServiceOptions first, second;
  std::memset(&first, 0x55, sizeof first);
  std::memset(&second, 0xAA, sizeof second);
  param_service_reset_options(&first);
  param_service_reset_options(&second);
  EXPECT_EQ(std::memcmp(&first, &second, sizeof first), 0);
}

TEST_F(ParamService, SyncSucceeds) {
  EXPECT_EQ(set_param(base + ".Name", "value"), PARAM_SERVICE_OK);
  EXPECT_EQ(sync_params(), PARAM_SERVICE_OK);
  EXPECT_EQ(get_param(base + ".Name"), (Answer{"value", PARAM_SERVICE_OK}));
}

// --- paths ------------------------------------------------------------------------------------------------------

TEST_F(ParamService, PathOfTheGreatestLengthIsUsable) {
  const auto path = path_of_length(PARAM_SERVICE_PATH_MAX);
  EXPECT_EQ(set_param(path, "value"), PARAM_SERVICE_OK);
  EXPECT_EQ(get_param(path), (Answer{"value", PARAM_SERVICE_OK}));
  gint32 error = no_answer;
  const auto walk = begin_walk(param_service_get_params, base, error);
  ASSERT_NE(walk, nullptr);
  auto options = options_with();
  param_service_get_param(walk.get(), &options, &error);
  ASSERT_EQ(error, PARAM_SERVICE_OK);
  EXPECT_STREQ(walk->full_name, path.c_str());
  EXPECT_EQ(delete_group(base), PARAM_SERVICE_OK);
  EXPECT_EQ(get_param(path).error, PARAM_SERVICE_NO_PARAMETER);
}

struct ParamServicePaths : ParamService, testing::WithParamInterface<int> {
  [[nodiscard]] std::string path() const {
    const std::string paths[] = {
        "", base + "..Name", "." + base, base + ".", path_of_length(PARAM_SERVICE_PATH_MAX + 1), path_of_length(4000)};
    return paths[GetParam()];
  }
};

TEST_P(ParamServicePaths, EveryOperationReportsBadPath) {
  EXPECT_EQ(set_param(path(), "value"), PARAM_SERVICE_BAD_PATH);
  EXPECT_EQ(get_param(path()), (Answer{std::nullopt, PARAM_SERVICE_BAD_PATH}));
  EXPECT_EQ(create_group(path(), template_name, 1), (Answer{std::nullopt, PARAM_SERVICE_BAD_PATH}));
  EXPECT_EQ(delete_group(path()), PARAM_SERVICE_BAD_PATH);
  gint32 error = no_answer;
  EXPECT_EQ(begin_walk(param_service_get_params, path(), error), nullptr);
  EXPECT_EQ(error, PARAM_SERVICE_BAD_PATH);
  EXPECT_EQ(begin_walk(param_service_get_child_groups, path(), error), nullptr);
  EXPECT_EQ(error, PARAM_SERVICE_BAD_PATH);
}

constexpr const char *names_of_paths[] = {
    "Empty", "EmptyComponent", "EmptyFirstComponent", "EmptyLastComponent", "OneByteTooLong", "MuchTooLong"};
INSTANTIATE_TEST_SUITE_P(, ParamServicePaths, testing::Range(0, 6),
                         [](const auto &info) { return std::string(names_of_paths[info.param]); });

// --- dynamic groups ---------------------------------------------------------------------------------------------

TEST_F(ParamService, GroupIsCreatedFromItsTemplate) {
  EXPECT_EQ(create_group(base + ".Preset", template_name, 2), (Answer{base + ".Preset.P2", PARAM_SERVICE_OK}));
  EXPECT_EQ(get_param(base + ".Preset.P2.Name"), (Answer{"conformance", PARAM_SERVICE_OK}));
  EXPECT_EQ(get_param(base + ".Preset.P2.Pan"), (Answer{"-5", PARAM_SERVICE_OK}));
  EXPECT_EQ(get_param(base + ".Preset.P2.Empty"), (Answer{"", PARAM_SERVICE_OK}));
}

TEST_F(ParamService, NumberMinusOneIsTheLowestThatIsFree) {
  for (const auto *name : {".Preset.P0", ".Preset.P1", ".Preset.P2"}) {
    EXPECT_EQ(create_group(base + ".Preset", template_name, -1), (Answer{base + name, PARAM_SERVICE_OK}));
  }
  EXPECT_EQ(delete_group(base + ".Preset.P1"), PARAM_SERVICE_OK);
  EXPECT_EQ(create_group(base + ".Preset", template_name, -1), (Answer{base + ".Preset.P1", PARAM_SERVICE_OK}));
}

TEST_F(ParamService, ExistingGroupIsReportedWithItsPathAndKeepsItsValues) {
  create_group(base + ".Preset", template_name, 1);
  EXPECT_EQ(set_param(base + ".Preset.P1.Name", "changed"), PARAM_SERVICE_OK);
  EXPECT_EQ(create_group(base + ".Preset", template_name, 1),
            (Answer{base + ".Preset.P1", PARAM_SERVICE_GROUP_EXISTS}));
  EXPECT_EQ(get_param(base + ".Preset.P1.Name"), (Answer{"changed", PARAM_SERVICE_OK}));
}

TEST_F(ParamService, MissingTemplateReportsNoTemplate) {
  EXPECT_EQ(create_group(base + ".Preset", "ptz_conformance_missing", 1),
            (Answer{std::nullopt, PARAM_SERVICE_NO_TEMPLATE}));
  EXPECT_EQ(get_param(base + ".Preset.P1.Name").error, PARAM_SERVICE_NO_PARAMETER);
}

TEST_F(ParamService, DeleteRemovesEverythingInTheGroupAndNothingElse) {
  set_param(base + ".A.Name", "1");
  set_param(base + ".A.B.Name", "2");
  set_param(base + ".AB.Name", "3");
  set_param(base + ".Name", "4");
  EXPECT_EQ(delete_group(base + ".A"), PARAM_SERVICE_OK);
  EXPECT_EQ(get_param(base + ".A.Name").error, PARAM_SERVICE_NO_PARAMETER);
  EXPECT_EQ(get_param(base + ".A.B.Name").error, PARAM_SERVICE_NO_PARAMETER);
  EXPECT_EQ(get_param(base + ".AB.Name"), (Answer{"3", PARAM_SERVICE_OK}));
  EXPECT_EQ(get_param(base + ".Name"), (Answer{"4", PARAM_SERVICE_OK}));
}

TEST_F(ParamService, DeleteOfAMissingGroupReportsNoGroup) {
  EXPECT_EQ(delete_group(base + ".Missing"), PARAM_SERVICE_NO_GROUP);
}

// --- walks ------------------------------------------------------------------------------------------------------

struct Entry {
  std::string full_name;
  std::optional<std::string> name;
  bool operator==(const Entry &) const = default;
};
void PrintTo(const Entry &entry, std::ostream *out) { *out << entry.full_name << ", " << entry.name.value_or("NULL"); }
using Entries = std::vector<Entry>;

struct ParamServiceWalks : ParamService {
  void SetUp() override {
    ParamService::SetUp();
    if (HasFatalFailure()) return;
    for (const auto *path : {".C", ".A", ".B", ".Sub.Z", ".Other.Deep.Z"}) set_param(base + path, "value");
  }
  static Entries entries_of(decltype(param_service_get_params) *begin, decltype(param_service_get_param) *next,
                            const std::string &group) {
    gint32 error = no_answer;
    const auto walk = begin_walk(begin, group, error);
    EXPECT_EQ(error, PARAM_SERVICE_OK);
    Entries entries;
    for (int end = 0; walk != nullptr && end < 2 && entries.size() < 100;) {  // the end stays
      auto options = options_with();
      error = no_answer;
      next(walk.get(), &options, &error);
      EXPECT_EQ(error, PARAM_SERVICE_OK);
      end += walk->at_end ? 1 : 0;
      if (walk->at_end) continue;
      EXPECT_EQ(end, 0) << "an entry after the end";
      entries.push_back(
          {walk->full_name, walk->name != nullptr ? std::optional<std::string>(walk->name) : std::nullopt});
    }
    return entries;
  }
};

TEST_F(ParamServiceWalks, ParametersComeInTheOrderOfTheirNames) {
  EXPECT_EQ(entries_of(param_service_get_params, param_service_get_param, base),
            (Entries{{base + ".A", "A"}, {base + ".B", "B"}, {base + ".C", "C"}}));
}

TEST_F(ParamServiceWalks, ChildGroupsComeInTheOrderOfTheirNamesAndHaveNoShortName) {
  EXPECT_EQ(entries_of(param_service_get_child_groups, param_service_get_child_group, base),
            (Entries{{base + ".Other", std::nullopt}, {base + ".Sub", std::nullopt}}));
}

TEST_F(ParamServiceWalks, GroupWithoutEntriesIsAnEmptyWalk) {
  EXPECT_EQ(entries_of(param_service_get_params, param_service_get_param, base + ".Other"), Entries{});
  EXPECT_EQ(entries_of(param_service_get_child_groups, param_service_get_child_group, base + ".Sub"), Entries{});
}

TEST_F(ParamServiceWalks, MissingGroupReportsNoGroup) {
  gint32 error = no_answer;
  EXPECT_EQ(begin_walk(param_service_get_params, base + ".Missing", error), nullptr);
  EXPECT_EQ(error, PARAM_SERVICE_NO_GROUP);
  EXPECT_EQ(begin_walk(param_service_get_child_groups, base + ".Missing", error), nullptr);
  EXPECT_EQ(error, PARAM_SERVICE_NO_GROUP);
}

TEST_F(ParamServiceWalks, WalkMayBeLeftAtAnyPointAndNullIsNoWalk) {
  param_service_cleanup_group_context(nullptr);
  gint32 error = no_answer;
  EXPECT_NE(begin_walk(param_service_get_params, base, error), nullptr);
  const auto first = begin_walk(param_service_get_params, base, error);
  const auto second = begin_walk(param_service_get_child_groups, base, error);
  ASSERT_TRUE(first != nullptr && second != nullptr);
  auto options = options_with();
  param_service_get_param(first.get(), &options, &error);
  param_service_get_child_group(second.get(), &options, &error);
  EXPECT_STREQ(first->full_name, (base + ".A").c_str());
  EXPECT_STREQ(second->full_name, (base + ".Other").c_str());
}

// --- threads and processes --------------------------------------------------------------------------------------

TEST_F(ParamService, ThreadsWriteAndReadAtTheSameTime) {
  constexpr int rounds = 25;
  std::atomic<int> failures = 0;
  std::vector<std::thread> threads;
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([&, number] {
      const auto own = base + ".Own" + std::to_string(number), value = std::to_string(number);
      for (int round = 0; round < rounds; ++round) {
        if (set_param(own, std::to_string(round)) != 0 || get_param(own).text != std::to_string(round)) ++failures;
        if (set_param(base + ".Shared", value) != 0 || get_param(base + ".Shared").error != 0) ++failures;
      }
    });
  }
  for (auto &thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
  const auto shared = get_param(base + ".Shared").text.value_or("");
  EXPECT_TRUE(shared.size() == 1 && shared[0] >= '0' && shared[0] < '4') << shared;
}

TEST_F(ParamService, AnotherProcessReadsWhatThisOneWrote) {
  EXPECT_EQ(set_param(base + ".Name", "from here"), PARAM_SERVICE_OK);
  EXPECT_EQ(in_other_process({"get-param", base + ".Name"}), "from here");
}

TEST_F(ParamService, ThisProcessReadsWhatAnotherOneWrote) {
  EXPECT_EQ(set_param(base + ".Name", "from here"), PARAM_SERVICE_OK);
  EXPECT_EQ(in_other_process({"set-param", base + ".Name", "from there"}), "");
  EXPECT_EQ(get_param(base + ".Name"), (Answer{"from there", PARAM_SERVICE_OK}));
}

}  // namespace
