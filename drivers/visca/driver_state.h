// driver_state.h - what a driver object holds, and the answers to requests, by topic.
//
// The first camera's driver is the program's. It owns the line and the drivers of the further cameras, which listen at
// sockets of their own. A request that the camera must obey is deferred, and answered when the camera has acknowledged
// all commands that it takes, or has refused one, or does not answer.
#pragma once
#include <ptz_kit.h>

#include <array>
#include <memory>
#include <optional>
#include <vector>

#include "settings.h"

namespace visca {

struct State final : public HeadUser {
  PTZKitDriver *driver;
  char *device = nullptr, *trace = nullptr;
  std::array<GOptionEntry, 3> options;
  std::optional<DriverSettings> settings;  // of the first camera's driver
  CameraSettings camera;
  bool is_open = false;
  // In this order: heads are the users of the line's links.
  std::unique_ptr<Head> head;
  std::vector<Object<PTZKitDriver>> others;
  std::unique_ptr<Line> line;

  // What was ordered last; none if nothing was.
  PTZEnable auto_focus = PTZ_ENABLE_NONE, auto_iris = PTZ_ENABLE_NONE;
  PTZAutoEnable ir_cut_filter = PTZ_AUTO_ENABLE_NONE;
  std::int32_t iris = -1;
  std::vector<bool> auxiliaries;  // states of those of the settings

  explicit State(PTZKitDriver *owner);
  State(const State &) = delete;
  ~State() override;
  void axis_is_at(std::size_t axis, std::int32_t position, bool moving) override;
  void axis_is_unknown(std::size_t axis) override;
  void axis_runs(std::size_t axis, std::int32_t speed) override;
  void head_is_ready() override;
  void focus_mode_is(bool automatic) override;
  void head_lacks_focus() override;

  // Requests that come before the camera had a chance to answer wait for it, for a moment.
  bool is_starting = true;
  std::vector<std::function<void()>> waiting;
  Watch start_timer;
  void begin_starting();
  // True if the request waits: `again` is called later.
  [[nodiscard]] bool waits(PTZKitReply *reply, std::function<void(PTZKitReply *)> again);
};

[[nodiscard]] State &state_of(PTZKitDriver *driver);

// Defers the reply and answers it with the outcome.
[[nodiscard]] Done answer_later(PTZKitReply *reply);
void refuse(PTZKitReply *reply, Outcome outcome);

// preset_answers.cpp
void set_device_preset(PTZKitDriver *self, const PTZKitSetDevicePresetRequest *request, PTZKitReply *reply);
void goto_device_preset(PTZKitDriver *self, const PTZKitGotoDevicePresetRequest *request, PTZKitReply *reply);

// image_answers.cpp
void image(PTZKitDriver *self, const PTZKitImageRequest *request, PTZKitReply *reply);
constexpr guint32 focus_capabilities = PTZ_DRIVER_MOVE_CAPABILITIES_FOCUS | PTZ_DRIVER_MOVE_CAPABILITIES_CONTFOCUS |
                                       PTZ_DRIVER_MOVE_CAPABILITIES_AUTOFOCUS;
constexpr guint32 iris_capabilities =
    PTZ_DRIVER_MOVE_CAPABILITIES_IRIS | PTZ_DRIVER_MOVE_CAPABILITIES_CONTIRIS | PTZ_DRIVER_MOVE_CAPABILITIES_AUTOIRIS;
constexpr guint32 filter_capabilities =
    PTZ_DRIVER_MOVE_CAPABILITIES_IRCUTFILTER | PTZ_DRIVER_MOVE_CAPABILITIES_AUTOIRCUTFILTER;

// auxiliary_answers.cpp
void auxiliary(PTZKitDriver *self, const PTZKitAuxiliaryRequest *request, PTZKitReply *reply);
void get_auxiliary(PTZKitDriver *self, PTZKitReply *reply);
void query_attributes(PTZKitDriver *self, PTZKitReply *reply);

}  // namespace visca
