// status_group.h - a group of the live state: its values, their age, and the drivers that publish it.
#pragma once
#include <ptz_status_cache.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "process_state.h"
#include "stored_values.h"

namespace ptzctl {

// What is published in a group of this kind.
struct StatusKind {
  PTZSCGroup group;
  gint first_param, last_param;
};
extern const StatusKind position_kind, various_kind, limit_kind;

struct StatusGroup {
  std::string name;
  std::vector<StoredValue> values;

  StatusGroup(const StatusKind &kind, guint instance);
  // Null if it was not read.
  [[nodiscard]] const StoredValue *find(std::string_view key) const;

  // The rest is for the position, which has a time.
  [[nodiscard]] gint32 update_rate() const;  // 0 if it is unknown
  [[nodiscard]] std::optional<gint64> age_ms() const;
  // Older than three periods of its publisher; than three seconds if the publisher does not tell its period.
  [[nodiscard]] bool is_stale() const;
  [[nodiscard]] float position(std::size_t axis) const;
  [[nodiscard]] std::string status(std::size_t axis) const;
  // Where the axes are: "axes", see axis_members.h.
  void add_axes_to(const JsonLine &json) const;
};

// A driver with an entry in the registry.
struct Publisher {
  std::string name;
  gint32 pid;
  ProcessState state;  // dead if the driver was killed
};
// The drivers that publish as this instance; the dead ones only if no other does. A driver without the kit has no
// entry.
[[nodiscard]] std::vector<Publisher> publishers_of(guint instance);
// "sim-driver[12] is dead", "2 drivers publish it: a[1], b[2]"; empty if nothing is wrong.
[[nodiscard]] std::string trouble_with(const std::vector<Publisher> &publishers);
// "sim-driver[12]", "sim-driver[12] is dead"; empty if there is none.
[[nodiscard]] std::string text_of(const std::vector<Publisher> &publishers);
void add_publishers(const JsonLine &json, const std::vector<Publisher> &publishers);

// "age_ms", null if it is unknown, and "stale".
void add_age(const JsonLine &json, const StatusGroup &group);

}  // namespace ptzctl
