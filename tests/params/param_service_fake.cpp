#include "param_service_fake.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <set>
#include <utility>

#include "interpose.h"

namespace {

using ptz_test::FakeService;

// As the platform declares them; the tests see the public headers only.
struct ParamServiceOptions {
  gint32 mode, number, extra;
};
struct ParamServiceGroupContext {
  gchar *full_name, *name;
  gboolean at_end;
  gpointer walk;
};

// What a cleared option block has, so that a word that is set to 0 is seen.
constexpr ParamServiceOptions cleared = {-1001, -1002, -1003};

// Never destroyed: the worker thread lives until the very end of the process.
struct Shared {
  std::mutex lock;
  FakeService *service = nullptr;
  std::set<const void *> fresh;  // option blocks that were cleared and not used since
  FakeService::Calls calls;
  std::vector<unsigned> sleeps;
};

Shared &shared() {
  static auto &only = *new Shared;
  return only;
}

struct FakeWalk {
  ParamServiceGroupContext context;
  std::string group;
  FakeService::Entries entries;
  std::size_t next = 0;
};

std::string with_options(std::string call, const ParamServiceOptions &options) {
  if (options.mode != cleared.mode) call += " mode=" + std::to_string(options.mode);
  if (options.number != cleared.number) call += " number=" + std::to_string(options.number);
  if (options.extra != cleared.extra) call += " extra=" + std::to_string(options.extra);
  return call;
}

// Keeps the call. Null where it fails.
FakeService *enter(const std::string &operation, const ParamServiceOptions *options, gint32 *error) {
  std::unique_lock lock(shared().lock);
  EXPECT_EQ(shared().fresh.erase(options), 1U) << operation << " with an option block that was not cleared";
  const std::string call = with_options(operation, *options);
  shared().calls.push_back(call);
  auto *service = shared().service;
  if (service == nullptr) *error = ptz_test::service_failure;
  if (service == nullptr || !service->error) return service;
  const auto ask = service->error;
  lock.unlock();
  // A service may leave the error alone where there is none.
  if (const auto reported = ask(call); reported != 0) {
    *error = reported;
    return nullptr;
  }
  return service;
}

std::string text(const gchar *text_or_null) { return text_or_null != nullptr ? text_or_null : "(null)"; }

ParamServiceGroupContext *begin(const std::string &operation,
                                std::map<std::string, FakeService::Entries> FakeService::*of, const gchar *group,
                                const ParamServiceOptions *options, gint32 *error) {
  auto *service = enter(operation + " " + text(group), options, error);
  // It may return a walk with any error.
  auto *walk = new FakeWalk{{}, group, {}};
  walk->context.walk = walk;
  if (service == nullptr) return &walk->context;
  const std::lock_guard lock(shared().lock);
  const auto found = (service->*of).find(group);
  if (service->answers_nothing || found == (service->*of).end()) {
    if (!service->answers_nothing) *error = ptz_test::service_failure;
    delete walk;
    return nullptr;
  }
  walk->entries = found->second;
  return &walk->context;
}

void move_on(const std::string &operation, ParamServiceGroupContext *context, const ParamServiceOptions *options,
             gint32 *error) {
  auto *walk = static_cast<FakeWalk *>(context->walk);
  if (enter(operation + " " + walk->group, options, error) == nullptr) return;
  context->at_end = walk->next == walk->entries.size() ? TRUE : FALSE;
  context->full_name = context->name = nullptr;
  if (context->at_end) return;
  auto &entry = walk->entries[walk->next++];
  if (!entry.full_name.empty()) context->full_name = entry.full_name.data();
  if (!entry.name.empty()) context->name = entry.name.data();
}

}  // namespace

namespace ptz_test {

FakeService::FakeService() {
  const std::lock_guard lock(shared().lock);
  shared().service = this;
  shared().calls.clear();
  shared().sleeps.clear();
}

FakeService::~FakeService() {
  const std::lock_guard lock(shared().lock);
  shared().service = nullptr;
}

FakeService::Calls FakeService::calls() {
  const std::lock_guard lock(shared().lock);
  return std::exchange(shared().calls, {});
}

std::string FakeService::value(const std::string &path) const {
  const std::lock_guard lock(shared().lock);
  const auto found = tree.find(path);
  return found != tree.end() ? found->second : "";
}

std::vector<unsigned> sleeps() {
  const std::lock_guard lock(shared().lock);
  return std::exchange(shared().sleeps, {});
}

}  // namespace ptz_test

INTERPOSE(unsigned, sleep, (unsigned seconds)) {
  const std::lock_guard lock(shared().lock);
  shared().sleeps.push_back(seconds);
  return 0;
}

// A program that defines the platform's functions itself overrides them.
#define FOR_THE_LIBRARY __attribute__((visibility("default")))
extern "C" {
FOR_THE_LIBRARY void param_service_reset_options(ParamServiceOptions *options) {
  *options = cleared;
  const std::lock_guard lock(shared().lock);
  shared().fresh.insert(options);
}

FOR_THE_LIBRARY gchar *param_service_get_custom(const gchar *path, ParamServiceOptions *options, gint32 *error) {
  const auto *service = enter("get " + text(path), options, error);
  // It may return a value with any error.
  if (service == nullptr) return g_strdup("not to be believed");
  const std::lock_guard lock(shared().lock);
  if (service->answers_nothing) return nullptr;
  const auto found = service->tree.find(path);
  if (found == service->tree.end()) *error = ptz_test::service_failure;
  return found != service->tree.end() ? g_strdup(found->second.c_str()) : nullptr;
}

FOR_THE_LIBRARY void param_service_set_custom(const gchar *path, const gchar *value, ParamServiceOptions *options,
                                              gint32 *error) {
  auto *service = enter("set " + text(path) + "=" + text(value), options, error);
  if (service == nullptr) return;
  const std::lock_guard lock(shared().lock);
  if (service->keeps_sets) service->tree[path] = value;
}

FOR_THE_LIBRARY gchar *param_service_create_dynamic_group(const gchar *group_path, const gchar *template_name,
                                                          ParamServiceOptions *options, gint32 *error) {
  enter("create " + text(group_path) + " from " + text(template_name), options, error);
  const std::lock_guard lock(shared().lock);
  const auto *service = shared().service;
  return service != nullptr && !service->answers_nothing ? g_strdup(service->created.c_str()) : nullptr;
}

FOR_THE_LIBRARY void param_service_delete_group(const gchar *group_path, ParamServiceOptions *options, gint32 *error) {
  enter("delete " + text(group_path), options, error);
}

FOR_THE_LIBRARY void param_service_sync(ParamServiceOptions *options, gint32 *error) { enter("sync", options, error); }

FOR_THE_LIBRARY ParamServiceGroupContext *param_service_get_params(const gchar *group_path,
                                                                   ParamServiceOptions *options, gint32 *error) {
  return begin("params", &FakeService::parameters, group_path, options, error);
}

FOR_THE_LIBRARY void param_service_get_param(ParamServiceGroupContext *context, ParamServiceOptions *options,
                                             gint32 *error) {
  move_on("param", context, options, error);
}

FOR_THE_LIBRARY ParamServiceGroupContext *param_service_get_child_groups(const gchar *group_path,
                                                                         ParamServiceOptions *options, gint32 *error) {
  return begin("groups", &FakeService::children, group_path, options, error);
}

FOR_THE_LIBRARY void param_service_get_child_group(ParamServiceGroupContext *context, ParamServiceOptions *options,
                                                   gint32 *error) {
  move_on("group", context, options, error);
}

FOR_THE_LIBRARY void param_service_cleanup_group_context(ParamServiceGroupContext *context) {
  ASSERT_NE(context, nullptr);
  const std::unique_ptr<FakeWalk> walk(static_cast<FakeWalk *>(context->walk));
  const std::lock_guard lock(shared().lock);
  shared().calls.push_back("cleanup " + walk->group);
}
}
