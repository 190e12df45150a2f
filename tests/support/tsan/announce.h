// tests/support/tsan/announce.h - tells ThreadSanitizer how GLib orders threads.
//
// GLib is not instrumented, and its mutexes and main contexts hand over by futexes and atomics that the sanitizer does
// not see: it would report a race for everything that they protect. The functions in this folder take the place of
// GLib's in a test program, call those, and announce the order that GLib really establishes, so that a missing lock in
// our code is still found. Calls inside libglib do not come here; those of libgobject and libgio to libglib do.
#pragma once
#include <dlfcn.h>
#include <glib-object.h>
#include <sanitizer/tsan_interface.h>

namespace ptz_test {

// The function whose place was taken; a test program may in turn have taken ours.
template <typename Function>
Function *next(const char *name) {
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

}  // namespace ptz_test

// Under names of their own, because headers declare the real ones with attributes or as macros.
#define INSTEAD_OF(name, result, parameters)                                                  \
  result announced_##name parameters asm(#name) __attribute__((visibility("default"), used)); \
  result announced_##name parameters

#define REAL(name) static const auto real = ptz_test::next<decltype(announced_##name)>(#name)
