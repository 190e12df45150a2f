// The ring of states on a plain buffer, without files and processes.
#include "status_ring.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace ptz::platform;

constexpr std::uint32_t group_size = 64;

struct StatusRing : testing::Test {
  Word published = 0;
  std::vector<Word> slots = std::vector<Word>(Ring::slots_bytes(group_size) / sizeof(Word));
  Ring ring{&published, slots.data(), group_size};
  State writer{group_size}, reader{group_size};

  StatusRing() {
    ring.set_up();
    EXPECT_EQ(ring.read(writer), 0);
  }

  void lay_out(const std::vector<Field> &fields) { build_directory(writer.layout, fields); }
  // Publishes a state in which each byte of the values is the given one.
  void publish(char byte) {
    std::memset(writer.bytes(), byte, writer.layout.value_bytes);
    writer.next = *writer.sequence + 1;
    ring.fill(writer);
    ring.publish(writer);
  }
  [[nodiscard]] static std::string values_of(const State &state) { return {state.bytes(), state.layout.value_bytes}; }
};

const std::vector<Field> two_fields = {{"A", 1, 0, 4}, {"B", 2, 0, 5}};

TEST_F(StatusRing, ReadOfANewRingReturnsSequenceZeroWithoutFields) {
  EXPECT_EQ(ring.read(reader), 0);
  EXPECT_EQ(reader.sequence, Word{0});
  EXPECT_TRUE(reader.layout.all().empty());
}

TEST_F(StatusRing, ReadReturnsThePublishedFieldsAndValues) {
  lay_out(two_fields);
  publish('x');
  EXPECT_EQ(ring.read(reader), 0);
  EXPECT_EQ(reader.sequence, Word{1});
  ASSERT_EQ(reader.layout.all().size(), 2U);
  EXPECT_EQ(reader.layout.fields[1].key, "B");
  EXPECT_EQ(reader.layout.fields[1].type, 2U);
  EXPECT_EQ(reader.layout.fields[1].offset, 4U);
  EXPECT_EQ(reader.layout.fields[1].size, 5U);
  EXPECT_EQ(values_of(reader), "xxxxxxxxx");
}

TEST_F(StatusRing, EachOfManyStatesIsReadBack) {
  lay_out(two_fields);
  for (char byte = 'a'; byte <= 'z'; ++byte) {
    publish(byte);
    ASSERT_EQ(ring.read(reader), 0);
    ASSERT_EQ(values_of(reader), std::string(9, byte));
  }
}

TEST_F(StatusRing, ReadAfterAChangeOfTheLayoutReturnsTheNewFields) {
  lay_out(two_fields);
  publish('x');
  EXPECT_EQ(ring.read(reader), 0);
  lay_out({{"LONGER", 3, 0, 1}});
  publish('y');
  EXPECT_EQ(ring.read(reader), 0);
  ASSERT_EQ(reader.layout.all().size(), 1U);
  EXPECT_EQ(reader.layout.fields[0].key, "LONGER");
  EXPECT_EQ(values_of(reader), "y");
}

TEST_F(StatusRing, BytesBehindThePublishedSlotDoNotMatter) {
  lay_out(two_fields);
  publish('x');
  // All slots but number 1: what a killed writer may have left.
  const std::size_t slot_words = slots.size() / slot_count;
  for (std::size_t i = 0; i < slots.size(); ++i) {
    if (i / slot_words != 1) slots[i] = 0xDEADBEEFDEADBEEF;
  }
  EXPECT_EQ(ring.read(reader), 0);
  EXPECT_EQ(values_of(reader), "xxxxxxxxx");
  for (char byte = 'a'; byte <= 'p'; ++byte) {
    publish(byte);
    State fresh(group_size);
    ASSERT_EQ(ring.read(fresh), 0);
    ASSERT_EQ(values_of(fresh), std::string(9, byte));
  }
}

TEST_F(StatusRing, ReadOfADamagedSlotFailsWithEbadmsg) {
  lay_out(two_fields);
  publish('x');
  const std::size_t slot_words = slots.size() / slot_count;
  int refused = 0;
  for (std::size_t i = 0; i < slot_words * 64; ++i) {
    Word &word = slots[slot_words + i / 64];
    word ^= Word{1} << i % 64;
    State fresh(group_size);
    const int error = ring.read(fresh);
    if (error == 0) {
      EXPECT_EQ(values_of(fresh), "xxxxxxxxx") << i;
    } else {
      EXPECT_EQ(error, EBADMSG) << i;
      ++refused;
    }
    word ^= Word{1} << i % 64;
  }
  EXPECT_EQ(refused, (6 + 2 + 3) * 64) << "the header, the values, the directory";
}

TEST_F(StatusRing, ReadOfASequenceThatWasNeverPublishedFailsWithEbadmsg) {
  lay_out(two_fields);
  publish('x');
  for (const Word sequence : {Word{2}, Word{9}, ~Word{0}}) {
    published = sequence;
    EXPECT_EQ(ring.read(reader), EBADMSG) << sequence;
  }
}

// Offsets of a refused directory would lead far behind the values.
TEST_F(StatusRing, ReadOfAMalformedDirectoryFailsWithEbadmsgAndLeavesNoFields) {
  lay_out({{"X", 1, 0, 60'000}, {"A", 1, 0, 8}});
  writer.layout.value_bytes = 8;
  writer.next = 1;
  ring.fill(writer);
  ring.publish(writer);
  EXPECT_EQ(ring.read(reader), EBADMSG);
  EXPECT_TRUE(reader.layout.all().empty());
}

// The number of the refused layout is that of no layout, so the state would count as one of a known layout.
TEST_F(StatusRing, ReadOfAStateWithoutALayoutFailsWithEbadmsg) {
  const SlotHeader header = {.sequence = 1,
                             .checksum = 0,
                             .layout = no_layout,
                             .value_bytes = 0,
                             .directory_bytes = 0,
                             .directory_checksum = 0,
                             .unused = {}};
  Word checksum = copy_words(0, [](std::uint32_t) { return Word{0}; });
  for (const Word word :
       {header.sequence, header.layout, header.value_bytes, header.directory_bytes, header.directory_checksum}) {
    checksum = mix(checksum, word);
  }
  auto *shared = reinterpret_cast<SlotHeader *>(slots.data() + slots.size() / slot_count);
  *shared = header;
  shared->checksum = checksum;
  published = 1;
  EXPECT_EQ(ring.read(reader), EBADMSG);
}

TEST_F(StatusRing, ReadForUpdateOfADamagedStateReturnsTheNewestWholeState) {
  lay_out(two_fields);
  for (char byte = 'a'; byte <= 'm'; ++byte) publish(byte);  // the sequence of 'm' is 13
  EXPECT_EQ(ring.read(reader), 0);
  const std::size_t slot_words = slots.size() / slot_count;
  slots[13 % slot_count * slot_words + sizeof(SlotHeader) / sizeof(Word)] ^= 1;
  for (const Word sequence : {Word{13}, Word{5}, Word{100}}) {
    published = sequence;
    State late(group_size);
    EXPECT_EQ(ring.read(late), EBADMSG);
    ASSERT_EQ(ring.read_for_update(late), 0);
    EXPECT_EQ(values_of(late), std::string(9, 'l'));
    EXPECT_GT(late.next, Word{13}) << "a reader may have seen it";
    if (sequence != 100) continue;
    ring.fill(late);
    ring.publish(late);
  }
  EXPECT_EQ(ring.read(reader), 0);
  EXPECT_EQ(values_of(reader), std::string(9, 'l'));
}

TEST_F(StatusRing, ReadForUpdateWithoutAWholeStateFailsWithEbadmsg) {
  slots.assign(slots.size(), 0xDEADBEEFDEADBEEF);
  EXPECT_EQ(ring.read_for_update(writer), 0) << "it has the current state";
  EXPECT_EQ(ring.read_for_update(reader), EBADMSG);
}

TEST_F(StatusRing, ReadersBesideAFastWriterGetWholeStates) {
  lay_out({{"A", 1, 0, 40}});
  publish('a');
  std::atomic<bool> is_over = false;
  std::atomic<int> torn = 0, failed = 0;
  std::vector<std::thread> readers;
  for (int i = 0; i < 2; ++i) {
    readers.emplace_back([&] {
      State state(group_size);
      while (!is_over) {
        if (ring.read(state) != 0) ++failed;
        const auto values = values_of(state);
        if (values != std::string(40, values[0])) ++torn;
      }
    });
  }
  for (int i = 0; i < 20'000; ++i) publish(static_cast<char>('a' + i % 26));
  is_over = true;
  for (auto &reading : readers) reading.join();
  EXPECT_EQ(failed, 0);
  EXPECT_EQ(torn, 0);
}

}  // namespace
