// Asynchronous waits for a link to be ready.
#include <optional>

#include "clock.h"
#include "link_test.h"

namespace kit_link_test {
namespace {

using ptz_test::run_pending;
using ptz_test::run_until;

// An asynchronous wait.
struct Wait {
  bool ended = false;
  bool ready = false;
  GError *error = nullptr;

  explicit Wait(PTZKitLink *link, guint deadline_ms = 0, GCancellable *cancellable = nullptr) {
    ptz_kit_link_wait_ready_async(link, deadline_ms, cancellable, on_end, this);
  }
  Wait(Wait &&) = delete;
  ~Wait() { g_clear_error(&error); }
  bool end() {
    return run_until([this] { return ended; });
  }

 private:
  static void on_end(GObject *link, GAsyncResult *result, gpointer data) {
    Wait &self = *static_cast<Wait *>(data);
    self.ready = ptz_kit_link_wait_ready_finish(PTZ_KIT_LINK(link), result, &self.error) != FALSE;
    self.ended = true;
  }
};

struct KitLinkWait : LinkTest {};

TEST_F(KitLinkWait, WaitReadyAsyncEndsWhenHandshakeHasSucceededAfterFailedOne) {
  const Listener listener(path_);
  open_link();
  Wait first(link_.get()), second(link_.get());
  accept(listener);
  greet({.version = ""});
  ASSERT_TRUE(wait_for(PTZ_KIT_LINK_STATE_FAILED));
  ptz_test::advance_clock(100);
  accept(listener);
  greet();
  ASSERT_TRUE(first.end() && second.end());
  EXPECT_TRUE(first.ready && second.ready);
  EXPECT_EQ(state(), PTZ_KIT_LINK_STATE_READY);
  run_pending();
  EXPECT_FALSE(ptz_test::is_readable(peer_.get()));
}

TEST_F(KitLinkWait, WaitReadyAsyncOfReadyLinkEndsAfterItHasReturned) {
  connect();
  Wait wait(link_.get());
  EXPECT_FALSE(wait.ended);
  ASSERT_TRUE(wait.end());
  EXPECT_TRUE(wait.ready);
}

TEST_F(KitLinkWait, WaitReadyAsyncTellsAtDeadlineWhyLastAttemptFailed) {
  open_link();
  run_pending();
  Wait wait(link_.get(), 200);
  ptz_test::advance_clock(199);
  run_pending();
  EXPECT_FALSE(wait.ended);
  ptz_test::advance_clock(1);
  ASSERT_TRUE(wait.end());
  EXPECT_TRUE(g_error_matches(wait.error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_TIMED_OUT));
  EXPECT_EQ(wait.error->message, path_ + ": " + g_strerror(ENOENT));
}

TEST_F(KitLinkWait, CancellationEndsWaitReadyAsync) {
  open_link();
  const Object<GCancellable> cancellable(g_cancellable_new());
  Wait wait(link_.get(), 0, cancellable.get());
  run_pending();
  EXPECT_FALSE(wait.ended);
  g_cancellable_cancel(cancellable.get());
  ASSERT_TRUE(wait.end());
  EXPECT_TRUE(g_error_matches(wait.error, G_IO_ERROR, G_IO_ERROR_CANCELLED));
}

TEST_F(KitLinkWait, CloseFailsWaitReadyAsyncWithAndWithoutConnection) {
  for (const bool connected : {false, true}) {
    std::optional<Listener> listener;
    if (connected) listener.emplace(path_);
    open_link();
    if (connected) accept(*listener);
    Wait wait(link_.get());
    run_pending();
    ptz_kit_link_close(link_.get());
    ASSERT_TRUE(wait.end());
    EXPECT_TRUE(g_error_matches(wait.error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_NOT_CONNECTED));
  }
}

}  // namespace
}  // namespace kit_link_test
