// faults/faulty_status.h - what the driver publishes, with one fault.
#pragma once
#include <ptz_status_cache.h>

#include "../head.h"
#include "../owners.h"

namespace sim {

class FaultyStatus {
  using Group = Owned<PTZStatusCacheGroup, ptz_status_cache_free_group>;

  // The groups keep pointers to the values.
  Group position_;
  Group limits_;
  Group various_;
  std::array<gfloat, axis_count> degrees_ = {};
  PerAxis status_ = {};
  gint32 rate_ = 25;
  PTZStatusCacheTime time_ = {};
  PerAxis minimum_ = {};
  PerAxis maximum_ = {};
  gint32 preset_move_ = 0;

 public:
  FaultyStatus(guint instance, const Head &head);
  FaultyStatus(const FaultyStatus &) = delete;
  void publish(const Head &head, bool going_to_preset);
};

}  // namespace sim
