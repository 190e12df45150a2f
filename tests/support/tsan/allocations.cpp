// Which allocations are GLib's own.
//
// The sanitizer takes an allocation and a release for writes of the whole block. What GLib allocates for itself in one
// thread and releases in another, such as a source, is handed over under its internal locks, which the sanitizer does
// not see: here these writes are ignored. Blocks that our code releases through GLib are still checked.
#include <link.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "announce.h"

extern "C" {
// Of the sanitizer's runtime.
void *__interceptor_malloc(size_t size);
void *__interceptor_calloc(size_t count, size_t size);
void *__interceptor_realloc(void *block, size_t size);
void __interceptor_free(void *block);
void AnnotateIgnoreWritesBegin(const char *file, int line);
void AnnotateIgnoreWritesEnd(const char *file, int line);
}

// Of the library beside this file, which the linker would leave out of a program that calls none of its functions.
extern "C" const char tsan_glib_is_linked;
__attribute__((used)) static const char *const linked = &tsan_glib_is_linked;

namespace {

struct Range {
  std::uintptr_t begin = 0, end = 0;
};

Range code_of_glib;
bool slices_are_blocks = false;

int find_glib(dl_phdr_info *object, size_t, void *address_of_function) {
  const auto function = reinterpret_cast<std::uintptr_t>(address_of_function);
  for (int i = 0; i < object->dlpi_phnum; ++i) {
    const auto &segment = object->dlpi_phdr[i];
    const std::uintptr_t begin = object->dlpi_addr + segment.p_vaddr;
    if (segment.p_type != PT_LOAD || function < begin || function >= begin + segment.p_memsz) continue;
    code_of_glib = {begin, begin + segment.p_memsz};
    return 1;
  }
  return 0;
}

// Before main(), while there is one thread.
__attribute__((constructor)) void prepare() {
  dl_iterate_phdr(find_glib, dlsym(RTLD_NEXT, "g_malloc"));
  const char *slices = std::getenv("G_SLICE");
  slices_are_blocks = slices != nullptr && std::strcmp(slices, "always-malloc") == 0;
}

class GlibIgnored {
  bool ignored_;

 public:
  explicit GlibIgnored(const void *caller) {
    const auto address = reinterpret_cast<std::uintptr_t>(caller);
    ignored_ = address >= code_of_glib.begin && address < code_of_glib.end;
    if (ignored_) AnnotateIgnoreWritesBegin(__FILE__, __LINE__);
  }
  GlibIgnored(GlibIgnored &&) = delete;
  ~GlibIgnored() {
    if (ignored_) AnnotateIgnoreWritesEnd(__FILE__, __LINE__);
  }
};

}  // namespace

// These take the place of the C library's and GLib's functions in the whole test program.
extern "C" {

void *malloc(size_t size) noexcept {
  const GlibIgnored ignored(__builtin_return_address(0));
  return __interceptor_malloc(size);
}

void *calloc(size_t count, size_t size) noexcept {
  const GlibIgnored ignored(__builtin_return_address(0));
  return __interceptor_calloc(count, size);
}

void *realloc(void *block, size_t size) noexcept {
  const GlibIgnored ignored(__builtin_return_address(0));
  return __interceptor_realloc(block, size);
}

void free(void *block) noexcept {
  const GlibIgnored ignored(__builtin_return_address(0));
  __interceptor_free(block);
}

// Only calls from outside libglib come here.
void g_free(gpointer block) { __interceptor_free(block); }

void g_slice_free1(gsize size, gpointer block) {
  static const auto real = ptz_test::next<decltype(g_slice_free1)>("g_slice_free1");
  if (!slices_are_blocks) return real(size, block);
  __interceptor_free(block);
}

}  // extern "C"
