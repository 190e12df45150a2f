// What a process pays in memory of its own (private, written) for having the library in it. It is not linked with the
// library, but loads it as the linker would, after GLib and after what else it brings: the C++ runtime and SQLite.
#include <dlfcn.h>
#include <gio/gio.h>

#include <cstdio>
#include <cstring>

#include "private_memory.h"

using bench::private_kib;

int main(int count, char *libraries[]) {
  g_type_ensure(G_TYPE_DBUS_CONNECTION);  // GLib itself is at work already
  long before = private_kib();
  std::printf("KiB of a process's own memory\n  %-32s %5ld\n", "with GLib alone", before);
  for (int i = 1; i < count; i++) {
    if (dlopen(libraries[i], RTLD_NOW | RTLD_GLOBAL) == nullptr) {
      std::fprintf(stderr, "%s\n", dlerror());
      return 1;
    }
    const long now = private_kib();
    const char *const slash = std::strrchr(libraries[i], '/');
    std::printf("  %-32s %+5ld\n", slash == nullptr ? libraries[i] : slash + 1, now - before);
    before = now;
  }
}
