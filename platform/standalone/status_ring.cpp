#include "status_ring.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <functional>

namespace ptz::platform {

namespace {

constexpr std::uint64_t max_directory_bytes = std::uint64_t{max_group_size} * 4;
constexpr int max_read_attempts = 10'000;

// The checksum of a slot, given that of its values.
Word checksum_of(const SlotHeader &header, Word value_checksum) {
  Word sum = value_checksum;
  for (const Word word :
       {header.sequence, header.layout, header.value_bytes, header.directory_bytes, header.directory_checksum}) {
    sum = mix(sum, word);
  }
  return sum;
}

SlotHeader load_header(const SlotHeader &shared) {
  SlotHeader header = {};
  header.sequence = load(shared.sequence);
  header.checksum = load(shared.checksum);
  header.layout = load(shared.layout);
  header.value_bytes = load(shared.value_bytes);
  header.directory_bytes = load(shared.directory_bytes);
  header.directory_checksum = load(shared.directory_checksum);
  return header;
}

}  // namespace

void Ring::set_up() const {
  for (Word i = 1; i < slot_count; ++i) reinterpret_cast<SlotHeader *>(slot(i))->layout = no_layout;
  auto *first = reinterpret_cast<SlotHeader *>(slot(0));
  first->directory_checksum = copy_words(0, [](std::uint32_t) { return Word{0}; });
  first->checksum = checksum_of(*first, first->directory_checksum);
}

bool Ring::fits(const SlotHeader &header) const {
  // no_layout is the number of a layout that was refused: such a state would be read by the refused fields.
  return header.layout != no_layout && header.value_bytes <= group_size_ &&
         header.directory_bytes < max_directory_bytes &&
         words_for(header.value_bytes) + words_for(header.directory_bytes) <= state_words(group_size_);
}

// The directory's words have been copied, and this is their checksum. Returns 0, or EBADMSG.
int Ring::take_layout(const SlotHeader &header, Word checksum, Layout &layout) {
  if (checksum != header.directory_checksum) return EBADMSG;
  layout.directory_bytes = static_cast<std::uint32_t>(header.directory_bytes);
  layout.directory_checksum = checksum;
  layout.value_bytes = static_cast<std::uint32_t>(header.value_bytes);
  if (!parse_directory(layout)) return EBADMSG;
  layout.number = header.layout;
  return 0;
}

// What was copied from a slot besides the values and the directory, which are in the state.
struct Ring::Copy {
  SlotHeader header = {};
  bool is_possible = false, is_new_layout = false;
  Word value_checksum = 0, directory_checksum = 0;
};

inline void Ring::copy_slot(Word sequence, State &state, Copy &copy) const {
  const Word *values = slot(sequence) + header_words;
  copy.header = load_header(*reinterpret_cast<const SlotHeader *>(slot(sequence)));
  copy.is_possible = fits(copy.header);
  copy.is_new_layout = copy.header.layout != state.layout.number;
  state.sequence.reset();
  if (!copy.is_possible) return;
  const auto value_words = words_for(copy.header.value_bytes);
  copy.value_checksum = copy_words(value_words, [&](std::uint32_t i) { return state.words[i] = load(values[i]); });
  if (!copy.is_new_layout) return;
  auto &directory = state.layout.directory;
  const Word *words = values + value_words;
  state.layout.number = no_layout;
  directory.resize(words_for(copy.header.directory_bytes));
  copy.directory_checksum = copy_words(static_cast<std::uint32_t>(directory.size()),
                                       [&](std::uint32_t i) { return directory[i] = load(words[i]); });
}

// Returns 0 if the copy is a complete state, or EBADMSG.
inline int Ring::accept(Word sequence, State &state, const Copy &copy) {
  const auto &header = copy.header;
  if (!copy.is_possible || header.sequence != sequence || header.checksum != checksum_of(header, copy.value_checksum)) {
    return EBADMSG;
  }
  if (copy.is_new_layout) {
    if (const int error = take_layout(header, copy.directory_checksum, state.layout); error != 0) return error;
  } else if (header.value_bytes != state.layout.value_bytes) {
    return EBADMSG;
  }
  state.sequence = sequence;
  return 0;
}

int Ring::read(State &state) const {
  for (int attempt = 0; attempt < max_read_attempts; ++attempt) {
    const Word sequence = load(*published_);
    if (state.sequence == sequence) return 0;
    Copy copy;
    copy_slot(sequence, state, copy);
    // The slot of this state is written to again once seven more are published, not before.
    if (load(*published_) - sequence >= slot_count - 1) continue;
    return accept(sequence, state, copy);
  }
  return EBUSY;
}

int Ring::read_for_update(State &state) const {
  const int error = read(state);
  if (error == 0) state.next = *state.sequence + 1;
  if (error != EBADMSG) return error;
  std::array<Word, slot_count> sequences;
  for (Word i = 0; i < slot_count; ++i) sequences[i] = load(reinterpret_cast<const SlotHeader *>(slot(i))->sequence);
  std::sort(sequences.begin(), sequences.end(), std::greater<>());
  for (const Word sequence : sequences) {
    Copy copy;
    state.layout.number = no_layout;
    copy_slot(sequence, state, copy);
    if (accept(sequence, state, copy) != 0) continue;
    state.layout.number = no_layout;  // the directory may be spoilt in other slots of this layout
    state.next = sequence + slot_count + 1;
    return 0;
  }
  return EBADMSG;
}

void Ring::fill(const State &state) const {
  const Word sequence = state.next;
  const auto &layout = state.layout;
  const Word number = layout.number == no_layout ? sequence : layout.number;
  const auto value_words = words_for(layout.value_bytes);
  Word *values = slot(sequence) + header_words;
  auto *shared = reinterpret_cast<SlotHeader *>(slot(sequence));
  // A writer that was killed may have left another directory under the number that is new.
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
}

void Ring::publish(State &state) const {
  store(*published_, state.next);
  if (state.layout.number == no_layout) state.layout.number = state.next;
  state.sequence = state.next;
}

}  // namespace ptz::platform
