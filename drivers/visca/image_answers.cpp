// Focus, iris and infrared cut filter.
#include <cmath>

#include "driver_state.h"

namespace visca {

namespace {

constexpr std::int32_t most = 10'000;  // of focus and iris in requests

// What one request asks the camera for.
struct Commands {
  struct Each {
    Packet packet;
    Group group;
    bool is_stop;
  };
  std::vector<Each> list;
  void add(const Packet &packet, Group group = Group::other, bool is_stop = false) {
    list.push_back({packet, group, is_stop});
  }
};

std::int32_t focus_value(const Profile &profile, std::int32_t position) {
  const double range = profile.focus_far - profile.focus_near;
  if (range == 0) return 0;
  return std::clamp(static_cast<std::int32_t>(std::lround((position - profile.focus_near) / range * most)), 0, most);
}

void add_focus(const State &state, const PTZKitImageRequest &request, Commands &commands) {
  const Byte camera = state.head->address();
  const Profile &profile = state.head->profile();
  if (request.focus_kind == PTZ_MOVE_ABSOLUTE) {
    const double share = std::clamp(request.focus, 0, most) / double{most};
    const double position = profile.focus_near + share * (profile.focus_far - profile.focus_near);
    commands.add(focus_direct(camera, static_cast<std::uint16_t>(std::lround(position))), Group::focus);
  } else if (request.focus_kind == PTZ_MOVE_CONTINUOUS && request.focus == 0) {
    commands.add(focus_stop(camera), Group::focus, true);
  } else if (request.focus_kind == PTZ_MOVE_CONTINUOUS) {
    const long speed = std::lround(std::abs(request.focus) * 8.0 / most) - 1;
    commands.add(focus_drive(camera, request.focus > 0 ? FocusDirection::far : FocusDirection::near,
                             static_cast<Byte>(std::clamp<long>(speed, 0, 7))),
                 Group::focus);
  }
  if (request.auto_focus != PTZ_ENABLE_NONE) {
    commands.add(focus_mode(camera, request.auto_focus == PTZ_ENABLE_ON ? FocusMode::automatic : FocusMode::manual));
  }
}

void add_iris(const State &state, const PTZKitImageRequest &request, Commands &commands) {
  const Byte camera = state.head->address();
  if (request.auto_iris != PTZ_ENABLE_NONE) {
    commands.add(exposure_mode(
        camera, request.auto_iris == PTZ_ENABLE_ON ? ExposureMode::automatic : ExposureMode::iris_priority));
  }
  if (request.iris_kind == PTZ_MOVE_ABSOLUTE) {
    const double share = std::clamp(request.iris, 0, most) / double{most};
    commands.add(iris_direct(camera, static_cast<Byte>(std::lround(share * state.head->profile().iris_most))),
                 Group::iris);
  } else if (request.iris_kind == PTZ_MOVE_CONTINUOUS && request.iris != 0) {
    commands.add(iris_step(camera, request.iris > 0 ? IrisStep::up : IrisStep::down), Group::iris);
  }
}

// The filter is in the light path by day.
void add_filter(const State &state, const PTZKitImageRequest &request, Commands &commands) {
  const Byte camera = state.head->address();
  if (request.ir_cut_filter == PTZ_AUTO_ENABLE_AUTO) {
    commands.add(automatic_night_mode(camera, true));
  } else if (request.ir_cut_filter != PTZ_AUTO_ENABLE_NONE) {
    if (state.ir_cut_filter == PTZ_AUTO_ENABLE_AUTO) commands.add(automatic_night_mode(camera, false));
    commands.add(night_mode(camera, request.ir_cut_filter == PTZ_AUTO_ENABLE_OFF));
  }
}

void remember(State &state, const PTZKitImageRequest &request) {
  if (request.auto_focus != PTZ_ENABLE_NONE) {
    state.auto_focus = static_cast<PTZEnable>(request.auto_focus);
    ptz_kit_driver_report_flag(state.driver, PTZ_SC_PARAM_VARIOUS_AUTO_FOCUS, request.auto_focus == PTZ_ENABLE_ON);
  }
  if (request.auto_iris != PTZ_ENABLE_NONE) {
    state.auto_iris = static_cast<PTZEnable>(request.auto_iris);
    ptz_kit_driver_report_flag(state.driver, PTZ_SC_PARAM_VARIOUS_AUTO_IRIS, request.auto_iris == PTZ_ENABLE_ON);
  }
  if (request.iris_kind == PTZ_MOVE_ABSOLUTE) state.iris = std::clamp(request.iris, 0, most);
  if (request.iris_kind == PTZ_MOVE_CONTINUOUS && request.iris != 0) state.iris = -1;
  if (request.ir_cut_filter == PTZ_AUTO_ENABLE_NONE) return;
  state.ir_cut_filter = static_cast<PTZAutoEnable>(request.ir_cut_filter);
  ptz_kit_driver_report_flag(state.driver, PTZ_SC_PARAM_VARIOUS_IR_CUT_FILTER,
                             request.ir_cut_filter != PTZ_AUTO_ENABLE_OFF);
}

void answer(const State &state, PTZKitReply *reply) {
  const auto focus = state.head->focus_position();
  const PTZKitImageReply message = {
      .focus = focus ? focus_value(state.head->profile(), *focus) : -1,
      .auto_focus = static_cast<guint32>(state.auto_focus),
      .iris = state.iris,
      .auto_iris = static_cast<guint32>(state.auto_iris),
      .brightness = -1,
      .ir_cut_filter = static_cast<guint32>(state.ir_cut_filter),
      .backlight = PTZ_ENABLE_NONE,
  };
  ptz_kit_reply_image(reply, &message);
}

}  // namespace

void image(PTZKitDriver *self, const PTZKitImageRequest *request, PTZKitReply *reply) {
  State &state = state_of(self);
  const bool is_unknown = request->brightness_kind != PTZ_MOVE_NONE || request->backlight != PTZ_ENABLE_NONE ||
                          request->focus_kind == PTZ_MOVE_RELATIVE || request->iris_kind == PTZ_MOVE_RELATIVE;
  if (is_unknown) {
    return ptz_kit_reply_error_literal(reply, PTZ_KIT_ERROR_CODE_UNSUPPORTED,
                                       "the driver sets no brightness, no backlight compensation, and neither focus "
                                       "nor iris by a distance");
  }
  Commands commands;
  add_focus(state, *request, commands);
  add_iris(state, *request, commands);
  add_filter(state, *request, commands);
  if (commands.list.empty()) return answer(state, reply);
  if (!state.head->is_there()) return refuse(reply, Outcome::no_answer);
  ptz_kit_reply_defer(reply);
  const std::shared_ptr<PTZKitReply> kept(static_cast<PTZKitReply *>(g_object_ref(reply)), g_object_unref);
  const Done each =
      joint(static_cast<unsigned>(commands.list.size()), [&state, kept, wanted = *request](Outcome outcome) {
        if (ptz_kit_reply_is_answered(kept.get()) != FALSE) return;
        if (outcome != Outcome::done && outcome != Outcome::replaced) return refuse(kept.get(), outcome);
        remember(state, wanted);
        state.head->ask_focus();
        answer(state, kept.get());
      });
  for (const auto &[packet, group, is_stop] : commands.list) state.head->send(packet, group, is_stop, each);
}

}  // namespace visca
