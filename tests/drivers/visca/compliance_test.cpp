// ptz-compliance on the driver with the simulated camera, over each transport; the tool starts and ends the driver.
#include "camera_and_driver.h"

namespace visca_test {

namespace {

class Compliance : public testing::TestWithParam<const char *> {};

TEST_P(Compliance, HasNothingToObjectTo) {
  CameraAndDriver both(GetParam());
  both.start_camera({}, "4");
  const std::string output = both.file("compliance");
  ptz_test::Process tool(PTZ_COMPLIANCE,
                         {"--instance", "1", "--timeout", "5", "--log", both.file("driver"), "--", VISCA_DRIVER,
                          "--socket", "{socket}", "--instance", "1", "--device", both.device()},
                         output);
  EXPECT_EQ(tool.wait(), 0);
  const std::string report = ptz_test::contents(output);
  EXPECT_NE(report.find(" 0 failed"), std::string::npos) << report;
}

INSTANTIATE_TEST_SUITE_P(Visca, Compliance, testing::Values("udp", "udp-raw", "tcp", "serial"), [](const auto &info) {
  std::string name = info.param;
  std::erase(name, '-');
  return name;
});

}  // namespace
}  // namespace visca_test
