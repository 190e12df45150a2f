// tests/support/interpose.h - functions of a test program that replace those of the C library, GLib or the platform.
//
// INTERPOSE(result, name, (parameters)) defines the replacement of a function. REAL(name) is a pointer to the function
// that it replaces:
//
//   INTERPOSE(int, fsync, (int fd)) { return fails ? -1 : REAL(fsync)(fd); }
//
// Use it at file scope. In an anonymous namespace the function would have internal linkage and replace nothing.
//
// Scope. The replacement is for the whole process: the dynamic linker looks for a symbol in the program before it looks
// in the libraries. It does not affect calls that a library resolves inside itself.
//
// Name. The function is called interposed_<name>, and an asm label gives it the symbol <name>. The headers declare
// <name> with attributes, redirections and fortified inline bodies; none of them conflicts with another name.
// <name> must be the symbol that callers use. With 64-bit file offsets (_FILE_OFFSET_BITS) a call of mmap() uses the
// symbol mmap64 on every machine, so a test replaces mmap64.
//
// Visibility. The symbol is visible in spite of -fvisibility=hidden, and "used" keeps it if the program does not call
// it. Link the program with -rdynamic, which exports the symbol to libraries that are opened later.
//
// Exceptions. The replacement is noexcept, because its callers are C functions. An exception in it ends the process.
//
// Variadic functions. Read the optional argument with va_arg and pass it on, whether or not the caller passed one:
// `REAL(fcntl)(fd, command, argument)`. If it did not, the value is arbitrary and the real function does not use it.
// A function that takes a format cannot be called with a va_list; call its v... form instead.
//
// The real function. The first use of REAL looks it up. The pointer is a function-local static, whose initialisation is
// thread-safe. If a sanitizer intercepts the function, REAL is the interceptor, which calls the C library in turn.
// Without the interceptors of read() and write(), ThreadSanitizer does not know that the write to a pipe happens before
// the read, and reports data races that do not exist. The interceptor is a weak reference because dlsym() finds it only
// in GCC's run-time library, which is a shared one. Clang links its own into the program, which the search for the next
// definition skips. If there is no real function, the first use of REAL aborts the process and prints the name.
//
// Limits. malloc() and its like cannot call the real function in this way, because dlsym() may allocate memory.
#pragma once
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

namespace ptz_test {

// The function that a call would have reached without the replacement.
template <typename Function>
[[nodiscard]] Function *real_function(const char *name, Function *sanitizers) {
  if (sanitizers != nullptr) return sanitizers;
  void *next = dlsym(RTLD_NEXT, name);
  if (next == nullptr) {
    std::fprintf(stderr, "no library has the function %s, which this program replaces\n", name);
    std::abort();
  }
  return reinterpret_cast<Function *>(next);
}

}  // namespace ptz_test

#define INTERPOSE(result, name, parameters)                                                                        \
  extern "C" result intercepted_##name parameters noexcept asm("__interceptor_" #name) __attribute__((weak));      \
  extern "C" result interposed_##name parameters noexcept asm(#name) __attribute__((visibility("default"), used)); \
  [[maybe_unused]] static auto *real_##name() {                                                                    \
    static auto *const real = ptz_test::real_function(#name, &intercepted_##name);                                 \
    return real;                                                                                                   \
  }                                                                                                                \
  extern "C" result interposed_##name parameters noexcept

#define REAL(name) real_##name()
