#include "registry/entry.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstring>

namespace ptz_kit {
namespace {

constexpr char group[] = "Driver";
constexpr off_t size_max = 32 * 1024;  // a long name and two escaped paths

struct flock whole_file(short type) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return lock;
}

KeyFile load(int fd, off_t size) {
  const auto room = static_cast<gsize>(size) + 1;  // a file that grows meanwhile does not parse
  const Text text(static_cast<char *>(g_malloc(room)));
  const ssize_t length = pread(fd, text.get(), room, 0);
  KeyFile file(g_key_file_new());
  if (length <= 0 ||
      !g_key_file_load_from_data(file.get(), text.get(), static_cast<gsize>(length), G_KEY_FILE_NONE, nullptr)) {
    return nullptr;
  }
  return file;
}

bool ends_in_escape(const char *text) {
  for (; *text != '\0'; ++text) {
    if (*text == '\\' && *++text == '\0') return true;
  }
  return false;
}

// Null if the value is not quoted.
Text text_of(GKeyFile *file, const char *key) {
  const Text value(g_key_file_get_value(file, group, key, nullptr));
  const std::size_t length = value ? std::strlen(value.get()) : 0;
  if (length < 2 || value.get()[0] != '"' || value.get()[length - 1] != '"') return nullptr;
  value.get()[length - 1] = '\0';
  return ends_in_escape(value.get() + 1) ? nullptr : Text(g_strcompress(value.get() + 1));
}

bool read_number(GKeyFile *file, const char *key, guint64 most, guint64 &number) {
  const Text value(g_key_file_get_value(file, group, key, nullptr));
  return value && g_ascii_string_to_unsigned(value.get(), 10, 0, most, &number, nullptr) != FALSE;
}

// Null if something is missing. GKeyFile is used for its parser only: its own texts must be UTF-8.
Entry parse(GKeyFile *file, SocketFile &socket) {
  Text name = text_of(file, "Name");
  Text path = text_of(file, "Socket");
  Text program = text_of(file, "Program");
  guint64 pid = 0, instance = 0, version = 0, since = 0, device = 0, inode = 0;
  if (!name || !path || path.get()[0] != '/' || !program || !read_number(file, "Process", G_MAXINT32, pid) ||
      !read_number(file, "Instance", G_MAXUINT32, instance) || !read_number(file, "Protocol", G_MAXUINT32, version) ||
      !read_number(file, "Since", G_MAXINT64, since) || !read_number(file, "Device", G_MAXUINT64, device) ||
      !read_number(file, "Inode", G_MAXUINT64, inode)) {
    return nullptr;
  }
  socket = {static_cast<dev_t>(device), static_cast<ino_t>(inode)};
  auto *entry = g_new0(PTZKitRegistryEntry, 1);
  entry->name = g_utf8_make_valid(name.get(), -1);
  entry->socket_path = path.release();
  entry->program = program.release();
  entry->pid = static_cast<gint32>(pid);
  entry->instance = static_cast<guint32>(instance);
  entry->protocol_version = static_cast<guint32>(version);
  entry->since = static_cast<gint64>(since);
  return Entry(entry);
}

PTZKitDriverLiveness liveness_of(const PTZKitRegistryEntry &entry, const SocketFile &socket, bool locked) {
  if (!locked) return PTZ_KIT_DRIVER_DEAD;
  return socket_at(entry.socket_path) == socket ? PTZ_KIT_DRIVER_LIVE : PTZ_KIT_DRIVER_STOLEN;
}

}  // namespace

SocketFile socket_at(const char *path) {
  struct stat status;
  if (lstat(path, &status) != 0 || !S_ISSOCK(status.st_mode)) return {};
  return {status.st_dev, status.st_ino};
}

Text format_entry(const PTZKitRegistryEntry &entry, const SocketFile &socket) {
  const Text name(g_strescape(entry.name, nullptr));
  const Text path(g_strescape(entry.socket_path, nullptr));
  const Text program(g_strescape(entry.program, nullptr));
  constexpr char format[] =
      "[%s]\nName=\"%s\"\nSocket=\"%s\"\nProgram=\"%s\"\nProcess=%d\nInstance=%u\nProtocol=%u\n"
      "Since=%" G_GINT64_FORMAT "\nDevice=%020" G_GINT64_MODIFIER "u\nInode=%020" G_GINT64_MODIFIER "u\n";
  return Text(g_strdup_printf(format, group, name.get(), path.get(), program.get(), entry.pid, entry.instance,
                              entry.protocol_version, entry.since, guint64{socket.device}, guint64{socket.inode}));
}

bool is_locked(int fd) {
  struct flock lock = whole_file(F_RDLCK);
  return fcntl(fd, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

Entry read_entry(int folder, const char *file, EntryFile &opened) {
  constexpr int attempts = 3;
  for (int attempt = 0; attempt < attempts; ++attempt) {
    UniqueFd fd(openat(folder, file, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
    struct stat status;
    if (!fd || fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size > size_max) return nullptr;
    const bool locked = is_locked(fd.get());
    // A driver that ends, or that replaces its entry, drops the lock of a file that has lost its name.
    if (!locked && (fstat(fd.get(), &status) != 0 || status.st_nlink == 0)) continue;
    const KeyFile contents = load(fd.get(), status.st_size);
    SocketFile socket;
    Entry entry = contents ? parse(contents.get(), socket) : nullptr;
    if (!entry) return nullptr;
    entry->uid = status.st_uid;
    entry->liveness = liveness_of(*entry, socket, locked);
    opened = {std::move(fd), socket.inode != 0};
    return entry;
  }
  return nullptr;
}

bool lock_entry(int fd) {
  struct flock lock = whole_file(F_WRLCK);
  return fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

}  // namespace ptz_kit

using namespace ptz_kit;

PTZKitRegistryEntry *ptz_kit_registry_entry_copy(const PTZKitRegistryEntry *entry) {
  g_return_val_if_fail(entry != NULL, NULL);
  auto *copy = static_cast<PTZKitRegistryEntry *>(g_memdup2(entry, sizeof *entry));
  copy->name = g_strdup(entry->name);
  copy->socket_path = g_strdup(entry->socket_path);
  copy->program = g_strdup(entry->program);
  return copy;
}

void ptz_kit_registry_entry_free(PTZKitRegistryEntry *entry) {
  if (entry == nullptr) return;
  g_free(entry->name);
  g_free(entry->socket_path);
  g_free(entry->program);
  g_free(entry);
}

// clang-format off
G_DEFINE_BOXED_TYPE(PTZKitRegistryEntry, ptz_kit_registry_entry, ptz_kit_registry_entry_copy, ptz_kit_registry_entry_free)
// clang-format on

GType ptz_kit_driver_liveness_get_type(void) {
  static gsize type;
  static constexpr GEnumValue values[] = {{PTZ_KIT_DRIVER_LIVE, "PTZ_KIT_DRIVER_LIVE", "live"},
                                          {PTZ_KIT_DRIVER_DEAD, "PTZ_KIT_DRIVER_DEAD", "dead"},
                                          {PTZ_KIT_DRIVER_STOLEN, "PTZ_KIT_DRIVER_STOLEN", "stolen"},
                                          {0, nullptr, nullptr}};
  if (g_once_init_enter(&type)) g_once_init_leave(&type, g_enum_register_static("PTZKitDriverLiveness", values));
  return type;
}
