// kit/driver/published_status.h - what other processes see of the driver: position, limits, flags, timings, a counter.
#pragma once
#include <ptz_status_cache.h>

#include <array>
#include <vector>

#include "driver/axes.h"
#include "handles.h"

namespace ptz_kit {

// A group of the status store with the values that it was bound to. A failed update is told once. It is tried again
// with a new handle, first after a quarter of a second and then ever more rarely, because the library logs every
// failure and a busy store blocks for 100 ms.
class StatusGroup {
 public:
  struct Value {
    PTZSCParam param;
    gpointer value;
  };

 private:
  using Group = Handle<PTZStatusCacheGroup, ptz_status_cache_free_group>;
  PTZSCGroup kind_;
  guint instance_;
  std::vector<Value> values_;
  Group group_;
  gint64 retry_us_ = 0;  // 0 if the last update has succeeded
  gint64 delay_us_ = 0;

  [[nodiscard]] bool write();

 public:
  // The values outlive this object.
  StatusGroup(PTZSCGroup kind, guint instance, std::vector<Value> values);
  // Gives the group default values in the store.
  void create();
  void update(gint64 now_us);
  [[nodiscard]] bool is_published() const { return group_ != nullptr; }  // by the last update
};

// Lets a measurement pass if the last one is long enough ago. One takes several accesses to the store, as much as
// serving a request; a reader cannot look so often.
class MeasurementRate {
  gint64 next_us_ = 0;

 public:
  static constexpr gint64 interval_us = 10'000;
  [[nodiscard]] bool permits(gint64 now_us) {
    if (now_us < next_us_) return false;
    next_us_ = now_us + interval_us;
    return true;
  }
};

// Limits, flags and the counter seldom change, but are published again once a second: the store may have lost them, or
// may have refused them.
//
// While the position of every axis is unknown, the position is not published, so that readers see its age grow. Before
// the first known position the store has none.
//
// Main context.
class PublishedStatus {
  struct AxisStatus {
    gfloat position = 0;
    gint32 status = PTZ_MOVE_STATUS_IDLE;
    PTZStatusCacheTime idle_since = {};
    PTZStatusCacheTime moving_since = {};
  };
  static constexpr gint32 first_flag = PTZ_SC_PARAM_VARIOUS_PAN_FLIPPED;
  static constexpr std::size_t flag_count = PTZ_SC_PARAM_VARIOUS_IR_CUT_FILTER - first_flag + 1;

  // The groups keep pointers to these.
  std::array<AxisStatus, PTZ_KIT_N_AXES> axes_ = {};
  gint32 zoom_steps_ = 0;
  gint32 update_rate_ = 0;
  PTZStatusCacheTime updated_ = {};
  std::array<gint32, flag_count> flags_ = {};
  std::array<std::array<gint32, PTZ_KIT_N_AXES>, 2> limits_ = {};

  gint32 driver_;
  bool has_position_ = false, was_known_ = false;
  StatusGroup position_;
  StatusGroup various_;
  StatusGroup limit_;
  guint32 requests_ = 0;
  guint32 measured_request_ = 0;
  bool measuring_reply_ = false;
  MeasurementRate request_rate_, reply_rate_;
  gint64 refresh_us_ = 0;
  bool measuring_move_ = false;

  std::vector<StatusGroup::Value> position_values();
  std::vector<StatusGroup::Value> flag_values();
  std::vector<StatusGroup::Value> limit_values();
  void create_position();
  void publish_position(bool is_known, gint64 now_us);
  void measure_move(bool moving);
  void begin_counter();
  [[nodiscard]] bool limits_are_there() const;
  void refresh(gint64 now_us);

 public:
  // A reader tells a live driver from a dead one by the time of the last update, so it is published at rest, too.
  static constexpr gint32 updates_per_second_moving = 25;
  static constexpr gint32 updates_per_second_at_rest = 2;
  [[nodiscard]] static constexpr gint32 updates_per_second(bool moving) {
    return moving ? updates_per_second_moving : updates_per_second_at_rest;
  }
  [[nodiscard]] static bool is_flag(PTZSCParam param);

  // Of the parameter, in the flags that the constructor takes.
  [[nodiscard]] static guint32 flag_bit(PTZSCParam flag) { return 1U << (flag - first_flag); }

  // The instance is also the driver's number in the timing log.
  PublishedStatus(guint instance, const Axes &axes, guint32 flags);
  PublishedStatus(const PublishedStatus &) = delete;
  ~PublishedStatus();

  void publish(const Axes &axes, bool going_to_preset);
  void set_flag(PTZSCParam flag, bool on);

  // Every request is counted. A driver has one measurement of requests, that of the last one that was measured.
  [[nodiscard]] guint32 request_begins();
  void reply_begins();
  void request_ends(guint32 serial);
};

}  // namespace ptz_kit
