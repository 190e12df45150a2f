#include "bus_connection.h"

#include <glib-unix.h>
#include <syslog.h>

#include <array>
#include <csignal>

namespace sim {

namespace {

constexpr guint limit_ms = 5'000;

// A main context of its own: meanwhile, nothing else of the driver runs. GLib connects on another thread, because the
// connection would tell on this context of its end.
struct Attempt {
  Owned<GMainContext, g_main_context_unref> context{g_main_context_new()};
  Object<GCancellable> cancellable{g_cancellable_new()};
  GDBusConnection *connection = nullptr;
  Error error;
  bool done = false;
  bool too_late = false;
  bool asked_to_end = false;

  void run();
  void watch(GSource *source, GSourceFunc on_event) {
    g_source_set_callback(source, on_event, this, nullptr);
    g_source_attach(source, context.get());
  }
};

void connect(GTask *task, gpointer, gpointer, GCancellable *cancellable) {
  GError *error = nullptr;
  GDBusConnection *connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, cancellable, &error);
  if (connection != nullptr) {
    g_task_return_pointer(task, connection, g_object_unref);
  } else {
    g_task_return_error(task, error);
  }
}

void on_connected(GObject *, GAsyncResult *result, gpointer user_data) {
  auto &attempt = *static_cast<Attempt *>(user_data);
  GError *error = nullptr;
  attempt.connection = static_cast<GDBusConnection *>(g_task_propagate_pointer(G_TASK(result), &error));
  attempt.error.reset(error);
  attempt.done = true;
}

gboolean on_limit(gpointer user_data) {
  auto &attempt = *static_cast<Attempt *>(user_data);
  attempt.too_late = true;
  g_cancellable_cancel(attempt.cancellable.get());
  return G_SOURCE_CONTINUE;
}

gboolean on_end_signal(gpointer user_data) {
  auto &attempt = *static_cast<Attempt *>(user_data);
  attempt.asked_to_end = true;
  g_cancellable_cancel(attempt.cancellable.get());
  return G_SOURCE_CONTINUE;
}

void Attempt::run() {
  const std::array<Owned<GSource, g_source_unref>, 3> sources = {
      Owned<GSource, g_source_unref>(g_timeout_source_new(limit_ms)),
      Owned<GSource, g_source_unref>(g_unix_signal_source_new(SIGTERM)),
      Owned<GSource, g_source_unref>(g_unix_signal_source_new(SIGINT))};
  watch(sources[0].get(), on_limit);
  watch(sources[1].get(), on_end_signal);
  watch(sources[2].get(), on_end_signal);
  g_main_context_push_thread_default(context.get());
  const Object<GTask> task(g_task_new(nullptr, cancellable.get(), on_connected, this));
  g_task_run_in_thread(task.get(), connect);
  while (!done) g_main_context_iteration(context.get(), TRUE);
  g_main_context_pop_thread_default(context.get());
  for (const auto &source : sources) g_source_destroy(source.get());
}

void on_closed(GDBusConnection *, gboolean, GError *, gpointer) {
  syslog(LOG_WARNING, "the system bus has gone; the presets are served there again when the driver is started anew");
}

}  // namespace

bool is_bus_name(const char *short_name) {
  const Text name(g_strdup_printf("com.velk.PTZ.%s", short_name));
  const Text path(g_strdup_printf("/com/velk/PTZ/%s", short_name));
  return g_utf8_validate(short_name, -1, nullptr) != FALSE && g_dbus_is_name(name.get()) != FALSE &&
         g_variant_is_object_path(path.get()) != FALSE;
}

BusConnection::~BusConnection() {
  if (connection_) g_signal_handlers_disconnect_by_func(connection_.get(), reinterpret_cast<gpointer>(on_closed), this);
}

bool BusConnection::open(GError **error) {
  Attempt attempt;
  attempt.run();
  if (attempt.connection != nullptr) {
    connection_.reset(attempt.connection);
    g_dbus_connection_set_exit_on_close(connection_.get(), FALSE);
    g_signal_connect(connection_.get(), "closed", G_CALLBACK(on_closed), this);
    return true;
  }
  if (attempt.asked_to_end) return true;
  g_set_error(error, G_IO_ERROR, attempt.too_late ? G_IO_ERROR_TIMED_OUT : G_IO_ERROR_FAILED, "no system bus: %s",
              attempt.too_late ? "it does not answer" : attempt.error->message);
  return false;
}

}  // namespace sim
