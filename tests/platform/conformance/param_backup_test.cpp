#include "conformance.h"
#include "parameters.h"
#include "platform/param_service_backup.h"

namespace {

using namespace conformance;

// Both functions are optional. A library without them passes.
struct ParamBackup : ServiceTest {
  const std::string base = own_name("root.PTZConformance.T");
  const bool is_there = is_defined("param_service_backup");
  TempDir dir;
  ParamBackup() : ServiceTest("param_service") {}
};

TEST_F(ParamBackup, FunctionsComeTogether) { EXPECT_EQ(is_defined("param_service_restore"), is_there); }

TEST_F(ParamBackup, RestoreReplacesTheTreeByTheBackup) {
  if (!is_there) return;
  set_param(base + ".A", "first");
  EXPECT_TRUE(param_service_backup(dir.file("backup").c_str(), nullptr));
  set_param(base + ".A", "second");
  set_param(base + ".B", "new");
  EXPECT_TRUE(param_service_restore(dir.file("backup").c_str(), nullptr));
  EXPECT_EQ(get_param(base + ".A"), (Answer{"first", PARAM_SERVICE_OK}));
  EXPECT_EQ(get_param(base + ".B").error, PARAM_SERVICE_NO_PARAMETER);
  delete_group("root.PTZConformance");
}

TEST_F(ParamBackup, FailureHasAnErrorAndLeavesTheTree) {
  if (!is_there) return;
  set_param(base + ".A", "first");
  GError *error = nullptr;
  EXPECT_FALSE(param_service_restore(dir.file("missing").c_str(), &error));
  EXPECT_NE(error, nullptr);
  g_clear_error(&error);
  EXPECT_FALSE(param_service_backup(dir.file("missing/backup").c_str(), &error));
  EXPECT_NE(error, nullptr);
  g_clear_error(&error);
  EXPECT_EQ(get_param(base + ".A"), (Answer{"first", PARAM_SERVICE_OK}));
  delete_group("root.PTZConformance");
}

}  // namespace
