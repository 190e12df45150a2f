// tests/drivers/sim/messages.h - bodies of requests and replies, by the kit's codecs.
#pragma once
#include <gtest/gtest.h>
#include <ptz_serialize.h>

#include <algorithm>
#include <string>
#include <vector>

#include "head.h"
#include "owners.h"

namespace sim_test {

using sim::PerAxis;
using Body = std::string;

constexpr guint16 full_speed = 100;

inline Body make_body(PTZCommand command) {
  const gint32 word = command;
  return {reinterpret_cast<const char *>(&word), sizeof word};
}

template <auto write>
Body written(const auto &message) {
  const sim::Array body(ptz_serialize_create_array());
  sim::Error error;
  GError *raw = nullptr;
  EXPECT_TRUE(write(&message, body.get(), &raw));
  error.reset(raw);
  return {body->data, body->len};
}

// The reply that the body must be; empty if it is another, which fails the test.
template <auto read, auto release>
auto read_reply(const Body &body) {
  GError *raw = nullptr;
  auto *const message = read(reinterpret_cast<const guint8 *>(body.data()), body.size(), &raw);
  const sim::Error error(raw);
  EXPECT_NE(message, nullptr) << error->message;
  return sim::Owned<std::remove_pointer_t<decltype(message)>, release>(message);
}
#define READ_REPLY(name, body) (read_reply<ptz_kit_##name##_reply_read, ptz_kit_##name##_reply_free>(body))

inline PerAxis per_axis(const gint32 *values) { return {values[0], values[1], values[2]}; }

struct MoveRequest {
  guint32 kind;
  guint8 axes;
  guint16 speed;
  PerAxis values;
};
inline Body make_body(const MoveRequest &move) {
  return written<ptz_kit_move_request_write>(
      PTZKitMoveRequest{move.kind, move.axes, move.speed, {move.values[0], move.values[1], move.values[2]}});
}

struct Preset {
  guint32 number;
  std::string name;
};
inline Body make_body(const Preset &preset) {
  return written<ptz_kit_set_device_preset_request_write>(
      PTZKitSetDevicePresetRequest{preset.number, const_cast<gchar *>(preset.name.c_str())});
}

struct Auxiliary {
  std::string name;
  guint32 state;
};
inline Body make_body(const Auxiliary &auxiliary) {
  return written<ptz_kit_auxiliary_request_write>(
      PTZKitAuxiliaryRequest{const_cast<gchar *>(auxiliary.name.c_str()), auxiliary.state});
}

inline Body move_command(guint32 direction, guint16 speed = full_speed) {
  return written<ptz_kit_move_command_request_write>(PTZKitMoveCommandRequest{direction, speed});
}
inline Body goto_preset(guint32 number, guint16 speed = full_speed) {
  return written<ptz_kit_goto_device_preset_request_write>(PTZKitGotoDevicePresetRequest{number, speed});
}

inline gint32 first_word(const Body &body) {
  gint32 command = 0;
  return ptz_kit_body_get_command(reinterpret_cast<const guint8 *>(body.data()), body.size(), &command) ? command : 0;
}
// 0 if the reply is no refusal.
inline guint32 refusal(const Body &body) {
  return first_word(body) == PTZ_COMMAND_ERROR_REPLY ? READ_REPLY(error, body)->code : 0;
}

struct Positions {
  PerAxis position;
  PerAxis status;
  [[nodiscard]] bool idle() const {
    return std::ranges::all_of(status, [](gint32 axis) { return axis == PTZ_MOVE_STATUS_IDLE; });
  }
};
inline Positions read_positions(const Body &body) {
  const auto reply = READ_REPLY(query_position, body);
  return {per_axis(reply->position), per_axis(reply->status)};
}

struct Limits {
  PerAxis minimum;
  PerAxis maximum;
};
inline Limits read_limits(const Body &body) {
  const auto reply = READ_REPLY(query_limit_ranges, body);
  return {per_axis(reply->minimum), per_axis(reply->maximum)};
}

inline std::vector<Preset> read_presets(const Body &body) {
  const auto reply = READ_REPLY(get_device_presets, body);
  std::vector<Preset> presets;
  for (guint index = 0; index < reply->presets->len; ++index) {
    const auto &preset = *static_cast<const PTZKitPreset *>(reply->presets->pdata[index]);
    presets.push_back({preset.number, preset.name});
  }
  return presets;
}

}  // namespace sim_test
