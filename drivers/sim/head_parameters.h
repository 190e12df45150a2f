// head_parameters.h - the driver's two groups in the parameter tree: what an installer changes, and what the driver
// leaves for its next start. templates/ has a file for each, which says what is in it.
#pragma once
#include <optional>

#include "head.h"

namespace sim {

class HeadParameters {
  guint instance_;
  gint32 starts_ = 0;

  void push(const char *name, gint32 value) const;

 public:
  explicit HeadParameters(guint instance) : instance_(instance) {}

  // Creates the groups where they are missing, and counts this start. False, with the reason in the log, where there is
  // no tree to keep them in: the driver does without.
  bool open();

  [[nodiscard]] HeadRanges narrowed(HeadRanges ranges) const;
  // Where the head is to go when the driver has started, if it is.
  [[nodiscard]] std::optional<PerAxis> position_to_resume() const;

  // Returns at once: a main loop has no time to wait for storage.
  void keep(const PerAxis &position) const;
  // Waits until everything is in the tree and in storage, for so long at most. Nothing else would: what the process
  // has queued ends with it.
  bool finish(gint64 limit_ms) const;
};

}  // namespace sim
