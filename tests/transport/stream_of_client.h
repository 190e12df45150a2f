// tests/transport/stream_of_client.h - the stream of a command client, and what the peer of the client does.
#pragma once
#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "clock.h"
#include "command_ends.h"
#include "peers.h"
#include "select_hook.h"
#include "transport/client_command_private.h"

namespace ptz_test {

inline constexpr gint64 long_ms = 20'000;  // longer than any test takes

template <typename Condition>
bool wait_until(Condition condition) {
  for (const auto end = real_time_ms() + 10'000; !condition(); g_usleep(100)) {
    if (real_time_ms() >= end) return false;
  }
  return true;
}

// A synchronous call and its reply.
struct Request {
  std::vector<guint8> reply = std::vector<guint8>(PTZ_SOCKET_BODY_MAX);
  guint32 length = 0;
  ptz::SyncCall call;

  bool ended = false;

  explicit Request(guint32 message_id) : call(message_id, reply.data(), &length) {}
  Request(Request &&) = delete;
  [[nodiscard]] std::string body() const { return {reply.begin(), reply.begin() + length}; }
  // Without the stream's mutex: a call that falls asleep holds it until it does.
  [[nodiscard]] bool sleeps() { return call.sleeping; }
};

// The stream of a client, and what the peer of the client does. The test itself stands for the main loop.
class ClientStream : public testing::Test {
  const std::int64_t start_ = real_time_ms();
  std::vector<std::unique_ptr<Request>> requests_;

 protected:
  Pair pair;
  int fd = pair.ours.get();
  int peer = pair.theirs.get();
  Answer answer;  // outlives the client
  CommandClient client{fd};
  ptz::ClientStream &stream = ptz::private_of(client.get())->stream;
  std::string frame_taken;
  std::atomic<int> waits = 0;  // of the reader, for the descriptor
  SelectHook hook{[this](long) -> std::optional<int> {
    ++waits;
    return std::nullopt;
  }};

  void TearDown() override { EXPECT_LT(real_time_ms() - start_, long_ms / 2) << "a call slept until its time limit"; }

  void peer_sends(std::string_view bytes) { EXPECT_TRUE(send_all(peer, bytes)); }
  ptz::ClientStream::Taken take() {
    std::vector<guint8> bytes(PTZ_SOCKET_FRAME_MAX);
    guint32 length = 0;
    const auto taken = stream.take_frame(fd, bytes.data(), length);
    frame_taken.assign(bytes.begin(), bytes.begin() + length);
    return taken;
  }
  void desynchronise() {
    peer_sends(frame_claiming(3, 0, "").substr(0, 4));
    EXPECT_EQ(take(), ptz::ClientStream::Taken::failed);
  }
  [[nodiscard]] int unread_bytes() const {
    int count = 0;
    ioctl(fd, FIONREAD, &count);
    return count;
  }

  Request &begin(guint32 message_id) {
    requests_.push_back(std::make_unique<Request>(message_id));
    stream.begin(requests_.back()->call);
    requests_.back()->call.connection = stream.connection();  // as if it was sent
    return *requests_.back();
  }
  bool await_on(Request &request, int descriptor, gint64 limit_ms = long_ms) {
    return request.ended =
               stream.await_reply(request.call, descriptor, ptz::Deadline(ptz::logged_clock_now(), limit_ms));
  }
  bool await(Request &request, gint64 limit_ms = long_ms) { return await_on(request, fd, limit_ms); }
  void end(Request &request) {
    if (!std::exchange(request.ended, true)) (void)stream.end(request.call);
  }
  bool begin_sending(gint64 limit_ms, bool &had_to_wait) {
    std::optional<timespec> queued_since;
    const bool is_mine = stream.begin_sending(limit_ms, queued_since);
    had_to_wait = queued_since.has_value();
    return is_mine;
  }
  // In a thread of its own, with the end of the call.
  std::future<bool> finish(Request &request, gint64 limit_ms = long_ms) {
    return in_thread([this, &request, limit_ms] {
      const bool answered = await(request, limit_ms);
      end(request);
      return answered;
    });
  }
  std::future<bool> finish_as_reader(Request &request, gint64 limit_ms = long_ms) {
    const int before = waits;
    auto finishing = finish(request, limit_ms);
    EXPECT_TRUE(wait_until([&] { return waits > before; }));
    return finishing;
  }
  std::future<bool> finish_asleep(Request &request, gint64 limit_ms = long_ms) {
    auto finishing = finish(request, limit_ms);
    EXPECT_TRUE(wait_until([&] { return request.sleeps(); }));
    return finishing;
  }
};

// In place of the base class's operation, which closes the descriptor and starts a timer.
inline guint retry_later(PTZSocket *) { return 77; }

}  // namespace ptz_test
