#include "ptz_legacy_config_dynamic.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <tuple>
#include <vector>

#include "bus.h"
#include "legacy_service.h"

namespace {

using namespace ptz_test;
using namespace std::string_literals;

constexpr char interface[] = "com.velk.Configuration.Legacy";

std::string printed(GVariant *value) { return Text(g_variant_print(value, TRUE)).get(); }

// --- what is registered -------------------------------------------------------------------------------------------

struct TypeCase {
  const char *name;
  GType (*get_type)();
  GType (*get_parent)();
};

void PrintTo(const TypeCase &type, std::ostream *out) { *out << type.name; }

struct LegacyTypes : testing::TestWithParam<TypeCase> {};

TEST_P(LegacyTypes, HaveTheirNamesAndParents) {
  EXPECT_STREQ(g_type_name(GetParam().get_type()), GetParam().name);
  EXPECT_TRUE(g_type_is_a(GetParam().get_type(), GetParam().get_parent()));
}

const TypeCase legacy_types[] = {
    {"ptzlegacyconfigdynamicConfigurationLegacy", ptz_legacy_config_dynamic_configuration_legacy_get_type,
     [] { return G_TYPE_OBJECT; }},
    {"ptzlegacyconfigdynamicConfigurationLegacyProxy", ptz_legacy_config_dynamic_configuration_legacy_proxy_get_type,
     g_dbus_proxy_get_type},
    {"ptzlegacyconfigdynamicConfigurationLegacySkeleton",
     ptz_legacy_config_dynamic_configuration_legacy_skeleton_get_type, g_dbus_interface_skeleton_get_type},
    {"ptzlegacyconfigdynamicObject", ptz_legacy_config_dynamic_object_get_type, g_dbus_object_get_type},
    {"ptzlegacyconfigdynamicObjectProxy", ptz_legacy_config_dynamic_object_proxy_get_type,
     g_dbus_object_proxy_get_type},
    {"ptzlegacyconfigdynamicObjectSkeleton", ptz_legacy_config_dynamic_object_skeleton_get_type,
     g_dbus_object_skeleton_get_type},
    {"ptzlegacyconfigdynamicObjectManagerClient", ptz_legacy_config_dynamic_object_manager_client_get_type,
     g_dbus_object_manager_client_get_type},
};

INSTANTIATE_TEST_SUITE_P(All, LegacyTypes, testing::ValuesIn(legacy_types),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(LegacyInterfaceTypes, ImplementTheirInterfaces) {
  const GType legacy = ptz_legacy_config_dynamic_configuration_legacy_get_type();
  EXPECT_TRUE(g_type_is_a(ptz_legacy_config_dynamic_configuration_legacy_proxy_get_type(), legacy));
  EXPECT_TRUE(g_type_is_a(ptz_legacy_config_dynamic_configuration_legacy_skeleton_get_type(), legacy));
  const GType object = ptz_legacy_config_dynamic_object_get_type();
  EXPECT_TRUE(g_type_is_a(ptz_legacy_config_dynamic_object_proxy_get_type(), object));
  EXPECT_TRUE(g_type_is_a(ptz_legacy_config_dynamic_object_skeleton_get_type(), object));
}

using Slots = ptzlegacyconfigdynamicConfigurationLegacyIface;
#define SLOT(number, name) \
  static_assert(offsetof(Slots, name) == sizeof(GTypeInterface) + (number) * sizeof(gpointer), #name)
SLOT(0, handle_add_configuration);
SLOT(1, handle_get_configuration_entry);
SLOT(2, handle_get_configurations);
SLOT(3, handle_remove_configuration);
SLOT(4, handle_set_configuration_entry);
SLOT(5, handle_sync);
static_assert(sizeof(Slots) == sizeof(GTypeInterface) + 6 * sizeof(gpointer));
#undef SLOT

std::string arguments_of(GDBusArgInfo **arguments) {
  std::string text;
  for (; arguments != nullptr && *arguments != nullptr; ++arguments) {
    text += " "s + (*arguments)->name + ":" + (*arguments)->signature;
    EXPECT_EQ((*arguments)->annotations, nullptr);
  }
  return text;
}

TEST(LegacyInterfaceInfo, HasTheMethodsAndNothingElse) {
  const auto *info = ptz_legacy_config_dynamic_configuration_legacy_interface_info();
  EXPECT_STREQ(info->name, interface);
  EXPECT_EQ(ptz_legacy_config_dynamic_configuration_legacy_interface_info(), info);
  std::vector<std::string> methods;
  for (auto *method = info->methods; *method != nullptr; ++method) {
    methods.push_back((*method)->name + " in"s + arguments_of((*method)->in_args) + " out" +
                      arguments_of((*method)->out_args));
    EXPECT_EQ((*method)->annotations, nullptr);
  }
  EXPECT_EQ(methods, (std::vector{
                         "Sync in out"s,
                         "AddConfiguration in dynamic_index:i out dynamic_index:i"s,
                         "RemoveConfiguration in dynamic_index:i out"s,
                         "GetConfigurationEntry in dynamic_index:i entry_name:s out entry_value:v"s,
                         "SetConfigurationEntry in dynamic_index:i entry_name:s entry_value:v out"s,
                         "GetConfigurations in out configurations:a{ia{sv}}"s,
                     }));
  EXPECT_TRUE(info->signals == nullptr || *info->signals == nullptr);
  EXPECT_TRUE(info->properties == nullptr || *info->properties == nullptr);
  EXPECT_EQ(info->annotations, nullptr);
}

TEST(LegacyInterfaceInfo, OverridesNoProperties) {
  EXPECT_EQ(ptz_legacy_config_dynamic_configuration_legacy_override_properties(nullptr, 7), 6U);
}

struct SignalCase {
  const char *name;
  std::vector<GType> types;  // behind the invocation
};

void PrintTo(const SignalCase &signal, std::ostream *out) { *out << signal.name; }

struct LegacySignals : testing::TestWithParam<SignalCase> {};

TEST_P(LegacySignals, HaveTheirParameters) {
  const GType type = ptz_legacy_config_dynamic_configuration_legacy_get_type();
  g_type_default_interface_unref(g_type_default_interface_ref(type));
  GSignalQuery query;
  g_signal_query(g_signal_lookup(("handle-"s + GetParam().name).c_str(), type), &query);
  ASSERT_NE(query.signal_id, 0U);
  EXPECT_EQ(query.signal_flags & G_SIGNAL_RUN_LAST, G_SIGNAL_RUN_LAST);
  EXPECT_EQ(query.return_type, G_TYPE_BOOLEAN);
  std::vector<GType> types(query.param_types, query.param_types + query.n_params);
  auto expected = GetParam().types;
  expected.insert(expected.begin(), G_TYPE_DBUS_METHOD_INVOCATION);
  EXPECT_EQ(types, expected);
}

INSTANTIATE_TEST_SUITE_P(All, LegacySignals,
                         testing::Values(SignalCase{"sync", {}}, SignalCase{"add-configuration", {G_TYPE_INT}},
                                         SignalCase{"remove-configuration", {G_TYPE_INT}},
                                         SignalCase{"get-configuration-entry", {G_TYPE_INT, G_TYPE_STRING}},
                                         SignalCase{"set-configuration-entry",
                                                    {G_TYPE_INT, G_TYPE_STRING, G_TYPE_VARIANT}},
                                         SignalCase{"get-configurations", {}}),
                         [](const auto &info) {
                           std::string name = info.param.name;
                           std::replace(name.begin(), name.end(), '-', '_');
                           return name;
                         });

// --- calls --------------------------------------------------------------------------------------------------------

struct Legacy : testing::Test {
  LegacyService service{system_bus()};
  Connection connection = connect_to(system_bus());
  Object<LegacyInterface> proxy{ptz_legacy_config_dynamic_configuration_legacy_proxy_new_sync(
      connection.get(), G_DBUS_PROXY_FLAGS_NONE, service.name().c_str(), LegacyService::path, nullptr, nullptr)};
  Error error;

  Object<GAsyncResult> result;
  static void arrived(GObject *, GAsyncResult *result, gpointer self) {
    static_cast<Legacy *>(self)->result.reset(G_ASYNC_RESULT(g_object_ref(result)));
  }
  GAsyncResult *wait() {
    EXPECT_TRUE(run_until([this] { return result != nullptr; }));
    return result.get();
  }
};

// Handlers that remember what they were called with, in the service's thread; the caller reads it behind the answer.
std::vector<std::string> handled;

void handle_everything(const LegacyService &service) {
  handled.clear();
  service.handle(
      "sync", +[](LegacyInterface *object, GDBusMethodInvocation *invocation, gpointer) -> gboolean {
        handled.emplace_back("sync");
        ptz_legacy_config_dynamic_configuration_legacy_complete_sync(object, invocation);
        return TRUE;
      });
  service.handle(
      "add-configuration",
      +[](LegacyInterface *object, GDBusMethodInvocation *invocation, gint index, gpointer) -> gboolean {
        handled.push_back("add " + std::to_string(index));
        ptz_legacy_config_dynamic_configuration_legacy_complete_add_configuration(object, invocation, index + 1);
        return TRUE;
      });
  service.handle(
      "remove-configuration",
      +[](LegacyInterface *object, GDBusMethodInvocation *invocation, gint index, gpointer) -> gboolean {
        handled.push_back("remove " + std::to_string(index));
        ptz_legacy_config_dynamic_configuration_legacy_complete_remove_configuration(object, invocation);
        return TRUE;
      });
  service.handle(
      "get-configuration-entry",
      +[](LegacyInterface *object, GDBusMethodInvocation *invocation, gint index, const gchar *name,
          gpointer) -> gboolean {
        handled.push_back("get " + std::to_string(index) + " " + name);
        ptz_legacy_config_dynamic_configuration_legacy_complete_get_configuration_entry(
            object, invocation, g_variant_new_variant(g_variant_new_int32(index * 10)));
        return TRUE;
      });
  service.handle(
      "set-configuration-entry",
      +[](LegacyInterface *object, GDBusMethodInvocation *invocation, gint index, const gchar *name, GVariant *value,
          gpointer) -> gboolean {
        handled.push_back("set " + std::to_string(index) + " " + name + " " + printed(value));
        ptz_legacy_config_dynamic_configuration_legacy_complete_set_configuration_entry(object, invocation);
        return TRUE;
      });
  service.handle(
      "get-configurations", +[](LegacyInterface *object, GDBusMethodInvocation *invocation, gpointer) -> gboolean {
        handled.emplace_back("get all");
        ptz_legacy_config_dynamic_configuration_legacy_complete_get_configurations(
            object, invocation, g_variant_new_parsed("@a{ia{sv}} {3: {'Name': <b'Gate'>, 'Speed': <7>}, -1: {}}"));
        return TRUE;
      });
}

constexpr char all_sets[] = "{3: {'Name': <b'Gate'>, 'Speed': <7>}, -1: {}}";

TEST_F(Legacy, BlockingCallsReachTheirHandlers) {
  handle_everything(service);
  EXPECT_TRUE(ptz_legacy_config_dynamic_configuration_legacy_call_sync_sync(proxy.get(), nullptr, nullptr));
  gint index = 0;
  EXPECT_TRUE(ptz_legacy_config_dynamic_configuration_legacy_call_add_configuration_sync(proxy.get(), -5, &index,
                                                                                         nullptr, nullptr));
  EXPECT_EQ(index, -4);
  EXPECT_TRUE(
      ptz_legacy_config_dynamic_configuration_legacy_call_remove_configuration_sync(proxy.get(), 4, nullptr, nullptr));
  GVariant *value = nullptr;
  EXPECT_TRUE(ptz_legacy_config_dynamic_configuration_legacy_call_get_configuration_entry_sync(
      proxy.get(), 2, "Speed", &value, nullptr, nullptr));
  EXPECT_EQ(printed(Variant(value).get()), "<20>");
  EXPECT_TRUE(ptz_legacy_config_dynamic_configuration_legacy_call_set_configuration_entry_sync(
      proxy.get(), 3, "Name", g_variant_new_variant(g_variant_new_bytestring("Gate")), nullptr, nullptr));
  GVariant *sets = nullptr;
  EXPECT_TRUE(ptz_legacy_config_dynamic_configuration_legacy_call_get_configurations_sync(proxy.get(), &sets, nullptr,
                                                                                          nullptr));
  EXPECT_EQ(printed(Variant(sets).get()), all_sets);
  EXPECT_EQ(handled,
            (std::vector{"sync"s, "add -5"s, "remove 4"s, "get 2 Speed"s, "set 3 Name <b'Gate'>"s, "get all"s}));
}

TEST_F(Legacy, AsynchronousCallsReachTheirHandlers) {
  handle_everything(service);
  ptz_legacy_config_dynamic_configuration_legacy_call_sync(proxy.get(), nullptr, arrived, this);
  EXPECT_TRUE(ptz_legacy_config_dynamic_configuration_legacy_call_sync_finish(proxy.get(), wait(), nullptr));
  result.reset();
  ptz_legacy_config_dynamic_configuration_legacy_call_add_configuration(proxy.get(), -5, nullptr, arrived, this);
  gint index = 0;
  EXPECT_TRUE(ptz_legacy_config_dynamic_configuration_legacy_call_add_configuration_finish(proxy.get(), &index, wait(),
                                                                                           nullptr));
  EXPECT_EQ(index, -4);
  result.reset();
  ptz_legacy_config_dynamic_configuration_legacy_call_remove_configuration(proxy.get(), 4, nullptr, arrived, this);
  EXPECT_TRUE(
      ptz_legacy_config_dynamic_configuration_legacy_call_remove_configuration_finish(proxy.get(), wait(), nullptr));
  result.reset();
  ptz_legacy_config_dynamic_configuration_legacy_call_get_configuration_entry(proxy.get(), 2, "Speed", nullptr, arrived,
                                                                              this);
  GVariant *value = nullptr;
  EXPECT_TRUE(ptz_legacy_config_dynamic_configuration_legacy_call_get_configuration_entry_finish(proxy.get(), &value,
                                                                                                 wait(), nullptr));
  EXPECT_EQ(printed(Variant(value).get()), "<20>");
  result.reset();
  ptz_legacy_config_dynamic_configuration_legacy_call_set_configuration_entry(
      proxy.get(), 3, "Name", g_variant_new_variant(g_variant_new_bytestring("Gate")), nullptr, arrived, this);
  EXPECT_TRUE(
      ptz_legacy_config_dynamic_configuration_legacy_call_set_configuration_entry_finish(proxy.get(), wait(), nullptr));
  result.reset();
  ptz_legacy_config_dynamic_configuration_legacy_call_get_configurations(proxy.get(), nullptr, arrived, this);
  GVariant *sets = nullptr;
  EXPECT_TRUE(ptz_legacy_config_dynamic_configuration_legacy_call_get_configurations_finish(proxy.get(), &sets, wait(),
                                                                                            nullptr));
  EXPECT_EQ(printed(Variant(sets).get()), all_sets);
  EXPECT_EQ(handled,
            (std::vector{"sync"s, "add -5"s, "remove 4"s, "get 2 Speed"s, "set 3 Name <b'Gate'>"s, "get all"s}));
}

struct MethodCase {
  const char *method;
  const char *parameters;
};

void PrintTo(const MethodCase &call, std::ostream *out) { *out << call.method; }

struct LegacyMethods : Legacy, testing::WithParamInterface<MethodCase> {};

TEST_P(LegacyMethods, ThatNobodyHandlesAreUnknown) {
  const auto answer =
      call(connection.get(), service.name(), LegacyService::path, interface, GetParam().method, GetParam().parameters);
  ASSERT_NE(answer.error, nullptr);
  EXPECT_TRUE(g_error_matches(answer.error.get(), G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_METHOD));
  EXPECT_EQ(answer.text(), "GDBus.Error:org.freedesktop.DBus.Error.UnknownMethod: Method "s + GetParam().method +
                               " is not implemented on interface com.velk.Configuration.Legacy");
}

TEST_P(LegacyMethods, ThatTheHandlerLeavesAreUnknown) {
  const auto leave_plain = +[](LegacyInterface *, GDBusMethodInvocation *, gpointer) -> gboolean { return FALSE; };
  const auto leave_index =
      +[](LegacyInterface *, GDBusMethodInvocation *, gint, gpointer) -> gboolean { return FALSE; };
  service.handle("sync", leave_plain);
  service.handle("get-configurations", leave_plain);
  service.handle("add-configuration", leave_index);
  service.handle("remove-configuration", leave_index);
  const auto answer =
      call(connection.get(), service.name(), LegacyService::path, interface, GetParam().method, GetParam().parameters);
  ASSERT_NE(answer.error, nullptr);
  EXPECT_TRUE(g_error_matches(answer.error.get(), G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_METHOD));
}

TEST_P(LegacyMethods, AreAnsweredInTheirTypes) {
  handle_everything(service);
  const auto answer =
      call(connection.get(), service.name(), LegacyService::path, interface, GetParam().method, GetParam().parameters);
  ASSERT_NE(answer.body, nullptr) << answer.text();
  const auto *info = g_dbus_interface_info_lookup_method(
      ptz_legacy_config_dynamic_configuration_legacy_interface_info(), GetParam().method);
  std::string type = "(";
  for (auto *argument = info->out_args; argument != nullptr && *argument != nullptr; ++argument) {
    type += (*argument)->signature;
  }
  EXPECT_EQ(g_variant_get_type_string(answer.body.get()), type + ")");
}

INSTANTIATE_TEST_SUITE_P(All, LegacyMethods,
                         testing::Values(MethodCase{"Sync", "()"}, MethodCase{"AddConfiguration", "(1,)"},
                                         MethodCase{"RemoveConfiguration", "(1,)"},
                                         MethodCase{"GetConfigurationEntry", "(1, 'Speed')"},
                                         MethodCase{"SetConfigurationEntry", "(1, 'Speed', <7>)"},
                                         MethodCase{"GetConfigurations", "()"}),
                         [](const auto &info) { return info.param.method; });

TEST_F(Legacy, TheFirstHandlerThatTakesACallIsTheLast) {
  static std::atomic<int> calls;
  calls = 0;
  const auto take = +[](LegacyInterface *object, GDBusMethodInvocation *invocation, gpointer) -> gboolean {
    ++calls;
    ptz_legacy_config_dynamic_configuration_legacy_complete_sync(object, invocation);
    return TRUE;
  };
  service.handle("sync", take);
  service.handle("sync", take);
  EXPECT_TRUE(ptz_legacy_config_dynamic_configuration_legacy_call_sync_sync(proxy.get(), nullptr, nullptr));
  EXPECT_EQ(calls, 1);
}

TEST_F(Legacy, AHandlerMayAnswerLater) {
  service.handle(
      "sync", +[](LegacyInterface *, GDBusMethodInvocation *invocation, gpointer) -> gboolean {
        const Source later(g_idle_source_new());
        g_source_set_callback(
            later.get(),
            [](gpointer invocation) -> gboolean {
              ptz_legacy_config_dynamic_configuration_legacy_complete_sync(
                  nullptr, static_cast<GDBusMethodInvocation *>(invocation));
              return G_SOURCE_REMOVE;
            },
            invocation, nullptr);
        g_source_attach(later.get(), g_main_context_get_thread_default());
        return TRUE;
      });
  EXPECT_TRUE(ptz_legacy_config_dynamic_configuration_legacy_call_sync_sync(proxy.get(), nullptr, nullptr));
}

TEST_F(Legacy, AValueKeepsItsOwnType) {
  static const char *const values[] = {"<7>",   "<'text'>",    "<b'bytes'>", "<true>",  "<byte 0x07>",
                                       "<1.5>", "<<int64 7>>", "<(1, 'a')>", "<@as []>"};
  service.handle(
      "get-configuration-entry",
      +[](LegacyInterface *object, GDBusMethodInvocation *invocation, gint index, const gchar *, gpointer) -> gboolean {
        ptz_legacy_config_dynamic_configuration_legacy_complete_get_configuration_entry(
            object, invocation, g_variant_new_parsed(values[index]));
        return TRUE;
      });
  for (gint i = 0; i < static_cast<gint>(std::size(values)); ++i) {
    GVariant *value = nullptr;
    ASSERT_TRUE(ptz_legacy_config_dynamic_configuration_legacy_call_get_configuration_entry_sync(
        proxy.get(), i, "Speed", &value, nullptr, nullptr));
    EXPECT_EQ(printed(Variant(value).get()), values[i]);
  }
}

TEST_F(Legacy, AnErrorOfTheServiceArrivesAsOne) {
  service.handle(
      "remove-configuration", +[](LegacyInterface *, GDBusMethodInvocation *invocation, gint, gpointer) -> gboolean {
        g_dbus_method_invocation_return_dbus_error(invocation, "com.velk.PTZ.Error.Code17", "no such set");
        return TRUE;
      });
  EXPECT_FALSE(ptz_legacy_config_dynamic_configuration_legacy_call_remove_configuration_sync(proxy.get(), 4, nullptr,
                                                                                             Into(error)));
  ASSERT_NE(error, nullptr);
  EXPECT_STREQ(error->message, "GDBus.Error:com.velk.PTZ.Error.Code17: no such set");
}

TEST_F(Legacy, AHandlerThatNeverAnswersCostsTheCallersTimeOut) {
  service.handle(
      "sync", +[](LegacyInterface *, GDBusMethodInvocation *invocation, gpointer) -> gboolean {
        g_object_unref(invocation);
        return TRUE;
      });
  g_dbus_proxy_set_default_timeout(G_DBUS_PROXY(proxy.get()), 50);
  EXPECT_FALSE(ptz_legacy_config_dynamic_configuration_legacy_call_sync_sync(proxy.get(), nullptr, Into(error)));
  EXPECT_TRUE(g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_TIMED_OUT));
}

TEST_F(Legacy, AnUnknownMethodDoesNotReachTheSkeleton) {
  EXPECT_EQ(call(connection.get(), service.name(), LegacyService::path, interface, "Else").text(),
            "GDBus.Error:org.freedesktop.DBus.Error.UnknownMethod: No such method “Else”");
}

TEST_F(Legacy, WrongTypesDoNotReachTheHandlers) {
  handle_everything(service);
  const auto answer =
      call(connection.get(), service.name(), LegacyService::path, interface, "RemoveConfiguration", "('four',)");
  EXPECT_TRUE(g_error_matches(answer.error.get(), G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS));
  EXPECT_TRUE(handled.empty());
}

TEST_F(Legacy, HasNoPropertiesToReadOrWrite) {
  const auto read = call(connection.get(), service.name(), LegacyService::path, "org.freedesktop.DBus.Properties",
                         "Get", "('com.velk.Configuration.Legacy', 'Speed')");
  EXPECT_TRUE(g_error_matches(read.error.get(), G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS)) << read.text();
  const auto all = call(connection.get(), service.name(), LegacyService::path, "org.freedesktop.DBus.Properties",
                        "GetAll", "('com.velk.Configuration.Legacy',)");
  EXPECT_EQ(all.text(), "(@a{sv} {},)");
}

// --- proxies ------------------------------------------------------------------------------------------------------

TEST_F(Legacy, AProxyKnowsItsInterface) {
  EXPECT_EQ(g_dbus_proxy_get_interface_info(G_DBUS_PROXY(proxy.get())),
            ptz_legacy_config_dynamic_configuration_legacy_interface_info());
  EXPECT_STREQ(g_dbus_proxy_get_interface_name(G_DBUS_PROXY(proxy.get())), interface);
}

TEST_F(Legacy, AProxyMayBeMadeInTheBackground) {
  ptz_legacy_config_dynamic_configuration_legacy_proxy_new(
      connection.get(), G_DBUS_PROXY_FLAGS_NONE, service.name().c_str(), LegacyService::path, nullptr, arrived, this);
  const Object<LegacyInterface> made(ptz_legacy_config_dynamic_configuration_legacy_proxy_new_finish(wait(), nullptr));
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(G_OBJECT_TYPE(made.get()), ptz_legacy_config_dynamic_configuration_legacy_proxy_get_type());
}

TEST_F(Legacy, AProxyMayBeMadeForTheSystemBus) {
  handle_everything(service);
  const Object<LegacyInterface> made(ptz_legacy_config_dynamic_configuration_legacy_proxy_new_for_bus_sync(
      G_BUS_TYPE_SYSTEM, G_DBUS_PROXY_FLAGS_NONE, service.name().c_str(), LegacyService::path, nullptr, nullptr));
  ASSERT_NE(made, nullptr);
  EXPECT_TRUE(ptz_legacy_config_dynamic_configuration_legacy_call_sync_sync(made.get(), nullptr, nullptr));

  ptz_legacy_config_dynamic_configuration_legacy_proxy_new_for_bus(
      G_BUS_TYPE_SYSTEM, G_DBUS_PROXY_FLAGS_NONE, service.name().c_str(), LegacyService::path, nullptr, arrived, this);
  const Object<LegacyInterface> another(
      ptz_legacy_config_dynamic_configuration_legacy_proxy_new_for_bus_finish(wait(), nullptr));
  EXPECT_NE(another, nullptr);
}

// --- objects ------------------------------------------------------------------------------------------------------

TEST(LegacyObject, HasTheInterfaceThatIsSet) {
  const Object<ptzlegacyconfigdynamicObjectSkeleton> object(ptz_legacy_config_dynamic_object_skeleton_new("/a/b"));
  ASSERT_NE(object, nullptr);
  EXPECT_STREQ(g_dbus_object_get_object_path(G_DBUS_OBJECT(object.get())), "/a/b");
  auto *as_object = reinterpret_cast<ptzlegacyconfigdynamicObject *>(object.get());
  EXPECT_EQ(ptz_legacy_config_dynamic_object_peek_configuration_legacy(as_object), nullptr);
  EXPECT_EQ(ptz_legacy_config_dynamic_object_get_configuration_legacy(as_object), nullptr);

  const Object<LegacyInterface> skeleton(ptz_legacy_config_dynamic_configuration_legacy_skeleton_new());
  ptz_legacy_config_dynamic_object_skeleton_set_configuration_legacy(object.get(), skeleton.get());
  const guint references = G_OBJECT(skeleton.get())->ref_count;
  EXPECT_EQ(ptz_legacy_config_dynamic_object_peek_configuration_legacy(as_object), skeleton.get());
  EXPECT_EQ(G_OBJECT(skeleton.get())->ref_count, references);
  const Object<LegacyInterface> got(ptz_legacy_config_dynamic_object_get_configuration_legacy(as_object));
  EXPECT_EQ(got.get(), skeleton.get());
  EXPECT_EQ(G_OBJECT(skeleton.get())->ref_count, references + 1);
  LegacyInterface *property = nullptr;
  g_object_get(object.get(), "configuration-legacy", &property, nullptr);
  EXPECT_EQ(Object<LegacyInterface>(property).get(), skeleton.get());

  ptz_legacy_config_dynamic_object_skeleton_set_configuration_legacy(object.get(), nullptr);
  EXPECT_EQ(ptz_legacy_config_dynamic_object_peek_configuration_legacy(as_object), nullptr);
}

TEST(LegacyObject, WantsAnObjectPath) {
  const GlibLogCapture criticals;
  EXPECT_EQ(ptz_legacy_config_dynamic_object_skeleton_new("no path"), nullptr);
  EXPECT_EQ(ptz_legacy_config_dynamic_object_skeleton_new("/a.b"), nullptr);
  EXPECT_EQ(criticals.criticals(), 2U);
}

TEST_F(Legacy, AnObjectProxyHasItsPath) {
  const Object<ptzlegacyconfigdynamicObjectProxy> object(
      ptz_legacy_config_dynamic_object_proxy_new(connection.get(), "/a/b"));
  EXPECT_STREQ(g_dbus_object_get_object_path(G_DBUS_OBJECT(object.get())), "/a/b");
}

// --- the object manager -------------------------------------------------------------------------------------------

struct LegacyManager : testing::Test {
  static constexpr char manager_path[] = "/managed";
  LoopThread thread;
  Connection theirs;
  Object<GDBusObjectManagerServer> manager;
  Connection ours = connect_to(system_bus());
  Object<GAsyncResult> result;

  LegacyManager() {
    thread.run([this] {
      theirs = connect_to(system_bus());
      manager.reset(g_dbus_object_manager_server_new(manager_path));
      const Object<ptzlegacyconfigdynamicObjectSkeleton> object(
          ptz_legacy_config_dynamic_object_skeleton_new("/managed/one"));
      const Object<LegacyInterface> skeleton(ptz_legacy_config_dynamic_configuration_legacy_skeleton_new());
      ptz_legacy_config_dynamic_object_skeleton_set_configuration_legacy(object.get(), skeleton.get());
      g_dbus_object_manager_server_export(manager.get(), G_DBUS_OBJECT_SKELETON(object.get()));
      g_dbus_object_manager_server_set_connection(manager.get(), theirs.get());
    });
  }
  ~LegacyManager() override {
    thread.run([this] { manager.reset(); });
  }
  static void arrived(GObject *, GAsyncResult *result, gpointer self) {
    static_cast<LegacyManager *>(self)->result.reset(G_ASYNC_RESULT(g_object_ref(result)));
  }
  GAsyncResult *wait() {
    EXPECT_TRUE(run_until([this] { return result != nullptr; }));
    return result.get();
  }
  static void expect_the_object(GDBusObjectManager *client) {
    const Object<GDBusObjectManager> owned(client);
    ASSERT_NE(client, nullptr);
    EXPECT_EQ(G_OBJECT_TYPE(client), ptz_legacy_config_dynamic_object_manager_client_get_type());
    const Object<GDBusObject> object(g_dbus_object_manager_get_object(client, "/managed/one"));
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(G_OBJECT_TYPE(object.get()), ptz_legacy_config_dynamic_object_proxy_get_type());
    auto *proxy = ptz_legacy_config_dynamic_object_peek_configuration_legacy(
        reinterpret_cast<ptzlegacyconfigdynamicObject *>(object.get()));
    ASSERT_NE(proxy, nullptr);
    EXPECT_EQ(G_OBJECT_TYPE(proxy), ptz_legacy_config_dynamic_configuration_legacy_proxy_get_type());
  }
};

TEST_F(LegacyManager, ShowsTypedObjects) {
  const auto name = unique_name(theirs.get());
  constexpr auto flags = G_DBUS_OBJECT_MANAGER_CLIENT_FLAGS_NONE;
  expect_the_object(ptz_legacy_config_dynamic_object_manager_client_new_sync(ours.get(), flags, name.c_str(),
                                                                             manager_path, nullptr, nullptr));
  expect_the_object(ptz_legacy_config_dynamic_object_manager_client_new_for_bus_sync(
      G_BUS_TYPE_SYSTEM, flags, name.c_str(), manager_path, nullptr, nullptr));
  ptz_legacy_config_dynamic_object_manager_client_new(ours.get(), flags, name.c_str(), manager_path, nullptr, arrived,
                                                      this);
  expect_the_object(ptz_legacy_config_dynamic_object_manager_client_new_finish(wait(), nullptr));
  result.reset();
  ptz_legacy_config_dynamic_object_manager_client_new_for_bus(G_BUS_TYPE_SYSTEM, flags, name.c_str(), manager_path,
                                                              nullptr, arrived, this);
  expect_the_object(ptz_legacy_config_dynamic_object_manager_client_new_for_bus_finish(wait(), nullptr));
}

TEST(LegacyProxyType, DependsOnTheInterface) {
  const auto type_of = [](const char *name) {
    return ptz_legacy_config_dynamic_object_manager_client_get_proxy_type(nullptr, "/a", name, nullptr);
  };
  EXPECT_EQ(type_of(nullptr), ptz_legacy_config_dynamic_object_proxy_get_type());
  EXPECT_EQ(type_of(interface), ptz_legacy_config_dynamic_configuration_legacy_proxy_get_type());
  EXPECT_EQ(type_of("com.velk.Other"), G_TYPE_DBUS_PROXY);
}

// --- many at once -------------------------------------------------------------------------------------------------

struct Caller {
  Connection connection;
  Object<LegacyInterface> proxy;
  int sent = 0;
  int answered = 0;
  int wrong = 0;
};

struct Asked {
  Caller *caller;
  gint index;
};

TEST(LegacyLoad, TenThousandCallsOfEightClientsAreAllAnswered) {
  constexpr int clients = 8, calls_each = 1250;
  LegacyService service(system_bus());
  static std::atomic<int> served;
  served = 0;
  service.handle(
      "add-configuration",
      +[](LegacyInterface *object, GDBusMethodInvocation *invocation, gint index, gpointer) -> gboolean {
        ++served;
        ptz_legacy_config_dynamic_configuration_legacy_complete_add_configuration(object, invocation, index + 1);
        return TRUE;
      });
  std::vector<Caller> callers(clients);
  for (auto &caller : callers) {
    caller.connection = connect_to(system_bus());
    caller.proxy.reset(ptz_legacy_config_dynamic_configuration_legacy_proxy_new_sync(
        caller.connection.get(), G_DBUS_PROXY_FLAGS_NONE, service.name().c_str(), LegacyService::path, nullptr,
        nullptr));
    ASSERT_NE(caller.proxy, nullptr);
  }
  for (int i = 0; i < calls_each; ++i) {
    for (auto &caller : callers) {
      ptz_legacy_config_dynamic_configuration_legacy_call_add_configuration(
          caller.proxy.get(), i * clients, nullptr,
          [](GObject *proxy, GAsyncResult *result, gpointer data) {
            const std::unique_ptr<Asked> asked(static_cast<Asked *>(data));
            gint answer = 0;
            const bool success = ptz_legacy_config_dynamic_configuration_legacy_call_add_configuration_finish(
                                     reinterpret_cast<LegacyInterface *>(proxy), &answer, result, nullptr) == TRUE;
            ++asked->caller->answered;
            asked->caller->wrong += success && answer == asked->index + 1 ? 0 : 1;
          },
          new Asked{&caller, i * clients});
    }
  }
  EXPECT_TRUE(run_until(
      [&] {
        return std::all_of(callers.begin(), callers.end(),
                           [](const Caller &caller) { return caller.answered == calls_each; });
      },
      60'000));
  for (const auto &caller : callers) EXPECT_EQ(caller.wrong, 0);
  EXPECT_EQ(served, clients * calls_each);
}

}  // namespace
