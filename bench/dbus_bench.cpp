// Calls of the legacy configuration interface over a message bus: the typed proxy beside a bare call of the same
// method, in rounds by turns. The service is this program, started again. Run it on a bus of its own: dbus-run-session.
#include <ptz.h>
#include <time.h>

#include <array>
#include <cstdio>
#include <memory>
#include <vector>

#include "handles.h"
#include "main_loop.h"
#include "statistics.h"

namespace {

using ptz_test::Object;
using Value = std::unique_ptr<GVariant, ptz_test::FreeWith<g_variant_unref>>;
using Legacy = ptzlegacyconfigdynamicConfigurationLegacy;

constexpr double proxy_aim = 1.1;  // times as long at most
constexpr char service_name[] = "com.velk.PTZ.bench";
constexpr char object_path[] = "/com/velk/PTZ/bench";
constexpr char interface_name[] = "com.velk.Configuration.Legacy";
constexpr gint sets = 1000, entries = 20;

[[noreturn]] void give_up(const char *what) {
  std::fprintf(stderr, "dbus_bench: %s\n", what);
  std::exit(1);
}

double now_us() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) * 1e-3;
}

// --- the service
// ------------------------------------------------------------------------------------------------------

Value all_sets() {
  GVariantBuilder all;
  g_variant_builder_init(&all, G_VARIANT_TYPE("a{ia{sv}}"));
  for (gint set = 0; set < sets; ++set) {
    g_variant_builder_open(&all, G_VARIANT_TYPE("{ia{sv}}"));
    g_variant_builder_add(&all, "i", set);
    g_variant_builder_open(&all, G_VARIANT_TYPE("a{sv}"));
    for (gint entry = 0; entry < entries; ++entry) {
      const ptz_test::Text name(g_strdup_printf("Entry%d", entry));
      g_variant_builder_add(&all, "{sv}", name.get(), g_variant_new_int32(set * entry));
    }
    g_variant_builder_close(&all);
    g_variant_builder_close(&all);
  }
  return Value(g_variant_ref_sink(g_variant_builder_end(&all)));
}

gboolean on_get_entry(Legacy *object, GDBusMethodInvocation *invocation, gint index, const gchar *, gpointer) {
  ptz_legacy_config_dynamic_configuration_legacy_complete_get_configuration_entry(
      object, invocation, g_variant_new_variant(g_variant_new_int32(index)));
  return TRUE;
}

gboolean on_get_all(Legacy *object, GDBusMethodInvocation *invocation, gpointer all) {
  ptz_legacy_config_dynamic_configuration_legacy_complete_get_configurations(object, invocation,
                                                                             static_cast<GVariant *>(all));
  return TRUE;
}

int serve(GDBusConnection *connection) {
  const Value all = all_sets();
  const Object<Legacy> skeleton(ptz_legacy_config_dynamic_configuration_legacy_skeleton_new());
  g_signal_connect(skeleton.get(), "handle-get-configuration-entry", G_CALLBACK(on_get_entry), nullptr);
  g_signal_connect(skeleton.get(), "handle-get-configurations", G_CALLBACK(on_get_all), all.get());
  if (!g_dbus_interface_skeleton_export(G_DBUS_INTERFACE_SKELETON(skeleton.get()), connection, object_path, nullptr)) {
    give_up("the service cannot export its object");
  }
  g_bus_own_name_on_connection(connection, service_name, G_BUS_NAME_OWNER_FLAGS_NONE, nullptr, nullptr, nullptr,
                               nullptr);
  const bench::MainLoop loop(g_main_loop_new(nullptr, FALSE));
  g_main_loop_run(loop.get());
  return 0;
}

void wait_for_service(GDBusConnection *connection) {
  const bench::MainLoop loop(g_main_loop_new(nullptr, FALSE));
  const guint watch = g_bus_watch_name_on_connection(
      connection, service_name, G_BUS_NAME_WATCHER_FLAGS_NONE,
      [](GDBusConnection *, const gchar *, const gchar *, gpointer waiting) {
        g_main_loop_quit(static_cast<GMainLoop *>(waiting));
      },
      nullptr, loop.get(), nullptr);
  g_main_loop_run(loop.get());
  g_bus_unwatch_name(watch);
}

// --- its callers
// ------------------------------------------------------------------------------------------------------

struct Callers {
  GDBusConnection *connection;
  Legacy *proxy;
};

Value entry_by_proxy(const Callers &callers, gint index) {
  GVariant *value = nullptr;
  ptz_legacy_config_dynamic_configuration_legacy_call_get_configuration_entry_sync(callers.proxy, index, "Entry1",
                                                                                   &value, nullptr, nullptr);
  return Value(value);
}

Value bare_call(const Callers &callers, const char *method, GVariant *parameters, const char *type,
                const char *format) {
  const Value reply(g_dbus_connection_call_sync(callers.connection, service_name, object_path, interface_name, method,
                                                parameters, G_VARIANT_TYPE(type), G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
                                                nullptr));
  if (reply == nullptr) return nullptr;
  GVariant *value = nullptr;
  g_variant_get(reply.get(), format, &value);
  return Value(value);
}

Value entry_by_bare_call(const Callers &callers, gint index) {
  return bare_call(callers, "GetConfigurationEntry", g_variant_new("(is)", index, "Entry1"), "(v)", "(@v)");
}

Value all_by_proxy(const Callers &callers, gint) {
  GVariant *all = nullptr;
  ptz_legacy_config_dynamic_configuration_legacy_call_get_configurations_sync(callers.proxy, &all, nullptr, nullptr);
  return Value(all);
}

Value all_by_bare_call(const Callers &callers, gint) {
  return bare_call(callers, "GetConfigurations", nullptr, "(a{ia{sv}})", "(@a{ia{sv}})");
}

using Ask = Value (*)(const Callers &, gint);

// Microseconds for each call.
double time_calls(const Callers &callers, Ask ask, int calls) {
  const double begin = now_us();
  for (int i = 0; i < calls; ++i) {
    if (ask(callers, i) == nullptr) give_up("a call was not answered");
  }
  return (now_us() - begin) / calls;
}

double compare(const Callers &callers, const char *title, Ask by_proxy, Ask by_bare_call, int rounds, int calls) {
  std::vector<double> proxy, bare;
  for (int round = 0; round < rounds; ++round) {
    // By turns first: what the one leaves behind is the other's every second time.
    const bool proxy_first = round % 2 == 0;
    (proxy_first ? proxy : bare).push_back(time_calls(callers, proxy_first ? by_proxy : by_bare_call, calls));
    (proxy_first ? bare : proxy).push_back(time_calls(callers, proxy_first ? by_bare_call : by_proxy, calls));
  }
  const double ratio = bench::ratio(proxy, bare);
  std::printf("%-46s typed proxy %8.1f us   bare call %8.1f us   ratio %.3f\n", title, bench::median(proxy),
              bench::median(bare), ratio);
  return ratio;
}

}  // namespace

int main(int argc, char **argv) {
  const bool serving = argc > 1 && g_str_equal(argv[1], "--serve");
  const bool quick = argc > 1 && g_str_equal(argv[1], "--quick");
  const Object<GDBusConnection> connection(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr));
  if (connection == nullptr) give_up("no bus; run it with dbus-run-session");
  if (serving) return serve(connection.get());

  std::array<const char *, 3> service = {argv[0], "--serve", nullptr};
  if (!g_spawn_async(nullptr, const_cast<char **>(service.data()), nullptr, G_SPAWN_DEFAULT, nullptr, nullptr, nullptr,
                     nullptr)) {
    give_up("the service cannot be started");
  }
  wait_for_service(connection.get());
  const Object<Legacy> proxy(ptz_legacy_config_dynamic_configuration_legacy_proxy_new_sync(
      connection.get(), G_DBUS_PROXY_FLAGS_NONE, service_name, object_path, nullptr, nullptr));
  if (proxy == nullptr) give_up("no proxy");
  const Callers callers = {connection.get(), proxy.get()};

  const int rounds = quick ? 2 : 40;
  const double ratio =
      compare(callers, "GetConfigurationEntry", entry_by_proxy, entry_by_bare_call, rounds, quick ? 5 : 500);
  compare(callers, "GetConfigurations, 1,000 sets of 20 entries", all_by_proxy, all_by_bare_call, rounds,
          quick ? 1 : 5);
  std::printf("aim: one entry through the proxy in at most %.1f times the bare call: %s\n", proxy_aim,
              ratio <= proxy_aim ? "met" : "MISSED");
  return 0;
}
