// Links to driver processes that are killed, restarted and stopped.
#include <algorithm>
#include <csignal>

#include "link_test.h"
#include "process.h"

namespace kit_link_test {
namespace {

using ptz_test::Process;
using ptz_test::run_until;

class KitLinkProcess : public LinkTest {
 protected:
  std::unique_ptr<Process> driver_;

  void start_driver() {
    driver_.reset();  // a second driver on the socket is refused
    driver_ = std::make_unique<Process>(SIM_DRIVER, std::vector<std::string>{"--socket", path_}, dir_.file("output"));
  }
  Query answered_query(PTZKitLink *link) {
    Query query;
    query.start(link);
    EXPECT_TRUE(run_until([&] { return query.ended(); }));
    return query;
  }
};

TEST_F(KitLinkProcess, DriverThatIsKilledAndRestartedIsReadyAgain) {
  start_driver();
  open_link();
  ASSERT_TRUE(wait_for(PTZ_KIT_LINK_STATE_READY));
  const ptz_test::Text name(ptz_kit_link_dup_driver_name(link_.get()));
  EXPECT_STREQ(name.get(), "sim-driver");
  for (int i = 0; i < 5; ++i) {
    driver_.reset();
    ASSERT_TRUE(run_until([this] { return state() != PTZ_KIT_LINK_STATE_READY; }));
    start_driver();
    EXPECT_TRUE(run_until([this] { return state() == PTZ_KIT_LINK_STATE_READY; }, 3000)) << i;
    EXPECT_EQ(answered_query(link_.get()).error(), nullptr);
  }
}

TEST_F(KitLinkProcess, EightLinksAreReadyAfterEachRestart) {
  std::vector<Object<PTZKitLink>> links;
  for (int i = 0; i < 8; ++i) ptz_kit_link_open(links.emplace_back(ptz_kit_link_new(path_.c_str())).get());
  const auto count_ready = [&] {
    return std::ranges::count_if(
        links, [](const auto &link) { return ptz_kit_link_get_state(link.get()) == PTZ_KIT_LINK_STATE_READY; });
  };
  for (int i = 0; i < 5; ++i) {
    start_driver();
    EXPECT_TRUE(run_until([&] { return count_ready() == 8; }, 3000)) << i;
    driver_.reset();
    ASSERT_TRUE(run_until([&] { return count_ready() == 0; }));
  }
}

TEST_F(KitLinkProcess, StoppedDriverIsFoundByDeadlineAndServesLaterCalls) {
  start_driver();
  open_link();
  ASSERT_TRUE(wait_for(PTZ_KIT_LINK_STATE_READY));
  driver_->signal(SIGSTOP);
  GError *error = nullptr;
  EXPECT_FALSE(ptz_kit_link_stop(link_.get(), 50, nullptr, &error));
  EXPECT_TRUE(g_error_matches(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_TIMED_OUT));
  g_clear_error(&error);
  driver_->signal(SIGCONT);
  EXPECT_TRUE(ptz_kit_link_stop(link_.get(), 0, nullptr, nullptr));
}

TEST_F(KitLinkProcess, DriverThatIsKilledWhileStoppedFailsCallsAtOnce) {
  start_driver();
  open_link();
  ASSERT_TRUE(wait_for(PTZ_KIT_LINK_STATE_READY));
  driver_->signal(SIGSTOP);
  Query queries[3];
  for (Query &query : queries) query.start(link_.get());
  driver_.reset();
  ASSERT_TRUE(run_until([&] { return std::ranges::all_of(queries, &Query::ended); }, 1000));
  for (const Query &query : queries) EXPECT_TRUE(query.failed_with(PTZ_KIT_ERROR_LOST));
}

TEST_F(KitLinkProcess, TypedCallsReachDriver) {
  start_driver();
  open_link();
  ASSERT_TRUE(wait_for(PTZ_KIT_LINK_STATE_READY));
  PTZKitSetDevicePresetRequest *preset = ptz_kit_set_device_preset_request_new(3, "gate");
  PTZKitSetDevicePresetReply *stored = ptz_kit_link_set_device_preset(link_.get(), preset, 0, nullptr, nullptr);
  ptz_kit_set_device_preset_request_free(preset);
  ASSERT_NE(stored, nullptr);
  EXPECT_EQ(stored->number, 3u);
  ptz_kit_set_device_preset_reply_free(stored);
  PTZKitGetDevicePresetsReply *presets = ptz_kit_link_get_device_presets(link_.get(), 0, nullptr, nullptr);
  ASSERT_NE(presets, nullptr);
  EXPECT_EQ(presets->presets->len, 1u);
  ptz_kit_get_device_presets_reply_free(presets);
}

}  // namespace
}  // namespace kit_link_test
