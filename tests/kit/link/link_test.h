// tests/kit/link/link_test.h - a link, and a driver at the other end of it that the test plays itself.
#pragma once
#include <gtest/gtest.h>
#include <ptz_kit.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fixtures.h"
#include "handles.h"
#include "peers.h"

namespace kit_link_test {

using ptz_test::Descriptor;
using ptz_test::Frame;
using ptz_test::Listener;
using ptz_test::Object;
using Error = std::unique_ptr<GError, ptz_test::FreeWith<g_error_free>>;
using Bytes = std::unique_ptr<GBytes, ptz_test::FreeWith<g_bytes_unref>>;

// A body from a message that is used up.
template <auto to_bytes, auto free_message, typename T>
std::string body_of(T *message) {
  const Bytes bytes(to_bytes(message, nullptr));
  free_message(message);
  gsize length = 0;
  const auto *data = static_cast<const char *>(g_bytes_get_data(bytes.get(), &length));
  return std::string(data, length);
}

inline std::string word(gint32 command) {
  command = GINT32_TO_LE(command);
  return std::string(reinterpret_cast<const char *>(&command), sizeof command);
}
inline gint32 command_of(const std::string &body) {
  gint32 command = 0;
  ptz_kit_body_get_command(reinterpret_cast<const guint8 *>(body.data()), body.size(), &command);
  return command;
}
inline std::string name_reply(const char *name) {
  return body_of<ptz_kit_get_driver_name_reply_to_bytes, ptz_kit_get_driver_name_reply_free>(
      ptz_kit_get_driver_name_reply_new(name));
}
inline std::string capabilities_reply(guint32 move, guint32 extra) {
  return body_of<ptz_kit_get_capabilities_reply_to_bytes, ptz_kit_get_capabilities_reply_free>(
      ptz_kit_get_capabilities_reply_new(move, extra));
}
inline std::string property_reply(const char *value) {
  return body_of<ptz_kit_get_driver_property_reply_to_bytes, ptz_kit_get_driver_property_reply_free>(
      ptz_kit_get_driver_property_reply_new(value));
}
inline std::string error_reply(guint32 code, const char *text) {
  return body_of<ptz_kit_error_reply_to_bytes, ptz_kit_error_reply_free>(ptz_kit_error_reply_new(code, text));
}
inline std::string position_reply(gint32 pan) {
  const gint32 position[] = {pan, 0, 0};
  return body_of<ptz_kit_query_position_reply_to_bytes, ptz_kit_query_position_reply_free>(
      ptz_kit_query_position_reply_new(position, nullptr));
}

// What a driver answers to the handshake.
struct Greeting {
  std::string name = name_reply("fake");
  std::string capabilities = capabilities_reply(3, 4);
  std::string version = error_reply(PTZ_KIT_ERROR_CODE_NOT_FOUND, "no such property");

  [[nodiscard]] const std::string &answer(const std::string &request) const {
    if (command_of(request) == PTZ_COMMAND_GET_DRIVER_NAME) return name;
    return command_of(request) == PTZ_COMMAND_GET_CAPABILITIES ? capabilities : version;
  }
};

// An asynchronous query of the position. May go before it has ended.
class Query {
 public:
  void start(PTZKitLink *link, guint deadline_ms = 0, GCancellable *cancellable = nullptr) {
    ptz_kit_link_query_position_async(link, deadline_ms, cancellable, on_end, new std::shared_ptr<Result>(result_));
  }
  [[nodiscard]] bool ended() const { return result_->ended; }
  [[nodiscard]] std::optional<gint32> pan() const { return result_->pan; }
  [[nodiscard]] const GError *error() const { return result_->error.get(); }
  [[nodiscard]] GThread *thread() const { return result_->thread; }
  [[nodiscard]] bool failed_with(PTZKitError code) const {
    return ended() && g_error_matches(error(), PTZ_KIT_ERROR, code);
  }

 private:
  struct Result {
    std::atomic<bool> ended = false;  // set last, for other threads
    std::optional<gint32> pan;
    Error error;
    GThread *thread = nullptr;
  };

  static void on_end(GObject *link, GAsyncResult *async_result, gpointer data) {
    const std::unique_ptr<std::shared_ptr<Result>> owner(static_cast<std::shared_ptr<Result> *>(data));
    Result &result = **owner;
    GError *error = nullptr;
    PTZKitQueryPositionReply *reply = ptz_kit_link_query_position_finish(PTZ_KIT_LINK(link), async_result, &error);
    if (reply != nullptr) result.pan = reply->position[PTZ_KIT_AXIS_PAN];
    ptz_kit_query_position_reply_free(reply);
    result.error.reset(error);
    result.thread = g_thread_self();
    result.ended = true;
  }

  const std::shared_ptr<Result> result_ = std::make_shared<Result>();
};

class LinkTest : public testing::Test {
 protected:
  ptz_test::TempDir dir_;
  const std::string path_ = dir_.file("driver");
  Object<PTZKitLink> link_;
  Descriptor peer_;  // the driver's end

  void TearDown() override {
    if (link_ != nullptr) ptz_kit_link_close(link_.get());
    link_.reset();
    ptz_test::run_pending();
  }

  void make_link(guint max_pending = 16) {
    link_.reset(PTZ_KIT_LINK(g_object_new(PTZ_KIT_TYPE_LINK, "socket-path", path_.c_str(), "max-pending", max_pending,
                                          "handshake-deadline", 1000u, nullptr)));
  }
  void open_link(guint max_pending = 16) {
    make_link(max_pending);
    ptz_kit_link_open(link_.get());
  }
  [[nodiscard]] PTZKitLinkState state() const { return ptz_kit_link_get_state(link_.get()); }
  bool wait_for(PTZKitLinkState wanted) {
    return ptz_test::run_until([&] { return state() == wanted; });
  }
  // The next request of the link; an empty one if none comes.
  Frame next_request() {
    if (!ptz_test::run_until([this] { return ptz_test::is_readable(peer_.get()); })) return {};
    return ptz_test::receive_frame(peer_.get()).value_or(Frame{});
  }
  void reply(const Frame &request, const std::string &body) {
    ptz_test::send_all(peer_.get(), ptz_test::frame(request.id, body));
  }
  void accept(const Listener &listener) {
    ASSERT_TRUE(ptz_test::run_until([&] { return listener.has_waiting_client(); }));
    peer_ = listener.accept();
  }
  void greet(const Greeting &greeting = {}) {
    for (int i = 0; i < 3; ++i) {
      const Frame request = next_request();
      reply(request, greeting.answer(request.body));
    }
  }
  // An open link that is ready, connected to this test.
  void connect(guint max_pending = 16) {
    const Listener listener(path_);
    open_link(max_pending);
    accept(listener);
    greet();
    ASSERT_TRUE(wait_for(PTZ_KIT_LINK_STATE_READY));
    std::remove(path_.c_str());
  }
};

}  // namespace kit_link_test
