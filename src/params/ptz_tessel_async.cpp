#include "ptz_tessel_async.h"

#include <unistd.h>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/check.h"
#include "base/handles.h"
#include "platform/param_service.h"
#include "ptz_tessel.h"

namespace {

constexpr gint32 extra_unset = -1;
constexpr gint32 background_mode = 12;
constexpr guint set_attempts = 10;

// Cuts the text at its first colon and moves it behind; the part before is the result. The last part has no colon.
gchar *take_field(gchar *&text) {
  gchar *const field = text, *const colon = std::strchr(text, ':');
  if (colon == nullptr) {
    text += std::strlen(text);
  } else {
    *colon = '\0';
    text = colon + 1;
  }
  return field;
}

void set_parameter(gchar *job) {
  const gchar *const path = take_field(job);
  for (guint attempt = 0; attempt < set_attempts; ++attempt) {
    const gint32 error = ptz_tessel_set_vp(extra_unset, background_mode, job, "%s", path);
    if (error == 0 || error == PARAM_SERVICE_BAD_PATH) return;  // which no later attempt changes
    sleep(attempt);
  }
}

void add_group(gchar *job) {
  const gchar *const path = take_field(job);
  const gchar *const templ = take_field(job);
  const auto number = static_cast<gint32>(std::strtol(job, nullptr, 10));
  const ptz::Text created(ptz_tessel_create_group_vp(extra_unset, background_mode, number, templ, "%s", path));
}

// The worker thread.
void ptz_tessel_async_update_param(gpointer data, gpointer) {
  const ptz::Text job(static_cast<gchar *>(data));
  gchar *rest = job.get();
  const std::string_view command = take_field(rest);
  if (command == "set") {
    set_parameter(rest);
  } else if (command == "add") {
    add_group(rest);
  } else if (command == "del") {
    ptz_tessel_delete_group_vp(background_mode, "%s", rest);
  } else {
    assert_not_reached_in("ptz_tessel_async");
  }
}

// Kept for the whole life of the process, with its one thread.
GThreadPool *ptz_tessel_async_get_thread_pool() {
  static GMutex creation_lock;
  static GThreadPool *pool;
  const ptz::MutexLock lock(&creation_lock);
  if (pool != nullptr) return pool;
  ptz::Error error;
  pool = g_thread_pool_new(ptz_tessel_async_update_param, nullptr, 1, TRUE, ptz::out(error));
  if (error != nullptr) log_func(LOG_WARNING, "%s", error->message);
  return pool;
}

void push(ptz::Text job) {
  GThreadPool *pool = ptz_tessel_async_get_thread_pool();
  if (pool != nullptr) g_thread_pool_push(pool, job.release(), nullptr);
}

}  // namespace

void ptz_tessel_async_push_set_param(const gchar *value, const gchar *path_format, ...) {
  ptz::Text path;
  if (value != nullptr && path_format != nullptr) {
    va_list arguments;
    va_start(arguments, path_format);
    path.reset(g_strdup_vprintf(path_format, arguments));
    va_end(arguments);
  }
  if (path == nullptr) {
    log_func(LOG_ERR, "NULL pointer in argument");
    return;
  }
  push(ptz::Text(g_strconcat("set:", path.get(), ":", value, nullptr)));
}

void ptz_tessel_async_push_set_boolean(gboolean value, const gchar *path_format, ...) {
  if (path_format == nullptr) {
    log_func(LOG_ERR, "NULL pointer in argument");
    return;
  }
  va_list arguments;
  va_start(arguments, path_format);
  const ptz::Text path(g_strdup_vprintf(path_format, arguments));
  va_end(arguments);
  ptz_tessel_async_push_set_param(value ? "true" : "false", path != nullptr ? "%s" : nullptr, path.get());
}

void ptz_tessel_async_push_set_int(gint value, const gchar *path_format, ...) {
  if (path_format == nullptr) {
    log_func(LOG_ERR, "NULL pointer in argument");
    return;
  }
  va_list arguments;
  va_start(arguments, path_format);
  const ptz::Text path(g_strdup_vprintf(path_format, arguments));
  va_end(arguments);
  const ptz::Text digits(g_strdup_printf("%d", value));
  ptz_tessel_async_push_set_param(digits.get(), path != nullptr ? "%s" : nullptr, path.get());
}

void ptz_tessel_async_push_add_param_group(gint number, const gchar *templ, const gchar *path_format, ...) {
  ptz::Text path;
  if (templ != nullptr && path_format != nullptr) {
    va_list arguments;
    va_start(arguments, path_format);
    path.reset(g_strdup_vprintf(path_format, arguments));
    va_end(arguments);
  }
  if (path == nullptr) {
    log_func(LOG_ERR, "NULL pointer in argument");
    return;
  }
  push(ptz::Text(g_strdup_printf("add:%s:%s:%d", path.get(), templ, number)));
}

void ptz_tessel_async_delete_group(const gchar *path_format, ...) {
  ptz::Text path;
  if (path_format != nullptr) {
    va_list arguments;
    va_start(arguments, path_format);
    path.reset(g_strdup_vprintf(path_format, arguments));
    va_end(arguments);
  }
  if (path == nullptr) {
    log_func(LOG_ERR, "NULL pointer in argument");
    return;
  }
  push(ptz::Text(g_strconcat("del:", path.get(), nullptr)));
}

guint ptz_tessel_async_get_waiting_threads(void) {
  GThreadPool *pool = ptz_tessel_async_get_thread_pool();
  return pool != nullptr ? g_thread_pool_unprocessed(pool) : 0;
}
