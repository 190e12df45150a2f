// head.h - the camera head behind a driver, as a check moves it: a little, and only where the driver announces it.
#pragma once
#include <vector>

#include "requests.h"

namespace compliance {

inline constexpr AxisIndex all_axes[] = {pan, tilt, zoom};
extern const std::array<const char *, axis_count> axis_names;
const char *kind_name(PTZMove kind);
// The bit by which a driver announces this kind of move of this axis.
guint32 move_capability(PTZMove kind, AxisIndex axis);
// An axis exists if any kind of move of it is announced. What a driver says of other axes is the subject of one check.
bool has_axis(const Capabilities &capabilities, AxisIndex axis);
std::vector<AxisIndex> axes_of(const Capabilities &capabilities);
// "Get capabilities: move 0x00000007 Pan RelPan ContPan"
std::string describe_moves(const Capabilities &capabilities);
std::string describe_extras(const Capabilities &capabilities);
// Makes the check inapplicable.
void not_announced(Probe &probe, const Capabilities &capabilities, PTZMove kind, AxisIndex axis);

class Head {
  Link link_;
  Capabilities capabilities_;
  Limits limits_;
  Speeds speeds_;

  [[nodiscard]] double seconds_to(AxisIndex axis, gint32 distance) const;

 public:
  // Not applicable if the driver does not tell its position, its limits or its speeds. Waits until the head stands.
  explicit Head(Probe &probe);

  [[nodiscard]] Link &link() { return link_; }
  [[nodiscard]] Probe &probe() { return link_.probe(); }
  [[nodiscard]] const Capabilities &capabilities() const { return capabilities_; }
  [[nodiscard]] std::vector<AxisIndex> axes() const { return axes_of(capabilities_); }
  [[nodiscard]] const Limits &limits() const { return limits_; }
  [[nodiscard]] const Speeds &speeds() const { return speeds_; }
  [[nodiscard]] bool announces(PTZMove kind, AxisIndex axis) const {
    return (capabilities_.move & move_capability(kind, axis)) != 0;
  }
  // There is room to move in, as the limits have it.
  [[nodiscard]] bool has_room(AxisIndex axis) const;
  // The first axis that moves in this way and has room; not applicable if there is none.
  AxisIndex axis_for(PTZMove kind);
  // Of all limits, the one that an axis that moves in this way reaches soonest.
  struct Limit {
    AxisIndex axis = pan;
    bool upper = false;
  };
  Limit nearest_limit(PTZMove kind);
  // A short way.
  [[nodiscard]] gint32 step(AxisIndex axis) const;

  Positions where() { return *query<Positions>(link_); }
  gint32 position(AxisIndex axis) { return where().position[axis]; }
  [[nodiscard]] static Body move(PTZMove kind, AxisIndex axis, gint32 value, guint16 speed = full_speed);
  // Towards the farther limit, so that the motion does not end by itself while it is looked at.
  [[nodiscard]] Body run_slowly(AxisIndex axis, guint16 share);
  static Body move_command(PTZMoveCmd direction, guint16 speed = full_speed);

  // Orders that are to be obeyed.
  void order(const Body &request) { obtain(link_, request); }
  void stop() { order(make_body(PTZ_COMMAND_STOP)); }
  // Ends motions after a check has seen what it wanted, whatever the driver says to it.
  void calm_down();
  // Until every announced axis is idle, and where that is.
  Positions arrive();
  // Away from the limits of the axis, so that it may move a few steps either way.
  void make_room(AxisIndex axis);
  // The position is another one soon.
  bool leaves(AxisIndex axis, gint32 position);
  // The axis keeps its position for a while.
  bool stays(AxisIndex axis);
};

}  // namespace compliance
