// head.h - a camera as a pan-tilt-zoom head: orders in degrees and magnifications, its position, its motion.
//
// Main context. The head turns each order into commands for its link, and polls the position: fast while it moves,
// slowly at rest, as fast as a serial line allows. It never waits; each order has a Done that is called once.
//
// Motion: a group (pan and tilt, or zoom) moves from the order on, and until the positions of at least two polls are
// equal and either the target is reached, the command has ended, or `settle_us` has passed. So neither a completion
// that is lost, nor one that comes at once or twice, changes what is reported. When a group has come to rest, the link
// is told, which frees the socket of a lost completion. Without answers to the position inquiry the commands' ends
// count, and the position is unknown.
//
// A camera counts in steps, so an axis that has arrived within a step of its target is reported to be exactly there.
#pragma once
#include <memory>

#include "line.h"
#include "profile.h"

namespace visca {

constexpr std::size_t pan_axis = 0, tilt_axis = 1, zoom_axis = 2, axis_count = 3;
using PerAxis = std::array<std::int32_t, axis_count>;

enum class MoveKind : Byte { absolute, relative, continuous };

// Positions and distances in hundredths of a degree or of a magnification; speeds the same per second.
struct Order {
  MoveKind kind = MoveKind::absolute;
  std::array<bool, axis_count> axes = {};
  double share = 1;  // of the highest speed
  PerAxis value = {};
};

using Done = std::function<void(Outcome)>;

class HeadUser {
 public:
  virtual ~HeadUser() = default;
  virtual void axis_is_at(std::size_t axis, std::int32_t position, bool moving) = 0;
  // The camera does not tell it, or does not answer. Called only for axes that the camera has.
  virtual void axis_is_unknown(std::size_t axis) = 0;
  // A continuous motion was ordered, with this speed a second.
  virtual void axis_runs(std::size_t axis, std::int32_t speed) = 0;
  // The position is known, or it is known that the camera does not tell it.
  virtual void head_is_ready() = 0;
  virtual void focus_mode_is(bool automatic) = 0;
  // The camera understands no inquiry of its focus.
  virtual void head_lacks_focus() = 0;
};

struct HeadOptions {
  Profile profile;
  std::int64_t poll_us = 50'000, rest_poll_us = 1'000'000;
  bool stop_at_start = true;
  bool home_command = true;
  bool has_zoom = true;
  bool asks_focus = true;
};

struct Version {
  unsigned vendor = 0, model = 0, rom = 0;
};

class Head final : public LineUser {
  struct Track {
    bool moves = false;
    bool ended = true;         // the command was completed, refused or lost
    bool continuous = false;   // runs until it is stopped
    bool recalled = false;     // its completion may come before the motion
    bool was_at_rest = false;  // when it was ordered
    bool stops = false;        // a stop was ordered; if it moves on, the stop is sent again
    unsigned equal = 0;        // polls with the same position
    std::int64_t since_us = 0;
    std::uint64_t order = 0;
    bool is_pan_tilt = true;
  };
  struct Target {
    bool is_set = false;
    std::int32_t value = 0, steps = 0;
  };

  HeadUser &user_;
  HeadOptions options_;
  Link *link_ = nullptr;
  Track pan_tilt_, zoom_{.is_pan_tilt = false};
  std::array<Target, axis_count> targets_ = {};
  std::array<std::optional<std::int32_t>, axis_count> steps_ = {};
  std::array<bool, axis_count> ordered_ = {};  // axes that the current motions move
  std::array<int, 2> driven_ = {};             // pan and tilt: direction and speed of a continuous motion
  std::optional<std::int32_t> focus_;
  std::optional<bool> is_on_;
  std::optional<Version> version_;
  std::int64_t next_poll_us_ = INT64_MAX, polled_us_ = 0, positioned_us_ = 0;
  unsigned unanswered_positions_ = 0;
  std::uint64_t orders_ = 0;
  unsigned unanswered_zooms_ = 0, refused_focus_ = 0;
  bool has_position_ = true, has_zoom_position_, was_up_ = false, leaves_ = false;

  [[nodiscard]] const AxisScale &scale(std::size_t axis) const {
    return axis == pan_axis ? options_.profile.pan : options_.profile.tilt;
  }
  [[nodiscard]] std::int32_t steps_of(std::size_t axis, double value) const;
  [[nodiscard]] std::int32_t value_of(std::size_t axis, std::int32_t steps) const;
  // The track is polled fast.
  [[nodiscard]] static bool is_active(const Track &track) { return track.moves || !track.ended; }

  [[nodiscard]] bool tells_position(const Track &track) const {
    return track.is_pan_tilt ? has_position_ : has_zoom_position_;
  }
  void submit(Command command, Track *track, const Done &done);
  void begin(Track &track, bool continuous, bool recalled = false);
  void poll_soon();
  void halt(Track &track);
  void set_target(std::size_t axis, std::int32_t value);
  void forget_targets(Track &track);
  void drive(const Order &order, const Done &done);
  void go(const Order &order, const Done &done);
  void stop_pan_tilt(const Done &done);
  void stop_zoom(const Done &done);
  void zoom(const Order &order, const Done &done);

  void on_pan_tilt(const PanTiltSteps &steps, std::int64_t now);
  void forget_zoom();
  void on_zoom(std::int32_t position, std::int64_t now);
  void follow(Track &track, bool changed, std::int64_t now);
  void stop_again(Track &track, std::int64_t now);
  [[nodiscard]] bool is_over(const Track &track, std::int64_t now) const;
  [[nodiscard]] bool is_at_target(const Track &track) const;
  void report(std::size_t axis);
  void forget(std::size_t axis);
  void report_all();
  void schedule_poll(std::int64_t now);
  void poll(std::int64_t now);

  void link_is_up() override;
  void link_is_lost() override;
  void on_answer(InquiryKind kind, ByteSpan data) override;
  void on_no_answer(InquiryKind kind, Outcome why) override;
  void attached(Link &link) override { link_ = &link; }
  [[nodiscard]] std::int64_t deadline() const override { return next_poll_us_; }
  void advance(std::int64_t now) override;

 public:
  Head(HeadUser &user, const HeadOptions &options)
      : user_(user), options_(options), has_zoom_position_(options.has_zoom) {}
  Head(const Head &) = delete;

  // The driver ends: that the link is lost need not be logged.
  void leave() { leaves_ = true; }
  [[nodiscard]] const Profile &profile() const { return options_.profile; }
  [[nodiscard]] bool is_there() const { return link_ != nullptr && link_->state() == Link::State::up; }
  // It moves, or a command of a motion has not ended.
  [[nodiscard]] bool is_active() const { return is_active(pan_tilt_) || is_active(zoom_); }
  // Of pan and tilt, and of zoom unless the camera does not tell it.
  [[nodiscard]] bool knows_position() const;
  [[nodiscard]] bool knows(std::size_t axis) const { return steps_[axis].has_value(); }
  [[nodiscard]] std::optional<bool> is_on() const { return is_on_; }
  [[nodiscard]] const std::optional<Version> &version() const { return version_; }
  [[nodiscard]] std::optional<std::int32_t> focus_position() const { return focus_; }
  [[nodiscard]] Byte address() const { return link_->address(); }

  [[nodiscard]] bool is_moving(std::size_t axis) const {
    return ordered_[axis] && (axis == zoom_axis ? zoom_ : pan_tilt_).moves;
  }

  // Whether the order cannot be obeyed because the position is unknown.
  [[nodiscard]] bool needs_position(const Order &order) const;
  void move(const Order &order, const Done &done);
  void stop(const Done &done);
  void home(const Done &done);
  void memory(MemoryAction action, Byte number, const Done &done);
  // A command that moves neither pan, tilt nor zoom. Those of focus and iris replace each other, and a stop all of
  // them.
  void send(const Packet &packet, Group group, bool is_stop, const Done &done);
  void set_power(bool on, const Done &done);
  void expect_power(bool on);
  void ask_focus();
};

// Calls `done` once, when `count` commands have told their outcome: with the first failure, if there is one.
[[nodiscard]] Done joint(unsigned count, Done done);

}  // namespace visca
