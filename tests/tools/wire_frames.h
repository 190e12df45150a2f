// tests/tools/wire_frames.h - made-up recordings.
#pragma once
#include <gtest/gtest.h>
#include <ptz_kit_body.h>

#include <string>
#include <vector>

#include "wire/recording.h"

namespace ptz_test {

constexpr gint64 start_ns = 1'700'000'000'123'456'789, millisecond_ns = 1'000'000;

// The fields as g_variant_parse() takes them.
inline std::vector<guint8> body_of(PTZKitBodyKind kind, const std::string &fields) {
  GError *error = nullptr;
  GVariant *const parsed = g_variant_parse(G_VARIANT_TYPE_VARDICT, fields.c_str(), nullptr, nullptr, &error);
  EXPECT_NE(parsed, nullptr) << error->message;
  GBytes *const body = ptz_kit_body_from_variant(kind, parsed, &error);
  EXPECT_NE(body, nullptr) << error->message;
  gsize size = 0;
  const auto *const bytes = static_cast<const guint8 *>(g_bytes_get_data(body, &size));
  std::vector<guint8> copy(bytes, bytes + size);
  g_bytes_unref(body);
  g_variant_unref(parsed);
  return copy;
}

inline std::vector<guint8> request_of(const std::string &fields) { return body_of(PTZ_KIT_BODY_REQUEST, fields); }
inline std::vector<guint8> reply_of(const std::string &fields) { return body_of(PTZ_KIT_BODY_REPLY, fields); }
inline std::vector<guint8> position_reply(const std::string &position, const std::string &status = "[0, 0, 0]") {
  return reply_of("{'command': <'query_position'>, 'position': <" + position + ">, 'status': <" + status + ">}");
}
inline const std::string ask_position = "{'command': <'query_position'>}";
inline const std::string ask_name = "{'command': <'get_driver_name'>}";
inline std::vector<guint8> name_reply(const std::string &name) {
  return reply_of("{'command': <'get_driver_name'>, 'name': <'" + name + "'>}");
}

// Frames of a conversation, a millisecond apart.
class MadeUpRecording {
  std::vector<ptzctl::RecordedFrame> frames_;
  gint64 now_ns_ = start_ns;
  guint32 next_id_ = 0;

  ptzctl::RecordedFrame &add(bool is_reply, guint32 client, guint32 id, const std::vector<guint8> &body) {
    ptzctl::RecordedFrame frame;
    frame.time_ns = now_ns_ += millisecond_ns;
    frame.is_reply = is_reply;
    frame.client = client;
    frame.pid = 4711;
    frame.uid = 1000;
    frame.bytes = ptzctl::frame_of(id, body);
    frames_.push_back(frame);
    return frames_.back();
  }

 public:
  ptzctl::RecordedFrame &request(const std::vector<guint8> &body, guint32 client = 1) {
    return add(false, client, next_id_++, body);
  }
  // To the last request, or to that with the id.
  ptzctl::RecordedFrame &reply(const std::vector<guint8> &body, guint32 client = 1) {
    return add(true, client, next_id_ - 1, body);
  }
  ptzctl::RecordedFrame &reply_to(guint32 id, const std::vector<guint8> &body, guint32 client = 1) {
    return add(true, client, id, body);
  }
  void pass(gint64 milliseconds) { now_ns_ += milliseconds * millisecond_ns; }
  [[nodiscard]] const std::vector<ptzctl::RecordedFrame> &frames() const { return frames_; }
  void save(const std::string &path) const {
    auto writer = ptzctl::RecordingWriter::create(path.c_str(), true);
    ASSERT_TRUE(writer);
    writer->begin({"made-up", "/usr/bin/made-up", "0.1.0", "test", 1});
    for (const auto &frame : frames_) writer->write(frame, "");
    ASSERT_EQ(writer->error(), 0);
  }
};

}  // namespace ptz_test
