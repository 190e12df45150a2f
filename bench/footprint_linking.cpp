// What a process pays in memory of its own (private, written) for having the library in it. It is not linked with the
// library, but loads it as the linker would, after GLib and after what else it brings: the C++ runtime and SQLite.
#include <dlfcn.h>
#include <gio/gio.h>

#include <cstdio>
#include <cstring>

static long private_kib() {
  long sum = 0;
  char line[256];
  std::FILE *const file = std::fopen("/proc/self/smaps_rollup", "re");
  if (file == nullptr) return 0;
  while (std::fgets(line, sizeof line, file) != nullptr) {
    long kib;
    if (std::sscanf(line, "Private_Dirty: %ld", &kib) == 1) sum += kib;
  }
  std::fclose(file);
  return sum;
}

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
