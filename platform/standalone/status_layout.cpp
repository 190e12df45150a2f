#include "status_layout.h"

#include <cstring>
#include <string>

namespace ptz::platform {

namespace {

struct EntryHeader {
  std::uint32_t type;
  std::uint16_t value_bytes;
  std::uint16_t key_bytes;  // with the NUL
};
static_assert(sizeof(EntryHeader) == entry_header_bytes);

// Sets the fields without the last one.
bool parse_fields(Layout &layout) {
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

}  // namespace

bool parse_directory(Layout &layout) {
  const bool is_whole = parse_fields(layout);
  if (!is_whole) layout.fields.clear();
  layout.fields.emplace_back();
  return is_whole;
}

void build_directory(Layout &layout, std::span<const Field> wanted) {
  std::string directory;
  std::uint32_t value_bytes = 0;
  for (const auto &field : wanted) {
    const EntryHeader header = {field.type, static_cast<std::uint16_t>(field.size),
                                static_cast<std::uint16_t>(field.key.size() + 1)};
    directory.append(reinterpret_cast<const char *>(&header), sizeof header).append(field.key).push_back('\0');
    value_bytes += field.size;
  }
  layout.number = no_layout;
  layout.directory.assign(words_for(directory.size()), 0);
  directory.copy(reinterpret_cast<char *>(layout.directory.data()), directory.size());
  layout.directory_bytes = static_cast<std::uint32_t>(directory.size());
  layout.directory_checksum = copy_words(static_cast<std::uint32_t>(layout.directory.size()),
                                         [&](std::uint32_t i) { return layout.directory[i]; });
  layout.value_bytes = value_bytes;
  static_cast<void>(parse_directory(layout));  // well-formed: it was made here
}

}  // namespace ptz::platform
