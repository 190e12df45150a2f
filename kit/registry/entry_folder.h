// kit/registry/entry_folder.h - the folder of the registry.
#pragma once
#include <dirent.h>

#include <cerrno>
#include <string>
#include <utility>

#include "handles.h"
#include "registry/entry.h"

namespace ptz_kit {

// `drivers` in the runtime directory.
[[nodiscard]] std::string registry_directory();

// An open directory. An empty descriptor with errno set on failure.
[[nodiscard]] UniqueFd open_folder(const char *path);
// Made if it is missing, with the mode and the group of its parent, whatever the umask. The parent is made, too, if the
// folder that it is in is there.
UniqueFd make_folder(const std::string &path);

// If this process may: the group of the folder is that of its users.
void give_group(int fd, gid_t group);

// Waits for the lock of a folder, which is advisory (flock) and independent of the locks of its
// files. False with errno EWOULDBLOCK if another process holds it all the time. It ends with unlock_folder(), or with
// the process.
[[nodiscard]] bool lock_folder(int folder, gint64 wait_us);
void unlock_folder(int folder);

// Walks the names in a folder, from its beginning.
class FolderReader {
  const Handle<DIR, closedir> stream_;

 public:
  explicit FolderReader(int folder);
  [[nodiscard]] explicit operator bool() const { return stream_ != nullptr; }
  // Null with errno 0 at the end, and null with errno set if the folder cannot be read.
  [[nodiscard]] const char *next();
};

// Whether an error tells nothing of the file: the process or the system has no more descriptors or memory, the disk
// cannot be read, or a signal came.
[[nodiscard]] inline bool is_shortage(int error) {
  return error == EMFILE || error == ENFILE || error == ENOMEM || error == EIO || error == EINTR;
}

// Calls handler(file_name, entry, opened) for each entry in a folder. False with errno set if it cannot be read, or if
// an entry cannot be opened for lack of resources.
template <typename Handler>
[[nodiscard]] bool for_each_entry(int folder, Handler &&handler) {
  FolderReader reader(folder);
  if (!reader) return false;
  while (const char *file = reader.next()) {
    if (g_str_has_suffix(file, entry_suffix) == FALSE) continue;
    EntryFile opened;
    errno = 0;
    if (Entry entry = read_entry(folder, file, opened)) {
      handler(file, std::move(entry), opened);
    } else if (is_shortage(errno)) {
      return false;
    }
  }
  return errno == 0;
}

}  // namespace ptz_kit
