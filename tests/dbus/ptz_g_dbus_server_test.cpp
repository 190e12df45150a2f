#include "ptz_g_dbus_server.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <string>
#include <utility>
#include <vector>

#include "bus.h"
#include "ptz_legacy_config_dynamic.h"
#include "subclass.h"
#include "syslog_capture.h"

namespace {

using namespace ptz_test;
using namespace std::string_literals;

constexpr char interface[] = "com.velk.Configuration.Legacy";
constexpr guint32 replace_existing = 2;

using Skeleton = Object<ptzlegacyconfigdynamicConfigurationLegacy>;

GDBusInterfaceSkeleton *base(const Skeleton &skeleton) { return G_DBUS_INTERFACE_SKELETON(skeleton.get()); }

struct Server : testing::Test {
  Connection peer = connect_to(system_bus());
  Object<PTZGDBusServer> server = make();
  Skeleton skeleton = answering_skeleton();
  SyslogCapture log;
  // The class's name on the bus is kept from one test to the next, so each has names of its own.
  const std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();

  static Object<PTZGDBusServer> make() {
    return Object<PTZGDBusServer>(PTZ_G_DBUS_SERVER(g_object_new(PTZ_TYPE_G_DBUS_SERVER, nullptr)));
  }
  static Skeleton answering_skeleton() {
    Skeleton made(ptz_legacy_config_dynamic_configuration_legacy_skeleton_new());
    g_signal_connect(made.get(), "handle-sync",
                     G_CALLBACK(+[](ptzlegacyconfigdynamicConfigurationLegacy *object,
                                    GDBusMethodInvocation *invocation, gpointer) -> gboolean {
                       ptz_legacy_config_dynamic_configuration_legacy_complete_sync(object, invocation);
                       return TRUE;
                     }),
                     nullptr);
    return made;
  }
  GDBusConnection *connection() const { return PTZ_G_DBUS_SERVER_GET_CLASS(server.get())->connection; }
  bool is_reached_at(const std::string &path) const {
    return call(peer.get(), unique_name(connection()), path, interface, "Sync").text() == "()";
  }
};

TEST_F(Server, ClassHasTheSharedSystemBus) {
  const Connection shared(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
  EXPECT_EQ(connection(), shared.get());
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Server, ClassLetsTheProcessOutliveTheBus) { EXPECT_FALSE(g_dbus_connection_get_exit_on_close(connection())); }

TEST_F(Server, BeginsWithoutASkeleton) { EXPECT_EQ(server->skeleton, nullptr); }

// --- export -------------------------------------------------------------------------------------------------------

struct PathCase {
  const char *label;
  const char *short_name;
  gint index;
  const char *path;
};

void PrintTo(const PathCase &path, std::ostream *out) { *out << path.path; }

struct ServerPath : Server, testing::WithParamInterface<PathCase> {};

TEST_P(ServerPath, IsBuiltFromTheNameAndTheIndex) {
  EXPECT_TRUE(ptz_g_dbus_server_dbus_register(server.get(), base(skeleton), GetParam().short_name, GetParam().index));
  EXPECT_STREQ(g_dbus_interface_skeleton_get_object_path(base(skeleton)), GetParam().path);
  EXPECT_TRUE(is_reached_at(GetParam().path));
  EXPECT_TRUE(log.lines().empty());
}

INSTANTIATE_TEST_SUITE_P(All, ServerPath,
                         testing::Values(PathCase{"Plain", "ptz", -1, "/com/velk/PTZ/ptz"},
                                         PathCase{"Index", "ptz", 3, "/com/velk/PTZ/ptz/3"},
                                         PathCase{"IndexZero", "ptz", 0, "/com/velk/PTZ/ptz/0"},
                                         PathCase{"LargestIndex", "ptz", G_MAXINT, "/com/velk/PTZ/ptz/2147483647"},
                                         PathCase{"Dots", "a.b", 3, "/com/velk/PTZ/a/b/3"},
                                         PathCase{"MoreDotsNoIndex", "a.b.c", -1, "/com/velk/PTZ/a/b/c"}),
                         [](const auto &info) { return info.param.label; });

TEST_F(Server, RegisterRemembersTheSkeletonWithoutAReference) {
  const guint references = G_OBJECT(skeleton.get())->ref_count;
  EXPECT_TRUE(ptz_g_dbus_server_dbus_register(server.get(), base(skeleton), name.c_str(), -1));
  EXPECT_EQ(server->skeleton, base(skeleton));
  EXPECT_EQ(G_OBJECT(skeleton.get())->ref_count, references);
}

TEST_F(Server, RegisterDoesNotChangeTheName) {
  std::string short_name = "a.b.c";
  EXPECT_TRUE(ptz_g_dbus_server_dbus_register(server.get(), base(skeleton), short_name.c_str(), -1));
  EXPECT_EQ(short_name, "a.b.c");
}

TEST_F(Server, RegisterFullPathTakesThePathUnchanged) {
  const auto path = "/else/where/" + name;
  EXPECT_TRUE(ptz_g_dbus_server_dbus_register_obj_full_path(server.get(), base(skeleton), path.c_str()));
  EXPECT_EQ(server->skeleton, base(skeleton));
  EXPECT_TRUE(is_reached_at(path));
}

TEST_F(Server, ASecondExportLeavesTheFirstOneExported) {
  const auto second = answering_skeleton();
  EXPECT_TRUE(ptz_g_dbus_server_dbus_register(server.get(), base(skeleton), name.c_str(), 1));
  EXPECT_TRUE(ptz_g_dbus_server_dbus_register(server.get(), base(second), name.c_str(), 2));
  EXPECT_EQ(server->skeleton, base(second));
  EXPECT_TRUE(is_reached_at("/com/velk/PTZ/" + name + "/1"));
  EXPECT_TRUE(is_reached_at("/com/velk/PTZ/" + name + "/2"));
}

TEST_F(Server, RegisterOnATakenPathFailsWithTheReason) {
  const auto other = make();
  const auto first = answering_skeleton();
  ASSERT_TRUE(ptz_g_dbus_server_dbus_register(other.get(), base(first), name.c_str(), 5));
  EXPECT_FALSE(ptz_g_dbus_server_dbus_register(server.get(), base(skeleton), name.c_str(), 5));
  EXPECT_EQ(server->skeleton, nullptr);
  const auto path = "/com/velk/PTZ/" + name + "/5";
  EXPECT_EQ(log.count(LOG_ERR,
                      "_ptz_g_dbus_server_register: Failed to get name fo " + path +
                          ". An object is already exported for the interface com.velk.Configuration.Legacy at " + path),
            1U);
  EXPECT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(other->skeleton, base(first));
  EXPECT_TRUE(is_reached_at(path));
}

TEST_F(Server, RegisterFullPathOnATakenPathFailsWithTheReason) {
  const auto other = make();
  const auto first = answering_skeleton();
  ASSERT_TRUE(ptz_g_dbus_server_dbus_register_obj_full_path(other.get(), base(first), "/taken"));
  EXPECT_FALSE(ptz_g_dbus_server_dbus_register_obj_full_path(server.get(), base(skeleton), "/taken"));
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{{LOG_ERR,
                                                "Failed to get name: An object is already exported for the interface "
                                                "com.velk.Configuration.Legacy at /taken"}}));
}

TEST_F(Server, AFailedExportTakesTheEarlierOneBack) {
  const auto other = make();
  const auto first = answering_skeleton(), refused = answering_skeleton();
  ASSERT_TRUE(ptz_g_dbus_server_dbus_register(other.get(), base(first), name.c_str(), 1));
  ASSERT_TRUE(ptz_g_dbus_server_dbus_register(server.get(), base(skeleton), name.c_str(), 2));
  EXPECT_FALSE(ptz_g_dbus_server_dbus_register(server.get(), base(refused), name.c_str(), 1));
  EXPECT_EQ(server->skeleton, nullptr);
  EXPECT_EQ(g_dbus_interface_skeleton_get_connection(base(skeleton)), nullptr);
  EXPECT_FALSE(is_reached_at("/com/velk/PTZ/" + name + "/2"));

  ASSERT_TRUE(ptz_g_dbus_server_dbus_register_obj_full_path(server.get(), base(skeleton), "/mine"));
  EXPECT_FALSE(ptz_g_dbus_server_dbus_register_obj_full_path(server.get(), base(refused),
                                                             ("/com/velk/PTZ/" + name + "/1").c_str()));
  EXPECT_EQ(server->skeleton, nullptr);
  EXPECT_FALSE(is_reached_at("/mine"));
}

// GLib refuses a path that is none without an error object.
TEST_F(Server, ARefusedPathIsAMessageWithoutAReason) {
  const GlibLogCapture criticals;
  EXPECT_FALSE(ptz_g_dbus_server_dbus_register(server.get(), base(skeleton), "no path", -1));
  EXPECT_FALSE(ptz_g_dbus_server_dbus_register(server.get(), base(skeleton), "ptz", -2));
  EXPECT_FALSE(ptz_g_dbus_server_dbus_register_obj_full_path(server.get(), base(skeleton), "no/path"));
  EXPECT_FALSE(ptz_g_dbus_server_dbus_register_obj_full_path(server.get(), base(skeleton), nullptr));
  EXPECT_EQ(log.lines(),
            (std::vector<LogLine>{
                {LOG_ERR, "_ptz_g_dbus_server_register: Failed to get name fo /com/velk/PTZ/no path. (no err"},
                {LOG_ERR, "_ptz_g_dbus_server_register: Failed to get name fo /com/velk/PTZ/ptz/-2. (no err"},
                {LOG_ERR, "Failed to get name: (NULL)"},
                {LOG_ERR, "Failed to get name: (NULL)"}}));
  EXPECT_EQ(server->skeleton, nullptr);
}

TEST_F(Server, NothingCannotBeExported) {
  const GlibLogCapture criticals;
  ASSERT_TRUE(ptz_g_dbus_server_dbus_register(server.get(), base(skeleton), name.c_str(), -1));
  EXPECT_FALSE(ptz_g_dbus_server_dbus_register(server.get(), nullptr, name.c_str(), -1));
  EXPECT_EQ(
      log.count(LOG_ERR, "_ptz_g_dbus_server_register: Failed to get name fo /com/velk/PTZ/" + name + ". (no err"), 1U);
  EXPECT_EQ(server->skeleton, nullptr);
  EXPECT_FALSE(ptz_g_dbus_server_dbus_register(server.get(), base(skeleton), nullptr, -1));
}

// --- lives --------------------------------------------------------------------------------------------------------

TEST_F(Server, TheEndOfTheServerUnexportsTheSkeleton) {
  ASSERT_TRUE(ptz_g_dbus_server_dbus_register(server.get(), base(skeleton), name.c_str(), -1));
  const auto *bus = connection();
  server = make();
  EXPECT_EQ(g_dbus_interface_skeleton_get_connection(base(skeleton)), nullptr);
  EXPECT_EQ(connection(), bus);
  EXPECT_FALSE(is_reached_at("/com/velk/PTZ/" + name));
  // It may be exported anew.
  EXPECT_TRUE(ptz_g_dbus_server_dbus_register(server.get(), base(skeleton), name.c_str(), 1));
}

TEST_F(Server, TheEndOfTheSkeletonIsNoticed) {
  ASSERT_TRUE(ptz_g_dbus_server_dbus_register(server.get(), base(skeleton), name.c_str(), -1));
  skeleton.reset();
  EXPECT_EQ(server->skeleton, nullptr);
  const GlibLogCapture criticals;
  server.reset();
  EXPECT_TRUE(criticals.messages().empty());
}

TEST_F(Server, ASkeletonThatItsOwnerUnexportedIsLeftAlone) {
  ASSERT_TRUE(ptz_g_dbus_server_dbus_register(server.get(), base(skeleton), name.c_str(), -1));
  g_dbus_interface_skeleton_unexport(base(skeleton));
  const GlibLogCapture criticals;
  server.reset();
  EXPECT_TRUE(criticals.messages().empty());
}

TEST_F(Server, AForgottenSkeletonMayEndLaterThanTheServer) {
  const auto second = answering_skeleton();
  ASSERT_TRUE(ptz_g_dbus_server_dbus_register(server.get(), base(skeleton), name.c_str(), 1));
  ASSERT_TRUE(ptz_g_dbus_server_dbus_register(server.get(), base(second), name.c_str(), 2));
  server.reset();
  skeleton.reset();
}

TEST_F(Server, AServerThatExportedNothingEndsQuietly) {
  const GlibLogCapture criticals;
  server.reset();
  EXPECT_TRUE(criticals.messages().empty());
  EXPECT_TRUE(log.lines().empty());
}

// --- the public field ---------------------------------------------------------------------------------------------

TEST_F(Server, EndOfServerAfterOwnerClearedTheFieldLeavesTheSkeletonExported) {
  ASSERT_TRUE(ptz_g_dbus_server_dbus_register(server.get(), base(skeleton), name.c_str(), -1));
  auto *bus = connection();
  server->skeleton = nullptr;
  const GlibLogCapture messages;
  server.reset();
  EXPECT_EQ(g_dbus_interface_skeleton_get_connection(base(skeleton)), bus);
  EXPECT_TRUE(messages.messages().empty());
}

TEST_F(Server, EndOfSkeletonAfterOwnerClearedTheFieldDoesNotWriteIntoAServerThatHasGone) {
  ASSERT_TRUE(ptz_g_dbus_server_dbus_register(server.get(), base(skeleton), name.c_str(), -1));
  server->skeleton = nullptr;
  server.reset();
  const auto other = answering_skeleton();
  std::vector<Object<PTZGDBusServer>> next;  // one is at the address of the old one, unless a sanitizer keeps that back
  for (int count = 0; count < 200; ++count) {
    next.push_back(make());
    next.back()->skeleton = base(other);
  }
  skeleton.reset();
  for (const auto &made : next) EXPECT_EQ(std::exchange(made->skeleton, nullptr), base(other));
}

TEST_F(Server, EndOfSkeletonLeavesAnotherOneInTheField) {
  ASSERT_TRUE(ptz_g_dbus_server_dbus_register(server.get(), base(skeleton), name.c_str(), -1));
  const auto other = answering_skeleton();
  server->skeleton = base(other);
  skeleton.reset();
  EXPECT_EQ(server->skeleton, base(other));
  server->skeleton = nullptr;
}

TEST_F(Server, RegisterAfterOwnerClearedTheFieldWatchesTheNewSkeletonOnly) {
  const auto second = answering_skeleton();
  ASSERT_TRUE(ptz_g_dbus_server_dbus_register(server.get(), base(skeleton), name.c_str(), 1));
  server->skeleton = nullptr;
  const GlibLogCapture messages;
  ASSERT_TRUE(ptz_g_dbus_server_dbus_register(server.get(), base(second), name.c_str(), 2));
  skeleton.reset();
  EXPECT_EQ(server->skeleton, base(second));
  EXPECT_TRUE(messages.messages().empty());
}

TEST_F(Server, RegisterAfterAnOtherWroteTheFieldGivesNoMessage) {
  const auto other = answering_skeleton();
  server->skeleton = base(other);
  const GlibLogCapture messages;
  ASSERT_TRUE(ptz_g_dbus_server_dbus_register(server.get(), base(skeleton), name.c_str(), -1));
  EXPECT_EQ(server->skeleton, base(skeleton));
  EXPECT_TRUE(messages.messages().empty());
}

TEST_F(Server, SkeletonThatASubclassStoredIsUnexportedWithTheServerWithoutAMessage) {
  static const GType type = subclass(PTZ_TYPE_G_DBUS_SERVER, "TestStoringServer", [](gpointer klass, gpointer) {
    PTZ_G_DBUS_SERVER_CLASS(klass)->dbus_register = [](PTZGDBusServer *self, GDBusInterfaceSkeleton *given,
                                                       const gchar *path, gint) -> gboolean {
      self->skeleton = given;
      return g_dbus_interface_skeleton_export(given, PTZ_G_DBUS_SERVER_GET_CLASS(self)->connection, path, nullptr);
    };
  });
  server.reset(PTZ_G_DBUS_SERVER(g_object_new(type, nullptr)));
  const auto path = "/stored/" + name;
  ASSERT_TRUE(ptz_g_dbus_server_dbus_register(server.get(), base(skeleton), path.c_str(), -1));
  EXPECT_TRUE(is_reached_at(path));
  const GlibLogCapture messages;
  server.reset();
  EXPECT_EQ(g_dbus_interface_skeleton_get_connection(base(skeleton)), nullptr);
  EXPECT_TRUE(messages.messages().empty());
}

TEST_F(Server, FailedRegisterUnexportsTheSkeletonThatASubclassStoredWithoutAMessage) {
  const auto path = "/stored/" + name;
  ASSERT_TRUE(g_dbus_interface_skeleton_export(base(skeleton), connection(), path.c_str(), nullptr));
  server->skeleton = base(skeleton);
  const auto refused = answering_skeleton();
  const GlibLogCapture messages;
  EXPECT_FALSE(ptz_g_dbus_server_dbus_register_obj_full_path(server.get(), base(refused), path.c_str()));
  EXPECT_EQ(server->skeleton, nullptr);
  EXPECT_EQ(g_dbus_interface_skeleton_get_connection(base(skeleton)), nullptr);
  EXPECT_TRUE(messages.messages().empty());
}

// --- names --------------------------------------------------------------------------------------------------------

TEST_F(Server, RequestNameClaimsTheNameOfTheModule) {
  EXPECT_TRUE(ptz_g_dbus_server_dbus_request_name(server.get(), name.c_str()));
  EXPECT_EQ(owner_of(peer.get(), "com.velk.PTZ." + name), unique_name(connection()));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Server, RequestNameKeepsDots) {
  EXPECT_TRUE(ptz_g_dbus_server_dbus_request_name(server.get(), (name + ".b").c_str()));
  EXPECT_EQ(owner_of(peer.get(), "com.velk.PTZ." + name + ".b"), unique_name(connection()));
}

TEST_F(Server, RequestNameFullPathClaimsTheNameUnchanged) {
  EXPECT_TRUE(ptz_g_dbus_server_dbus_request_name_full_path(server.get(), ("com.velk.Else." + name).c_str()));
  EXPECT_EQ(owner_of(peer.get(), "com.velk.Else." + name), unique_name(connection()));
}

TEST_F(Server, RequestNameTwiceSucceeds) {
  const auto other = make();
  EXPECT_TRUE(ptz_g_dbus_server_dbus_request_name(server.get(), name.c_str()));
  EXPECT_TRUE(ptz_g_dbus_server_dbus_request_name(server.get(), name.c_str()));
  EXPECT_TRUE(ptz_g_dbus_server_dbus_request_name(other.get(), name.c_str()));
  EXPECT_TRUE(ptz_g_dbus_server_dbus_request_name_full_path(other.get(), ("com.velk.PTZ." + name).c_str()));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Server, ATakenNameIsQueuedForWithAWarning) {
  const auto taken = "com.velk.PTZ." + name;
  ASSERT_EQ(request_name(peer.get(), taken), 1U);
  EXPECT_FALSE(ptz_g_dbus_server_dbus_request_name(server.get(), name.c_str()));
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{{LOG_WARNING, "Got result code 2 from requesting name"}}));
  EXPECT_EQ(owner_of(peer.get(), taken), unique_name(peer.get()));
  release_name(peer.get(), taken);
  EXPECT_EQ(owner_of(peer.get(), taken), unique_name(connection()));
}

TEST_F(Server, ATakenNameIsNotReplacedEvenIfItsOwnerAllowsThat) {
  constexpr guint32 allow_replacement = 1;
  ASSERT_EQ(request_name(peer.get(), "com.velk.Else." + name, allow_replacement), 1U);
  EXPECT_FALSE(ptz_g_dbus_server_dbus_request_name_full_path(server.get(), ("com.velk.Else." + name).c_str()));
  EXPECT_EQ(owner_of(peer.get(), "com.velk.Else." + name), unique_name(peer.get()));
}

TEST_F(Server, AClaimedNameCannotBeTakenAway) {
  ASSERT_TRUE(ptz_g_dbus_server_dbus_request_name(server.get(), name.c_str()));
  EXPECT_EQ(request_name(peer.get(), "com.velk.PTZ." + name, replace_existing), 2U);
  EXPECT_EQ(owner_of(peer.get(), "com.velk.PTZ." + name), unique_name(connection()));
}

TEST_F(Server, ANameOutlivesTheServer) {
  ASSERT_TRUE(ptz_g_dbus_server_dbus_request_name(server.get(), name.c_str()));
  const auto owner = unique_name(connection());
  server.reset();
  EXPECT_EQ(owner_of(peer.get(), "com.velk.PTZ." + name), owner);
}

TEST_F(Server, ANameThatIsNoneIsRefusedByTheBus) {
  EXPECT_FALSE(ptz_g_dbus_server_dbus_request_name(server.get(), "no name"));
  EXPECT_FALSE(ptz_g_dbus_server_dbus_request_name_full_path(server.get(), ""));
  EXPECT_EQ(log.lines(),
            (std::vector<LogLine>{
                {LOG_ERR,
                 "Failed to get name: GDBus.Error:org.freedesktop.DBus.Error.InvalidArgs: Requested bus name "
                 "\"com.velk.PTZ.no name\" is not valid"},
                {LOG_ERR,
                 "Failed to get name: GDBus.Error:org.freedesktop.DBus.Error.InvalidArgs: Requested bus name "
                 "\"\" is not valid"}}));
}

TEST_F(Server, ANameThatCannotTravelIsAFailedCheck) {
  const GlibLogCapture criticals;
  EXPECT_FALSE(ptz_g_dbus_server_dbus_request_name(server.get(), nullptr));
  EXPECT_FALSE(ptz_g_dbus_server_dbus_request_name(server.get(), "\xff"));
  EXPECT_FALSE(ptz_g_dbus_server_dbus_request_name_full_path(server.get(), nullptr));
  EXPECT_FALSE(ptz_g_dbus_server_dbus_request_name_full_path(server.get(), "com.velk.\xff"));
  EXPECT_EQ(criticals.criticals(), 4U);
}

// --- subclasses ---------------------------------------------------------------------------------------------------

std::vector<std::string> overridden;

GType overriding_type() {
  static const GType type = subclass(PTZ_TYPE_G_DBUS_SERVER, "TestOverridingServer", [](gpointer klass, gpointer) {
    auto *slots = PTZ_G_DBUS_SERVER_CLASS(klass);
    slots->dbus_register = [](PTZGDBusServer *, GDBusInterfaceSkeleton *, const gchar *short_name,
                              gint index) -> gboolean {
      overridden.push_back("register "s + short_name + " " + std::to_string(index));
      return 7;
    };
    slots->dbus_request_name = [](PTZGDBusServer *, const gchar *short_name) -> gboolean {
      overridden.push_back("request "s + short_name);
      return 8;
    };
    slots->dbus_register_obj_full_path = [](PTZGDBusServer *, GDBusInterfaceSkeleton *,
                                            const gchar *object_path) -> gboolean {
      overridden.push_back("register at "s + object_path);
      return 9;
    };
    slots->dbus_request_name_full_path = [](PTZGDBusServer *, const gchar *bus_name) -> gboolean {
      overridden.push_back("request all of "s + bus_name);
      return 10;
    };
  });
  return type;
}

TEST_F(Server, SubclassesOverrideEveryOperation) {
  overridden.clear();
  const Object<PTZGDBusServer> other(PTZ_G_DBUS_SERVER(g_object_new(overriding_type(), nullptr)));
  EXPECT_EQ(ptz_g_dbus_server_dbus_register(other.get(), base(skeleton), "a.b", -1), 7);
  EXPECT_EQ(ptz_g_dbus_server_dbus_request_name(other.get(), "c"), 8);
  EXPECT_EQ(ptz_g_dbus_server_dbus_register_obj_full_path(other.get(), base(skeleton), "/d"), 9);
  EXPECT_EQ(ptz_g_dbus_server_dbus_request_name_full_path(other.get(), "e.f"), 10);
  EXPECT_EQ(overridden, (std::vector{"register a.b -1"s, "request c"s, "register at /d"s, "request all of e.f"s}));
  EXPECT_EQ(PTZ_G_DBUS_SERVER_GET_CLASS(other.get())->connection, connection());
}

TEST_F(Server, OperationsWantAServer) {
  const GlibLogCapture criticals;
  EXPECT_FALSE(ptz_g_dbus_server_dbus_register(nullptr, base(skeleton), "a", -1));
  EXPECT_FALSE(ptz_g_dbus_server_dbus_request_name(nullptr, "a"));
  EXPECT_FALSE(ptz_g_dbus_server_dbus_register_obj_full_path(nullptr, base(skeleton), "/a"));
  EXPECT_FALSE(ptz_g_dbus_server_dbus_request_name_full_path(nullptr, "a.b"));
  EXPECT_EQ(criticals.criticals(), 4U);
  EXPECT_EQ(criticals.failed_check("ptz_g_dbus_server_dbus_register", "PTZ_IS_G_DBUS_SERVER(self)"), 1U);
}

}  // namespace
