// platform/standalone/status_values.h - values between a caller's variables and a state of a status group.
#pragma once
#include "platform/status_store.h"
#include "status_ring.h"

namespace ptz::platform {

// Copies those values that the state holds with the same size and type to the caller's variables. Returns how many, or
// -EINVAL for a parameter without key, size or value.
[[nodiscard]] int read_values(State &state, StatusStoreParam *const *params);

// The group's lock is held. Reads the current state and writes the values into it; the caller publishes it. Returns 0,
// or the error.
[[nodiscard]] int prepare_values(const Ring &ring, State &state, StatusStoreParam *const *params);

}  // namespace ptz::platform
