// What GLib hands from one thread to another: the sources and callbacks of main contexts, last references, and the
// items of thread pools.
#include <array>
#include <atomic>
#include <cstddef>
#include <utility>

#include "announce.h"

namespace {

// Both directions of a lock.
void pass_lock(gpointer lock) {
  if (lock == nullptr) return;
  __tsan_acquire(lock);
  __tsan_release(lock);
}

// GLib holds the context's lock in each function on an attached source, and in an iteration before and after the
// callbacks of sources. Only one direction is announced: what was done before a source was changed comes before what
// the context calls next. That the changing thread also comes after earlier callbacks is chance, and would hide that
// nothing else orders the two.
void change(GMainContext *context) {
  if (context != nullptr) __tsan_release(context);
}

void change(GSource *source) {
  __tsan_release(source);
  change(source->context);
}

// The last use of a source comes before its end.
void end(GSource *source) {
  if (source == nullptr) return;
  __tsan_acquire(source);
  change(source);
}

GMainContext *or_default(GMainContext *context) { return context != nullptr ? context : g_main_context_default(); }

// While it lives, a source's function or callback runs: the context's lock was released before and is taken after.
class InCallback {
  GSource *source_;
  GMainContext *context_;

 public:
  explicit InCallback(GSource *source)
      : source_(source), context_(source != nullptr ? source->context : g_main_context_default()) {
    if (source_ != nullptr) __tsan_acquire(source_);
    if (context_ != nullptr) __tsan_acquire(context_);
  }
  InCallback(InCallback &&) = delete;
  ~InCallback() {
    if (source_ != nullptr) __tsan_release(source_);
    if (context_ != nullptr) __tsan_release(context_);
  }
};

// The functions of a kind of source, and those that GLib gets in their place. They know the kind without a look at the
// source, which tests leave out.
struct SourceKind {
  std::atomic<const GSourceFuncs *> given = nullptr;
  GSourceFuncs real = {}, announced = {};
};

constexpr std::size_t max_source_kinds = 64;
SourceKind source_kinds[max_source_kinds];
std::atomic<std::size_t> source_kind_count = 0;

template <std::size_t kind>
gboolean prepare(GSource *source, gint *timeout_ms) {
  const InCallback announced(source);
  return source_kinds[kind].real.prepare(source, timeout_ms);
}

template <std::size_t kind>
gboolean check(GSource *source) {
  const InCallback announced(source);
  return source_kinds[kind].real.check(source);
}

template <std::size_t kind>
gboolean dispatch(GSource *source, GSourceFunc callback, gpointer user_data) {
  const InCallback announced(source);
  return source_kinds[kind].real.dispatch(source, callback, user_data);
}

template <std::size_t kind>
void finalize(GSource *source) {
  const InCallback announced(source);
  source_kinds[kind].real.finalize(source);
}

template <std::size_t... kinds>
constexpr std::array<GSourceFuncs, sizeof...(kinds)> announcing_functions(std::index_sequence<kinds...>) {
  return {GSourceFuncs{prepare<kinds>, check<kinds>, dispatch<kinds>, finalize<kinds>, nullptr, nullptr}...};
}

constexpr auto announcing = announcing_functions(std::make_index_sequence<max_source_kinds>());

// Two threads that come with the same new functions make two kinds of them, which does no harm.
GSourceFuncs *announced(const GSourceFuncs *given) {
  for (std::size_t i = 0; i < source_kind_count; ++i) {
    if (source_kinds[i].given == given) return &source_kinds[i].announced;
  }
  const std::size_t index = source_kind_count++;
  if (index >= max_source_kinds) g_error("more than %zu kinds of sources", max_source_kinds);
  auto &kind = source_kinds[index];
  kind.real = kind.announced = *given;
  if (given->prepare != nullptr) kind.announced.prepare = announcing[index].prepare;
  if (given->check != nullptr) kind.announced.check = announcing[index].check;
  if (given->dispatch != nullptr) kind.announced.dispatch = announcing[index].dispatch;
  if (given->finalize != nullptr) kind.announced.finalize = announcing[index].finalize;
  kind.given = given;
  return &kind.announced;
}

// GLib makes the sources of these kinds itself. Before main(), while there is one thread.
__attribute__((constructor)) void announce_sources_of_glib() {
  g_idle_funcs = *announced(&g_idle_funcs);
  g_timeout_funcs = *announced(&g_timeout_funcs);
}

void run_pool_function(gpointer item, gpointer data) {
  __tsan_acquire(data);
  const auto *pool = static_cast<const std::pair<GFunc, gpointer> *>(data);
  pool->first(item, pool->second);
  __tsan_release(data);
}

}  // namespace

extern "C" {

extern const char tsan_glib_is_linked = 1;

INSTEAD_OF(g_object_unref, void, (gpointer object)) {
  REAL(g_object_unref);
  pass_lock(object);
  real(object);
}

INSTEAD_OF(g_source_unref, void, (GSource * source)) {
  REAL(g_source_unref);
  end(source);
  real(source);
}

INSTEAD_OF(g_source_destroy, void, (GSource * source)) {
  REAL(g_source_destroy);
  end(source);
  real(source);
}

INSTEAD_OF(g_source_new, GSource *, (GSourceFuncs * functions, guint size)) {
  REAL(g_source_new);
  return real(announced(functions), size);
}

INSTEAD_OF(g_source_attach, guint, (GSource * source, GMainContext *context)) {
  REAL(g_source_attach);
  change(source);
  change(or_default(context));
  return real(source, context);
}

// Functions on a source, which take the lock of its context.
#define ON_SOURCE(name, result, parameters, arguments) \
  INSTEAD_OF(name, result, parameters) {               \
    REAL(name);                                        \
    change(source);                                    \
    return real arguments;                             \
  }

ON_SOURCE(g_source_set_ready_time, void, (GSource * source, gint64 time), (source, time))
ON_SOURCE(g_source_set_priority, void, (GSource * source, gint priority), (source, priority))
ON_SOURCE(g_source_add_unix_fd, gpointer, (GSource * source, gint fd, GIOCondition events), (source, fd, events))
ON_SOURCE(g_source_modify_unix_fd, void, (GSource * source, gpointer tag, GIOCondition events), (source, tag, events))
ON_SOURCE(g_source_remove_unix_fd, void, (GSource * source, gpointer tag), (source, tag))
ON_SOURCE(g_source_add_poll, void, (GSource * source, GPollFD *fd), (source, fd))
ON_SOURCE(g_source_remove_poll, void, (GSource * source, GPollFD *fd), (source, fd))
ON_SOURCE(g_source_set_callback, void,
          (GSource * source, GSourceFunc function, gpointer user_data, GDestroyNotify notify),
          (source, function, user_data, notify))

// Functions that take the lock of the default main context.
#define ON_DEFAULT_CONTEXT(name, result, parameters, arguments) \
  INSTEAD_OF(name, result, parameters) {                        \
    REAL(name);                                                 \
    change(g_main_context_default());                           \
    return real arguments;                                      \
  }

ON_DEFAULT_CONTEXT(g_idle_add, guint, (GSourceFunc function, gpointer user_data), (function, user_data))
ON_DEFAULT_CONTEXT(g_idle_add_full, guint,
                   (gint priority, GSourceFunc function, gpointer user_data, GDestroyNotify notify),
                   (priority, function, user_data, notify))
ON_DEFAULT_CONTEXT(g_timeout_add, guint, (guint interval_ms, GSourceFunc function, gpointer user_data),
                   (interval_ms, function, user_data))
ON_DEFAULT_CONTEXT(g_timeout_add_full, guint,
                   (gint priority, guint interval_ms, GSourceFunc function, gpointer user_data, GDestroyNotify notify),
                   (priority, interval_ms, function, user_data, notify))
ON_DEFAULT_CONTEXT(g_timeout_add_seconds, guint, (guint interval_s, GSourceFunc function, gpointer user_data),
                   (interval_s, function, user_data))
ON_DEFAULT_CONTEXT(g_timeout_add_seconds_full, guint,
                   (gint priority, guint interval_s, GSourceFunc function, gpointer user_data, GDestroyNotify notify),
                   (priority, interval_s, function, user_data, notify))

INSTEAD_OF(g_source_remove, gboolean, (guint id)) {
  REAL(g_source_remove);
  end(g_main_context_find_source_by_id(nullptr, id));
  change(g_main_context_default());
  return real(id);
}

INSTEAD_OF(g_main_context_wakeup, void, (GMainContext * context)) {
  REAL(g_main_context_wakeup);
  change(or_default(context));
  real(context);
}

INSTEAD_OF(g_main_context_iteration, gboolean, (GMainContext * context, gboolean may_block)) {
  REAL(g_main_context_iteration);
  pass_lock(or_default(context));
  const gboolean dispatched = real(context, may_block);
  pass_lock(or_default(context));
  return dispatched;
}

INSTEAD_OF(g_main_loop_run, void, (GMainLoop * loop)) {
  REAL(g_main_loop_run);
  pass_lock(g_main_loop_get_context(loop));
  real(loop);
  pass_lock(g_main_loop_get_context(loop));
}

INSTEAD_OF(g_main_loop_quit, void, (GMainLoop * loop)) {
  REAL(g_main_loop_quit);
  change(g_main_loop_get_context(loop));
  real(loop);
}

INSTEAD_OF(g_thread_pool_new, GThreadPool *,
           (GFunc function, gpointer user_data, gint threads, gboolean exclusive, GError **error)) {
  REAL(g_thread_pool_new);
  auto *pool = new std::pair<GFunc, gpointer>(function, user_data);  // lives as long as the program
  return real(run_pool_function, pool, threads, exclusive, error);
}

INSTEAD_OF(g_thread_pool_push, gboolean, (GThreadPool * pool, gpointer item, GError **error)) {
  REAL(g_thread_pool_push);
  __tsan_release(pool->user_data);
  return real(pool, item, error);
}

INSTEAD_OF(g_thread_pool_free, void, (GThreadPool * pool, gboolean immediate, gboolean wait)) {
  REAL(g_thread_pool_free);
  gpointer data = pool->user_data;
  real(pool, immediate, wait);
  if (wait) __tsan_acquire(data);
}

}  // extern "C"
