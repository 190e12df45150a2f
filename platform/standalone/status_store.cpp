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
#include <vector>

#include "base/clock.h"
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
constexpr std::uint64_t max_directory_bytes = max_group_size * 4;
constexpr int max_read_attempts = 10'000;
constexpr long lock_patience_ns = 100'000'000;
constexpr clockid_t look_clock = CLOCK_MONOTONIC_COARSE;  // takes a third of the time, and is up to 10 ms late
constexpr std::int64_t look_interval_ns = 990'000'000;    // so that a second is kept all the same

using Word = std::uint64_t;
static_assert(std::atomic_ref<Word>::is_always_lock_free, "a reader may not take locks that it shares with writers");

constexpr std::uint32_t words_for(std::size_t bytes) {
  return static_cast<std::uint32_t>((bytes + sizeof(Word) - 1) / sizeof(Word));
}

// A state in a slot: the values, one behind the other, and then, from the next word on, the directory that says what
// they are. The directory is written to a slot only where it holds another one.
struct SlotHeader {
  Word sequence;
  Word checksum;  // of all that is in the slot but the directory's words
  Word layout;    // the sequence under which the directory was published first; none while it is written
  Word value_bytes;
  Word directory_bytes;
  Word directory_checksum;
  Word unused[2];
};
constexpr std::uint32_t slot_header_words = sizeof(SlotHeader) / sizeof(Word);
constexpr Word no_layout = ~Word{0};

// What stands before each key in a directory.
struct EntryHeader {
  std::uint32_t type;
  std::uint16_t value_bytes;
  std::uint16_t key_bytes;  // with the NUL
};
constexpr std::size_t min_entry_bytes = 3;  // a key of one character, its NUL, one byte of value

// One word more than the bytes need, since values and directory are rounded up separately.
constexpr std::uint32_t state_words(std::uint32_t group_size) {
  return words_for(group_size + group_size / min_entry_bytes * sizeof(EntryHeader)) + 1;
}
constexpr std::uint32_t slot_words(std::uint32_t group_size) { return slot_header_words + state_words(group_size); }

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

Word mix(Word sum, Word word) {
  constexpr Word odd = 0x9E3779B97F4A7C15;
  return (sum ^ word) * odd;
}

// Copies words and returns their checksum. Four sums side by side, since each step of one waits for the step before.
template <typename Copy>
Word copy_words(std::uint32_t count, Copy copy) {
  Word sums[4] = {count, 1, 2, 3};
  std::uint32_t i = 0;
  for (; i + 4 <= count; i += 4) {
    for (std::uint32_t lane = 0; lane < 4; ++lane) sums[lane] = std::rotl(sums[lane], 7) ^ copy(i + lane);
  }
  for (; i < count; ++i) sums[i % 4] = std::rotl(sums[i % 4], 7) ^ copy(i);
  Word all = 0;
  for (const Word sum : sums) all = mix(all, sum);
  return all;
}

// The checksum of a slot, given that of its values.
Word checksum_of(const SlotHeader &header, Word value_checksum) {
  Word sum = value_checksum;
  for (const Word word :
       {header.sequence, header.layout, header.value_bytes, header.directory_bytes, header.directory_checksum}) {
    sum = mix(sum, word);
  }
  return sum;
}

struct Field {
  std::string_view key;  // ended by a NUL
  std::uint32_t type;
  std::uint32_t offset;
  std::uint32_t size;
};

// A directory that is whole, in this process.
struct Layout {
  Word number = no_layout;
  std::vector<Word> directory;  // the keys in the fields point into it
  std::uint32_t directory_bytes = 0;
  Word directory_checksum = 0;
  std::uint32_t value_bytes = 0;
  std::vector<Field> fields;
};

// A state in this process.
struct State {
  std::unique_ptr<Word[]> words;  // the values
  std::optional<Word> sequence;   // none where the values are not whole
  Layout layout;

  explicit State(std::uint32_t group_size) : words(new Word[words_for(group_size) + 1]()) {}
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

std::int64_t now_ns(clockid_t clock) {
  const timespec now = ptz::clock_now(clock);
  return now.tv_sec * std::int64_t{1'000'000'000} + now.tv_nsec;
}

const char *runtime_directory() {
  const char *directory = getenv(directory_variable);
  return directory != nullptr && *directory != '\0' ? directory : default_directory;
}

std::string path_of(std::string_view directory, std::string_view name) {
  return std::string(directory).append("/").append(name).append(file_suffix);
}

bool is_name(std::string_view name) {
  return !name.empty() && name.size() <= max_name_length && name.front() != '.' && name.find('/') == name.npos;
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
bool is_our_mutex([[maybe_unused]] const pthread_mutex_t &mutex) {
#ifdef __GLIBC__
  pthread_mutex_t ours;
  set_up_mutex(ours);
  return mutex.__data.__kind == ours.__data.__kind;
#else
  return true;
#endif
}

// A full file system says so now, not with a signal when the memory is written. 0, or the error.
int allocate(int fd, std::size_t size) {
  int error = 0;
  do {
    error = posix_fallocate(fd, 0, static_cast<off_t>(size));
  } while (error == EINTR);
  return error;
}

FileHeader *map_file(int fd, std::size_t size, int protection) {
  void *memory = mmap(nullptr, size, protection, MAP_SHARED | MAP_POPULATE, fd, 0);
  return memory == MAP_FAILED ? nullptr : static_cast<FileHeader *>(memory);
}

// The first state is that of sequence 0, without values. A new file's bytes are zero.
void set_up_file(FileHeader *header, std::uint32_t group_size) {
  header->identity = identity_of(group_size);
  set_up_mutex(header->writers);
  auto *words = reinterpret_cast<Word *>(header + 1);
  for (Word i = 1; i < slot_count; ++i) {
    reinterpret_cast<SlotHeader *>(words + i * slot_words(group_size))->layout = no_layout;
  }
  auto *first = reinterpret_cast<SlotHeader *>(words);
  first->directory_checksum = copy_words(0, [](std::uint32_t) { return Word{0}; });
  first->checksum = checksum_of(*first, first->directory_checksum);
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
  mapping->looked_at_ns = now_ns(look_clock);
  return mapping;
}

// --- groups -----------------------------------------------------------------------------------------------------

// Names differ in their lengths and last characters.
std::atomic<Group *> &bucket_of(std::string_view name) {
  const std::size_t hash = name.empty() ? 0 : name.size() * 5 + static_cast<unsigned char>(name.back());
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
  if (!is_name(name)) {
    errno = EINVAL;
    return nullptr;
  }
  const auto path = path_of(directory, name);
  auto *known = group != nullptr ? group->mappings[access].load(std::memory_order_acquire) : nullptr;
  if (known != nullptr) {
    const auto now = now_ns(look_clock);
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
  if (mapping == nullptr ||
      now_ns(look_clock) - mapping->looked_at_ns.load(std::memory_order_relaxed) >= look_interval_ns) {
    return look_up(group, directory, name, access);
  }
  return mapping;
}

// --- states -----------------------------------------------------------------------------------------------------

// Reads a directory that has its checksum; false for one that makes no sense all the same.
bool read_directory(Layout &layout) {
  const char *const bytes = reinterpret_cast<const char *>(layout.directory.data());
  layout.fields.clear();
  std::uint32_t offset = 0;
  for (std::uint32_t position = 0; position < layout.directory_bytes;) {
    EntryHeader header;
    if (layout.directory_bytes - position < sizeof header) return false;
    std::memcpy(&header, bytes + position, sizeof header);
    position += sizeof header;
    if (header.key_bytes < 2 || header.value_bytes == 0 || layout.directory_bytes - position < header.key_bytes) {
      return false;
    }
    const char *key = bytes + position;
    if (strnlen(key, header.key_bytes) + 1 != header.key_bytes) return false;
    layout.fields.push_back({{key, header.key_bytes - std::size_t{1}}, header.type, offset, header.value_bytes});
    offset += header.value_bytes;
    position += header.key_bytes;
  }
  return offset == layout.value_bytes;
}

// Copies what is published now; 0, or the error.
int read_state(const Mapping &mapping, State &state) {
  for (int attempt = 0; attempt < max_read_attempts; ++attempt) {
    const Word sequence = load(mapping.header->published);
    if (state.sequence == sequence) return 0;
    const Word *slot = mapping.slot(sequence);
    const auto *shared = reinterpret_cast<const SlotHeader *>(slot);
    const Word *values = slot + slot_header_words;
    SlotHeader header = {};
    header.sequence = load(shared->sequence);
    header.checksum = load(shared->checksum);
    header.layout = load(shared->layout);
    header.value_bytes = load(shared->value_bytes);
    header.directory_bytes = load(shared->directory_bytes);
    header.directory_checksum = load(shared->directory_checksum);

    // Nothing of this is believed until the sequence and the checksums say that it is a whole state.
    const bool fits =
        header.value_bytes <= mapping.group_size && header.directory_bytes < max_directory_bytes &&
        words_for(header.value_bytes) + words_for(header.directory_bytes) <= state_words(mapping.group_size);
    const bool is_new_layout = header.layout != state.layout.number;
    Word value_checksum = 0, directory_checksum = header.directory_checksum;
    state.sequence.reset();
    if (fits) {
      const auto value_words = words_for(header.value_bytes);
      value_checksum = copy_words(value_words, [&](std::uint32_t i) { return state.words[i] = load(values[i]); });
      if (is_new_layout) {
        auto &directory = state.layout.directory;
        const Word *words = values + value_words;
        state.layout.number = no_layout;
        directory.resize(words_for(header.directory_bytes));
        directory_checksum = copy_words(static_cast<std::uint32_t>(directory.size()),
                                        [&](std::uint32_t i) { return directory[i] = load(words[i]); });
      }
    }
    // The slot of this state is written to again once seven more are published, not before.
    if (load(mapping.header->published) - sequence >= slot_count - 1) continue;
    if (!fits || header.sequence != sequence || header.checksum != checksum_of(header, value_checksum)) return EBADMSG;
    if (is_new_layout) {
      auto &layout = state.layout;
      if (directory_checksum != header.directory_checksum) return EBADMSG;
      layout.directory_bytes = static_cast<std::uint32_t>(header.directory_bytes);
      layout.directory_checksum = directory_checksum;
      layout.value_bytes = static_cast<std::uint32_t>(header.value_bytes);
      if (!read_directory(layout)) return EBADMSG;
      layout.number = header.layout;
    }
    state.sequence = sequence;
    return 0;
  }
  return EBUSY;
}

// writers' mutex held. A layout that nobody has a number for yet gets that of the state.
void publish(const Mapping &mapping, State &state, Word sequence) {
  auto &layout = state.layout;
  const Word number = layout.number == no_layout ? sequence : layout.number;
  const auto value_words = words_for(layout.value_bytes);
  Word *slot = mapping.slot(sequence);
  Word *values = slot + slot_header_words;
  auto *shared = reinterpret_cast<SlotHeader *>(slot);
  // A writer that died may have left another directory under the number that is new.
  if (load(shared->layout) != number || number == sequence) {
    store(shared->layout, no_layout);
    for (std::size_t i = 0; i < layout.directory.size(); ++i) store(values[value_words + i], layout.directory[i]);
    store(shared->value_bytes, layout.value_bytes);
    store(shared->directory_bytes, layout.directory_bytes);
    store(shared->directory_checksum, layout.directory_checksum);
    store(shared->layout, number);
  }
  const SlotHeader header = {.sequence = sequence,
                             .checksum = 0,
                             .layout = number,
                             .value_bytes = layout.value_bytes,
                             .directory_bytes = layout.directory_bytes,
                             .directory_checksum = layout.directory_checksum,
                             .unused = {}};
  store(shared->sequence, sequence);
  const Word value_checksum = copy_words(value_words, [&](std::uint32_t i) {
    store(values[i], state.words[i]);
    return state.words[i];
  });
  store(shared->checksum, checksum_of(header, value_checksum));
  store(mapping.header->published, sequence);
  layout.number = number;
  state.sequence = sequence;
}

// Callers ask for keys in the order in which they are stored, mostly: each search begins behind the one before.
class FieldSearch {
  const Field *const begin_, *const end_;
  const Field *next_;

  [[gnu::noinline]] const Field *search(const gchar *key) {
    for (auto left = end_ - begin_; left > 0; --left) {
      if (next_ == end_) next_ = begin_;
      const Field *field = next_++;
      if (std::strcmp(field->key.data(), key) == 0) return field;
    }
    return nullptr;
  }

 public:
  explicit FieldSearch(const std::vector<Field> &fields)
      : begin_(fields.data()), end_(begin_ + fields.size()), next_(begin_) {}
  const Field *find(const gchar *key) {
    if (next_ != end_ && std::strcmp(next_->key.data(), key) == 0) return next_++;
    return search(key);
  }
};

bool is_param(const StatusStoreParam &param) {
  return param.key != nullptr && *param.key != '\0' && param.size != 0 && param.value != nullptr;
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
  FieldSearch search(state.layout.fields);
  int count = 0;
  for (; *params != nullptr; ++params) {
    const auto &param = **params;
    if (!is_param(param)) return fail(EINVAL);
    const auto *field = search.find(param.key);
    if (field == nullptr || field->size != param.size || field->type != param.type) continue;
    copy_value(param.value, state.bytes() + field->offset, param.size);
    ++count;
  }
  return count;
}

// writers' mutex held. A state with the given values, some of them new or of another size or type; 0, or the error.
int change_layout(const Mapping &mapping, State &state, StatusStoreParam *const *params) {
  struct Value {
    std::string_view key;
    const void *bytes;
    std::uint32_t type;
    std::uint32_t size;
  };
  std::vector<Value> all;
  for (const auto &field : state.layout.fields) {
    all.push_back({field.key, state.bytes() + field.offset, field.type, field.size});
  }
  for (; *params != nullptr; ++params) {
    const Value given = {(*params)->key, (*params)->value, (*params)->type, (*params)->size};
    auto known = all.begin();
    while (known != all.end() && known->key != given.key) ++known;
    if (known != all.end()) {
      *known = given;
    } else {
      all.push_back(given);
    }
  }
  std::uint64_t total = 0;
  for (const auto &value : all) total += value.key.size() + 1 + std::uint64_t{value.size};
  if (total > mapping.group_size) return ENOSPC;

  std::string directory, values;
  for (const auto &value : all) {
    const EntryHeader header = {value.type, static_cast<std::uint16_t>(value.size),
                                static_cast<std::uint16_t>(value.key.size() + 1)};
    directory.append(reinterpret_cast<const char *>(&header), sizeof header).append(value.key).push_back('\0');
    values.append(static_cast<const char *>(value.bytes), value.size);
  }
  state.sequence.reset();
  auto &layout = state.layout;
  layout.number = no_layout;
  layout.directory.assign(words_for(directory.size()), 0);
  directory.copy(reinterpret_cast<char *>(layout.directory.data()), directory.size());
  layout.directory_bytes = static_cast<std::uint32_t>(directory.size());
  layout.directory_checksum = copy_words(static_cast<std::uint32_t>(layout.directory.size()),
                                         [&](std::uint32_t i) { return layout.directory[i]; });
  layout.value_bytes = static_cast<std::uint32_t>(values.size());
  values.copy(state.bytes(), values.size());
  read_directory(layout);
  return 0;
}

// writers' mutex held. Writes values that the state has room for into it; EAGAIN for others, or another error.
int write_in_place(State &state, StatusStoreParam *const *params) {
  FieldSearch search(state.layout.fields);
  for (; *params != nullptr; ++params) {
    const auto &param = **params;
    if (!is_param(param)) return EINVAL;
    const auto *field = search.find(param.key);
    if (field == nullptr || field->size != param.size || field->type != param.type) return EAGAIN;
    copy_value(state.bytes() + field->offset, param.value, param.size);
  }
  return 0;
}

// writers' mutex held. 0, or the error.
int write_values(Mapping &mapping, StatusStoreParam *const *params) {
  auto &state = mapping.state;
  if (const int error = read_state(mapping, state); error != 0) return error;
  const Word next = *state.sequence + 1;
  state.sequence.reset();  // until it is published: what ends here leaves half a state, to be read again
  int error = write_in_place(state, params);
  if (error == EAGAIN) {
    for (auto *const *given = params; *given != nullptr; ++given) {
      if (!is_param(**given)) return EINVAL;
    }
    error = read_state(mapping, state);
    if (error == 0) error = change_layout(mapping, state, params);
  }
  if (error != 0) return error;
  publish(mapping, state, next);
  return 0;
}

int lock_writers(pthread_mutex_t &mutex) {
  int error = pthread_mutex_trylock(&mutex);
  if (error == EBUSY) {
    const auto deadline_ns = now_ns(CLOCK_MONOTONIC) + lock_patience_ns;
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
  if (name == nullptr || !is_name(name)) return fail(EINVAL);
  if (size > max_group_size) return fail(EFBIG);
  const char *directory = runtime_directory();
  const auto path = path_of(directory, name);
  struct stat status = {};
  if (lstat(path.c_str(), &status) == 0) return fail(EEXIST);

  // Without a name until it is whole: whoever is killed here leaves nothing behind.
  constexpr int flags = O_TMPFILE | O_RDWR | O_CLOEXEC;
  ptz::UniqueFd fd(open(directory, flags, file_mode));
  if (!fd && errno == ENOENT && (mkdir(directory, directory_mode) == 0 || errno == EEXIST)) {
    fd.reset(open(directory, flags, file_mode));
  }
  if (!fd) return -1;
  const std::size_t length = file_size(size);
  if (const int error = allocate(fd.get(), length); error != 0) return fail(error);
  auto *header = map_file(fd.get(), length, PROT_READ | PROT_WRITE);
  if (header == nullptr) return -1;
  set_up_file(header, size);
  munmap(header, length);
  const auto unnamed = "/proc/self/fd/" + std::to_string(fd.get());
  return linkat(AT_FDCWD, unnamed.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW);
}

gint status_store_set_group(const gchar *name, StatusStoreParam **params, gint) {
  if (name == nullptr || params == nullptr) return fail(EINVAL);
  auto *mapping = mapping_of(name, writing);
  if (mapping == nullptr) return -1;
  if (const int error = lock_writers(mapping->header->writers); error != 0) return fail(error);
  const int error = write_values(*mapping, params);
  pthread_mutex_unlock(&mapping->header->writers);
  return error == 0 ? 0 : fail(error);
}

gint status_store_get_group(const gchar *name, StatusStoreParam **params, gint) {
  if (name == nullptr || params == nullptr) return fail(EINVAL);
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
