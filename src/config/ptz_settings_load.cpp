#include <sys/mman.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

#include "base/check.h"
#include "base/handles.h"
#include "config/settings_stores.h"
#include "config/whole_key_file.h"
#include "platform/kv_config.h"
#include "ptz_settings.h"

namespace {

using ptz::settings::group_stores;
using ptz::settings::shell_store;

constexpr guint list_step = 20;
constexpr int listing_line_size = 200;
constexpr char latin1[] = "ISO-8859-1";
constexpr char utf8[] = "UTF-8";

void drop(GKeyFile *&store) {
  if (store != nullptr) g_key_file_unref(std::exchange(store, nullptr));
}

// Makes room for one element more; false when there is no memory, with what there is left as it was.
template <typename T>
bool grow(T *&elements, guint used, guint &room) {
  if (used < room) return true;
  auto *larger = g_try_renew(T, elements, room + list_step);
  if (larger == nullptr) return false;
  elements = larger;
  room += list_step;
  return true;
}

class FileList {
  PTZSettingsFileExt *files_ = nullptr;
  guint count_ = 0, room_ = 0;

 public:
  FileList() = default;
  FileList(FileList &&) = delete;
  ~FileList() {
    for (const auto &file : *this) g_free(const_cast<gchar *>(file.path));
    g_free(files_);
  }
  [[nodiscard]] const PTZSettingsFileExt *begin() const { return files_; }
  [[nodiscard]] const PTZSettingsFileExt *end() const { return files_ + count_; }

  [[nodiscard]] bool add(const gchar *path, gboolean mandatory, gboolean convert) {
    if (!grow(files_, count_, room_)) return false;
    files_[count_++] = {g_strdup(path), mandatory, convert};
    return true;
  }
};

gboolean converts(const PTZSettingsFile &) { return FALSE; }
gboolean converts(const PTZSettingsFileExt &file) { return file.convert; }

// The paths in their order, then what each pattern finds: a later file overrides an earlier one.
template <typename Record>
[[nodiscard]] bool list_files(FileList &list, const Record *files, const Record *patterns) {
  for (auto *file = files; file != nullptr && file->path != nullptr; ++file) {
    if (!list.add(file->path, file->mandatory, converts(*file))) return false;
  }
  for (auto *pattern = patterns; pattern != nullptr && pattern->path != nullptr; ++pattern) {
    const ptz::TextList names(ptz_settings_find_config_files(pattern->path, pattern->mandatory));
    for (gchar **name = names.get(); name != nullptr && *name != nullptr; ++name) {
      if (!list.add(*name, pattern->mandatory, converts(*pattern))) return false;
    }
  }
  return true;
}

bool has_control_character(std::string_view text) {
  for (const char c : text) {
    if (g_ascii_iscntrl(c)) return true;
  }
  return false;
}

// What a key file can hold as a group and as a key; anything else would be a programming error there.
bool is_group_name(const gchar *name) {
  if (name == nullptr || *name == '\0') return false;
  return std::strpbrk(name, "[]") == nullptr && !has_control_character(name);
}

// A key may name the locale that its value is for: "Name[de]".
std::string_view without_locale(std::string_view key) {
  const auto start = key.find('[');
  if (start == std::string_view::npos || key.back() != ']') return key;
  for (const char c : key.substr(start + 1, key.size() - start - 2)) {
    if (!g_ascii_isalnum(c) && std::strchr("-_.@", c) == nullptr) return key;
  }
  return key.substr(0, start);
}

bool is_key_name(const gchar *name) {
  if (name == nullptr) return false;
  std::string_view text = name;
  if (std::strpbrk(name, "=[]") != nullptr) {
    text = without_locale(text);
    if (text.find_first_of("=[]") != std::string_view::npos) return false;
  }
  return !text.empty() && text.front() != ' ' && text.back() != ' ';
}

// settings lock held. Sets the record in the store; false when its value cannot be converted.
bool store_record(GKeyFile *store, const KvConfigRecord &record, const PTZSettingsFileExt &file) {
  const gchar *value = record.value != nullptr ? record.value : "";
  ptz::Text converted;
  if (file.convert && !g_utf8_validate(value, -1, nullptr)) {
    ptz::Error error;
    converted.reset(g_convert(value, -1, utf8, latin1, nullptr, nullptr, ptz::out(error)));
    if (converted == nullptr) {
      syslog(LOG_ERR, "could not convert file '%s' from ISO-8859-1: %s", file.path, ptz::message_of(error));
      return false;
    }
    value = converted.get();
  }
  if (is_group_name(record.group) && is_key_name(record.key)) {
    // Not g_key_file_set_value(): the accessors read the store with key-file escapes, which a record does not have.
    g_key_file_set_string(store, record.group, record.key, value);
  }
  return true;
}

// A file in memory with the text; none, with errno, if there is no room for it.
ptz::UniqueFd file_of(std::string_view text) {
  ptz::UniqueFd file(memfd_create("settings", MFD_CLOEXEC));
  while (file && !text.empty()) {
    const ssize_t count = write(file.get(), text.data(), text.size());
    if (count >= 0) {
      text.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno != EINTR) {
      file.reset();
    }
  }
  return file;
}

// settings lock held. Opens the file in the platform's reader; false with errno. The reader would give each pipe a time
// of its own. Therefore a pipe is read here, before the load's deadline, and the reader opens a copy in memory.
bool open_records(const gchar *path, ptz::PipeDeadline &deadline) {
  struct stat status = {};
  if (stat(path, &status) < 0 || !S_ISFIFO(status.st_mode)) return kv_config_open(path) != 0;
  const ptz::UniqueFd pipe = ptz::open_and_examine(path, status);
  if (!pipe) return false;
  if (!ptz::can_be_read_whole(status)) {
    errno = EINVAL;
    return false;
  }
  std::string text;
  if (!ptz::read_to_end(pipe.get(), status, text, deadline)) return false;
  const ptz::UniqueFd copy = file_of(text);
  return copy && kv_config_open(("/proc/self/fd/" + std::to_string(copy.get())).c_str()) != 0;
}

// settings lock held
bool load_records(GKeyFile *store, const PTZSettingsFileExt &file) {
  while (const auto *record = kv_config_get()) {
    if (!store_record(store, *record, file)) return false;
  }
  return true;
}

enum class Contents { read, skipped, failed };

// The store's lock held. Appends the whole file; an optional one that cannot be opened is skipped.
Contents append_contents(const gchar *path, gboolean mandatory, ptz::PipeDeadline &deadline, std::string &text) {
  ptz::Error error;
  struct stat status = {};
  ptz::UniqueFd file = ptz::open_with_end(path, status, ptz::out(error));
  if (file && S_ISFIFO(status.st_mode) && !deadline.wait_for(file.get())) {
    ptz::set_file_error(ptz::out(error));
    file.reset();
  }
  if (!file) {
    if (!mandatory) return Contents::skipped;
    syslog(LOG_ERR, "could not open file '%s': %s", path, ptz::message_of(error));
    return Contents::failed;
  }
  if (ptz::read_to_end(file.get(), status, text, deadline)) return Contents::read;
  syslog(LOG_ERR, "failed reading file '%s': %s", path, g_strerror(errno));
  return Contents::failed;
}

// The store's lock held. An empty store is what is left of a text that does not parse.
gboolean parse_into(GKeyFile *&store, const std::string &text) {
  store = g_key_file_new();
  ptz::Error error;
  if (g_key_file_load_from_data(store, text.data(), text.size(), G_KEY_FILE_NONE, ptz::out(error))) return TRUE;
  syslog(LOG_ERR, "could not load settings: %s", ptz::message_of(error));
  drop(store);
  store = g_key_file_new();
  return FALSE;
}

guint count_of(const PTZSettingsFile *files) {
  guint count = 0;
  while (files[count].path != nullptr) ++count;
  return count;
}

using ConvertedList = ptz::Handle<PTZSettingsFileExt, g_free>;

ConvertedList converting(const PTZSettingsFile *files) {
  if (files == nullptr) return nullptr;
  const guint count = count_of(files);
  ConvertedList list(g_new0(PTZSettingsFileExt, count + 1));
  for (guint i = 0; i < count; ++i) list.get()[i] = {files[i].path, files[i].mandatory, TRUE};
  return list;
}

// The lines that fit the buffer; a longer one gives only its last piece. False when there is no memory.
bool read_names(FILE *listing, gchar **&names) {
  guint count = 0, room = list_step;
  names = g_new0(gchar *, room);
  char line[listing_line_size];
  while (std::fgets(line, sizeof line, listing) != nullptr) {
    char *newline = std::strrchr(line, '\n');
    if (newline == nullptr) continue;
    *newline = '\0';
    if (!grow(names, count + 1, room)) return false;
    names[count++] = g_strdup(line);
    names[count] = nullptr;
  }
  return true;
}

}  // namespace

gchar **ptz_settings_find_config_files(const gchar *files, gboolean report) {
  g_return_val_if_fail(files != NULL, NULL);
  const ptz::Text command(g_strdup_printf("ls -1 %s", files));
  FILE *listing = popen(command.get(), "r");
  if (listing == nullptr) {
    log_func(LOG_ERR, "Error listing files: '%s'", files);
    return nullptr;
  }
  gchar **found = nullptr;
  const bool complete = read_names(listing, found);
  ptz::TextList names(found);
  if (!complete) {
    log_func(LOG_ERR, "Error allocating memory, no conf files matching '%s' will be loaded", files);
    pclose(listing);
    return nullptr;
  }
  const int status = pclose(listing);
  if (status == 0) return names.release();
  if (status == -1) {
    log_func(LOG_ERR, "Unexpected error listing files: '%s'", files);
  } else if (report) {
    log_func(LOG_ERR, "Files not found: '%s'", files);
  }
  return nullptr;
}

gboolean ptz_settings_load_config(const PTZSettingsFile *files, const PTZSettingsFile *patterns) {
  const auto converted_files = converting(files), converted_patterns = converting(patterns);
  return ptz_settings_load_config_ext(converted_files.get(), converted_patterns.get());
}

gboolean ptz_settings_load_config_ext(const PTZSettingsFileExt *files, const PTZSettingsFileExt *patterns) {
  const ptz::MutexLock lock(&group_stores.lock);
  drop(group_stores.parsed);
  FileList list;
  if (!list_files(list, files, patterns)) {
    log_func(LOG_ERR, "Error allocating memory, conf files will not be loaded");
    return FALSE;
  }
  group_stores.parsed = g_key_file_new();
  ptz::PipeDeadline deadline;
  for (const auto &file : list) {
    if (!open_records(file.path, deadline)) {
      if (!file.mandatory) continue;
      syslog(LOG_ERR, "could not open file '%s': %m", file.path);
      return FALSE;
    }
    const bool loaded = load_records(group_stores.parsed, file);
    kv_config_close();
    if (!loaded) return FALSE;
  }
  return TRUE;
}

gboolean ptz_settings_load_config_gkf(const PTZSettingsFile *files, const PTZSettingsFile *patterns) {
  const ptz::MutexLock lock(&group_stores.lock);
  drop(group_stores.key_file);
  FileList list;
  if (!list_files(list, files, patterns)) {
    log_func(LOG_ERR, "Error allocating memory, conf files will not be loaded");
    return FALSE;
  }
  std::string text;
  ptz::PipeDeadline deadline;
  for (const auto &file : list) {
    const Contents result = append_contents(file.path, file.mandatory, deadline, text);
    if (result == Contents::failed) return FALSE;
    if (result == Contents::read) text += '\n';
  }
  if (text.empty()) {
    log_func(LOG_ERR, "no data to read");
    return FALSE;
  }
  return parse_into(group_stores.key_file, text);
}

gboolean ptz_settings_shell_load_config(const PTZSettingsFile *files) {
  const ptz::MutexLock lock(&shell_store.lock);
  drop(shell_store.keys);
  std::string text = std::string("[") + ptz::settings::shell_group + "]\n";
  ptz::PipeDeadline deadline;
  for (auto *file = files; file != nullptr && file->path != nullptr; ++file) {
    std::string contents;
    const Contents result = append_contents(file->path, file->mandatory, deadline, contents);
    if (result == Contents::failed) return FALSE;
    if (result == Contents::skipped) continue;
    if (!g_utf8_validate_len(contents.data(), contents.size(), nullptr)) {
      ptz::Error error;
      gsize length = 0;
      const ptz::Text converted(g_convert(contents.data(), static_cast<gssize>(contents.size()), utf8, latin1, nullptr,
                                          &length, ptz::out(error)));
      if (converted == nullptr) {
        syslog(LOG_ERR, "could not convert file '%s' from ISO-8859-1: %s", file->path, ptz::message_of(error));
        return FALSE;
      }
      contents.assign(converted.get(), length);
    }
    text += contents;
    text += '\n';
  }
  return parse_into(shell_store.keys, text);
}
