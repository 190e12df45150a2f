// Files of the status store that are not as they should be.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "clock.h"
#include "shared_group.h"

namespace {

using namespace ptz_test;

struct StatusStoreDamage : StoreTest {
  int copies = 0;
  std::string whole;

  StatusStoreDamage() {
    create("G", 64);
    set("G", {item("A", 1), item("B", 2)});
    set("G", {item("A", 3), item("B", 4)});
    whole = content_of(path("G"));
  }
  // The store's answers about a file with this content.
  void expect_refused(const std::string &content) {
    const auto name = "copy" + std::to_string(copies++);
    write_content(path(name), content);
    Items items = {item("A", -1), item("B", -1)};
    EXPECT_EQ(get(name, items), -EBADMSG);
    EXPECT_EQ(items, (Items{item("A", -1), item("B", -1)}));
    EXPECT_EQ(set(name, items), -EBADMSG);
    EXPECT_EQ(content_of(path(name)), content);
  }
};

TEST_F(StatusStoreDamage, SetOfACopyLeavesTheOriginal) {
  write_content(path("C"), whole);
  EXPECT_EQ(set("C", {item("A", 5)}), 0);
  EXPECT_EQ(number("C", "A"), 5);
  EXPECT_EQ(number("C", "B"), 4);
  EXPECT_EQ(number("G", "A"), 3);
}

TEST_F(StatusStoreDamage, GetAndSetOfAFileOfAnotherSizeFailWithEbadmsg) {
  expect_refused("");
  expect_refused(whole.substr(0, 1));
  expect_refused(whole.substr(0, whole.size() / 2));
  expect_refused(whole.substr(0, whole.size() - 1));
  expect_refused(whole + '\0');
  expect_refused(whole + std::string(1'000'000, '\0'));
}

TEST_F(StatusStoreDamage, GetAndSetOfAForeignFileFailWithEbadmsg) {
  expect_refused("[Group]\nKey=Value\n");
  expect_refused(std::string(whole.size(), '\0'));
  expect_refused(std::string(whole.size(), 'x'));
  create("Larger", 128);
  expect_refused(content_of(path("Larger")).substr(0, whole.size()));
}

TEST_F(StatusStoreDamage, GetAndSetOfWhatIsNoRegularFileFailWithEbadmsg) {
  Items items = {item("A", -1)};
  ASSERT_EQ(mkdir(path("folder").c_str(), 0700), 0);
  ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
  ASSERT_EQ(symlink(path("G").c_str(), path("link").c_str()), 0);
  ASSERT_EQ(symlink("/nowhere", path("nowhere").c_str()), 0);
  for (const std::string name : {"folder", "pipe", "link", "nowhere"}) {
    EXPECT_EQ(get(name, items), -EBADMSG) << name;
    EXPECT_EQ(set(name, items), -EBADMSG) << name;
    EXPECT_EQ(create(name), -EEXIST) << name;
  }
}

// A flipped bit leads to an error or to the values that were set, but to no others, and no writer crashes.
TEST_F(StatusStoreDamage, GetOfAFlippedBitFailsOrReturnsTheWholeStateAndSetHealsIt) {
  constexpr std::size_t identity_bytes = 24;
  int refused = 0;
  for (std::size_t i = 0; i < whole.size(); ++i) {
    auto content = whole;
    content[i] = static_cast<char>(content[i] ^ (1 << i % 8));
    const auto name = "copy" + std::to_string(copies++);
    write_content(path(name), content);
    Items items = {item("A", -1), item("B", -1)};
    const int result = get(name, items);
    if (result == 2) {
      EXPECT_EQ(items, (Items{item("A", 3), item("B", 4)})) << i;
    } else {
      EXPECT_EQ(result, -EBADMSG) << i;
      ++refused;
    }
    const int written = set(name, {item("A", 7)});
    EXPECT_EQ(written, i < identity_bytes ? -EBADMSG : 0) << i;  // a damaged state is left for the one before
    EXPECT_EQ(number(name, "A"), written == 0 ? 7 : -EBADMSG) << i;
    unlink(path(name).c_str());
  }
  EXPECT_GT(refused, 24 + 8 + 6 * 8 + 8 + 20) << "the identity, the sequence, the slot's header, its values, its keys";
}

TEST_F(StatusStoreDamage, GetAndSetOfAShortenedFileFailWithEbadmsgFromTheNextLookOn) {
  EXPECT_EQ(number("G", "A"), 3);
  ASSERT_EQ(truncate(path("G").c_str(), 100), 0);
  advance_clock(1000);
  Items items = {item("A", 1)};
  EXPECT_EQ(get("G", items), -EBADMSG);
  EXPECT_EQ(set("G", items), -EBADMSG);
  EXPECT_EQ(get("G", items), -EBADMSG) << "and stays so";
}

}  // namespace
