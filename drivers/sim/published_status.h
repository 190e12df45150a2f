// published_status.h - what other processes see of the driver: where its head is, its limits and flags, and how long it
// takes for what. ptzctl shows it.
#pragma once
#include <ptz_status_cache.h>

#include <array>

#include "head.h"
#include "live_settings.h"
#include "owned.h"

namespace example {

using StatusGroup = Owned<PTZStatusCacheGroup, ptz_status_cache_free_group>;

class PublishedStatus {
  // The group keeps pointers to these.
  struct AxisStatus {
    gfloat position;
    gint32 status = PTZ_MOVE_STATUS_IDLE;
    PTZStatusCacheTime idle_since;
    PTZStatusCacheTime moving_since;
  };
  std::array<AxisStatus, axis_count> axes_ = {};
  gint32 zoom_steps_ = 0;
  gint32 update_rate_ = updates_per_second;
  PTZStatusCacheTime updated_ = {};
  gint32 going_to_preset_ = 0;
  gint32 ir_cut_filter_ = 0;
  StatusGroup position_;
  StatusGroup flags_;
  gint32 driver_;
  guint32 requests_ = 0;
  bool measuring_move_ = false;
  SettingWatch settings_;

  void publish_flags();

 public:
  static constexpr gint32 updates_per_second = 25;

  // For the PTZ instance with this number, which is also the driver's in the timing log. Publishes the limits.
  PublishedStatus(guint instance, const Head &head, const LiveSettings &settings);
  PublishedStatus(const PublishedStatus &) = delete;
  ~PublishedStatus();

  // Once for each update, and whenever an order has been carried out.
  void publish(const Head &head, bool going_to_preset);

  void request_begins();
  void reply_begins();
  void request_ends();
};

}  // namespace example
