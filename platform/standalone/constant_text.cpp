#include "constant_text.h"

#include <dlfcn.h>
#include <link.h>
#include <sys/auxv.h>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace ptz::platform {

#ifdef DLFO_STRUCT_HAS_EH_DBASE  // the C library has _dl_find_object()

namespace {

// The main program, and an object that is linked with -z nodelete. A library on which the main program depends stays as
// well, but the loader does not tell it from one that dlopen() has loaded.
bool is_permanent(const dl_find_object &object) {
  const auto begin = reinterpret_cast<std::uintptr_t>(object.dlfo_map_start);
  const auto end = reinterpret_cast<std::uintptr_t>(object.dlfo_map_end);
  const std::uintptr_t main_program = getauxval(AT_PHDR);
  if (begin <= main_program && main_program < end) return true;
  const auto *entry = object.dlfo_link_map->l_ld;
  while (entry != nullptr && entry->d_tag != DT_NULL) {
    if (entry->d_tag == DT_FLAGS_1) return (entry->d_un.d_val & DF_1_NODELETE) != 0;
    ++entry;
  }
  return false;
}

}  // namespace

bool is_constant_text(const char *text) {
  constexpr std::size_t min_page_bytes = 4096;
  dl_find_object object = {};
  if (_dl_find_object(const_cast<char *>(text), &object) != 0 || !is_permanent(object)) return false;
  const auto *begin = static_cast<const char *>(object.dlfo_map_start);
  ElfW(Ehdr) header;
  std::memcpy(&header, begin, sizeof header);
  if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0) return false;
  const std::size_t end = header.e_phoff + std::size_t{header.e_phnum} * header.e_phentsize;
  if (header.e_phentsize != sizeof(ElfW(Phdr)) || end > min_page_bytes) return false;
  const auto address = reinterpret_cast<std::uintptr_t>(text);
  for (int i = 0; i < header.e_phnum; ++i) {
    ElfW(Phdr) segment;
    std::memcpy(&segment, begin + header.e_phoff + i * sizeof segment, sizeof segment);
    const std::uintptr_t segment_begin = object.dlfo_link_map->l_addr + segment.p_vaddr;
    if (segment.p_type != PT_LOAD || address < segment_begin || address - segment_begin >= segment.p_filesz) continue;
    return (segment.p_flags & PF_W) == 0;
  }
  return false;
}

#else

bool is_constant_text(const char *) { return false; }

#endif

}  // namespace ptz::platform
