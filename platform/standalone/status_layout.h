// platform/standalone/status_layout.h - the layout of a status group: its keys, and the offset, size and type of each
// value.
//
// A directory is the layout's form in shared memory. For each field it holds an entry header and the key with its NUL.
#pragma once
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "status_words.h"

namespace ptz::platform {

constexpr Word no_layout = ~Word{0};
constexpr std::size_t entry_header_bytes = 8;
constexpr std::size_t min_entry_bytes = 3;  // a key of one character, its NUL, one byte of value

// The address of no caller's key.
inline constexpr char no_address[] = "";

struct Field {
  std::string_view key;  // ended by a NUL
  std::uint32_t type = 0;
  std::uint32_t offset = 0;
  std::uint32_t size = 0;
  int attempts = 0;                  // to find an address to remember
  const char *address = no_address;  // of a caller's constant text that equals the key
};

// A complete directory in this process's memory.
struct Layout {
  Word number = no_layout;
  std::vector<Word> directory;  // the keys in the fields point into it
  std::uint32_t directory_bytes = 0;
  Word directory_checksum = 0;
  std::uint32_t value_bytes = 0;
  std::vector<Field> fields = {{}};  // the last one ends them: it has no key and no address

  [[nodiscard]] std::span<Field> all() { return {fields.data(), fields.size() - 1}; }
};

// Sets the fields from the directory. Returns false, without fields, if the directory is malformed.
[[nodiscard]] bool parse_directory(Layout &layout);

// Sets the directory, its checksum and the fields from the wanted keys, types and sizes. The layout has no number yet.
// The wanted keys may point into the layout's old directory.
void build_directory(Layout &layout, std::span<const Field> wanted);

}  // namespace ptz::platform
