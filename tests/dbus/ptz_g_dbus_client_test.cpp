#include "ptz_g_dbus_client.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "bus.h"
#include "subclass.h"
#include "syslog_capture.h"

namespace {

using namespace ptz_test;
using namespace std::string_literals;

void count(gpointer number) { ++*static_cast<int *>(number); }

struct Client : testing::Test {
  Connection peer = connect_to(system_bus());  // the service's; it answers nothing, as nobody asks
  Object<PTZGDBusClient> client{ptz_g_dbus_client_new()};
  SyslogCapture log;
  const std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();
  const std::string bus_name = "com.velk.PTZ." + name;
  int left = 0;

  // A proxy whose service is not there yet: one that is would be asked for its properties.
  void make_proxy() { ASSERT_TRUE(ptz_g_dbus_client_set_proxy(client.get(), name.c_str(), -1)); }
  [[nodiscard]] bool sees_owner() const { return Text(g_dbus_proxy_get_name_owner(client->proxy)) != nullptr; }
  void service_comes() {
    ASSERT_EQ(request_name(peer.get(), bus_name), 1U);
    ASSERT_TRUE(run_until([this] { return sees_owner(); }));
  }
  void service_leaves() {
    release_name(peer.get(), bus_name);
    ASSERT_TRUE(run_until([this] { return !sees_owner(); }));
    run_pending();
  }
};

TEST_F(Client, BeginsEmpty) {
  EXPECT_EQ(client->proxy, nullptr);
  EXPECT_EQ(client->bus_name, nullptr);
  EXPECT_EQ(client->object_path, nullptr);
  EXPECT_EQ(client->interface_name, nullptr);
  EXPECT_EQ(client->destroy_handler, 0U);
  EXPECT_EQ(client->destroy_callback, nullptr);
  EXPECT_EQ(client->user_data, nullptr);
  EXPECT_EQ(G_OBJECT_TYPE(client.get()), PTZ_TYPE_G_DBUS_CLIENT);
}

TEST_F(Client, ClassHasTheSharedSystemBus) {
  const Connection shared(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
  EXPECT_EQ(PTZ_G_DBUS_CLIENT_GET_CLASS(client.get())->connection, shared.get());
  EXPECT_FALSE(g_dbus_connection_get_exit_on_close(shared.get()));
}

// --- the proxy ----------------------------------------------------------------------------------------------------

struct NamesCase {
  const char *label;
  const char *short_name;
  gint index;
  const char *bus_name;
  const char *object_path;
};

void PrintTo(const NamesCase &names, std::ostream *out) { *out << names.object_path; }

struct ClientNames : Client, testing::WithParamInterface<NamesCase> {};

TEST_P(ClientNames, AreBuiltFromTheNameAndTheIndex) {
  EXPECT_TRUE(ptz_g_dbus_client_set_proxy(client.get(), GetParam().short_name, GetParam().index));
  EXPECT_STREQ(client->bus_name, GetParam().bus_name);
  EXPECT_STREQ(client->object_path, GetParam().object_path);
  EXPECT_STREQ(client->interface_name, GetParam().bus_name);
  ASSERT_NE(client->proxy, nullptr);
  EXPECT_STREQ(g_dbus_proxy_get_name(client->proxy), GetParam().bus_name);
  EXPECT_STREQ(g_dbus_proxy_get_object_path(client->proxy), GetParam().object_path);
  EXPECT_STREQ(g_dbus_proxy_get_interface_name(client->proxy), GetParam().bus_name);
  EXPECT_EQ(g_dbus_proxy_get_flags(client->proxy), G_DBUS_PROXY_FLAGS_NONE);
  EXPECT_EQ(g_dbus_proxy_get_interface_info(client->proxy), nullptr);
  EXPECT_TRUE(log.lines().empty());
}

INSTANTIATE_TEST_SUITE_P(All, ClientNames,
                         testing::Values(NamesCase{"Plain", "ptz", -1, "com.velk.PTZ.ptz", "/com/velk/PTZ/ptz"},
                                         NamesCase{"Index", "ptz", 3, "com.velk.PTZ.ptz", "/com/velk/PTZ/ptz/3"},
                                         NamesCase{"IndexZero", "ptz", 0, "com.velk.PTZ.ptz", "/com/velk/PTZ/ptz/0"}),
                         [](const auto &info) { return info.param.label; });

// Unlike a server's path; GLib then refuses it, as no object path may hold a dot.
TEST_F(Client, DotsStayDotsInThePath) {
  const GlibLogCapture criticals;
  EXPECT_FALSE(ptz_g_dbus_client_set_proxy(client.get(), "a.b", 3));
  EXPECT_STREQ(client->bus_name, "com.velk.PTZ.a.b");
  EXPECT_STREQ(client->object_path, "/com/velk/PTZ/a.b/3");
  EXPECT_STREQ(client->interface_name, "com.velk.PTZ.a.b");
  EXPECT_EQ(client->proxy, nullptr);
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{{LOG_ERR, "Failed to setup proxy: (NULL)"}}));
}

TEST_F(Client, SetProxyFullTakesTheNamesUnchangedAndCopiesThem) {
  std::string to = "com.velk.Else", path = "/else/where", interface = "com.velk.Other";
  EXPECT_TRUE(ptz_g_dbus_client_set_proxy_full(client.get(), to.c_str(), path.c_str(), interface.c_str()));
  to = path = interface = "changed";
  EXPECT_STREQ(client->bus_name, "com.velk.Else");
  EXPECT_STREQ(client->object_path, "/else/where");
  EXPECT_STREQ(client->interface_name, "com.velk.Other");
  EXPECT_STREQ(g_dbus_proxy_get_interface_name(client->proxy), "com.velk.Other");
}

TEST_F(Client, AProxyReachesItsService) {
  EXPECT_TRUE(ptz_g_dbus_client_set_proxy_full(client.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                               "org.freedesktop.DBus"));
  const Variant reply(g_dbus_proxy_call_sync(client->proxy, "NameHasOwner",
                                             g_variant_new("(s)", "org.freedesktop.DBus"), G_DBUS_CALL_FLAGS_NONE, -1,
                                             nullptr, nullptr));
  ASSERT_NE(reply, nullptr);
  EXPECT_STREQ(Text(g_variant_print(reply.get(), TRUE)).get(), "(true,)");
}

TEST_F(Client, ASecondProxyIsAFailedCheck) {
  make_proxy();
  auto *first = client->proxy;
  const GlibLogCapture criticals;
  EXPECT_FALSE(ptz_g_dbus_client_set_proxy(client.get(), "other", 1));
  EXPECT_FALSE(ptz_g_dbus_client_set_proxy_full(client.get(), "a.b", "/c", "d.e"));
  EXPECT_EQ(criticals.failed_check("ptz_g_dbus_client_new_proxy", "self->proxy == NULL"), 2U);
  EXPECT_EQ(criticals.criticals(), 2U);
  EXPECT_EQ(client->proxy, first);
  // The names are stored before the proxy is looked at.
  EXPECT_STREQ(client->bus_name, "a.b");
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Client, ProxyMayBeSetAgainAfterAFailure) {
  const GlibLogCapture criticals;
  EXPECT_FALSE(ptz_g_dbus_client_set_proxy_full(client.get(), "no name", "/a", "b.c"));
  EXPECT_FALSE(ptz_g_dbus_client_set_proxy_full(client.get(), "a.b", "no path", "b.c"));
  EXPECT_FALSE(ptz_g_dbus_client_set_proxy_full(client.get(), "a.b", "/a", "no interface"));
  EXPECT_EQ(log.count(LOG_ERR, "Failed to setup proxy: (NULL)"), 3U);
  EXPECT_TRUE(ptz_g_dbus_client_set_proxy_full(client.get(), "a.b", "/a", "b.c"));
  EXPECT_STREQ(client->interface_name, "b.c");
}

TEST_F(Client, NamesMayBeTheClientsOwn) {
  const GlibLogCapture criticals;
  EXPECT_FALSE(ptz_g_dbus_client_set_proxy_full(client.get(), "a.b", "no path", "c.d"));
  EXPECT_TRUE(ptz_g_dbus_client_set_proxy_full(client.get(), client->bus_name, "/a", client->bus_name));
  EXPECT_STREQ(client->interface_name, "a.b");
}

TEST_F(Client, MissingNamesAreAMessage) {
  const GlibLogCapture criticals;
  EXPECT_FALSE(ptz_g_dbus_client_set_proxy_full(client.get(), nullptr, "/a", "b.c"));
  EXPECT_FALSE(ptz_g_dbus_client_set_proxy_full(client.get(), "a.b", nullptr, "b.c"));
  EXPECT_FALSE(ptz_g_dbus_client_set_proxy_full(client.get(), "a.b", "/a", nullptr));
  EXPECT_EQ(log.count(LOG_ERR, "Failed to setup proxy: no names are set"), 3U);
  EXPECT_TRUE(criticals.messages().empty());
  EXPECT_FALSE(ptz_g_dbus_client_set_proxy(client.get(), nullptr, -1));
  EXPECT_EQ(criticals.criticals(), 1U);
}

TEST_F(Client, GetProxyLendsTheProxy) {
  make_proxy();
  auto *proxy = client->proxy;
  const guint references = G_OBJECT(proxy)->ref_count;
  EXPECT_EQ(ptz_g_dbus_client_get_proxy(client.get()), proxy);
  EXPECT_EQ(ptz_g_dbus_client_get_proxy(client.get()), proxy);
  EXPECT_EQ(G_OBJECT(proxy)->ref_count, references);
}

TEST_F(Client, GetProxyMakesItFromTheStoredNames) {
  const GlibLogCapture criticals;
  EXPECT_FALSE(ptz_g_dbus_client_set_proxy_full(client.get(), "com.velk.PTZ.late", "no path", "com.velk.PTZ.late"));
  EXPECT_EQ(ptz_g_dbus_client_get_proxy(client.get()), nullptr);
  g_free(client->object_path);
  client->object_path = g_strdup("/com/velk/PTZ/late");
  auto *proxy = ptz_g_dbus_client_get_proxy(client.get());
  ASSERT_NE(proxy, nullptr);
  EXPECT_EQ(client->proxy, proxy);
  EXPECT_STREQ(g_dbus_proxy_get_name(proxy), "com.velk.PTZ.late");
}

TEST_F(Client, GetProxyOfANewClientIsNothing) {
  const GlibLogCapture criticals;
  EXPECT_EQ(ptz_g_dbus_client_get_proxy(client.get()), nullptr);
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{{LOG_ERR, "Failed to setup proxy: no names are set"}}));
  EXPECT_TRUE(criticals.messages().empty());
}

// --- the service leaves -------------------------------------------------------------------------------------------

TEST_F(Client, CallbackComesEachTimeTheServiceLeaves) {
  make_proxy();
  EXPECT_TRUE(ptz_g_dbus_client_connect_destroy_signal(client.get(), count, &left));
  EXPECT_NE(client->destroy_handler, 0U);
  EXPECT_EQ(client->destroy_callback, count);
  EXPECT_EQ(client->user_data, &left);
  for (int times = 1; times <= 3; ++times) {
    service_comes();
    EXPECT_EQ(left, times - 1);
    service_leaves();
    EXPECT_EQ(left, times);
  }
}

TEST_F(Client, CallbackComesWhenTheServiceIsCutOff) {
  make_proxy();
  ASSERT_TRUE(ptz_g_dbus_client_connect_destroy_signal(client.get(), count, &left));
  for (int times = 1; times <= 3; ++times) {
    service_comes();
    ASSERT_TRUE(g_dbus_connection_close_sync(peer.get(), nullptr, nullptr));
    ASSERT_TRUE(run_until([this] { return !sees_owner(); }));
    run_pending();
    EXPECT_EQ(left, times);
    peer = connect_to(system_bus());
  }
}

// The other process of the next test, which is this program started again.
TEST(ClientsService, DISABLED_ClaimsItsNameAndWaits) {
  const Connection connection(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
  request_name(connection.get(), getenv("TEST_SERVICE_NAME"));
  pause();
}

TEST_F(Client, CallbackComesWhenTheServiceIsKilled) {
  make_proxy();
  ASSERT_TRUE(ptz_g_dbus_client_connect_destroy_signal(client.get(), count, &left));
  setenv("TEST_SERVICE_NAME", bus_name.c_str(), 1);
  for (int times = 1; times <= 3; ++times) {
    const pid_t service = fork();
    ASSERT_GE(service, 0);
    if (service == 0) {
      dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
      execl("/proc/self/exe", "service", "--gtest_filter=ClientsService.*", "--gtest_also_run_disabled_tests",
            static_cast<char *>(nullptr));
      _exit(127);
    }
    EXPECT_TRUE(run_until([this] { return sees_owner(); }));
    kill(service, SIGKILL);
    waitpid(service, nullptr, 0);
    EXPECT_TRUE(run_until([this] { return !sees_owner(); }));
    run_pending();
    EXPECT_EQ(left, times);
  }
}

TEST_F(Client, CallbackDoesNotComeWhenANewOwnerTakesOver) {
  make_proxy();
  ASSERT_TRUE(ptz_g_dbus_client_connect_destroy_signal(client.get(), count, &left));
  service_comes();
  const auto heir = connect_to(system_bus());
  EXPECT_EQ(request_name(heir.get(), bus_name), 2U);
  release_name(peer.get(), bus_name);
  ASSERT_TRUE(run_until([&] {
    const Text owner(g_dbus_proxy_get_name_owner(client->proxy));
    return owner != nullptr && unique_name(heir.get()) == owner.get();
  }));
  EXPECT_EQ(left, 0);
}

TEST_F(Client, OnlyOneCallbackIsConnected) {
  make_proxy();
  EXPECT_TRUE(ptz_g_dbus_client_connect_destroy_signal(client.get(), count, &left));
  const gulong handler = client->destroy_handler;
  int other = 0;
  EXPECT_FALSE(ptz_g_dbus_client_connect_destroy_signal(client.get(), nullptr, &other));
  EXPECT_EQ(client->destroy_handler, handler);
  EXPECT_EQ(client->destroy_callback, count);
  EXPECT_EQ(client->user_data, &left);
}

TEST_F(Client, DisconnectForgetsTheCallback) {
  make_proxy();
  ptz_g_dbus_client_disconnect_destroy_signal(client.get());
  ASSERT_TRUE(ptz_g_dbus_client_connect_destroy_signal(client.get(), count, &left));
  service_comes();
  ptz_g_dbus_client_disconnect_destroy_signal(client.get());
  EXPECT_EQ(client->destroy_handler, 0U);
  EXPECT_EQ(client->destroy_callback, nullptr);
  EXPECT_EQ(client->user_data, nullptr);
  service_leaves();
  EXPECT_EQ(left, 0);

  EXPECT_TRUE(ptz_g_dbus_client_connect_destroy_signal(client.get(), count, &left));
  service_comes();
  service_leaves();
  EXPECT_EQ(left, 1);
}

TEST_F(Client, CallbackMayBeMissing) {
  make_proxy();
  EXPECT_TRUE(ptz_g_dbus_client_connect_destroy_signal(client.get(), nullptr, &left));
  service_comes();
  service_leaves();
  EXPECT_EQ(left, 0);
}

TEST_F(Client, NothingCanBeConnectedWithoutAProxy) {
  const GlibLogCapture criticals;
  EXPECT_FALSE(ptz_g_dbus_client_connect_destroy_signal(client.get(), count, &left));
  EXPECT_EQ(client->destroy_callback, nullptr);
  EXPECT_EQ(client->user_data, nullptr);
  EXPECT_EQ(client->destroy_handler, 0U);
  EXPECT_TRUE(criticals.messages().empty());
}

struct Owner {
  PTZGDBusClient *client;
  int calls = 0;
  std::function<void(PTZGDBusClient *)> act;
};

void act(gpointer owner) {
  auto *self = static_cast<Owner *>(owner);
  ++self->calls;
  self->act(self->client);
}

TEST_F(Client, CallbackMayDropTheLastReference) {
  make_proxy();
  service_comes();
  auto *last = client.release();
  Owner owner{last, 0, [](PTZGDBusClient *dropped) { g_object_unref(dropped); }};
  g_object_add_weak_pointer(G_OBJECT(last), reinterpret_cast<gpointer *>(&owner.client));
  ASSERT_TRUE(ptz_g_dbus_client_connect_destroy_signal(last, act, &owner));
  release_name(peer.get(), bus_name);
  EXPECT_TRUE(run_until([&] { return owner.client == nullptr; }));
  run_pending();
  EXPECT_EQ(owner.calls, 1);
}

TEST_F(Client, CallbackMayDisconnectItselfAndConnectAgain) {
  make_proxy();
  Owner owner{client.get(), 0, {}};
  owner.act = [&owner](PTZGDBusClient *self) {
    ptz_g_dbus_client_disconnect_destroy_signal(self);
    EXPECT_TRUE(ptz_g_dbus_client_connect_destroy_signal(self, act, &owner));
  };
  ASSERT_TRUE(ptz_g_dbus_client_connect_destroy_signal(client.get(), act, &owner));
  for (int times = 1; times <= 2; ++times) {
    service_comes();
    service_leaves();
    EXPECT_EQ(owner.calls, times);
  }
}

// --- its end ------------------------------------------------------------------------------------------------------

TEST_F(Client, AProxyThatOutlivesItsClientCallsNobody) {
  make_proxy();
  ASSERT_TRUE(ptz_g_dbus_client_connect_destroy_signal(client.get(), count, &left));
  service_comes();
  const Object<GDBusProxy> kept(G_DBUS_PROXY(g_object_ref(client->proxy)));
  client.reset();
  release_name(peer.get(), bus_name);
  EXPECT_TRUE(run_until([&] { return Text(g_dbus_proxy_get_name_owner(kept.get())) == nullptr; }));
  EXPECT_EQ(left, 0);
}

TEST_F(Client, DisposeDropsTheProxyAndKeepsTheNames) {
  make_proxy();
  ASSERT_TRUE(ptz_g_dbus_client_connect_destroy_signal(client.get(), count, &left));
  gpointer proxy = client->proxy;
  g_object_add_weak_pointer(G_OBJECT(proxy), &proxy);
  g_object_run_dispose(G_OBJECT(client.get()));
  EXPECT_EQ(client->proxy, nullptr);
  EXPECT_EQ(client->destroy_handler, 0U);
  EXPECT_STREQ(client->bus_name, bus_name.c_str());
  EXPECT_TRUE(run_until([&] { return proxy == nullptr; }));
}

std::vector<std::string> overridden;

GType overriding_type() {
  static const GType type = subclass(PTZ_TYPE_G_DBUS_CLIENT, "TestOverridingClient", [](gpointer klass, gpointer) {
    auto *slots = PTZ_G_DBUS_CLIENT_CLASS(klass);
    slots->set_proxy = [](PTZGDBusClient *, const gchar *short_name, gint index) -> gboolean {
      overridden.push_back("set "s + short_name + " " + std::to_string(index));
      return 7;
    };
    slots->set_proxy_full = [](PTZGDBusClient *, const gchar *bus_name, const gchar *object_path,
                               const gchar *interface_name) -> gboolean {
      overridden.push_back("set "s + bus_name + " " + object_path + " " + interface_name);
      return 8;
    };
    slots->get_proxy = [](PTZGDBusClient *self) -> GDBusProxy * {
      overridden.emplace_back("get");
      return reinterpret_cast<GDBusProxy *>(self);
    };
    slots->connect_destroy_signal = [](PTZGDBusClient *, PTZGDBusClientDestroyCallback, gpointer) -> gboolean {
      overridden.emplace_back("connect");
      return 9;
    };
    slots->disconnect_destroy_signal = [](PTZGDBusClient *) { overridden.emplace_back("disconnect"); };
  });
  return type;
}

TEST_F(Client, SubclassesOverrideEveryOperation) {
  overridden.clear();
  Object<PTZGDBusClient> other(PTZ_G_DBUS_CLIENT(g_object_new(overriding_type(), nullptr)));
  EXPECT_EQ(ptz_g_dbus_client_set_proxy(other.get(), "a", 1), 7);
  EXPECT_EQ(ptz_g_dbus_client_set_proxy_full(other.get(), "b", "c", "d"), 8);
  EXPECT_EQ(ptz_g_dbus_client_get_proxy(other.get()), reinterpret_cast<GDBusProxy *>(other.get()));
  EXPECT_EQ(ptz_g_dbus_client_connect_destroy_signal(other.get(), count, nullptr), 9);
  ptz_g_dbus_client_disconnect_destroy_signal(other.get());
  EXPECT_EQ(overridden, (std::vector{"set a 1"s, "set b c d"s, "get"s, "connect"s, "disconnect"s}));
  overridden.clear();
  other.reset();
  EXPECT_EQ(overridden, (std::vector{"disconnect"s}));
}

TEST_F(Client, OperationsWantAClient) {
  const GlibLogCapture criticals;
  EXPECT_FALSE(ptz_g_dbus_client_set_proxy(nullptr, "a", -1));
  EXPECT_FALSE(ptz_g_dbus_client_set_proxy_full(nullptr, "a.b", "/a", "b.c"));
  EXPECT_EQ(ptz_g_dbus_client_get_proxy(nullptr), nullptr);
  EXPECT_FALSE(ptz_g_dbus_client_connect_destroy_signal(nullptr, count, nullptr));
  ptz_g_dbus_client_disconnect_destroy_signal(nullptr);
  EXPECT_EQ(criticals.criticals(), 5U);
  EXPECT_EQ(criticals.failed_check("ptz_g_dbus_client_get_proxy", "PTZ_IS_G_DBUS_CLIENT(self)"), 1U);
}

}  // namespace
