// How a link connects: the states, the handshake, the intervals of its attempts, and what it leaves alone.
#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "clock.h"
#include "faults.h"
#include "link_test.h"

namespace {
std::atomic<int> attached_sources;
std::atomic<bool> without_inotify;
}  // namespace

// In place of the libraries' for the whole program.
extern "C" int inotify_init1(int flags) noexcept {
  return without_inotify ? -1 : static_cast<int>(syscall(SYS_inotify_init1, flags));
}
extern "C" guint g_source_attach(GSource *source, GMainContext *context) {
  static const auto real = reinterpret_cast<decltype(&g_source_attach)>(dlsym(RTLD_NEXT, "g_source_attach"));
  ++attached_sources;
  return real(source, context);
}

namespace kit_link_test {
namespace {

using ptz_test::Call;
using ptz_test::CallLog;
using ptz_test::run_pending;
using ptz_test::run_until;

class KitLinkState : public LinkTest {
 protected:
  std::vector<PTZKitLinkState> states_;  // as they were notified

  void record_states() {
    const auto record = +[](PTZKitLink *link, GParamSpec *, gpointer states) {
      static_cast<std::vector<PTZKitLinkState> *>(states)->push_back(ptz_kit_link_get_state(link));
    };
    g_signal_connect(link_.get(), "notify::state", G_CALLBACK(record), &states_);
  }
  // The next attempt of its own is some seconds away.
  void use_up_short_intervals() {
    for (int i = 0; i < 6; ++i) {
      run_pending();
      ptz_test::advance_clock(4000);
    }
    run_pending();
  }
  std::string wait_ready_error(guint deadline_ms) {
    GError *error = nullptr;
    EXPECT_FALSE(ptz_kit_link_wait_ready(link_.get(), deadline_ms, &error));
    const Error owner(error);
    return error != nullptr ? error->message : "";
  }
};

TEST_F(KitLinkState, IsDisconnectedBeforeOpen) {
  const CallLog calls;
  make_link();
  run_pending();
  EXPECT_EQ(state(), PTZ_KIT_LINK_STATE_DISCONNECTED);
  EXPECT_EQ(calls.count(Call::connect), 0u);
  EXPECT_EQ(ptz_kit_link_dup_driver_name(link_.get()), nullptr);
  EXPECT_EQ(ptz_kit_link_get_protocol_version(link_.get()), 0u);
}

TEST_F(KitLinkState, HandshakeTellsNameCapabilitiesAndVersion) {
  const Listener listener(path_);
  open_link();
  record_states();
  accept(listener);
  greet({.version = property_reply("2")});
  ASSERT_TRUE(wait_for(PTZ_KIT_LINK_STATE_READY));
  run_pending();
  const ptz_test::Text name(ptz_kit_link_dup_driver_name(link_.get()));
  EXPECT_STREQ(name.get(), "fake");
  EXPECT_EQ(ptz_kit_link_get_move_capabilities(link_.get()), 3u);
  EXPECT_EQ(ptz_kit_link_get_extra_capabilities(link_.get()), 4u);
  EXPECT_EQ(ptz_kit_link_get_protocol_version(link_.get()), 2u);
  EXPECT_EQ(states_, (std::vector{PTZ_KIT_LINK_STATE_CONNECTING, PTZ_KIT_LINK_STATE_READY}));
}

TEST_F(KitLinkState, DriverThatRefusesVersionPropertyHasVersion1) {
  connect();
  EXPECT_EQ(ptz_kit_link_get_protocol_version(link_.get()), 1u);
}

TEST_F(KitLinkState, DriverThatRefusesWholeHandshakeIsReadyWithoutNameAndCapabilities) {
  const Listener listener(path_);
  open_link();
  accept(listener);
  const std::string refused = error_reply(PTZ_KIT_ERROR_CODE_UNSUPPORTED, "");
  greet({.name = refused, .capabilities = refused});
  ASSERT_TRUE(wait_for(PTZ_KIT_LINK_STATE_READY));
  const ptz_test::Text name(ptz_kit_link_dup_driver_name(link_.get()));
  EXPECT_STREQ(name.get(), "");
  EXPECT_EQ(ptz_kit_link_get_move_capabilities(link_.get()), 0u);
}

TEST_F(KitLinkState, HandshakeRepliesInAnyOrderAreAccepted) {
  const Listener listener(path_);
  open_link();
  accept(listener);
  const Frame first = next_request(), second = next_request(), third = next_request();
  for (const Frame *request : {&third, &first, &second}) reply(*request, Greeting().answer(request->body));
  EXPECT_TRUE(wait_for(PTZ_KIT_LINK_STATE_READY));
}

struct BadGreeting {
  const char *title;
  Greeting greeting;
  const char *problem;
};
struct KitLinkBadHandshake : KitLinkState, testing::WithParamInterface<BadGreeting> {};

TEST_P(KitLinkBadHandshake, FailsAndIsTriedAgain) {
  const Listener listener(path_);
  open_link();
  accept(listener);
  greet(GetParam().greeting);
  ASSERT_TRUE(wait_for(PTZ_KIT_LINK_STATE_FAILED));
  EXPECT_TRUE(ptz_test::is_at_end(peer_.get()));
  EXPECT_NE(wait_ready_error(1).find(GetParam().problem), std::string::npos);
  ptz_test::advance_clock(100);
  accept(listener);
  greet();
  EXPECT_TRUE(wait_for(PTZ_KIT_LINK_STATE_READY));
}

INSTANTIATE_TEST_SUITE_P(
    , KitLinkBadHandshake,
    testing::Values(BadGreeting{"NameMalformed", {.name = name_reply("fake") + "x"}, "get driver name reply: 1 bytes"},
                    BadGreeting{"CapabilitiesOfAnotherCommand", {.capabilities = word(5)}, "it is another command"},
                    BadGreeting{"ErrorReplyTruncated", {.version = word(PTZ_COMMAND_ERROR_REPLY)}, "field \"code\" at"},
                    BadGreeting{"VersionEmptyBody", {.version = ""}, "field \"command\" at byte 0"},
                    BadGreeting{"VersionNoNumber", {.version = property_reply("two")}, "version is not a number"}),
    [](const auto &info) { return info.param.title; });

TEST_F(KitLinkState, DriverThatDoesNotAnswerFailsAtDeadlineAndIsTriedAgain) {
  const Listener listener(path_);
  open_link();
  accept(listener);
  ptz_test::advance_clock(999);
  run_pending();
  EXPECT_EQ(state(), PTZ_KIT_LINK_STATE_CONNECTING);
  ptz_test::advance_clock(1);
  ASSERT_TRUE(wait_for(PTZ_KIT_LINK_STATE_FAILED));
  EXPECT_NE(wait_ready_error(1).find("does not answer"), std::string::npos);
  ptz_test::advance_clock(100);
  accept(listener);
  greet();
  EXPECT_TRUE(wait_for(PTZ_KIT_LINK_STATE_READY));
}

TEST_F(KitLinkState, DriverThatHangsUpInHandshakeFails) {
  const Listener listener(path_);
  open_link();
  accept(listener);
  static_cast<void>(next_request());
  peer_.reset();
  EXPECT_TRUE(wait_for(PTZ_KIT_LINK_STATE_FAILED));
}

TEST_F(KitLinkState, IntervalsOfAttemptsDoubleUpTo5Seconds) {
  const CallLog calls;
  open_link();
  run_pending();
  EXPECT_EQ(calls.count(Call::connect), 1u);
  std::size_t expected = 1;
  for (const int interval_ms : {100, 200, 400, 800, 1600, 3200, 5000, 5000}) {
    ptz_test::advance_clock(interval_ms - 20);
    run_pending();
    EXPECT_EQ(calls.count(Call::connect), expected) << interval_ms;
    ptz_test::advance_clock(20);
    run_pending();
    EXPECT_EQ(calls.count(Call::connect), ++expected) << interval_ms;
  }
  EXPECT_EQ(state(), PTZ_KIT_LINK_STATE_CONNECTING);
}

TEST_F(KitLinkState, FullBacklogIsTriedAgainWithin150Milliseconds) {
  const CallLog calls;
  const ptz_test::Fault full(Call::connect, EAGAIN);
  open_link();
  run_pending();
  for (std::size_t expected = 2; expected < 20; ++expected) {
    ptz_test::advance_clock(150);
    run_pending();
    EXPECT_EQ(calls.count(Call::connect), expected);
  }
  EXPECT_EQ(state(), PTZ_KIT_LINK_STATE_CONNECTING);
}

TEST_F(KitLinkState, PathThatAppearsMakesLinkReady) {
  open_link();
  use_up_short_intervals();
  const Listener listener(path_);
  ASSERT_TRUE(ptz_test::run_until([&] { return listener.has_waiting_client(); }, 500));
  accept(listener);
  greet();
  EXPECT_TRUE(wait_for(PTZ_KIT_LINK_STATE_READY));
}

TEST_F(KitLinkState, FolderThatAppearsWithPathMakesLinkReady) {
  link_.reset(ptz_kit_link_new(dir_.file("later/folder/driver").c_str()));
  ptz_kit_link_open(link_.get());
  use_up_short_intervals();
  std::filesystem::create_directories(dir_.file("later/folder"));
  const Listener listener(dir_.file("later/folder/driver"));
  EXPECT_TRUE(ptz_test::run_until([&] { return listener.has_waiting_client(); }, 500));
}

TEST_F(KitLinkState, OtherFilesInFolderOfPathDoNotCauseAttempts) {
  open_link();
  run_pending();
  const CallLog calls;
  const Listener other(dir_.file("other"));
  ptz_test::run_until([] { return false; }, 30);
  EXPECT_EQ(calls.count(Call::connect), 0u);
}

TEST_F(KitLinkState, DriverThatHangsUpSoonAfterHandshakeIsReconnectedAfterFirstInterval) {
  connect();
  const CallLog calls;
  peer_.reset();
  ASSERT_TRUE(wait_for(PTZ_KIT_LINK_STATE_CONNECTING));
  run_pending();
  EXPECT_EQ(calls.count(Call::connect), 0u);
  ptz_test::advance_clock(100);
  run_pending();
  EXPECT_EQ(calls.count(Call::connect), 1u);
}

TEST_F(KitLinkState, IntervalsDoubleIfDriverHangsUpAfterEachHandshake) {
  const Listener listener(path_);
  const CallLog calls;
  open_link();
  for (const int interval_ms : {100, 200, 400}) {
    accept(listener);
    greet();
    ASSERT_TRUE(wait_for(PTZ_KIT_LINK_STATE_READY));
    peer_.reset();
    ASSERT_TRUE(wait_for(PTZ_KIT_LINK_STATE_CONNECTING));
    const std::size_t before = calls.count(Call::connect);
    ptz_test::advance_clock(interval_ms - 20);
    run_pending();
    EXPECT_EQ(calls.count(Call::connect), before) << interval_ms;
    ptz_test::advance_clock(20);
  }
  EXPECT_TRUE(ptz_test::run_until([&] { return listener.has_waiting_client(); }));
}

TEST_F(KitLinkState, LostDriverIsReconnectedAtOnceThenAfterFirstInterval) {
  connect();
  ptz_test::advance_clock(1000);
  record_states();
  const CallLog calls;
  peer_.reset();
  ASSERT_TRUE(wait_for(PTZ_KIT_LINK_STATE_CONNECTING));
  EXPECT_EQ(calls.count(Call::connect), 1u);
  ptz_test::advance_clock(100);
  run_pending();
  EXPECT_EQ(calls.count(Call::connect), 2u);
  const Listener listener(path_);
  ptz_test::advance_clock(200);
  accept(listener);
  greet();
  ASSERT_TRUE(wait_for(PTZ_KIT_LINK_STATE_READY));
  run_pending();
  EXPECT_EQ(states_, (std::vector{PTZ_KIT_LINK_STATE_CONNECTING, PTZ_KIT_LINK_STATE_READY}));
}

TEST_F(KitLinkState, DriverThatHalfClosesIsLost) {
  connect();
  shutdown(peer_.get(), SHUT_WR);
  EXPECT_TRUE(wait_for(PTZ_KIT_LINK_STATE_CONNECTING));
}

TEST_F(KitLinkState, FileInPlaceOfSocketIsLeftAlone) {
  std::ofstream(path_) << "kept";
  const CallLog calls;
  open_link();
  for (int i = 0; i < 3; ++i) {
    run_pending();
    ptz_test::advance_clock(1000);
  }
  EXPECT_EQ(ptz_test::Text([&] {
              gchar *text = nullptr;
              g_file_get_contents(path_.c_str(), &text, nullptr, nullptr);
              return text;
            }())
                .get(),
            std::string("kept"));
  EXPECT_EQ(state(), PTZ_KIT_LINK_STATE_FAILED);
  EXPECT_GE(calls.count(Call::connect), 3u);
  EXPECT_EQ(calls.count(Call::unlink), 0u);
  EXPECT_EQ(calls.count(Call::bind), 0u);
}

TEST_F(KitLinkState, SocketWithoutListenerIsLeftAlone) {
  Listener(path_).close();
  const CallLog calls;
  open_link();
  run_pending();
  link_.reset();
  struct stat info {};
  EXPECT_EQ(stat(path_.c_str(), &info), 0);
  EXPECT_EQ(calls.count(Call::unlink), 0u);
}

TEST_F(KitLinkState, FullBacklogIsTriedAgainAndSocketStays) {
  const Listener listener(path_, SOCK_STREAM, 0);
  const Descriptor other = ptz_test::connect_to(path_);
  ASSERT_TRUE(other);
  open_link();
  run_pending();
  EXPECT_EQ(state(), PTZ_KIT_LINK_STATE_CONNECTING);
  EXPECT_NE(wait_ready_error(1).find(g_strerror(EAGAIN)), std::string::npos);
  EXPECT_TRUE(listener.accept());
  ptz_test::advance_clock(100);
  accept(listener);
  greet();
  EXPECT_TRUE(wait_for(PTZ_KIT_LINK_STATE_READY));
}

TEST_F(KitLinkState, PathLongerThanAddressFails) {
  link_.reset(ptz_kit_link_new(std::string(200, 'x').c_str()));
  ptz_kit_link_open(link_.get());
  EXPECT_TRUE(wait_for(PTZ_KIT_LINK_STATE_FAILED));
}

TEST_F(KitLinkState, LinkWithoutPathFails) {
  link_.reset(PTZ_KIT_LINK(g_object_new(PTZ_KIT_TYPE_LINK, nullptr)));
  ptz_kit_link_open(link_.get());
  EXPECT_TRUE(wait_for(PTZ_KIT_LINK_STATE_FAILED));
}

TEST_F(KitLinkState, CloseDisconnectsAndOpenConnectsAgain) {
  connect();
  record_states();
  ptz_kit_link_close(link_.get());
  EXPECT_EQ(states_, std::vector{PTZ_KIT_LINK_STATE_DISCONNECTED});
  EXPECT_TRUE(ptz_test::is_at_end(peer_.get()));
  EXPECT_EQ(wait_ready_error(0), "the link is closed");
  const Listener listener(path_);
  ptz_kit_link_open(link_.get());
  accept(listener);
  greet();
  EXPECT_TRUE(wait_for(PTZ_KIT_LINK_STATE_READY));
}

TEST_F(KitLinkState, OpenOfOpenLinkAttachesNoSource) {
  open_link();
  const int before = attached_sources;
  ptz_kit_link_open(link_.get());
  EXPECT_EQ(attached_sources, before);
}

TEST_F(KitLinkState, ForkedChildThatDropsLinkLeavesConnectionToParent) {
  connect();
  const pid_t child = fork();
  if (child == 0) {
    g_object_unref(link_.get());
    _exit(0);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  run_pending();
  EXPECT_FALSE(ptz_test::is_at_end(peer_.get()));
  EXPECT_EQ(state(), PTZ_KIT_LINK_STATE_READY);
}

TEST_F(KitLinkState, CloseInNotificationOfReadyDisconnects) {
  const Listener listener(path_);
  open_link();
  const auto close = +[](PTZKitLink *link, GParamSpec *, gpointer) {
    if (ptz_kit_link_get_state(link) == PTZ_KIT_LINK_STATE_READY) ptz_kit_link_close(link);
  };
  g_signal_connect(link_.get(), "notify::state", G_CALLBACK(close), nullptr);
  accept(listener);
  greet();
  ASSERT_TRUE(wait_for(PTZ_KIT_LINK_STATE_DISCONNECTED));
  EXPECT_TRUE(ptz_test::is_at_end(peer_.get()));
}

TEST_F(KitLinkState, LastReferenceClosesConnection) {
  connect();
  gpointer alive = link_.get();
  g_object_add_weak_pointer(G_OBJECT(link_.get()), &alive);
  link_.reset();
  EXPECT_EQ(alive, nullptr);
  EXPECT_TRUE(ptz_test::is_at_end(peer_.get()));
  run_pending();
}

TEST_F(KitLinkState, ReadyLinkAndWaitingLinkDoNotWakeMainLoop) {
  connect();
  EXPECT_LE(ptz_test::iterations_within(50), 5);
  peer_.reset();
  ASSERT_TRUE(wait_for(PTZ_KIT_LINK_STATE_CONNECTING));
  EXPECT_LE(ptz_test::iterations_within(50), 5);
}

TEST_F(KitLinkState, WaitReadyRunsMainContextItself) {
  const Listener listener(path_);
  open_link();
  GThread *driver = g_thread_new(
      "driver",
      [](gpointer data) -> gpointer {
        const Descriptor fd = static_cast<const Listener *>(data)->accept();
        for (int i = 0; i < 3; ++i) {
          const Frame request = ptz_test::receive_frame(fd.get()).value_or(Frame{});
          ptz_test::send_all(fd.get(), ptz_test::frame(request.id, Greeting().answer(request.body)));
        }
        return nullptr;
      },
      const_cast<Listener *>(&listener));
  EXPECT_TRUE(ptz_kit_link_wait_ready(link_.get(), 0, nullptr));
  g_thread_join(driver);
}

// A source with the descriptor of inotify would wake the context when it is destroyed.
TEST_F(KitLinkState, CloseEndsWaitReadyOfThreadThatRunsMainContextWithoutInotify) {
  without_inotify = true;
  open_link();
  use_up_short_intervals();
  std::atomic<bool> waits = false;
  // The loop tells when the wait has begun; the link's own timer would end it some seconds later.
  g_idle_add(
      [](gpointer begun) {
        *static_cast<std::atomic<bool> *>(begun) = true;
        return G_SOURCE_REMOVE;
      },
      &waits);
  GError *error = nullptr;
  const auto start = std::chrono::steady_clock::now();
  std::thread closer([&] {
    while (!waits) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // until the loop sleeps
    ptz_kit_link_close(link_.get());
  });
  EXPECT_FALSE(ptz_kit_link_wait_ready(link_.get(), 3000, &error));
  closer.join();
  EXPECT_TRUE(g_error_matches(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_NOT_CONNECTED));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
  g_clear_error(&error);
  without_inotify = false;
}

TEST_F(KitLinkState, WaitReadyTellsWhyLastAttemptFailed) {
  open_link();
  EXPECT_EQ(wait_ready_error(1), path_ + ": " + g_strerror(ENOENT));
}

}  // namespace
}  // namespace kit_link_test
