// platform/standalone/status_ring.h - the states of a status group: a ring of slots in shared memory.
//
// Each slot holds one complete state of the group: a header, the values, and the directory that names them. The word
// `published` is the sequence of the current state, which is in the slot of this number modulo 8.
//
// Writing. There is one writer at a time; the caller holds the group's lock. publish() fills the slot after the current
// one and then stores the sequence. Until that store no reader looks at the slot, so a writer that is killed at any
// instruction leaves the last complete state. The directory is written only to slots that hold another one.
//
// Reading. A reader takes no lock. It copies the current slot, and the copy is complete unless the writers reached the
// same slot again meanwhile, which takes seven further updates; then it copies again. One spare slot would let a fast
// writer starve the readers.
//
// Memory order. The words of a slot are stored with release and loaded with acquire order. A reader that has loaded a
// word of a later state therefore sees that the sequence has moved on. ThreadSanitizer does not understand stand-alone
// fences, so there are none.
//
// Damage. A writer that lost the lock in the middle of publish() may spoil a slot, or move `published` back. The next
// writer goes on from the newest slot that is whole. It leaves out as many sequences as there are slots, because
// readers may have seen the states that were lost.
//
// Trust. The reader believes nothing in the memory: lengths are checked against the group's size before they are used,
// and a state counts only if its sequence and its checksums match.
#pragma once
#include <cstdint>
#include <memory>
#include <optional>

#include "status_layout.h"
#include "status_words.h"

namespace ptz::platform {

constexpr std::uint32_t max_group_size = 32768;  // key and value lengths have 16 bits
constexpr std::uint64_t slot_count = 8;

struct SlotHeader {
  Word sequence;
  Word checksum;  // of the whole slot without the directory's words
  Word layout;    // the sequence under which the directory was published first; no_layout while it is written
  Word value_bytes;
  Word directory_bytes;
  Word directory_checksum;
  Word unused[2];
};

// A state in this process's memory.
struct State {
  std::unique_ptr<Word[]> words;  // the values
  std::optional<Word> sequence;   // empty if the values are incomplete, or changed and not published
  Word next = 0;                  // the sequence to publish under
  Layout layout;

  explicit State(std::uint32_t group_size) : words(new Word[words_for(group_size) + 1]()) {}
  [[nodiscard]] char *bytes() const { return reinterpret_cast<char *>(words.get()); }
};

// Borrows the shared memory.
class Ring {
  Word *published_ = nullptr;
  Word *slots_ = nullptr;
  std::uint32_t group_size_ = 0;

  static constexpr std::uint32_t header_words = sizeof(SlotHeader) / sizeof(Word);
  // One word more than the bytes need, because values and directory are rounded up separately.
  static constexpr std::uint32_t state_words(std::uint32_t group_size) {
    return words_for(group_size + group_size / min_entry_bytes * entry_header_bytes) + 1;
  }
  static constexpr std::uint32_t slot_words(std::uint32_t group_size) { return header_words + state_words(group_size); }
  [[nodiscard]] Word *slot(Word sequence) const { return slots_ + sequence % slot_count * slot_words(group_size_); }
  [[nodiscard]] bool fits(const SlotHeader &header) const;
  struct Copy;
  void copy_slot(Word sequence, State &state, Copy &copy) const;
  [[nodiscard]] static int accept(Word sequence, State &state, const Copy &copy);
  static int take_layout(const SlotHeader &header, Word checksum, Layout &layout);

 public:
  static constexpr std::size_t slots_bytes(std::uint32_t group_size) {
    return slot_count * slot_words(group_size) * sizeof(Word);
  }

  Ring() = default;
  Ring(Word *published, Word *slots, std::uint32_t group_size)
      : published_(published), slots_(slots), group_size_(group_size) {}
  [[nodiscard]] std::uint32_t group_size() const { return group_size_; }

  // Makes the first state, sequence 0 without values, in memory that is zero.
  void set_up() const;

  // Copies the current state, unless `state` is that state already. Returns 0; EBADMSG if the memory is damaged; EBUSY
  // if the writers were faster 10,000 times.
  [[nodiscard]] int read(State &state) const;

  // The group's lock is held. Copies the current state, or the newest whole one if that is damaged, and sets state.next
  // to the sequence that follows. Returns 0; EBADMSG if no state is whole; EBUSY.
  [[nodiscard]] int read_for_update(State &state) const;

  // The group's lock is held. Fills the slot of the sequence state.next. A layout without a number gets the sequence as
  // its number.
  void fill(const State &state) const;
  // After fill(), if the lock is still held.
  void publish(State &state) const;
};

}  // namespace ptz::platform
