// platform/standalone/status_file.h - the file of a status group: identity, creation, validation, mapping.
//
// A group is a file that every process maps: a header and a ring of slots. A file gets its name only when it is
// complete, so that a process that is killed while it creates a group leaves nothing.
//
// Readers do not die of SIGBUS: all blocks of a file are allocated before it has a name, and a file never shrinks. Only
// the group's writers could shrink it; they are one trust domain and could as well fill it with lies.
//
// Access. A file has the access of its folder, whatever the umask of its creator. A file that every user may write is
// refused. For writing, a file is refused unless it belongs to root, to the caller, or to the folder's group.
#pragma once
#include <sys/stat.h>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/handles.h"
#include "status_lock.h"
#include "status_ring.h"

namespace ptz::platform {

enum Access { reading, writing };

// The constant part of a file. A process that would read the file in another way finds another identity.
struct Identity {
  char magic[8] = {'P', 'T', 'Z', 'S', 'T', 'A', 'T', '2'};
  std::uint32_t byte_order = 0x01020304;
  std::uint32_t header_bytes = 192;
  std::uint32_t group_size = 0;
  std::uint32_t complement = 0;  // of the group's size
  bool operator==(const Identity &) const = default;
};

struct FileHeader {
  Identity identity;
  alignas(64) Word published;
  alignas(64) SharedLock lock;
};
static_assert(sizeof(FileHeader) == Identity{}.header_bytes);

constexpr std::size_t file_size(std::uint32_t group_size) { return sizeof(FileHeader) + Ring::slots_bytes(group_size); }

// A file in this process's memory. Copying it does not map it again.
struct MappedFile {
  FileHeader *header = nullptr;
  Ring ring;
  struct stat status = {};  // when it was opened
};

[[nodiscard]] bool is_group_name(std::string_view name);
[[nodiscard]] std::string path_of_group(std::string_view directory, std::string_view name);

// Creates the folder as well, if it is missing. A file of an older release is replaced. Returns 0, or -1 with errno
// set.
[[nodiscard]] int create_file(const std::string &directory, const std::string &path, std::uint32_t group_size);

// An open file, and what fstat() said about it.
struct OpenGroupFile {
  UniqueFd fd = UniqueFd();
  struct stat status = {};
};

// Returns no descriptor with errno set on failure; EBADMSG if the file is no regular file, or if its owner or its mode
// is not acceptable.
[[nodiscard]] OpenGroupFile open_file(const std::string &directory, const std::string &path, Access access);

// Takes nothing in the file for granted. Returns nothing with errno set on failure; EBADMSG if it is no group's file.
[[nodiscard]] std::optional<MappedFile> map_file(const OpenGroupFile &file, Access access);

void unmap_file(const MappedFile &file);

enum class Currency { current, replaced, damaged };
// Whether the path still leads to the mapped file, with the same owner, mode and size.
[[nodiscard]] Currency currency_of(const MappedFile &file, const std::string &path);

}  // namespace ptz::platform
