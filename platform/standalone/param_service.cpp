#include "platform/param_service.h"

#include <pthread.h>
#include <sqlite3.h>
#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "base/check.h"
#include "base/handles.h"
#include "param_store.h"

namespace {

using ptz::platform::Names;
using ptz::platform::ParamStore;
using ptz::platform::Settings;

constexpr gint64 busy_limit_us = 10 * G_USEC_PER_SEC;
constexpr gulong first_pause_us = 500, longest_pause_us = 20'000;
constexpr gint64 look_interval_us = G_USEC_PER_SEC;
constexpr std::string_view blanks = " \t\r\n\v\f";

// The one connection of this process, made when it is first needed.
struct Service {
  GMutex lock;
  ParamStore *store;
  gint64 looked_us;  // when the file was last seen to be the one that is open
  gchar *complaint;  // the last one: one trouble is one line of the log, however often it is met
};
Service service = {};

std::string folder_from(const char *variable, const char *otherwise) {
  const char *folder = std::getenv(variable);
  return folder != nullptr && *folder != '\0' ? folder : otherwise;
}

std::string database_file() { return folder_from("PTZ_PLATFORM_STATE_DIR", "/var/lib/ptz") + "/params.db"; }

// lock held
void disconnect() { delete std::exchange(service.store, nullptr); }

// lock held
gint32 storage_failure(const char *reason) {
  ptz::Text complaint(g_strdup_printf("Parameter tree %s: %s", database_file().c_str(), reason));
  if (g_strcmp0(complaint.get(), service.complaint) != 0) syslog(LOG_ERR, "%s", complaint.get());
  g_free(std::exchange(service.complaint, complaint.release()));
  return PARAM_SERVICE_STORAGE;
}

// A connection must not be used, nor even closed, on the other side of a fork.
void leave_before_fork() {
  g_mutex_lock(&service.lock);
  disconnect();
}
void go_on_after_fork() { g_mutex_unlock(&service.lock); }

// lock held
bool connect() {
  static const bool fork_is_watched = pthread_atfork(leave_before_fork, go_on_after_fork, go_on_after_fork) == 0;
  static_cast<void>(fork_is_watched);
  if (service.store != nullptr) return true;
  std::string reason;
  service.store = ParamStore::open(database_file(), reason);
  service.looked_us = g_get_monotonic_time();
  if (service.store == nullptr) storage_failure(reason.c_str());
  return service.store != nullptr;
}

enum class Access { reads, writes };

// lock held. What an operation that ended with the code reports, where `missing` is what it has not found.
gint32 outcome(Access access, int code, gint32 missing) {
  if (code == SQLITE_NOTFOUND) return missing;
  if (code == SQLITE_CONSTRAINT) return PARAM_SERVICE_GROUP_EXISTS;
  if (code == SQLITE_TOOBIG) return PARAM_SERVICE_BAD_PATH;
  if (code == SQLITE_OK) {
    // Reads work in many a trouble.
    if (access == Access::writes) g_clear_pointer(&service.complaint, g_free);
    return PARAM_SERVICE_OK;
  }
  const gint32 error = storage_failure(sqlite3_errstr(code));
  disconnect();  // the file may be a better one when it is opened again
  return error;
}

// lock held. What is written to a file that was removed would be seen by nobody; reads notice within a second.
void leave_a_removed_file(Access access) {
  if (service.store == nullptr) return;
  const gint64 now_us = g_get_monotonic_time();
  if (access == Access::reads && now_us - service.looked_us < look_interval_us) return;
  service.looked_us = now_us;
  if (service.store->has_moved()) disconnect();
}

// Carries an operation out on the store. One that has to wait for another process waits without the lock: the reads of
// a main loop do not wait for the writes of another thread.
template <typename Operation>
gint32 perform(Access access, gint32 missing, Operation operation) {
  gint64 give_up_us = 0;
  for (gulong pause_us = first_pause_us;; pause_us = std::min(2 * pause_us, longest_pause_us)) {
    {
      const ptz::MutexLock lock(&service.lock);
      leave_a_removed_file(access);
      if (!connect()) return PARAM_SERVICE_STORAGE;
      const int code = operation(*service.store);
      if (code != SQLITE_BUSY) return outcome(access, code, missing);
      const gint64 now_us = g_get_monotonic_time();
      if (give_up_us == 0) give_up_us = now_us + busy_limit_us;
      if (now_us >= give_up_us) return outcome(access, code, missing);
    }
    g_usleep(pause_us);
  }
}

bool is_path(const gchar *path) {
  if (path == nullptr) return false;
  const std::string_view text(path);
  if (text.empty() || text.size() > PARAM_SERVICE_PATH_MAX || text.front() == '.' || text.back() == '.') return false;
  return text.find("..") == std::string_view::npos;
}

bool is_parameter_path(const gchar *path) {
  return is_path(path) && std::string_view(path).find('.') != std::string_view::npos;
}

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(blanks);
  return first == std::string_view::npos ? "" : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// The lines of a template; false where one of them is none.
bool parse_template(std::string_view text, Settings &defaults) {
  while (!text.empty()) {
    const auto end = std::min(text.find('\n'), text.size() - 1);
    const auto line = trimmed(text.substr(0, end + 1));
    text.remove_prefix(end + 1);
    if (line.empty() || line.front() == '#') continue;
    const auto equals = line.find('=');
    // A NUL would end what is seen of the name or of the value.
    if (equals == std::string_view::npos || line.find('\0') != std::string_view::npos) return false;
    std::string name(trimmed(line.substr(0, equals)));
    if (!is_path(name.c_str())) return false;
    defaults.emplace_back(std::move(name), trimmed(line.substr(equals + 1)));
  }
  return true;
}

gint32 load_template(const gchar *name, Settings &defaults) {
  if (name == nullptr || *name == '\0' || std::string_view(name).find('/') != std::string_view::npos) {
    return PARAM_SERVICE_NO_TEMPLATE;
  }
  const std::string file =
      folder_from("PTZ_PLATFORM_TEMPLATE_DIR", "/etc/sysconfig/template") + '/' + name + "_grp.conf";
  ptz::Text contents;
  gsize length = 0;
  if (!g_file_get_contents(file.c_str(), ptz::out(contents), &length, nullptr)) return PARAM_SERVICE_NO_TEMPLATE;
  if (parse_template({contents.get(), length}, defaults)) return PARAM_SERVICE_OK;
  syslog(LOG_ERR, "Parameter template %s: neither a comment nor Parameter=default", file.c_str());
  return PARAM_SERVICE_NO_TEMPLATE;
}

// A walk over names that were all read at once. The context is what the caller sees of it.
struct Walk {
  ParamServiceGroupContext context = {};
  std::string group;  // with a dot at its end
  Names names;
  std::size_t next = 0;
  std::string full_name;
};

using Listing = int (ParamStore::*)(std::string_view, Names &);

ParamServiceGroupContext *begin_walk(const gchar *group_path, Listing listing, gint32 *error) {
  auto walk = std::make_unique<Walk>();
  *error = PARAM_SERVICE_BAD_PATH;
  if (!is_path(group_path)) return nullptr;
  *error = perform(Access::reads, PARAM_SERVICE_NO_GROUP,
                   [&](ParamStore &store) { return (store.*listing)(group_path, walk->names); });
  if (*error != PARAM_SERVICE_OK) return nullptr;
  walk->group = std::string(group_path) + '.';
  walk->context.walk = walk.get();
  return &walk.release()->context;
}

Walk *advance(ParamServiceGroupContext *context, gint32 *error) {
  *error = context != nullptr ? PARAM_SERVICE_OK : PARAM_SERVICE_BAD_ARGUMENT;
  if (context == nullptr) return nullptr;
  auto *walk = static_cast<Walk *>(context->walk);
  context->at_end = walk->next == walk->names.size();
  context->full_name = context->name = nullptr;
  if (context->at_end) return nullptr;
  walk->full_name = walk->group + walk->names[walk->next++];
  context->full_name = walk->full_name.data();
  return walk;
}

}  // namespace

void param_service_reset_options(ParamServiceOptions *options) { *options = {}; }

gchar *param_service_get_custom(const gchar *path, ParamServiceOptions *, gint32 *error) {
  *error = PARAM_SERVICE_BAD_PATH;
  if (!is_parameter_path(path)) return nullptr;
  ptz::Text value;
  *error =
      perform(Access::reads, PARAM_SERVICE_NO_PARAMETER, [&](ParamStore &store) { return store.get(path, value); });
  return value.release();
}

void param_service_set_custom(const gchar *path, const gchar *value, ParamServiceOptions *, gint32 *error) {
  *error = value != nullptr ? PARAM_SERVICE_BAD_PATH : PARAM_SERVICE_BAD_ARGUMENT;
  if (value == nullptr || !is_parameter_path(path)) return;
  *error =
      perform(Access::writes, PARAM_SERVICE_NO_PARAMETER, [&](ParamStore &store) { return store.set(path, value); });
}

gchar *param_service_create_dynamic_group(const gchar *group_path, const gchar *template_name,
                                          ParamServiceOptions *options, gint32 *error) {
  *error = PARAM_SERVICE_BAD_PATH;
  if (!is_path(group_path)) return nullptr;
  *error = PARAM_SERVICE_BAD_ARGUMENT;
  if (options->number < -1) return nullptr;
  Settings defaults;
  *error = load_template(template_name, defaults);
  if (*error != PARAM_SERVICE_OK) return nullptr;
  std::string created;
  const char letter = ptz::platform::split(group_path).name.front();
  *error = perform(Access::writes, PARAM_SERVICE_NO_GROUP, [&](ParamStore &store) {
    return store.create_group(group_path, letter, options->number, defaults, created);
  });
  const bool exists = *error == PARAM_SERVICE_OK || *error == PARAM_SERVICE_GROUP_EXISTS;
  return exists ? g_strdup(created.c_str()) : nullptr;
}

void param_service_delete_group(const gchar *group_path, ParamServiceOptions *, gint32 *error) {
  *error = PARAM_SERVICE_BAD_PATH;
  if (!is_path(group_path)) return;
  *error = perform(Access::writes, PARAM_SERVICE_NO_GROUP,
                   [&](ParamStore &store) { return store.delete_group(group_path); });
}

void param_service_sync(ParamServiceOptions *, gint32 *error) {
  *error = perform(Access::writes, PARAM_SERVICE_OK, [](ParamStore &store) { return store.sync(); });
}

ParamServiceGroupContext *param_service_get_params(const gchar *group_path, ParamServiceOptions *, gint32 *error) {
  return begin_walk(group_path, &ParamStore::list_parameters, error);
}

void param_service_get_param(ParamServiceGroupContext *context, ParamServiceOptions *, gint32 *error) {
  if (Walk *walk = advance(context, error); walk != nullptr) context->name = &walk->full_name[walk->group.size()];
}

ParamServiceGroupContext *param_service_get_child_groups(const gchar *group_path, ParamServiceOptions *,
                                                         gint32 *error) {
  return begin_walk(group_path, &ParamStore::list_groups, error);
}

void param_service_get_child_group(ParamServiceGroupContext *context, ParamServiceOptions *, gint32 *error) {
  advance(context, error);
}

void param_service_cleanup_group_context(ParamServiceGroupContext *context) {
  if (context != nullptr) delete static_cast<Walk *>(context->walk);
}
