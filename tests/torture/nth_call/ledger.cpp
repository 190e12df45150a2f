#include "ledger.h"

#include <dirent.h>
#include <glib.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "interpose.h"
#include "trap.h"

namespace {

std::atomic<long> blocks = 0, allocations = 0, locks = 0;
char text[16384];
std::atomic<std::size_t> text_length = 0;
std::atomic<bool> critical = false;

void add_line(const char *line, std::size_t length) {
  const std::size_t at = text_length.fetch_add(length + 1);
  if (at + length + 1 >= sizeof text) return;
  std::memcpy(text + at, line, length);
  text[at + length] = '\n';
}

void keep(const gchar *, GLogLevelFlags level, const gchar *message, gpointer) {
  add_line(message, std::strlen(message));
  if ((level & (G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_ERROR)) != 0) critical = true;
}

}  // namespace

namespace nth_call {

long live_blocks() { return blocks; }

long allocations_made() { return allocations; }

long locks_taken() { return locks; }

int open_descriptors() {
  DIR *folder = opendir("/proc/self/fd");
  int count = 0;
  while (folder != nullptr && readdir(folder) != nullptr) ++count;
  if (folder != nullptr) closedir(folder);
  return count;
}

void forget_log() {
  g_log_set_default_handler(keep, nullptr);
  std::memset(text, 0, sizeof text);
  text_length = 0;
  critical = false;
}

std::string log_text() { return text; }

bool critical_was_logged() { return critical; }

}  // namespace nth_call

INTERPOSE(void, syslog, (int, const char *format, ...)) {
  const int saved_errno = errno;  // what "%m" prints
  char line[2048];
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  add_line(line, std::min(static_cast<std::size_t>(length), sizeof line - 1));
  errno = saved_errno;
}

// Locks that GLib takes for itself are not seen.
INTERPOSE(void, g_mutex_lock, (GMutex * mutex)) {
  if (!nth_call::is_peer()) ++locks;
  REAL(g_mutex_lock)(mutex);
}

INTERPOSE(gboolean, g_mutex_trylock, (GMutex * mutex)) {
  if (!nth_call::is_peer()) ++locks;
  return REAL(g_mutex_trylock)(mutex);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

extern "C" {

void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void *__libc_memalign(size_t alignment, size_t size);
void __libc_free(void *block);

static void *counted(void *block) {
  if (block != nullptr) ++blocks;
  if (!nth_call::is_peer()) ++allocations;
  return block;
}

void *malloc(size_t size) noexcept { return counted(__libc_malloc(size)); }
void *calloc(size_t count, size_t size) noexcept { return counted(__libc_calloc(count, size)); }
void *memalign(size_t alignment, size_t size) noexcept { return counted(__libc_memalign(alignment, size)); }
void *aligned_alloc(size_t alignment, size_t size) noexcept { return counted(__libc_memalign(alignment, size)); }

void *realloc(void *block, size_t size) noexcept {
  void *moved = __libc_realloc(block, size);
  if (!nth_call::is_peer()) ++allocations;
  if (block == nullptr && moved != nullptr) ++blocks;
  if (block != nullptr && moved == nullptr && size == 0) --blocks;
  return moved;
}

int posix_memalign(void **block, size_t alignment, size_t size) noexcept {
  *block = counted(__libc_memalign(alignment, size));
  return *block != nullptr ? 0 : ENOMEM;
}

void free(void *block) noexcept {
  if (block != nullptr) --blocks;
  __libc_free(block);
}

}  // extern "C"

#endif
