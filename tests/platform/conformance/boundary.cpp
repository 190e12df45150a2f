#include "boundary.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

#include "platform/config_event.h"
#include "platform/file_util.h"
#include "platform/kv_config.h"
#include "platform/param_service.h"
#include "platform/param_service_backup.h"
#include "platform/status_store.h"

namespace conformance {

namespace {

Strings paths_of_libraries;
std::vector<void *> handles;

constexpr const char *functions[] = {"config_event_append_escaped_pair",
                                     "config_event_declare",
                                     "config_event_free",
                                     "config_event_init_change_string",
                                     "config_event_new",
                                     "config_event_send",
                                     "config_event_undeclare",
                                     "file_util_set_contents_synced",
                                     "kv_config_close",
                                     "kv_config_get",
                                     "kv_config_open",
                                     "param_service_cleanup_group_context",
                                     "param_service_create_dynamic_group",
                                     "param_service_delete_group",
                                     "param_service_get_child_group",
                                     "param_service_get_child_groups",
                                     "param_service_get_custom",
                                     "param_service_get_param",
                                     "param_service_get_params",
                                     "param_service_reset_options",
                                     "param_service_set_custom",
                                     "param_service_sync",
                                     "status_store_create_group",
                                     "status_store_get_group",
                                     "status_store_set_group"};

void *find(const char *function) {
  for (void *handle : handles) {
    if (void *symbol = dlsym(handle, function)) return symbol;
  }
  return nullptr;
}

// Each fixture checks its service first, so this is called for functions that are there.
void *require(const char *function) {
  void *symbol = find(function);
  if (symbol == nullptr) {
    std::fprintf(stderr, "the platform library lacks %s\n", function);
    std::abort();
  }
  return symbol;
}

}  // namespace

void load(const Strings &paths) {
  paths_of_libraries = paths;
  for (const auto &path : paths) {
    void *handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
      std::fprintf(stderr, "the platform library cannot be loaded: %s\n", dlerror());
      std::exit(2);
    }
    handles.push_back(handle);
  }
}

const Strings &libraries() { return paths_of_libraries; }

std::span<const char *const> required_functions() { return functions; }

bool is_defined(const char *function) { return find(function) != nullptr; }

std::string missing_of(const std::string &service) {
  std::string missing;
  for (const std::string function : functions) {
    if (function.starts_with(service) && !is_defined(function.c_str())) missing += " " + function;
  }
  return missing;
}

}  // namespace conformance

#define FORWARD(Result, function, parameters, arguments)                                             \
  Result function parameters {                                                                       \
    static const auto real = reinterpret_cast<decltype(&function)>(conformance::require(#function)); \
    return real arguments;                                                                           \
  }

FORWARD(ConfigEvent *, config_event_new, (const gchar *name, gint first, gint second), (name, first, second))
FORWARD(gboolean, config_event_declare,
        (ConfigEvent * event, const gchar *owner, const gchar *path, const gchar *interface, GError **error),
        (event, owner, path, interface, error))
FORWARD(gboolean, config_event_undeclare,
        (ConfigEvent * event, const gchar *owner, const gchar *path, const gchar *interface, GError **error),
        (event, owner, path, interface, error))
FORWARD(void, config_event_init_change_string, (ConfigEvent * event), (event))
FORWARD(void, config_event_append_escaped_pair, (ConfigEvent * event, const gchar *key, const gchar *value),
        (event, key, value))
FORWARD(gboolean, config_event_send,
        (ConfigEvent * event, const gchar *owner, const gchar *path, const gchar *interface, const gchar *key,
         gint kind, GError **error),
        (event, owner, path, interface, key, kind, error))
FORWARD(void, config_event_free, (ConfigEvent * event), (event))

FORWARD(gboolean, file_util_set_contents_synced, (const gchar *path, const gchar *data, gsize length, GError **error),
        (path, data, length, error))

FORWARD(gint, kv_config_open, (const gchar *path), (path))
FORWARD(const KvConfigRecord *, kv_config_get, (void), ())
FORWARD(void, kv_config_close, (void), ())

FORWARD(void, param_service_reset_options, (ParamServiceOptions * options), (options))
FORWARD(gchar *, param_service_get_custom, (const gchar *path, ParamServiceOptions *options, gint32 *error),
        (path, options, error))
FORWARD(void, param_service_set_custom,
        (const gchar *path, const gchar *value, ParamServiceOptions *options, gint32 *error),
        (path, value, options, error))
FORWARD(gchar *, param_service_create_dynamic_group,
        (const gchar *group, const gchar *name, ParamServiceOptions *options, gint32 *error),
        (group, name, options, error))
FORWARD(void, param_service_delete_group, (const gchar *group, ParamServiceOptions *options, gint32 *error),
        (group, options, error))
FORWARD(void, param_service_sync, (ParamServiceOptions * options, gint32 *error), (options, error))
FORWARD(ParamServiceGroupContext *, param_service_get_params,
        (const gchar *group, ParamServiceOptions *options, gint32 *error), (group, options, error))
FORWARD(void, param_service_get_param,
        (ParamServiceGroupContext * context, ParamServiceOptions *options, gint32 *error), (context, options, error))
FORWARD(ParamServiceGroupContext *, param_service_get_child_groups,
        (const gchar *group, ParamServiceOptions *options, gint32 *error), (group, options, error))
FORWARD(void, param_service_get_child_group,
        (ParamServiceGroupContext * context, ParamServiceOptions *options, gint32 *error), (context, options, error))
FORWARD(void, param_service_cleanup_group_context, (ParamServiceGroupContext * context), (context))

FORWARD(gboolean, param_service_backup, (const gchar *file, GError **error), (file, error))
FORWARD(gboolean, param_service_restore, (const gchar *file, GError **error), (file, error))

FORWARD(gint, status_store_create_group, (const gchar *name, guint32 size, gint mode), (name, size, mode))
FORWARD(gint, status_store_set_group, (const gchar *name, StatusStoreParam **params, gint mode), (name, params, mode))
FORWARD(gint, status_store_get_group, (const gchar *name, StatusStoreParam **params, gint mode), (name, params, mode))
