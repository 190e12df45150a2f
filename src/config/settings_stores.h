// src/config/settings_stores.h - the three settings stores of the process and their locks.
#pragma once
#include <glib.h>

namespace ptz::settings {

// A store is null until it was loaded, and where a load failed before it came to the store.
struct GroupStores {
  GMutex lock;
  GKeyFile *key_file;  // asked first
  GKeyFile *parsed;
};

struct ShellStore {
  GMutex lock;
  GKeyFile *keys;  // all in shell_group
};

inline constinit GroupStores group_stores = {};
inline constinit ShellStore shell_store = {};

inline constexpr char shell_group[] = "FAKESECTION";

}  // namespace ptz::settings
