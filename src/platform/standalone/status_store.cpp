#include "platform/status_store.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <atomic>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/handles.h"

// A group is a file that every process maps: a header, and a ring of slots that each hold one whole state of the group.
//
// A writer, alone by a mutex that the kernel hands on when its holder is killed, fills the slot after the published one
// and then publishes it with a single store: until then nobody looks at it, and a writer that dies leaves what was
// published. A reader takes no lock: it copies the published slot, and has a whole state unless the writers have come
// round to that slot meanwhile, which takes them seven further updates.
//
// The words of a slot are stored with release and loaded with acquire order: a reader that has met a word of a later
// state then also sees that the sequence has moved on, without a fence of its own.
//
// Why no reader dies of SIGBUS: a file's blocks are all allocated before it has a name, and a file never shrinks, since
// only its writers could do that, who are one domain of trust: the same that could fill it with lies.
namespace {

constexpr char directory_variable[] = "PTZ_PLATFORM_RUNTIME_DIR";
constexpr char default_directory[] = "/run/ptz";
constexpr std::string_view file_suffix = ".status";
constexpr mode_t directory_mode = 0775, file_mode = 0664;  // the umask takes from them

constexpr std::size_t max_name_length = 200;
constexpr std::uint32_t max_group_size = 32768;  // what a group's size may be: key and value lengths have 16 bits
constexpr std::uint64_t slot_count = 8;
constexpr int max_read_attempts = 10'000;
constexpr long lock_patience_ns = 100'000'000;
constexpr std::int64_t look_interval_ns = 1'000'000'000;

using Word = std::uint64_t;
static_assert(std::atomic_ref<Word>::is_always_lock_free, "a reader may not take locks that it shares with writers");

constexpr std::uint32_t words_for(std::size_t bytes) {
  return static_cast<std::uint32_t>((bytes + sizeof(Word) - 1) / sizeof(Word));
}

// What stands before the key and the value of each entry of a state.
struct EntryHeader {
  std::uint16_t key_bytes;  // with the NUL
  std::uint16_t value_bytes;
  std::uint32_t type;
};
constexpr std::size_t min_entry_bytes = 3;  // a key of one character, its NUL, one byte of value

struct SlotHeader {
  Word sequence;
  Word checksum;
  Word used_bytes;
};

constexpr std::uint32_t state_words(std::uint32_t group_size) {
  return words_for(group_size + group_size / min_entry_bytes * sizeof(EntryHeader));
}
constexpr std::uint32_t slot_words(std::uint32_t group_size) {
  return words_for(sizeof(SlotHeader)) + state_words(group_size);
}

// What never changes in a file. Processes that would read the file otherwise do not take it for theirs.
struct Identity {
  char magic[8] = {'P', 'T', 'Z', 'S', 'T', 'A', 'T', '1'};
  std::uint32_t byte_order = 0x01020304;
  std::uint32_t mutex_bytes = sizeof(pthread_mutex_t);
  std::uint32_t group_size = 0;
  std::uint32_t complement = 0;  // of the group's size
  bool operator==(const Identity &) const = default;
};
constexpr Identity identity_of(std::uint32_t group_size) {
  return {.group_size = group_size, .complement = ~group_size};
}

struct FileHeader {
  Identity identity;
  alignas(64) Word published;  // the sequence of the state that counts: it is in the slot of this number modulo 8
  alignas(64) pthread_mutex_t writers;
};

constexpr std::size_t file_size(std::uint32_t group_size) {
  return sizeof(FileHeader) + slot_count * slot_words(group_size) * sizeof(Word);
}

Word load(const Word &word) { return std::atomic_ref<Word>(const_cast<Word &>(word)).load(std::memory_order_acquire); }
void store(Word &word, Word value) { std::atomic_ref<Word>(word).store(value, std::memory_order_release); }

// Copies words and returns their checksum. Four sums side by side, since each step of one waits for the step before.
template <typename Copy>
Word copy_words(std::uint32_t count, Word seed, Copy copy) {
  Word sums[4] = {seed, ~seed, count, 0};
  std::uint32_t i = 0;
  for (; i + 4 <= count; i += 4) {
    for (std::uint32_t lane = 0; lane < 4; ++lane) sums[lane] = std::rotl(sums[lane], 7) ^ copy(i + lane);
  }
  for (; i < count; ++i) sums[i % 4] = std::rotl(sums[i % 4], 7) ^ copy(i);
  constexpr Word odd = 0x9E3779B97F4A7C15;
  return (((sums[0] * odd ^ sums[1]) * odd ^ sums[2]) * odd ^ sums[3]) * odd;
}

// A process's own copy of a state.
struct State {
  std::unique_ptr<Word[]> words;
  std::optional<Word> sequence;  // none where the copy is not whole
  std::uint32_t used_bytes = 0;

  explicit State(std::uint32_t group_size) : words(new Word[state_words(group_size)]) {}
  [[nodiscard]] char *bytes() const { return reinterpret_cast<char *>(words.get()); }
};

// A group's file in this process. Never unmapped, since another thread may be reading it.
struct Mapping {
  FileHeader *header = nullptr;
  std::uint32_t group_size = 0;
  dev_t device = 0;
  ino_t inode = 0;
  std::atomic<std::int64_t> looked_at_ns = 0;
  Mapping *older = nullptr;  // what the group's file was before it was made anew
  std::atomic<bool> state_in_use = false;
  State state;
  std::vector<std::uint32_t> positions;  // where an update's values are in the state

  explicit Mapping(std::uint32_t size) : group_size(size), state(size) {}
  [[nodiscard]] Word *slot(Word sequence) const {
    return reinterpret_cast<Word *>(header + 1) + sequence % slot_count * slot_words(group_size);
  }
};

enum Access { reading, writing };

// A group that this process has used. Never freed, so that finding it takes no lock.
struct Group {
  std::string directory, name;
  std::atomic<Mapping *> mappings[2] = {};
  Group *next = nullptr;
};
std::atomic<Group *> groups[64];

int fail(int error) {
  errno = error;
  return -1;
}

std::int64_t now_ns() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * std::int64_t{1'000'000'000} + now.tv_nsec;
}

const char *runtime_directory() {
  const char *directory = getenv(directory_variable);
  return directory != nullptr && *directory != '\0' ? directory : default_directory;
}

std::string path_of(std::string_view directory, std::string_view name) {
  return std::string(directory).append("/").append(name).append(file_suffix);
}

bool is_name(const gchar *name) {
  if (name == nullptr || *name == '\0' || *name == '.') return false;
  const std::size_t length = strnlen(name, max_name_length + 1);
  return length <= max_name_length && std::memchr(name, '/', length) == nullptr;
}

bool are_params(StatusStoreParam *const *params) {
  if (params == nullptr) return false;
  for (; *params != nullptr; ++params) {
    const auto &param = **params;
    if (param.key == nullptr || *param.key == '\0' || param.size == 0 || param.value == nullptr) return false;
  }
  return true;
}

// --- files ------------------------------------------------------------------------------------------------------

void set_up_mutex(pthread_mutex_t &mutex) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  pthread_mutex_init(&mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

// A mutex of another kind would not time out, nor outlive its holder.
bool is_our_mutex(const pthread_mutex_t &mutex) {
#ifdef __GLIBC__
  pthread_mutex_t ours;
  set_up_mutex(ours);
  return mutex.__data.__kind == ours.__data.__kind;
#else
  return true;
#endif
}

FileHeader *map_file(int fd, std::size_t size, int protection) {
  void *memory = mmap(nullptr, size, protection, MAP_SHARED | MAP_POPULATE, fd, 0);
  return memory == MAP_FAILED ? nullptr : static_cast<FileHeader *>(memory);
}

// The state without entries, under sequence 0, is what the checksum of the first slot has to match.
void set_up_file(FileHeader *header, std::uint32_t group_size) {
  header->identity = identity_of(group_size);
  set_up_mutex(header->writers);
  auto *slot = reinterpret_cast<SlotHeader *>(header + 1);
  slot->checksum = copy_words(0, 0, [](std::uint32_t) { return Word{0}; });
}

// Opens a group's file, and takes nothing in it for granted.
Mapping *open_mapping(const std::string &path, Access access) {
  const int flags = access == writing ? O_RDWR : O_RDONLY;
  const ptz::UniqueFd fd(open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
  if (!fd) {
    if (errno == ELOOP || errno == EISDIR || errno == ENXIO) errno = EBADMSG;  // somebody else's, whatever it is
    return nullptr;
  }
  struct stat status = {};
  if (fstat(fd.get(), &status) < 0) return nullptr;
  Identity identity;
  errno = EBADMSG;
  // Strangers that could write into the mutex could make us write anywhere.
  if (!S_ISREG(status.st_mode) || (status.st_mode & S_IWOTH) != 0) return nullptr;
  const ssize_t count = pread(fd.get(), &identity, sizeof identity, 0);
  if (count < 0) return nullptr;
  errno = EBADMSG;
  if (static_cast<std::size_t>(count) != sizeof identity) return nullptr;
  if (identity != identity_of(identity.group_size) || identity.group_size > max_group_size) return nullptr;
  const std::size_t size = file_size(identity.group_size);
  if (static_cast<std::uint64_t>(status.st_size) != size) return nullptr;
  auto *header = map_file(fd.get(), size, access == writing ? PROT_READ | PROT_WRITE : PROT_READ);
  if (header == nullptr) return nullptr;
  if (access == writing && !is_our_mutex(header->writers)) {
    munmap(header, size);
    errno = EBADMSG;
    return nullptr;
  }
  auto *mapping = new Mapping(identity.group_size);
  mapping->header = header;
  mapping->device = status.st_dev;
  mapping->inode = status.st_ino;
  mapping->looked_at_ns = now_ns();
  return mapping;
}

// --- groups -----------------------------------------------------------------------------------------------------

std::atomic<Group *> &bucket_of(std::string_view name) {
  std::size_t hash = name.size();
  for (const char c : name) hash = hash * 31 + static_cast<unsigned char>(c);
  return groups[hash % std::size(groups)];
}

Group *find_group(Group *first, std::string_view directory, std::string_view name) {
  for (auto *group = first; group != nullptr; group = group->next) {
    if (group->name == name && group->directory == directory) return group;
  }
  return nullptr;
}

Group *add_group(std::string_view directory, std::string_view name) {
  auto &bucket = bucket_of(name);
  auto added = std::make_unique<Group>();
  added->directory = directory;
  added->name = name;
  added->next = bucket.load(std::memory_order_acquire);
  while (true) {
    // Another thread may have added it since.
    if (auto *group = find_group(added->next, directory, name)) return group;
    if (bucket.compare_exchange_weak(added->next, added.get(), std::memory_order_acq_rel)) return added.release();
  }
}

// Whether the path still leads to the mapped file, as large as it was.
bool is_current(const Mapping &mapping, const std::string &path, bool &is_damaged) {
  struct stat status = {};
  if (stat(path.c_str(), &status) < 0) return false;
  if (status.st_dev != mapping.device || status.st_ino != mapping.inode) return false;
  is_damaged = static_cast<std::uint64_t>(status.st_size) != file_size(mapping.group_size);
  return true;
}

// The slow way to a mapping: the group is new to this process, or its file has to be looked at again.
Mapping *look_up(Group *group, std::string_view directory, std::string_view name, Access access) {
  const auto path = path_of(directory, name);
  auto *known = group != nullptr ? group->mappings[access].load(std::memory_order_acquire) : nullptr;
  if (known != nullptr) {
    const auto now = now_ns();
    bool is_damaged = false;
    if (is_current(*known, path, is_damaged)) {
      if (!is_damaged) {
        known->looked_at_ns.store(now, std::memory_order_relaxed);
        return known;
      }
      errno = EBADMSG;
      return nullptr;
    }
  }
  auto *opened = open_mapping(path, access);
  if (opened == nullptr) return nullptr;
  if (group == nullptr) group = add_group(directory, name);
  opened->older = known;
  if (group->mappings[access].compare_exchange_strong(known, opened, std::memory_order_acq_rel)) return opened;
  // Another thread was faster, and nobody has seen ours.
  munmap(opened->header, file_size(opened->group_size));
  delete opened;
  return known;
}

Mapping *mapping_of(const gchar *name_text, Access access) {
  const std::string_view name(name_text), directory(runtime_directory());
  auto *group = find_group(bucket_of(name).load(std::memory_order_acquire), directory, name);
  auto *mapping = group != nullptr ? group->mappings[access].load(std::memory_order_acquire) : nullptr;
  if (mapping == nullptr || now_ns() - mapping->looked_at_ns.load(std::memory_order_relaxed) >= look_interval_ns) {
    return look_up(group, directory, name, access);
  }
  return mapping;
}

// --- states -----------------------------------------------------------------------------------------------------

// Copies what is published now; 0, or the error.
int read_state(const Mapping &mapping, State &state) {
  for (int attempt = 0; attempt < max_read_attempts; ++attempt) {
    const Word sequence = load(mapping.header->published);
    if (state.sequence == sequence) return 0;
    const Word *slot = mapping.slot(sequence);
    const auto *header = reinterpret_cast<const SlotHeader *>(slot);
    const Word *words = slot + words_for(sizeof(SlotHeader));
    const Word slot_sequence = load(header->sequence), checksum = load(header->checksum);
    const Word used_bytes = load(header->used_bytes);
    const bool fits = used_bytes <= state_words(mapping.group_size) * sizeof(Word);
    Word sum = 0;
    state.sequence.reset();
    if (fits) {
      sum =
          copy_words(words_for(used_bytes), sequence, [&](std::uint32_t i) { return state.words[i] = load(words[i]); });
    }
    // The slot of this state is written to again once six more are published, not before.
    if (load(mapping.header->published) - sequence > slot_count - 2) continue;
    if (!fits || slot_sequence != sequence || sum != checksum) return EBADMSG;
    state.sequence = sequence;
    state.used_bytes = static_cast<std::uint32_t>(used_bytes);
    return 0;
  }
  return EBUSY;
}

// writers' mutex held
void publish(const Mapping &mapping, State &state, Word sequence) {
  Word *slot = mapping.slot(sequence);
  auto *header = reinterpret_cast<SlotHeader *>(slot);
  Word *words = slot + words_for(sizeof(SlotHeader));
  store(header->sequence, sequence);
  store(header->used_bytes, state.used_bytes);
  const Word sum = copy_words(words_for(state.used_bytes), sequence, [&](std::uint32_t i) {
    store(words[i], state.words[i]);
    return state.words[i];
  });
  store(header->checksum, sum);
  store(mapping.header->published, sequence);
  state.sequence = sequence;
}

struct Entry {
  EntryHeader header;
  char *key;
  char *value;
  std::uint32_t end;
};

// The entry at a position; false where there cannot be one.
bool read_entry(const State &state, std::uint32_t position, Entry &entry) {
  char *bytes = state.bytes() + position;
  const std::uint32_t left = state.used_bytes - position;
  if (left < sizeof entry.header) return false;
  std::memcpy(&entry.header, bytes, sizeof entry.header);
  const std::uint32_t length = sizeof entry.header + entry.header.key_bytes + entry.header.value_bytes;
  if (length > left || entry.header.key_bytes == 0) return false;
  entry.key = bytes + sizeof entry.header;
  entry.value = entry.key + entry.header.key_bytes;
  entry.end = position + length;
  return entry.value[-1] == '\0';
}

enum class Search { found, missing, damaged };

// Callers ask for keys in the order in which they are stored: each search begins where the one before has ended.
Search find_entry(const State &state, const gchar *key, std::uint32_t &cursor, Entry &entry) {
  const std::uint32_t first = cursor < state.used_bytes ? cursor : 0;
  std::uint32_t position = first;
  bool is_behind_end = false;
  while (state.used_bytes != 0) {
    if (!read_entry(state, position, entry)) return Search::damaged;
    if (std::strcmp(entry.key, key) == 0) {
      cursor = entry.end;
      return Search::found;
    }
    position = entry.end;
    if (position == state.used_bytes) {
      position = 0;
      is_behind_end = true;
    }
    if (is_behind_end && position >= first) break;
  }
  return Search::missing;
}

// The usual sizes need no call.
void copy_value(void *to, const void *from, std::uint32_t size) {
  switch (size) {
    case 4:
      std::memcpy(to, from, 4);
      break;
    case 8:
      std::memcpy(to, from, 8);
      break;
    default:
      std::memcpy(to, from, size);
  }
}

int read_values(const State &state, StatusStoreParam **params) {
  std::uint32_t cursor = 0;
  int count = 0;
  for (; *params != nullptr; ++params) {
    const auto &param = **params;
    Entry entry;
    const auto result = find_entry(state, param.key, cursor, entry);
    if (result == Search::damaged) return fail(EBADMSG);
    if (result == Search::missing) continue;
    if (entry.header.value_bytes != param.size || entry.header.type != param.type) continue;
    copy_value(param.value, entry.value, param.size);
    ++count;
  }
  return count;
}

// writers' mutex held. Finds the given values in the state; false where the state has no room of this size for one.
Search find_values(Mapping &mapping, StatusStoreParam *const *params) {
  std::uint32_t cursor = 0;
  mapping.positions.clear();
  for (; *params != nullptr; ++params) {
    Entry entry;
    const auto result = find_entry(mapping.state, (*params)->key, cursor, entry);
    if (result != Search::found) return result;
    if (entry.header.value_bytes != (*params)->size) return Search::missing;
    mapping.positions.push_back(static_cast<std::uint32_t>(entry.end - entry.header.value_bytes));
    if (entry.header.type != (*params)->type) return Search::missing;
  }
  return Search::found;
}

struct Value {
  std::string_view key;
  const void *bytes;
  std::uint32_t size;
  std::uint32_t type;
};

// writers' mutex held. The state with the given values; 0, or the error.
int build_state(const Mapping &mapping, StatusStoreParam *const *params, std::vector<char> &bytes) {
  std::vector<Value> values;
  for (std::uint32_t position = 0; position < mapping.state.used_bytes;) {
    Entry entry;
    if (!read_entry(mapping.state, position, entry)) return EBADMSG;
    values.push_back({entry.key, entry.value, entry.header.value_bytes, entry.header.type});
    position = entry.end;
  }
  for (; *params != nullptr; ++params) {
    const Value given = {(*params)->key, (*params)->value, (*params)->size, (*params)->type};
    auto known = values.begin();
    while (known != values.end() && known->key != given.key) ++known;
    if (known != values.end()) {
      *known = given;
    } else {
      values.push_back(given);
    }
  }
  std::uint64_t total = 0;
  for (const auto &value : values) total += value.key.size() + 1 + std::uint64_t{value.size};
  if (total > mapping.group_size) return ENOSPC;
  for (const auto &value : values) {
    const EntryHeader header = {static_cast<std::uint16_t>(value.key.size() + 1),
                                static_cast<std::uint16_t>(value.size), value.type};
    const auto append = [&](const void *from, std::size_t size) {
      bytes.insert(bytes.end(), static_cast<const char *>(from), static_cast<const char *>(from) + size);
    };
    append(&header, sizeof header);
    append(value.key.data(), value.key.size());
    bytes.push_back('\0');
    append(value.bytes, value.size);
  }
  return 0;
}

// writers' mutex held. 0, or the error.
int write_values(Mapping &mapping, StatusStoreParam **params) {
  auto &state = mapping.state;
  if (const int error = read_state(mapping, state); error != 0) return error;
  const Word next = *state.sequence + 1;
  const auto result = find_values(mapping, params);
  if (result == Search::damaged) return EBADMSG;
  if (result == Search::found) {
    state.sequence.reset();  // until it is published: a thread that is ended here leaves half a copy
    for (const auto position : mapping.positions) {
      const auto &param = **params++;
      copy_value(state.bytes() + position, param.value, param.size);
    }
  } else {
    std::vector<char> bytes;
    if (const int error = build_state(mapping, params, bytes); error != 0) return error;
    state.sequence.reset();
    state.used_bytes = static_cast<std::uint32_t>(bytes.size());
    if (!bytes.empty()) {
      state.words[words_for(bytes.size()) - 1] = 0;  // what is behind the last byte counts in the checksum
      std::memcpy(state.bytes(), bytes.data(), bytes.size());
    }
  }
  publish(mapping, state, next);
  return 0;
}

int lock_writers(pthread_mutex_t &mutex) {
  int error = pthread_mutex_trylock(&mutex);
  if (error == EBUSY) {
    const auto deadline_ns = now_ns() + lock_patience_ns;
    const timespec deadline = {static_cast<time_t>(deadline_ns / 1'000'000'000),
                               static_cast<long>(deadline_ns % 1'000'000'000)};
    error = pthread_mutex_clocklock(&mutex, CLOCK_MONOTONIC, &deadline);
  }
  switch (error) {
    case EOWNERDEAD:
      pthread_mutex_consistent(&mutex);  // its holder was killed: what it had not published does not count
      return 0;
    case ETIMEDOUT:
      return EBUSY;
    case ENOTRECOVERABLE:
    case EINVAL:
      return EBADMSG;
    default:
      return error;
  }
}

}  // namespace

gint status_store_create_group(const gchar *name, guint32 size, gint) {
  if (!is_name(name)) return fail(EINVAL);
  if (size > max_group_size) return fail(EFBIG);
  const char *directory = runtime_directory();
  const auto path = path_of(directory, name);
  struct stat status = {};
  if (lstat(path.c_str(), &status) == 0) return fail(EEXIST);

  // Without a name until it is whole: whoever is killed here leaves nothing behind.
  constexpr int flags = O_TMPFILE | O_RDWR | O_CLOEXEC;
  ptz::UniqueFd fd(open(directory, flags, file_mode));
  if (!fd && errno == ENOENT && mkdir(directory, directory_mode) == 0) fd.reset(open(directory, flags, file_mode));
  if (!fd) return -1;
  const std::size_t length = file_size(size);
  // A full file system says so now, not with a signal when the memory is written.
  if (const int error = posix_fallocate(fd.get(), 0, static_cast<off_t>(length)); error != 0) return fail(error);
  auto *header = map_file(fd.get(), length, PROT_READ | PROT_WRITE);
  if (header == nullptr) return -1;
  set_up_file(header, size);
  munmap(header, length);
  const auto unnamed = "/proc/self/fd/" + std::to_string(fd.get());
  return linkat(AT_FDCWD, unnamed.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW);
}

gint status_store_set_group(const gchar *name, StatusStoreParam **params, gint) {
  if (!is_name(name) || !are_params(params)) return fail(EINVAL);
  auto *mapping = mapping_of(name, writing);
  if (mapping == nullptr) return -1;
  if (const int error = lock_writers(mapping->header->writers); error != 0) return fail(error);
  const int error = write_values(*mapping, params);
  pthread_mutex_unlock(&mapping->header->writers);
  return error == 0 ? 0 : fail(error);
}

gint status_store_get_group(const gchar *name, StatusStoreParam **params, gint) {
  if (!is_name(name) || !are_params(params)) return fail(EINVAL);
  auto *mapping = mapping_of(name, reading);
  if (mapping == nullptr) return -1;
  // One thread at a time reads into the copy that the mapping keeps; any other, without waiting, into one of its own.
  if (mapping->state_in_use.exchange(true, std::memory_order_acquire)) {
    State own(mapping->group_size);
    const int error = read_state(*mapping, own);
    return error == 0 ? read_values(own, params) : fail(error);
  }
  const int error = read_state(*mapping, mapping->state);
  const int count = error == 0 ? read_values(mapping->state, params) : fail(error);
  mapping->state_in_use.store(false, std::memory_order_release);
  return count;
}
