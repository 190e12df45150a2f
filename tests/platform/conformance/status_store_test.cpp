#include <atomic>
#include <thread>

#include "conformance.h"
#include "status_values.h"

namespace {

using namespace conformance;

struct StatusStore : ServiceTest {
  const std::string name =
      own_name("PTZ_CONFORMANCE_" +
               std::string(testing::UnitTest::GetInstance()->current_test_info()->name()).substr(0, 24) + "_");
  StatusStore() : ServiceTest("status_store") {}
  void create(guint32 size = 256) const { ASSERT_EQ(create_status(name, size), 0); }
};

TEST_F(StatusStore, ExistingGroupIsNotCreatedAgain) {
  create();
  EXPECT_EQ(create_status(name, 256), -EEXIST);
}

TEST_F(StatusStore, MissingGroupHasNoValues) {
  EXPECT_EQ(set_status(name, {{"A", 1}}), -ENOENT);
  Numbers numbers = {{"A", 7}};
  EXPECT_EQ(get_status(name, numbers), -ENOENT);
  EXPECT_EQ(numbers, (Numbers{{"A", 7}}));
}

TEST_F(StatusStore, GetOfAGroupThatWasNeverWrittenFailsWithEnoentAndLeavesTheVariables) {
  create();
  Numbers numbers = {{"A", 7}};
  EXPECT_EQ(get_status(name, numbers), -ENOENT);
  EXPECT_EQ(numbers, (Numbers{{"A", 7}}));
}

TEST_F(StatusStore, GetReadsWhatSetWrote) {
  create();
  EXPECT_EQ(set_status(name, {{"A", 1}, {"B", -2}}), 0);
  Numbers numbers = {{"A"}, {"B"}};
  EXPECT_EQ(get_status(name, numbers), 2);
  EXPECT_EQ(numbers, (Numbers{{"A", 1}, {"B", -2}}));
}

TEST_F(StatusStore, SetAddsAndReplacesValues) {
  create();
  EXPECT_EQ(set_status(name, {{"A", 1}, {"B", 2}}), 0);
  EXPECT_EQ(set_status(name, {{"B", 3}, {"C", 4}}), 0);
  Numbers numbers = {{"A"}, {"B"}, {"C"}};
  EXPECT_EQ(get_status(name, numbers), 3);
  EXPECT_EQ(numbers, (Numbers{{"A", 1}, {"B", 3}, {"C", 4}}));
}

TEST_F(StatusStore, GetLeavesKeysThatTheGroupLacks) {
  create();
  EXPECT_EQ(set_status(name, {{"A", 1}}), 0);
  Numbers numbers = {{"B", 7}, {"A"}, {"AA", 8}};
  EXPECT_EQ(get_status(name, numbers), 1);
  EXPECT_EQ(numbers, (Numbers{{"B", 7}, {"A", 1}, {"AA", 8}}));
}

TEST_F(StatusStore, GetLeavesValuesOfAnotherTypeOrSize) {
  create();
  EXPECT_EQ(set_status(name, {{"A", 1, 5}, {"B", 2, 6}}), 0);
  Numbers numbers = {{"A", 7, 6}, {"B", 8, 6}};
  EXPECT_EQ(get_status(name, numbers), 1);
  EXPECT_EQ(numbers, (Numbers{{"A", 7, 6}, {"B", 2, 6}}));
  gint64 wide = 77;
  StatusStoreParam param = {"A", sizeof wide, &wide, 5}, *list[] = {&param, nullptr};
  EXPECT_EQ(status_store_get_group(name.c_str(), list, read_mode), 0);
  EXPECT_EQ(wide, 77);
}

TEST_F(StatusStore, SizeIsTheSumOfKeysAndValues) {
  create(12);  // twice a key of one byte with its NUL, and four bytes
  EXPECT_EQ(set_status(name, {{"A", 1}, {"B", 2}}), 0);
  EXPECT_EQ(set_status(name, {{"C", 3}}), -ENOSPC);
}

TEST_F(StatusStore, SetThatDoesNotFitChangesNothing) {
  create(12);
  EXPECT_EQ(set_status(name, {{"A", 1}, {"B", 2}}), 0);
  EXPECT_EQ(set_status(name, {{"A", 8}, {"C", 9}}), -ENOSPC);
  Numbers numbers = {{"A"}, {"B"}, {"C", 7}};
  EXPECT_EQ(get_status(name, numbers), 2);
  EXPECT_EQ(numbers, (Numbers{{"A", 1}, {"B", 2}, {"C", 7}}));
}

TEST_F(StatusStore, GroupsAreIndependent) {
  create();
  EXPECT_EQ(create_status(name + "_2", 256), 0);
  EXPECT_EQ(set_status(name, {{"A", 1}}), 0);
  EXPECT_EQ(set_status(name + "_2", {{"A", 2}}), 0);
  Numbers numbers = {{"A"}};
  EXPECT_EQ(get_status(name, numbers), 1);
  EXPECT_EQ(numbers.front().value, 1);
}

TEST_F(StatusStore, AnotherProcessReadsWhatThisOneWrote) {
  create();
  EXPECT_EQ(set_status(name, {{"A", 42}}), 0);
  EXPECT_EQ(in_other_process({"get-status", name, "A"}), "42");
}

TEST_F(StatusStore, ThisProcessReadsWhatAnotherOneWrote) {
  EXPECT_EQ(in_other_process({"create-status", name}), "");
  EXPECT_EQ(create_status(name, 256), -EEXIST);
  EXPECT_EQ(in_other_process({"set-status", name, "A", "43"}), "");
  Numbers numbers = {{"A"}};
  EXPECT_EQ(get_status(name, numbers), 1);
  EXPECT_EQ(numbers.front().value, 43);
}

TEST_F(StatusStore, GetSeesAllValuesOfOneMoment) {
  create();
  EXPECT_EQ(set_status(name, {{"A", 0}, {"B", 0}}), 0);
  std::atomic<bool> is_done = false;
  std::atomic<int> failures = 0;
  std::thread writer([&] {
    for (gint32 number = 0; number < 5000; ++number) {
      if (set_status(name, {{"A", number}, {"B", -number}}) != 0) ++failures;
    }
    is_done = true;
  });
  int torn = 0;
  while (!is_done) {
    Numbers numbers = {{"A"}, {"B"}};
    if (get_status(name, numbers) != 2) ++failures;
    if (numbers[0].value != -numbers[1].value) ++torn;
  }
  writer.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(torn, 0);
}

}  // namespace
