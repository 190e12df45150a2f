#include <array>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string_view>
#include <system_error>

#include "base/check.h"
#include "base/handles.h"
#include "config/key_file_value.h"
#include "config/settings_stores.h"
#include "ptz_settings.h"

namespace {

using ptz::settings::group_stores;
using ptz::settings::shell_store;

constexpr gint no_index = -1;
constexpr std::string_view root_prefixes[] = {"root.", "ROOT."};

constexpr std::size_t usual_size = 128;  // of names: longer ones cost an allocation

// A group's name as the stores hold it.
class GroupName {
  const gchar *name_;
  std::array<char, usual_size> buffer_;
  ptz::Text longer_;

 public:
  GroupName(const gchar *name, gint index) : name_(name) {
    if (name == nullptr) return;
    for (const auto prefix : root_prefixes) {
      if (std::strncmp(name, prefix.data(), prefix.size()) == 0) name_ = name + prefix.size();
    }
    if (index < 0) return;
    const std::size_t length = std::strlen(name_);
    constexpr std::size_t digits = std::numeric_limits<gint>::digits10 + 1;
    char *to = buffer_.data();
    if (length + digits + 1 > buffer_.size()) {
      longer_.reset(g_new(gchar, length + digits + 1));
      to = longer_.get();
    }
    std::memcpy(to, name_, length);
    *std::to_chars(to + length, to + length + digits, index).ptr = '\0';
    name_ = to;
  }
  GroupName(GroupName &&) = delete;
  [[nodiscard]] const gchar *get() const { return name_; }
};

// What the arguments make of a format; null for a format that cannot be carried out.
class Formatted {
  std::array<char, usual_size> buffer_;
  ptz::Text longer_;
  gchar *text_ = nullptr;

 public:
  G_GNUC_PRINTF(2, 0) Formatted(const gchar *format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(buffer_.data(), buffer_.size(), format, arguments);
    if (length >= 0 && static_cast<std::size_t>(length) < buffer_.size()) {
      text_ = buffer_.data();
    } else if (length >= 0) {
      longer_.reset(g_strdup_vprintf(format, again));
      text_ = longer_.get();
    }
    va_end(again);
  }
  Formatted(Formatted &&) = delete;
  [[nodiscard]] gchar *get() { return text_; }
};

// settings lock held
GKeyFile *store_with(const gchar *group) {
  for (GKeyFile *store : {group_stores.key_file, group_stores.parsed}) {
    if (store != nullptr && g_key_file_has_group(store, group)) return store;
  }
  return nullptr;
}

// settings lock held. The first store that has the group answers, which the value itself shows in most cases.
ptz::Text stored_value(const gchar *group, const gchar *key) {
  for (GKeyFile *store : {group_stores.key_file, group_stores.parsed}) {
    if (store == nullptr) continue;
    auto value = ptz::key_file_value(store, group, key);
    if (value != nullptr || g_key_file_has_group(store, group)) return value;
  }
  return nullptr;
}

// A lone backslash at the end stands for nothing; GLib would complain of it.
void cut_open_escape(gchar *value) {
  const std::string_view text(value);
  const auto before = text.find_last_not_of('\\');
  const auto backslashes = before == std::string_view::npos ? text.size() : text.size() - before - 1;
  if (backslashes % 2 == 1) value[text.size() - 1] = '\0';
}

void clean_up(gchar *value) {
  if (value == nullptr) return;
  const std::size_t length = std::strlen(value);
  const char first = value[0];
  if (length >= 2 && (first == '"' || first == '\'') && value[length - 1] == first) {
    value[length - 1] = '\0';
    std::memmove(value, value + 1, length - 1);
  }
  if (std::strchr(value, '\\') == nullptr) return;
  cut_open_escape(value);
  const ptz::Text resolved(g_strcompress(value));
  std::strcpy(value, resolved.get());  // which is never longer
}

gchar *look_up(const gchar *group_name, gint index, const gchar *key) {
  const GroupName group(group_name, index);
  if (group.get() == nullptr || key == nullptr) return nullptr;
  ptz::Text value;
  {
    const ptz::MutexLock lock(&group_stores.lock);
    value = stored_value(group.get(), key);
  }
  clean_up(value.get());
  return value.release();
}

gchar *look_up_shell(const gchar *key) {
  ptz::Text value;
  {
    const ptz::MutexLock lock(&shell_store.lock);
    if (shell_store.keys != nullptr && key != nullptr)
      value = ptz::key_file_value(shell_store.keys, ptz::settings::shell_group, key);
  }
  clean_up(value.get());
  return value.release();
}

bool is_filled(const ptz::Text &text) { return text != nullptr && *text != '\0'; }

gboolean to_boolean(const ptz::Text &text, gboolean *value) {
  if (!is_filled(text)) return FALSE;
  *value = std::strchr("YyTt", *text) != nullptr ? TRUE : FALSE;
  return TRUE;
}

gboolean to_int64(const ptz::Text &text, gint64 *value) {
  if (!is_filled(text)) return FALSE;
  // Mostly it is a decimal number that fits, for which the general way costs two divisions too many.
  if (*text >= '1' && *text <= '9' &&
      std::from_chars(text.get(), text.get() + std::strlen(text.get()), *value).ec == std::errc()) {
    return TRUE;
  }
  gchar *end = nullptr;
  *value = g_ascii_strtoll(text.get(), &end, 0);
  return end != text.get() ? TRUE : FALSE;
}

gboolean to_int(const ptz::Text &text, gint32 *value) {
  gint64 number = 0;
  if (!to_int64(text, &number)) return FALSE;
  if (number < std::numeric_limits<gint32>::min() || number > std::numeric_limits<gint32>::max()) return FALSE;
  *value = static_cast<gint32>(number);
  return TRUE;
}

// Splits a path at its last dot. Null for a path without one.
gchar *look_up_path(gchar *path) {
  gchar *dot = path != nullptr ? std::strrchr(path, '.') : nullptr;
  if (dot == nullptr) return nullptr;
  *dot = '\0';
  return ptz_settings_get_custom_string(path, dot + 1);
}

}  // namespace

gboolean ptz_settings_has_group(const gchar *group_name, gint index) {
  const GroupName group(group_name, index);
  if (group.get() == nullptr) return FALSE;
  const ptz::MutexLock lock(&group_stores.lock);
  return store_with(group.get()) != nullptr ? TRUE : FALSE;
}

gboolean ptz_settings_has_custom_group(const gchar *group_name) { return ptz_settings_has_group(group_name, no_index); }

gchar **ptz_settings_get_group(const gchar *group_name, gint index) {
  const GroupName group(group_name, index);
  if (group.get() == nullptr) return nullptr;
  const ptz::MutexLock lock(&group_stores.lock);
  GKeyFile *store = store_with(group.get());
  return store != nullptr ? g_key_file_get_keys(store, group.get(), nullptr, nullptr) : nullptr;
}

gchar **ptz_settings_get_custom_group(const gchar *group_name) { return ptz_settings_get_group(group_name, no_index); }

gchar *ptz_settings_get_string(const gchar *group_name, gint index, const gchar *key) {
  return look_up(group_name, index, key);
}

gchar *ptz_settings_get_custom_string(const gchar *group_name, const gchar *key) {
  return look_up(group_name, no_index, key);
}

gboolean ptz_settings_get_boolean(const gchar *group_name, gint index, const gchar *key, gboolean *value) {
  g_return_val_if_fail(value != NULL, FALSE);
  return to_boolean(ptz::Text(look_up(group_name, index, key)), value);
}

gboolean ptz_settings_get_custom_boolean(const gchar *group_name, const gchar *key, gboolean *value) {
  return ptz_settings_get_boolean(group_name, no_index, key, value);
}

gboolean ptz_settings_get_int64(const gchar *group_name, gint index, const gchar *key, gint64 *value) {
  g_return_val_if_fail(value != NULL, FALSE);
  return to_int64(ptz::Text(look_up(group_name, index, key)), value);
}

gboolean ptz_settings_get_custom_int64(const gchar *group_name, const gchar *key, gint64 *value) {
  return ptz_settings_get_int64(group_name, no_index, key, value);
}

gboolean ptz_settings_get_int(const gchar *group_name, gint index, const gchar *key, gint32 *value) {
  g_return_val_if_fail(value != NULL, FALSE);
  return to_int(ptz::Text(look_up(group_name, index, key)), value);
}

gboolean ptz_settings_get_custom_int(const gchar *group_name, const gchar *key, gint32 *value) {
  return ptz_settings_get_int(group_name, no_index, key, value);
}

gchar *ptz_settings_get_vp(const gchar *path_format, ...) {
  assert_in("ptz_settings.c", path_format);
  va_list arguments;
  va_start(arguments, path_format);
  Formatted path(path_format, arguments);
  va_end(arguments);
  return look_up_path(path.get());
}

gboolean ptz_settings_get_int_vp(gint32 *value, const gchar *path_format, ...) {
  assert_in("ptz_settings.c", path_format);
  g_return_val_if_fail(value != NULL, FALSE);
  va_list arguments;
  va_start(arguments, path_format);
  Formatted path(path_format, arguments);
  va_end(arguments);
  return to_int(ptz::Text(look_up_path(path.get())), value);
}

gboolean ptz_settings_iterate_group(const gchar *group_name, gint index, gpointer user_data,
                                    PTZSettingsIterateCallback callback) {
  g_return_val_if_fail(group_name != NULL, FALSE);
  g_return_val_if_fail(callback != NULL, FALSE);
  const ptz::TextList keys(ptz_settings_get_group(group_name, index));
  if (keys == nullptr) return FALSE;
  for (gchar **key = keys.get(); *key != nullptr; ++key) {
    const ptz::Text value(ptz_settings_get_string(group_name, index, *key));
    const ptz::Text name(g_strdup_printf("%s%d.%s", group_name, index, *key));
    if (!callback(name.get(), value.get(), user_data)) {
      log_func(LOG_ERR, "Error iterating parameter group %s%d", group_name, index);
      return FALSE;
    }
  }
  return TRUE;
}

gchar *ptz_settings_shell_get_string(const gchar *key_format, ...) {
  g_return_val_if_fail(key_format != NULL, NULL);
  va_list arguments;
  va_start(arguments, key_format);
  Formatted key(key_format, arguments);
  va_end(arguments);
  return look_up_shell(key.get());
}

gboolean ptz_settings_shell_get_boolean(gboolean *value, const gchar *key_format, ...) {
  g_return_val_if_fail(value != NULL, FALSE);
  g_return_val_if_fail(key_format != NULL, FALSE);
  va_list arguments;
  va_start(arguments, key_format);
  Formatted key(key_format, arguments);
  va_end(arguments);
  return to_boolean(ptz::Text(look_up_shell(key.get())), value);
}
