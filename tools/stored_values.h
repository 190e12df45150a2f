// stored_values.h - values of a group in the status store, as they are printed.
#pragma once
#include <glib.h>

#include <cstdint>
#include <string>
#include <vector>

#include "subcommand.h"

namespace ptzctl {

enum ValueType : guint32 { integer = 1, real = 2, seconds_and_microseconds = 4, seconds_and_nanoseconds = 5 };

struct StoredTime {
  guint32 seconds;
  guint32 fraction;
};

// What a value is called, and what was read.
struct StoredValue {
  const char *key;
  guint32 size;
  guint32 type;
  bool found = false;
  union {
    gint32 number;
    float measure;
    guint16 process;
    StoredTime time;
  } value = {};

  [[nodiscard]] std::string text() const;
  void add_to(const JsonLine &json) const;
};

enum class Reading { done, no_group, failed };

// Reads those of the values that the group holds, all from one moment. Where it has failed, errno says why.
[[nodiscard]] Reading read_group(const std::string &group, std::vector<StoredValue> &values);

// Tells the user why reading has failed; the exit status for it.
int complain_of_reading(const std::string &group, Reading reading);

}  // namespace ptzctl
