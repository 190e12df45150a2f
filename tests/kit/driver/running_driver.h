// tests/kit/driver/running_driver.h - a driver that serves in the test program, and a client of it.
#pragma once
#include <gtest/gtest.h>
#include <ptz_kit.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "fixtures.h"
#include "peers.h"
#include "recording_driver.h"

// The status store of the test program has a folder of its own.
class StatusStore {
  ptz_test::TempDir dir_;

 public:
  StatusStore() { setenv("PTZ_PLATFORM_RUNTIME_DIR", dir_.path().c_str(), 1); }
  // False if the store does not have the group.
  bool remove(const std::string &group) const { return unlink(dir_.file(group + ".status").c_str()) == 0; }
};

struct VariantDeleter {
  void operator()(GVariant *variant) const { g_variant_unref(variant); }
};
using Variant = std::unique_ptr<GVariant, VariantDeleter>;

class RunningDriver : public testing::Test {
 protected:
  ptz_test::TempDir dir_;
  const std::string path_ = dir_.file("socket");
  RecordingDriver *driver_ = nullptr;
  ptz_test::Descriptor client_;
  std::uint32_t id_ = 0;

  PTZKitDriver *kit() { return PTZ_KIT_DRIVER(driver_); }

  void make(GType type = recording_driver_get_type()) {
    driver_ =
        static_cast<RecordingDriver *>(g_object_new(type, "name", "recording", "socket-path", path_.c_str(), nullptr));
  }
  void start() {
    if (driver_ == nullptr) make();
    GError *error = nullptr;
    ASSERT_TRUE(ptz_kit_driver_start(kit(), &error)) << error->message;
    client_ = ptz_test::connect_to(path_);
    ASSERT_TRUE(client_);
  }
  void end() {
    client_.reset();
    if (driver_ == nullptr) return;
    ptz_kit_driver_stop(kit());
    g_clear_object(&driver_);
  }
  void TearDown() override { end(); }

  void send(const std::string &body) { ptz_test::send_all(client_.get(), ptz_test::frame(++id_, body)); }
  std::string receive() {
    EXPECT_TRUE(ptz_test::run_until([&] { return ptz_test::is_readable(client_.get()); }));
    const auto frame = ptz_test::receive_frame(client_.get());
    if (!frame) return {};
    EXPECT_EQ(frame->id, id_);
    return frame->body;
  }
  static std::string bytes_of(const char *request) {
    GError *error = nullptr;
    GVariant *fields = g_variant_parse(G_VARIANT_TYPE_VARDICT, request, nullptr, nullptr, &error);
    EXPECT_NE(fields, nullptr) << request << ": " << error->message;
    GBytes *body = ptz_kit_body_from_variant(PTZ_KIT_BODY_REQUEST, fields, &error);
    EXPECT_NE(body, nullptr) << error->message;
    g_variant_unref(fields);
    gsize length = 0;
    const auto *data = static_cast<const char *>(g_bytes_get_data(body, &length));
    std::string bytes(data, length);
    g_bytes_unref(body);
    return bytes;
  }
  // The reply in the text form of GVariant: "{'command': <'error'>, 'code': <uint32 5>, ...}".
  static std::string text_of(const std::string &body) {
    GError *error = nullptr;
    const Variant fields(ptz_kit_body_to_variant(PTZ_KIT_BODY_REPLY, reinterpret_cast<const guint8 *>(body.data()),
                                                 body.size(), &error));
    if (fields == nullptr) {
      std::string message = error->message;
      g_error_free(error);
      return message;
    }
    gchar *text = g_variant_print(fields.get(), FALSE);
    std::string copy = text;
    g_free(text);
    return copy;
  }
  std::string ask_bytes(const std::string &body) {
    send(body);
    return text_of(receive());
  }
  std::string ask(const char *request) { return ask_bytes(bytes_of(request)); }
  std::string ask_auxiliary(const char *name) { return ask(auxiliary(name).c_str()); }
  static std::string auxiliary(const char *name) {
    return std::string("{'command': <'auxiliary'>, 'name': <'") + name + "'>, 'state': <1>}";
  }
};

inline bool is_error(const std::string &reply, int code) {
  return reply.find("'command': <'error'>") != std::string::npos &&
         reply.find("'code': <uint32 " + std::to_string(code) + ">") != std::string::npos;
}
