// kit/registry/entry.h - the file of a driver in the registry.
//
// An entry is a small key file. Its driver holds a write lock (F_OFD_SETLK) on it for as long as it runs. Readers query
// for a read lock, which conflicts only with write locks: a process that may only read the file cannot make a dead
// driver look alive. The texts are quoted and escaped, because a path is any bytes.
//
// Files of other users or programs may lie in the folder. A reader therefore opens without blocking and without
// following a link, and skips what is no regular file, is too large, or does not parse.
#pragma once
#include <ptz_kit_registry.h>
#include <sys/types.h>

#include "handles.h"

namespace ptz_kit {

inline constexpr char entry_suffix[] = ".driver";

// Which file is bound at the path. The inode is 0 while the driver does not listen yet.
struct SocketFile {
  dev_t device = 0;
  ino_t inode = 0;
  bool operator==(const SocketFile &) const = default;
};

// Of the socket at the path; inode 0 if there is none. A symbolic link is not followed.
[[nodiscard]] SocketFile socket_at(const char *path);

using Entry = Handle<PTZKitRegistryEntry, ptz_kit_registry_entry_free>;

// The contents of an entry file. `uid` and `liveness` are not written.
[[nodiscard]] Text format_entry(const PTZKitRegistryEntry &entry, const SocketFile &socket);

// What reading an entry leaves: `listens` is false while the driver starts.
struct EntryFile {
  UniqueFd fd;
  bool listens = false;
};

// Null if the file is no entry, or if it cannot be opened; errno then tells why.
[[nodiscard]] Entry read_entry(int folder, const char *file, EntryFile &opened);

// Whether a driver holds the lock of the file, which need not have a name any more.
[[nodiscard]] bool is_locked(int fd);

// Locks a file that was opened for writing until the descriptor, and each copy of it, is closed.
[[nodiscard]] bool lock_entry(int fd);

}  // namespace ptz_kit
