#include "platform/param_service.h"

#include <memory>
#include <string>
#include <utility>

#include "base/handles.h"
#include "param_template.h"
#include "param_tree.h"

namespace {

using ptz::platform::is_parameter_path;
using ptz::platform::is_path;
using ptz::platform::load_template;
using ptz::platform::Names;
using ptz::platform::ParamStore;
using ptz::platform::ParamTree;
using ptz::platform::Settings;
using ptz::platform::StoreResult;

// What an operation reports, with the error of the thing that it has not found.
gint32 error_of(StoreResult result, gint32 missing) {
  switch (result) {
    case StoreResult::ok:
      return PARAM_SERVICE_OK;
    case StoreResult::not_found:
      return missing;
    case StoreResult::exists:
      return PARAM_SERVICE_GROUP_EXISTS;
    case StoreResult::path_too_long:
      return PARAM_SERVICE_BAD_PATH;
    case StoreResult::value_too_long:
      return PARAM_SERVICE_BAD_ARGUMENT;
    default:
      return PARAM_SERVICE_STORAGE;
  }
}

// A walk over names that were all read at once. The context is what the caller sees of it.
struct Walk {
  ParamServiceGroupContext context = {};
  std::string group;  // with a dot at its end
  Names names;
  std::size_t next = 0;
  std::string full_name;
};

using Listing = StoreResult (ParamStore::*)(std::string_view, Names &);

ParamServiceGroupContext *begin_walk(const gchar *group_path, Listing listing, gint32 *error) {
  auto walk = std::make_unique<Walk>();
  *error = PARAM_SERVICE_BAD_PATH;
  if (!is_path(group_path)) return nullptr;
  *error =
      error_of(ParamTree::instance().read([&](ParamStore &store) { return (store.*listing)(group_path, walk->names); }),
               PARAM_SERVICE_NO_GROUP);
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
  *error = error_of(ParamTree::instance().read([&](ParamStore &store) { return store.get(path, value); }),
                    PARAM_SERVICE_NO_PARAMETER);
  return value.release();
}

void param_service_set_custom(const gchar *path, const gchar *value, ParamServiceOptions *, gint32 *error) {
  *error = value != nullptr ? PARAM_SERVICE_BAD_PATH : PARAM_SERVICE_BAD_ARGUMENT;
  if (value == nullptr) return;
  if (!is_parameter_path(path)) {
    // contract: the layer above reports success for a new parameter, whatever its path.
    ParamTree::instance().report_bad_path(path != nullptr ? path : "(null)");
    return;
  }
  *error = error_of(ParamTree::instance().write(path, [&](ParamStore &store) { return store.set(path, value); }),
                    PARAM_SERVICE_NO_PARAMETER);
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
  *error = error_of(ParamTree::instance().write(group_path,
                                                [&](ParamStore &store) {
                                                  return store.create_group(group_path, letter, options->number,
                                                                            defaults, created);
                                                }),
                    PARAM_SERVICE_NO_GROUP);
  const bool exists = *error == PARAM_SERVICE_OK || *error == PARAM_SERVICE_GROUP_EXISTS;
  return exists ? g_strdup(created.c_str()) : nullptr;
}

void param_service_delete_group(const gchar *group_path, ParamServiceOptions *, gint32 *error) {
  *error = PARAM_SERVICE_BAD_PATH;
  if (!is_path(group_path)) return;
  *error = error_of(
      ParamTree::instance().write(group_path, [&](ParamStore &store) { return store.delete_group(group_path); }),
      PARAM_SERVICE_NO_GROUP);
}

void param_service_sync(ParamServiceOptions *, gint32 *error) {
  *error = error_of(ParamTree::instance().sync(), PARAM_SERVICE_STORAGE);
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
