// What a driver adds to its life: options, a check of its settings, a step when it listens; and requests without a
// socket.
#include <filesystem>

#include "running_driver.h"
#include "syslog_capture.h"

namespace {

const StatusStore store;

class KitProgramParts : public RunningDriver {
 protected:
  ptz_test::SyslogCapture log_;

  // Runs until the options and settings are read; tells the exit status and what was printed.
  std::pair<int, std::string> check(std::vector<std::string> words) {
    words.insert(words.begin(), {"driver", "--check-settings"});
    std::vector<char *> arguments;
    for (std::string &word : words) arguments.push_back(word.data());
    testing::internal::CaptureStderr();
    const int status = ptz_kit_driver_run(kit(), static_cast<gint>(arguments.size()), arguments.data());
    return {status, testing::internal::GetCapturedStderr()};
  }
  std::string answer(const char *request) {
    const std::string body = bytes_of(request);
    GBytes *bytes = g_bytes_new(body.data(), body.size());
    GBytes *reply = ptz_kit_driver_answer(kit(), bytes);
    gsize length = 0;
    const auto *data = static_cast<const char *>(g_bytes_get_data(reply, &length));
    std::string text = text_of({data, length});
    g_bytes_unref(reply);
    g_bytes_unref(bytes);
    return text;
  }
  void start_without_socket() {
    make();
    g_object_set(driver_, "socket-path", "", nullptr);
    ASSERT_TRUE(ptz_kit_driver_start(kit(), nullptr));
  }
};

TEST_F(KitProgramParts, OptionsOfDriverAreReadBesideThoseOfClass) {
  gint gain = 0;
  gboolean loud = FALSE;
  const GOptionEntry first[] = {{"gain", 0, 0, G_OPTION_ARG_INT, &gain, "Gain", "N"}, {}};
  const GOptionEntry second[] = {{"loud", 0, 0, G_OPTION_ARG_NONE, &loud, "Loud", nullptr}, {}};
  make();
  ptz_kit_driver_add_option_entries(kit(), first);
  ptz_kit_driver_add_option_entries(kit(), second);
  EXPECT_EQ(check({"--gain", "7", "--loud"}).first, 0);
  EXPECT_EQ(gain, 7);
  EXPECT_TRUE(loud);
  EXPECT_EQ(check({"--gain", "x"}).first, PTZ_KIT_EXIT_USAGE);
}

TEST_F(KitProgramParts, NegativeInstanceIsWrongUsage) {
  make();
  EXPECT_EQ(check({"--instance", "0"}).first, 0);
  EXPECT_EQ(check({"--instance", "-1"}).first, PTZ_KIT_EXIT_USAGE);
}

TEST_F(KitProgramParts, EachLineOfCheckSettingsErrorIsPrintedAndStatusIs2) {
  make();
  driver_->complaint = "--gain is 1 to 9\n[Head] Min: it is not below Max";
  const auto [status, output] = check({});
  EXPECT_EQ(status, PTZ_KIT_EXIT_USAGE);
  EXPECT_EQ(output, "recording: --gain is 1 to 9\nrecording: [Head] Min: it is not below Max\n");
}

TEST_F(KitProgramParts, StartedIsCalledOnceWhenDriverListens) {
  start();
  EXPECT_EQ(driver_->starts, 1U);
}

TEST_F(KitProgramParts, DriverStopsIfStartedFails) {
  make();
  driver_->fails_to_serve = TRUE;
  GError *error = nullptr;
  EXPECT_FALSE(ptz_kit_driver_start(kit(), &error));
  ASSERT_TRUE(g_error_matches(error, G_IO_ERROR, G_IO_ERROR_NOT_CONNECTED));
  g_clear_error(&error);
  EXPECT_TRUE(driver_->closed);
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(KitProgramParts, DriverWithoutSocketAnswersRequestsOfItsProgram) {
  start_without_socket();
  EXPECT_EQ(answer("{'command': <'get_driver_name'>}"), "{'command': <'get_driver_name'>, 'name': <'recording'>}");
  EXPECT_TRUE(is_error(answer("{'command': <'osd_menu'>, 'action': <1>}"), PTZ_KIT_ERROR_CODE_UNSUPPORTED));
  EXPECT_EQ(answer(auxiliary("light").c_str()), "{'command': <'auxiliary'>, 'name': <'light'>, 'state': <uint32 1>}");
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(KitProgramParts, DriverWithoutSocketPublishesItsStatus) {
  make();
  g_object_set(driver_, "socket-path", "", "instance", 1, nullptr);
  ASSERT_TRUE(ptz_kit_driver_start(kit(), nullptr));
  ptz_kit_driver_report_axis(kit(), PTZ_KIT_AXIS_PAN, 500, TRUE);
  gfloat pan = 0;
  PTZStatusCacheGroup *group = ptz_status_cache_setup_group(PTZ_SC_GROUP_POSITION, 1, 1);
  ptz_status_cache_add_param(group, PTZ_SC_PARAM_POSITION_PAN, &pan);
  ptz_status_cache_fetch_group(group);
  ptz_status_cache_free_group(group);
  EXPECT_EQ(pan, 5);
}

TEST_F(KitProgramParts, BodyWithoutCommandWordIsAnsweredWithError3) {
  start_without_socket();
  GBytes *empty = g_bytes_new(nullptr, 0);
  GBytes *reply = ptz_kit_driver_answer(kit(), empty);
  gsize length = 0;
  const auto *data = static_cast<const char *>(g_bytes_get_data(reply, &length));
  EXPECT_TRUE(is_error(text_of({data, length}), PTZ_KIT_ERROR_CODE_MALFORMED));
  g_bytes_unref(reply);
  g_bytes_unref(empty);
}

TEST_F(KitProgramParts, AnswerThatIsDeferredIsError7AndMayBeGivenLater) {
  start_without_socket();
  EXPECT_TRUE(is_error(answer(auxiliary(AUXILIARY_LATER).c_str()), PTZ_KIT_ERROR_CODE_INTERNAL));
  ptz_kit_reply_error(driver_->deferred, PTZ_KIT_ERROR_CODE_DEVICE, "late");
  g_clear_object(&driver_->deferred);
}

TEST_F(KitProgramParts, UnregisterOfProgramEndsDriver) {
  start_without_socket();
  bool ended = false;
  g_signal_connect_swapped(driver_, "ended", G_CALLBACK(+[](bool *flag) { *flag = true; }), &ended);
  EXPECT_EQ(answer("{'command': <'unregister'>}"), "{'command': <'unregister'>}");
  EXPECT_TRUE(ptz_test::run_until([&] { return ended; }));
}

}  // namespace
