// src/status/status_value.h - the values that our groups of the status store hold.
#pragma once
#include <glib.h>
#include <ctime>
#include <initializer_list>

#include "platform/status_store.h"
#include "ptz_status_cache.h"

namespace ptz::status {

// What a reader of the store takes a value for.
enum ValueType : guint32 { integer = 1, real = 2, seconds_and_microseconds = 4, seconds_and_nanoseconds = 5 };

// The words of a time have 32 bits in the store; a fraction always fits.
[[nodiscard]] inline PTZStatusCacheTime time_words(const timespec &time, long nanoseconds_per_unit = 1) {
  return {static_cast<guint32>(time.tv_sec), static_cast<guint32>(time.tv_nsec / nanoseconds_per_unit)};
}

}  // namespace ptz::status
