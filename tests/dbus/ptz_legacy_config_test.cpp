#include "ptz_legacy_config.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <algorithm>
#include <string>
#include <vector>

#include "bus.h"
#include "config_event_fake.h"
#include "ptz_legacy_config_dynamic.h"
#include "syslog_capture.h"

namespace {

using namespace ptz_test;
using namespace std::string_literals;

using Calls = std::vector<std::string>;
using HandlerPtr = std::unique_ptr<PTZLegacyConfigHandler, FreeWith<ptz_legacy_config_cleanup>>;
using Table = std::unique_ptr<GHashTable, FreeWith<g_hash_table_unref>>;
using Skeleton = Object<GDBusInterfaceSkeleton>;

constexpr char interface[] = "com.velk.Configuration.Legacy";
constexpr char properties_interface[] = "org.freedesktop.DBus.Properties";

class Value {
  GValue value_ = G_VALUE_INIT;

 public:
  explicit Value(GType type) { g_value_init(&value_, type); }
  explicit Value(gint number) : Value(G_TYPE_INT) { g_value_set_int(&value_, number); }
  explicit Value(bool state) : Value(G_TYPE_BOOLEAN) { g_value_set_boolean(&value_, state ? TRUE : FALSE); }
  explicit Value(const char *text) : Value(G_TYPE_STRING) { g_value_set_string(&value_, text); }
  Value(const Value &) = delete;
  ~Value() { g_value_unset(&value_); }
  [[nodiscard]] GValue *get() { return &value_; }
};

struct Bridge : testing::Test {
  Connection peer = connect_to(system_bus());
  Skeleton skeleton = make_skeleton();
  SyslogCapture log;

  Bridge() { config_events = ConfigEventFake(); }

  static Skeleton make_skeleton() {
    return Skeleton(G_DBUS_INTERFACE_SKELETON(ptz_legacy_config_dynamic_configuration_legacy_skeleton_new()));
  }
  HandlerPtr setup(const char *short_name = "ptz") const {
    return HandlerPtr(ptz_legacy_config_setup(skeleton.get(), "event", "owner", short_name));
  }
  [[nodiscard]] bool is_exported() const { return g_dbus_interface_skeleton_get_connection(skeleton.get()) != nullptr; }
};

// --- set-up -------------------------------------------------------------------------------------------------------

TEST_F(Bridge, SetupExportsAndDeclares) {
  const auto handler = setup();
  ASSERT_NE(handler, nullptr);
  EXPECT_EQ(config_events.calls,
            (Calls{"new event 0 0", "declare event owner /com/velk/PTZ/ptz com.velk.Configuration.Legacy"}));
  EXPECT_STREQ(handler->owner_name, "owner");
  EXPECT_STREQ(handler->object_path, "/com/velk/PTZ/ptz");
  EXPECT_NE(handler->event, nullptr);
  ASSERT_TRUE(PTZ_IS_G_DBUS_SERVER(handler->server));
  EXPECT_EQ(handler->server->skeleton, skeleton.get());
  EXPECT_STREQ(g_dbus_interface_skeleton_get_object_path(skeleton.get()), "/com/velk/PTZ/ptz");
  EXPECT_EQ(call(peer.get(), unique_name(PTZ_G_DBUS_SERVER_GET_CLASS(handler->server)->connection), "/com/velk/PTZ/ptz",
                 interface, "Sync")
                .text(),
            "GDBus.Error:org.freedesktop.DBus.Error.UnknownMethod: Method Sync is not implemented on interface "
            "com.velk.Configuration.Legacy");
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Bridge, SetupCopiesItsTexts) {
  std::string event = "event", owner = "owner", name = "ptz";
  const HandlerPtr handler(ptz_legacy_config_setup(skeleton.get(), event.c_str(), owner.c_str(), name.c_str()));
  ASSERT_NE(handler, nullptr);
  event = owner = name = "changed";
  EXPECT_STREQ(handler->owner_name, "owner");
  EXPECT_STREQ(handler->object_path, "/com/velk/PTZ/ptz");
}

TEST_F(Bridge, SetupExportsADottedNameElsewhereThanItsEventsTell) {
  const auto handler = setup("a.b");
  ASSERT_NE(handler, nullptr);
  EXPECT_STREQ(g_dbus_interface_skeleton_get_object_path(skeleton.get()), "/com/velk/PTZ/a/b");
  EXPECT_STREQ(handler->object_path, "/com/velk/PTZ/a.b");
  EXPECT_EQ(config_events.calls.at(1), "declare event owner /com/velk/PTZ/a.b com.velk.Configuration.Legacy");
}

TEST_F(Bridge, SetupFailsWhereTheObjectCannotBeExported) {
  const auto taken = make_skeleton();
  const Object<PTZGDBusServer> server(PTZ_G_DBUS_SERVER(g_object_new(PTZ_TYPE_G_DBUS_SERVER, nullptr)));
  ASSERT_TRUE(ptz_g_dbus_server_dbus_register(server.get(), taken.get(), "ptz", -1));
  EXPECT_EQ(setup(), nullptr);
  EXPECT_EQ(log.lines().back(), (LogLine{LOG_ERR, "ptz_legacy_config_setup: Failed to register DBus object ptz!"}));
  EXPECT_EQ(log.lines().size(), 2U);
  EXPECT_TRUE(config_events.calls.empty());
}

TEST_F(Bridge, SetupFailsWithoutAnEvent) {
  config_events.makes_events = false;
  EXPECT_EQ(setup(), nullptr);
  EXPECT_EQ(
      log.lines(),
      (std::vector<LogLine>{{LOG_ERR, "ptz_legacy_config_setup: Failed to create configuration event for event!"}}));
  EXPECT_EQ(config_events.calls, (Calls{"new event 0 0"}));
  EXPECT_FALSE(is_exported());
}

TEST_F(Bridge, SetupFailsWhereTheEventCannotBeDeclared) {
  config_events.declares = false;
  EXPECT_EQ(setup(), nullptr);
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{{LOG_ERR,
                                                "ptz_legacy_config_setup: Could not declare configuration event for "
                                                "/com/velk/PTZ/ptz: not declared"}}));
  EXPECT_EQ(config_events.calls.back(), "free event");
  EXPECT_EQ(config_events.calls.size(), 3U);
  EXPECT_EQ(config_events.events, 0);
  EXPECT_FALSE(is_exported());
}

TEST_F(Bridge, SetupTellsNoReasonWhereThereIsNone) {
  config_events.declares = config_events.gives_errors = false;
  EXPECT_EQ(setup(), nullptr);
  EXPECT_EQ(log.lines(),
            (std::vector<LogLine>{
                {LOG_ERR, "ptz_legacy_config_setup: Could not declare configuration event for /com/velk/PTZ/ptz: "}}));
}

TEST_F(Bridge, SetupMayBeTriedAgain) {
  config_events.declares = false;
  EXPECT_EQ(setup(), nullptr);
  config_events.declares = true;
  EXPECT_NE(setup(), nullptr);
}

TEST_F(Bridge, SetupWantsNames) {
  const GlibLogCapture criticals;
  EXPECT_EQ(ptz_legacy_config_setup(skeleton.get(), nullptr, "owner", "ptz"), nullptr);
  EXPECT_EQ(ptz_legacy_config_setup(skeleton.get(), "event", "owner", nullptr), nullptr);
  EXPECT_EQ(criticals.failed_check("ptz_legacy_config_setup", "event_name != NULL"), 1U);
  EXPECT_EQ(criticals.failed_check("ptz_legacy_config_setup", "short_name != NULL"), 1U);
  EXPECT_TRUE(config_events.calls.empty());
}

TEST_F(Bridge, SetupWithoutASkeletonFails) {
  const GlibLogCapture criticals;
  EXPECT_EQ(ptz_legacy_config_setup(nullptr, "event", "owner", "ptz"), nullptr);
  EXPECT_EQ(log.count(LOG_ERR, "ptz_legacy_config_setup: Failed to register DBus object ptz!"), 1U);
}

// --- clean-up -----------------------------------------------------------------------------------------------------

TEST_F(Bridge, CleanupUndeclaresAndUnexports) {
  auto handler = setup();
  ASSERT_NE(handler, nullptr);
  gpointer server = handler->server;
  g_object_add_weak_pointer(G_OBJECT(server), &server);
  config_events.calls.clear();
  handler.reset();
  EXPECT_EQ(config_events.calls,
            (Calls{"undeclare event owner /com/velk/PTZ/ptz com.velk.Configuration.Legacy", "free event"}));
  EXPECT_EQ(server, nullptr);
  EXPECT_FALSE(is_exported());
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Bridge, CleanupGoesOnWhereTheEventCannotBeUndeclared) {
  auto handler = setup();
  ASSERT_NE(handler, nullptr);
  config_events.undeclares = false;
  handler.reset();
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{{LOG_WARNING, "Could not undeclare not undeclared"}}));
  EXPECT_EQ(config_events.events, 0);
  EXPECT_FALSE(is_exported());

  handler = setup();
  config_events.gives_errors = false;
  handler.reset();
  EXPECT_EQ(log.lines().back(), (LogLine{LOG_WARNING, "Could not undeclare (NULL)"}));
}

TEST_F(Bridge, CleanupOfNothingIsHarmless) {
  ptz_legacy_config_cleanup(nullptr);
  EXPECT_TRUE(config_events.calls.empty());
}

TEST_F(Bridge, CleanupAfterTheSkeletonHasGone) {
  auto handler = setup();
  skeleton.reset();
  handler.reset();
  EXPECT_EQ(config_events.events, 0);
}

// --- changed values -----------------------------------------------------------------------------------------------

struct BridgeChange : Bridge {
  HandlerPtr handler = setup();
  SignalLog changes{peer.get(), properties_interface};

  // The bodies of the signals that come of it.
  std::string change(const char *key, Value value) {
    const auto seen = changes.signals.size();
    ptz_legacy_config_prop_changed(handler.get(), key, value.get());
    EXPECT_TRUE(run_until([&] { return changes.signals.size() > seen; }));
    const auto &signal = changes.signals.back();
    EXPECT_EQ(signal.path, "/com/velk/PTZ/ptz");
    EXPECT_EQ(signal.name, "PropertiesChanged");
    return signal.body;
  }
};

std::string body_with(const std::string &entry) { return "('com.velk.Configuration.Legacy', {" + entry + "}, @as [])"; }

TEST_F(BridgeChange, OfAnIntTravelsAsAnInt) {
  EXPECT_EQ(change("Speed", Value(-7)), body_with("'Speed': <-7>"));
  EXPECT_EQ(change("Speed", Value(G_MAXINT)), body_with("'Speed': <2147483647>"));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(BridgeChange, OfABooleanTravelsAsABoolean) {
  EXPECT_EQ(change("On", Value(true)), body_with("'On': <true>"));
  EXPECT_EQ(change("On", Value(false)), body_with("'On': <false>"));
}

TEST_F(BridgeChange, OfAStringTravelsAsBytesWithTheirEnd) {
  EXPECT_EQ(change("Name", Value("Gate")), body_with("'Name': <b'Gate'>"));
  EXPECT_EQ(change("Name", Value("")), body_with("'Name': <b''>"));
  EXPECT_EQ(change("Name", Value("caf\xE9")), body_with("'Name': <b'caf\\351'>"));
  EXPECT_EQ(change("Name", Value(static_cast<const char *>(nullptr))), body_with("'Name': <b''>"));
}

TEST_F(BridgeChange, HasNoDestination) {
  const auto bystander = connect_to(system_bus());
  const SignalLog heard(bystander.get(), properties_interface);
  change("Speed", Value(1));
  EXPECT_TRUE(run_until([&] { return heard.signals.size() == 1; }));
}

TEST_F(BridgeChange, OfAnotherTypeIsNotTold) {
  for (const GType type : {G_TYPE_DOUBLE, G_TYPE_UINT, G_TYPE_INT64, G_TYPE_CHAR, G_TYPE_OBJECT}) {
    Value value(type);
    ptz_legacy_config_prop_changed(handler.get(), "Speed", value.get());
    EXPECT_EQ(log.lines().back(), (LogLine{LOG_ERR, "ptz_legacy_config_prop_changed: Can not convert key Speed type "s +
                                                        g_type_name(type) + " to GVariant!"}));
  }
  EXPECT_EQ(log.lines().size(), 5U);
  change("Speed", Value(1));
  EXPECT_EQ(changes.signals.size(), 1U);
}

TEST_F(BridgeChange, OfAValueWithoutATypeIsNotTold) {
  GValue value = G_VALUE_INIT;
  ptz_legacy_config_prop_changed(handler.get(), "Speed", &value);
  EXPECT_EQ(log.lines(),
            (std::vector<LogLine>{
                {LOG_ERR, "ptz_legacy_config_prop_changed: Can not convert key Speed type (null) to GVariant!"}}));
}

TEST_F(BridgeChange, WithAKeyThatCannotTravelIsAWarning) {
  const GlibLogCapture criticals;
  Value value(1);
  ptz_legacy_config_prop_changed(handler.get(), "\xff", value.get());
  EXPECT_EQ(log.lines(),
            (std::vector<LogLine>{{LOG_WARNING, "Failed to emit property changed signal: the key is not UTF-8"}}));
  EXPECT_TRUE(criticals.messages().empty());
}

TEST_F(Bridge, ChangeFromAPathThatIsNoneIsAWarning) {
  const auto handler = setup("a.b");
  const GlibLogCapture criticals;
  Value value(1);
  ptz_legacy_config_prop_changed(handler.get(), "Speed", value.get());
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{{LOG_WARNING, "Failed to emit property changed signal: (NULL)"}}));
}

TEST_F(BridgeChange, WantsItsArguments) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  Value value(1);
  EXPECT_DEATH(ptz_legacy_config_prop_changed(nullptr, "Speed", value.get()),
               "ptz_legacy_config_prop_changed: assertion failed: \\(handler != NULL\\)");
  EXPECT_DEATH(ptz_legacy_config_prop_changed(handler.get(), nullptr, value.get()),
               "ptz_legacy_config_prop_changed: assertion failed: \\(key != NULL\\)");
  EXPECT_DEATH(ptz_legacy_config_prop_changed(handler.get(), "Speed", nullptr),
               "ptz_legacy_config_prop_changed: assertion failed: \\(value != NULL\\)");
  EXPECT_DEATH(ptz_legacy_config_prop_changed(nullptr, nullptr, nullptr), "\\(handler != NULL\\)");
  EXPECT_DEATH(ptz_legacy_config_prop_changed(handler.get(), nullptr, nullptr), "\\(key != NULL\\)");
}

// --- configuration events -----------------------------------------------------------------------------------------

struct KeyCase {
  const char *label;
  gint index;
  const char *key;
};

void PrintTo(const KeyCase &event, std::ostream *out) { *out << event.key; }

struct BridgeEventKey : Bridge, testing::WithParamInterface<KeyCase> {};

TEST_P(BridgeEventKey, IsThePathAndTheIndex) {
  const auto handler = setup();
  config_events.calls.clear();
  EXPECT_TRUE(ptz_legacy_config_send_event(handler.get(), 17, GetParam().index, nullptr));
  EXPECT_EQ(config_events.calls,
            (Calls{"init event",
                   "send event owner /com/velk/PTZ/ptz com.velk.Configuration.Legacy "s + GetParam().key + " 17"}));
  EXPECT_TRUE(log.lines().empty());
}

INSTANTIATE_TEST_SUITE_P(All, BridgeEventKey,
                         testing::Values(KeyCase{"Positive", 3, "/com/velk/PTZ/ptz/3"},
                                         KeyCase{"Zero", 0, "/com/velk/PTZ/ptz/0"},
                                         KeyCase{"Largest", G_MAXINT, "/com/velk/PTZ/ptz/2147483647"},
                                         KeyCase{"MinusOne", -1, "/com/velk/PTZ/ptz"},
                                         KeyCase{"Smallest", G_MININT, "/com/velk/PTZ/ptz"}),
                         [](const auto &info) { return info.param.label; });

TEST_F(Bridge, EventCarriesItsChangesInTheTablesOrder) {
  const auto handler = setup();
  const Table changes(g_hash_table_new(g_str_hash, g_str_equal));
  for (const char *key : {"One", "Two", "Three", "Four"}) {
    g_hash_table_insert(changes.get(), const_cast<char *>(key), const_cast<char *>(key));
  }
  Calls expected{"init event"};
  GHashTableIter pairs;
  g_hash_table_iter_init(&pairs, changes.get());
  for (gpointer key = nullptr; g_hash_table_iter_next(&pairs, &key, nullptr);) {
    const auto *text = static_cast<const char *>(key);
    expected.push_back("append event "s + text + "=" + text);
  }
  expected.emplace_back("send event owner /com/velk/PTZ/ptz com.velk.Configuration.Legacy /com/velk/PTZ/ptz/3 -2");
  config_events.calls.clear();
  EXPECT_TRUE(ptz_legacy_config_send_event(handler.get(), -2, 3, changes.get()));
  EXPECT_EQ(config_events.calls, expected);
}

TEST_F(Bridge, EventCarriesAMissingValueAsAnEmptyOne) {
  const auto handler = setup();
  const Table changes(g_hash_table_new(g_str_hash, g_str_equal));
  g_hash_table_insert(changes.get(), const_cast<char *>("Name"), nullptr);
  EXPECT_TRUE(ptz_legacy_config_send_event(handler.get(), 1, -1, changes.get()));
  EXPECT_EQ(std::count(config_events.calls.begin(), config_events.calls.end(), "append event Name="), 1);
}

TEST_F(Bridge, EventMayHaveAnEmptyTable) {
  const auto handler = setup();
  const Table changes(g_hash_table_new(g_str_hash, g_str_equal));
  config_events.calls.clear();
  EXPECT_TRUE(ptz_legacy_config_send_event(handler.get(), 1, -1, changes.get()));
  EXPECT_EQ(config_events.calls.size(), 2U);
}

TEST_F(Bridge, EventThatIsNotSentIsAWarning) {
  const auto handler = setup();
  config_events.sends = false;
  EXPECT_FALSE(ptz_legacy_config_send_event(handler.get(), 1, 3, nullptr));
  EXPECT_EQ(log.lines(),
            (std::vector<LogLine>{{LOG_WARNING, "Failed to send configuration event, message = not sent"}}));
  config_events.gives_errors = false;
  EXPECT_FALSE(ptz_legacy_config_send_event(handler.get(), 1, 3, nullptr));
  EXPECT_EQ(log.lines().back(), (LogLine{LOG_WARNING, "Failed to send configuration event, message = (NULL)"}));
  config_events.sends = true;
  EXPECT_TRUE(ptz_legacy_config_send_event(handler.get(), 1, 3, nullptr));
}

TEST_F(Bridge, EventWantsAHandler) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH(ptz_legacy_config_send_event(nullptr, 1, 3, nullptr),
               "ptz_legacy_config_send_event: assertion failed: \\(handler != NULL\\)");
}

}  // namespace
