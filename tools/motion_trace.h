// motion_trace.h - where a head was over time, and what it was told, from samples and from the frames of the wire.
#pragma once
#include <glib.h>
#include <ptz_kit_types.h>

#include <array>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "page.h"

namespace tools {

class MotionTrace {
 public:
  static constexpr std::size_t axes = PTZ_KIT_N_AXES;
  static constexpr std::size_t most_orders = 1000;  // a joystick sends many
  struct Sample {
    gint64 time_us;
    std::array<double, axes> position;  // degrees, or a magnification
    std::array<bool, axes> is_moving;
  };

  // All times of a trace are of one clock.
  void add_sample(const Sample &sample);
  // Any frame: what moves no axis and tells no position is left out.
  void add_request(gint64 time_us, guint32 id, std::span<const guint8> body);
  void add_reply(gint64 time_us, guint32 id, std::span<const guint8> body);

  // The time that every plot shows. Without it, that of the samples and orders.
  void set_window(gint64 start_us, gint64 end_us) { window_us_ = {start_us, end_us}; }

  // Whether there were more orders than are kept.
  [[nodiscard]] bool is_cut() const { return is_cut_; }
  // Whether an axis was told to move, and was seen afterwards.
  [[nodiscard]] bool has_motion() const;
  // One for each axis that moved or was told to. Seconds count from the window, or from the first sample or order.
  [[nodiscard]] std::vector<Figure> plots(const std::string &title) const;
  // A row for each order and axis: what was commanded, where the axis came to rest, overshoot and time to rest.
  [[nodiscard]] std::vector<std::vector<Cell>> rows() const;
  [[nodiscard]] static std::vector<Column> columns();

 private:
  enum class Kind { none, position, distance, speed, stop, elsewhere };
  struct Order {
    gint64 time_us;
    guint32 id;
    std::string name;
    std::array<Kind, axes> kind;
    std::array<double, axes> value;
    bool is_refused = false;
  };
  std::vector<Sample> samples_;  // ascending
  std::vector<Order> orders_;
  bool is_cut_ = false;
  std::optional<std::pair<gint64, gint64>> window_us_;
  std::optional<std::array<double, axes>> minimum_, maximum_, speed_;

  [[nodiscard]] std::optional<Order> order_of(std::span<const guint8> body) const;
  [[nodiscard]] gint64 start_us() const;
  [[nodiscard]] gint64 end_us() const;
  [[nodiscard]] bool is_shown(std::size_t axis) const;
  [[nodiscard]] std::vector<const Order *> orders_to(std::size_t axis) const;
  [[nodiscard]] std::optional<double> position_at(std::size_t axis, gint64 time_us) const;
  [[nodiscard]] double clamped(std::size_t axis, double position) const;
  [[nodiscard]] std::optional<double> target_of(const Order &order, std::size_t axis) const;
  [[nodiscard]] Series reported(std::size_t axis) const;
  [[nodiscard]] Series commanded(std::size_t axis) const;
  void add_commanded(Series &series, const Order &order, std::size_t axis, gint64 until_us) const;
  [[nodiscard]] std::vector<Cell> row_of(const Order &order, std::size_t axis, gint64 until_us, bool is_last) const;
};

}  // namespace tools
