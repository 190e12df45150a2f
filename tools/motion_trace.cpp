#include "motion_trace.h"

#include <ptz_enum_types.h>
#include <ptz_kit_body.h>
#include <ptz_kit_messages.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "handles.h"

namespace tools {

namespace {

constexpr std::array<const char *, MotionTrace::axes> axis_names = {"pan", "tilt", "zoom"};
constexpr std::array<const char *, MotionTrace::axes> axis_units = {"°", "°", "×"};
constexpr gint64 longest_silence_us = G_USEC_PER_SEC;  // of a driver that reports
constexpr double least_motion = 0.005;                 // half of what the wire can tell

using Values = std::array<double, MotionTrace::axes>;

// The wire has hundredths.
Values shown(const gint32 (&values)[MotionTrace::axes]) {
  Values result{};
  for (std::size_t axis = 0; axis < result.size(); ++axis) result[axis] = values[axis] / 100.0;
  return result;
}

template <typename Message, auto read, auto free>
Handle<Message, free> message_from(std::span<const guint8> body) {
  Error error;
  return Handle<Message, free>(read(body.data(), body.size(), out(error)));
}

std::optional<gint32> command_of(std::span<const guint8> body) {
  gint32 command = 0;
  if (!ptz_kit_body_get_command(body.data(), body.size(), &command)) return std::nullopt;
  return command;
}

std::string nick_of(GType type, gint value) {
  const GEnumValue *const row = g_enum_get_value(static_cast<GEnumClass *>(g_type_class_ref(type)), value);
  return row != nullptr ? row->value_nick : std::to_string(value);
}

double seconds(gint64 us) { return static_cast<double>(us) / G_USEC_PER_SEC; }

// Of an axis: -1, 0 or 1 for a direction of Move command.
int sign_of(guint32 direction, std::size_t axis) {
  const auto is_one_of = [direction](auto... each) { return ((direction == static_cast<guint32>(each)) || ...); };
  if (axis == PTZ_KIT_AXIS_PAN) {
    return is_one_of(PTZ_MOVE_CMD_RIGHT, PTZ_MOVE_CMD_UP_RIGHT, PTZ_MOVE_CMD_DOWN_RIGHT) -
           is_one_of(PTZ_MOVE_CMD_LEFT, PTZ_MOVE_CMD_UP_LEFT, PTZ_MOVE_CMD_DOWN_LEFT);
  }
  if (axis == PTZ_KIT_AXIS_TILT) {
    return is_one_of(PTZ_MOVE_CMD_UP, PTZ_MOVE_CMD_UP_LEFT, PTZ_MOVE_CMD_UP_RIGHT) -
           is_one_of(PTZ_MOVE_CMD_DOWN, PTZ_MOVE_CMD_DOWN_LEFT, PTZ_MOVE_CMD_DOWN_RIGHT);
  }
  return 0;
}

}  // namespace

void MotionTrace::add_sample(const Sample &sample) {
  const auto after = std::upper_bound(samples_.begin(), samples_.end(), sample.time_us,
                                      [](gint64 time, const Sample &each) { return time < each.time_us; });
  samples_.insert(after, sample);
}

std::optional<MotionTrace::Order> MotionTrace::order_of(std::span<const guint8> body) const {
  Order order = {0, 0, "", {}, {}};
  const auto all = [&order](Kind kind, std::string name) {
    order.kind.fill(kind);
    order.name = std::move(name);
    return order;
  };
  switch (command_of(body).value_or(PTZ_COMMAND_ERROR_REPLY)) {
    case PTZ_COMMAND_STOP:
      return all(Kind::stop, "stop");
    case PTZ_COMMAND_GOTO_PRESET:
    case PTZ_COMMAND_GOTO_DEVICE_PRESET:
      return all(Kind::elsewhere, "preset");
    case PTZ_COMMAND_AREA_ZOOM:
    case PTZ_COMMAND_FIELD_ANGLES:
      return all(Kind::elsewhere, "field of view");
    case PTZ_COMMAND_MOVE: {
      const auto move = message_from<PTZKitMoveRequest, ptz_kit_move_request_read, ptz_kit_move_request_free>(body);
      if (move == nullptr) return std::nullopt;
      order.name = nick_of(PTZ_TYPE_MOVE, static_cast<gint>(move->kind));
      order.value = shown(move->value);
      for (std::size_t axis = 0; axis < axes; ++axis) {
        if ((move->axes >> axis & 1) == 0) continue;
        order.kind[axis] = move->kind == PTZ_MOVE_ABSOLUTE   ? Kind::position
                           : move->kind == PTZ_MOVE_RELATIVE ? Kind::distance
                           : move->value[axis] == 0          ? Kind::stop
                                                             : Kind::speed;
        if (order.kind[axis] == Kind::speed) order.value[axis] *= move->speed / 100.0;
      }
      return order;
    }
    case PTZ_COMMAND_MOVE_COMMAND: {
      const auto move =
          message_from<PTZKitMoveCommandRequest, ptz_kit_move_command_request_read, ptz_kit_move_command_request_free>(
              body);
      if (move == nullptr) return std::nullopt;
      order.name = nick_of(PTZ_TYPE_MOVE_CMD, static_cast<gint>(move->direction));
      if (move->direction == PTZ_MOVE_CMD_STOP) return all(Kind::stop, order.name);
      if (move->direction == PTZ_MOVE_CMD_HOME) return all(Kind::elsewhere, order.name);
      for (std::size_t axis = 0; axis < axes; ++axis) {
        const int sign = sign_of(move->direction, axis);
        if (sign == 0) continue;
        order.kind[axis] = speed_ ? Kind::speed : Kind::elsewhere;
        order.value[axis] = speed_ ? sign * (*speed_)[axis] * move->speed / 100.0 : 0;
      }
      return order;
    }
    default:
      return std::nullopt;
  }
}

void MotionTrace::add_request(gint64 time_us, guint32 id, std::span<const guint8> body) {
  auto order = order_of(body);
  if (!order) return;
  is_cut_ = is_cut_ || orders_.size() == most_orders;
  if (is_cut_) return;
  order->time_us = time_us;
  order->id = id;
  orders_.push_back(std::move(*order));
}

void MotionTrace::add_reply(gint64 time_us, guint32 id, std::span<const guint8> body) {
  switch (command_of(body).value_or(PTZ_COMMAND_STOP)) {
    case PTZ_COMMAND_ERROR_REPLY:
      for (auto order = orders_.rbegin(); order != orders_.rend(); ++order) {
        if (order->id != id) continue;
        order->is_refused = true;
        break;
      }
      break;
    case PTZ_COMMAND_QUERY_POSITION:
      if (const auto reply = message_from<PTZKitQueryPositionReply, ptz_kit_query_position_reply_read,
                                          ptz_kit_query_position_reply_free>(body)) {
        Sample sample = {time_us, shown(reply->position), {}};
        for (std::size_t axis = 0; axis < axes; ++axis) {
          sample.is_moving[axis] = reply->status[axis] == PTZ_MOVE_STATUS_MOVING;
        }
        add_sample(sample);
      }
      break;
    case PTZ_COMMAND_QUERY_LIMIT_RANGES:
      if (const auto reply = message_from<PTZKitQueryLimitRangesReply, ptz_kit_query_limit_ranges_reply_read,
                                          ptz_kit_query_limit_ranges_reply_free>(body)) {
        minimum_ = shown(reply->minimum);
        maximum_ = shown(reply->maximum);
      }
      break;
    case PTZ_COMMAND_QUERY_SPEED:
      if (const auto reply =
              message_from<PTZKitQuerySpeedReply, ptz_kit_query_speed_reply_read, ptz_kit_query_speed_reply_free>(
                  body)) {
        speed_ = shown(reply->maximum);
      }
      break;
    default:
      break;
  }
}

std::vector<const MotionTrace::Order *> MotionTrace::orders_to(std::size_t axis) const {
  std::vector<const Order *> orders;
  for (const Order &order : orders_) {
    if (!order.is_refused && order.kind[axis] != Kind::none) orders.push_back(&order);
  }
  return orders;
}

bool MotionTrace::is_shown(std::size_t axis) const {
  const auto moves = [&](const Order &order) {
    return !order.is_refused && order.kind[axis] != Kind::none && order.kind[axis] != Kind::stop &&
           order.kind[axis] != Kind::elsewhere;
  };
  if (samples_.empty()) return false;
  const auto has_left = [&](const Sample &sample) {
    return std::abs(sample.position[axis] - samples_.front().position[axis]) > least_motion;
  };
  return std::ranges::any_of(samples_, has_left) || std::ranges::any_of(orders_, moves);
}

bool MotionTrace::has_motion() const {
  const auto is_obeyed = [](const Order &order) { return !order.is_refused; };
  if (samples_.size() < 2 || std::ranges::none_of(orders_, is_obeyed)) return false;
  for (std::size_t axis = 0; axis < axes; ++axis) {
    if (is_shown(axis)) return true;
  }
  return false;
}

gint64 MotionTrace::start_us() const {
  gint64 start = window_us_ ? window_us_->first : G_MAXINT64;
  if (!samples_.empty()) start = std::min(start, samples_.front().time_us);
  if (!orders_.empty()) start = std::min(start, orders_.front().time_us);
  return start;
}
gint64 MotionTrace::end_us() const {
  gint64 end = window_us_ ? window_us_->second : G_MININT64;
  if (!samples_.empty()) end = std::max(end, samples_.back().time_us);
  if (!orders_.empty()) end = std::max(end, orders_.back().time_us);
  return end;
}

// Between two samples, as if the axis had moved evenly; an axis at rest stays until it is told to move.
std::optional<double> MotionTrace::position_at(std::size_t axis, gint64 time_us) const {
  if (samples_.empty()) return std::nullopt;
  const auto after = std::ranges::upper_bound(samples_, time_us, {}, &Sample::time_us);
  if (after == samples_.begin()) return after->position[axis];
  const Sample &before = *std::prev(after);
  const auto is_told = [&](const Order &order) {
    return order.time_us >= before.time_us && order.time_us < time_us && order.kind[axis] != Kind::none;
  };
  const bool is_at_rest = !before.is_moving[axis] && std::ranges::none_of(orders_, is_told);
  if (after == samples_.end() || is_at_rest) return before.position[axis];
  const double share = seconds(time_us - before.time_us) / seconds(after->time_us - before.time_us);
  return before.position[axis] + share * (after->position[axis] - before.position[axis]);
}

double MotionTrace::clamped(std::size_t axis, double position) const {
  if (!minimum_ || (*minimum_)[axis] > (*maximum_)[axis]) return position;
  return std::clamp(position, (*minimum_)[axis], (*maximum_)[axis]);
}

std::optional<double> MotionTrace::target_of(const Order &order, std::size_t axis) const {
  if (order.kind[axis] == Kind::position) return order.value[axis];
  if (order.kind[axis] != Kind::distance) return std::nullopt;
  const auto from = position_at(axis, order.time_us);
  return from ? std::optional(*from + order.value[axis]) : std::nullopt;
}

Series MotionTrace::reported(std::size_t axis) const {
  Series series = {"reported", {}, Line::straight};
  for (const Sample &sample : samples_) {
    series.points.push_back({seconds(sample.time_us - start_us()), sample.position[axis]});
  }
  return series;
}

void MotionTrace::add_commanded(Series &series, const Order &order, std::size_t axis, gint64 until_us) const {
  const double from = seconds(order.time_us - start_us()), to = seconds(until_us - start_us());
  const auto add = [&series](double x, double y) { series.points.push_back({x, y}); };
  // A stop commands no position: the head comes to rest where it does.
  if (const auto level = target_of(order, axis)) {
    add(from, *level);
    add(to, *level);
  } else if (const auto start = position_at(axis, order.time_us); order.kind[axis] == Kind::speed && start) {
    const double end = clamped(axis, *start + order.value[axis] * (to - from));
    const double reached = order.value[axis] != 0 ? from + (end - *start) / order.value[axis] : to;
    add(from, *start);
    add(std::min(reached, to), end);
    add(to, end);
  }
  add(to, std::numeric_limits<double>::quiet_NaN());
}

Series MotionTrace::commanded(std::size_t axis) const {
  Series series = {"commanded", {}, Line::straight};
  const auto orders = orders_to(axis);
  for (std::size_t i = 0; i < orders.size(); ++i) {
    add_commanded(series, *orders[i], axis, i + 1 < orders.size() ? orders[i + 1]->time_us : end_us());
  }
  return series;
}

std::vector<Figure> MotionTrace::plots(const std::string &title) const {
  std::vector<Figure> figures;
  for (std::size_t axis = 0; axis < axes; ++axis) {
    if (!is_shown(axis)) continue;
    TimePlot plot = {
        title + ": " + axis_names[axis], std::string(axis_names[axis]) + " in " + axis_units[axis], {}, {}};
    plot.series = {reported(axis), commanded(axis)};
    for (const Order *order : orders_to(axis))
      plot.marks.push_back({seconds(order->time_us - start_us()), order->name});
    if (window_us_) {
      plot.from = seconds(window_us_->first - start_us());
      plot.to = seconds(end_us() - start_us());
    }
    const gint64 last_us = samples_.back().time_us;
    if (end_us() - last_us > longest_silence_us) plot.marks.push_back({seconds(last_us - start_us()), "no reports"});
    figures.emplace_back(std::move(plot));
  }
  return figures;
}

std::vector<Column> MotionTrace::columns() {
  return {{"at", true},          {"axis"}, {"order"}, {"from", true}, {"at rest", true}, {"overshoot", true},
          {"time to rest", true}};
}

std::vector<Cell> MotionTrace::row_of(const Order &order, std::size_t axis, gint64 until_us, bool is_last) const {
  const auto from = position_at(axis, order.time_us);
  const auto target = order.kind[axis] == Kind::stop ? from : target_of(order, axis);
  const auto with_unit = [axis](double value) { return number_text(value, 2) + " " + axis_units[axis]; };
  std::optional<double> rest;
  gint64 rest_us = 0;
  double beyond = 0;
  const double direction = target && from && *target < *from ? -1 : 1;
  for (const Sample &sample : samples_) {
    if (sample.time_us <= order.time_us || sample.time_us > until_us || rest) continue;
    if (target)
      beyond = std::max(beyond, order.kind[axis] == Kind::stop ? std::abs(sample.position[axis] - *target)
                                                               : direction * (sample.position[axis] - *target));
    if (sample.is_moving[axis]) continue;
    rest = sample.position[axis];
    rest_us = sample.time_us - order.time_us;
  }
  std::string command = order.name;
  if (order.kind[axis] == Kind::speed) command += ", " + with_unit(order.value[axis]) + "/s";
  if (order.kind[axis] != Kind::stop && target) command += " to " + with_unit(*target);
  const Mood mood = beyond > least_motion && order.kind[axis] != Kind::stop ? Mood::warning : Mood::plain;
  return {{number_text(seconds(order.time_us - start_us()), 3) + " s"},
          {axis_names[axis]},
          {command},
          {from ? with_unit(*from) : ""},
          {rest      ? with_unit(*rest)
           : is_last ? "not seen"
                     : "next order first"},
          {target ? with_unit(beyond) : "", mood},
          {rest ? duration_text(static_cast<double>(rest_us)) : ""}};
}

std::vector<std::vector<Cell>> MotionTrace::rows() const {
  std::vector<std::vector<Cell>> rows;
  for (std::size_t axis = 0; axis < axes; ++axis) {
    if (!is_shown(axis)) continue;
    const auto orders = orders_to(axis);
    for (std::size_t i = 0; i < orders.size(); ++i) {
      const bool is_last = i + 1 == orders.size();
      rows.push_back(row_of(*orders[i], axis, is_last ? G_MAXINT64 : orders[i + 1]->time_us, is_last));
    }
  }
  return rows;
}

}  // namespace tools
