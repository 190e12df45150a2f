// What the policy of the system bus lets whom do. Whoever runs the tests takes each of the parts in turn.
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>

#include "bus.h"

namespace {

using namespace ptz_test;

constexpr char events[] = "com.velk.PTZ.ConfigEvent";
constexpr char nobody[] = "no-such-name";

std::string own_user() { return getpwuid(geteuid())->pw_name; }
std::string own_group() { return getgrgid(getegid())->gr_name; }

// The policy for other users and groups than it names.
std::string policy_for(const std::string &root, const std::string &user, const std::string &group) {
  std::ifstream file(BUS_POLICY);
  std::string text(std::istreambuf_iterator<char>(file), {});
  for (const auto &[from, to] : {std::pair<std::string, std::string>{"user=\"root\"", "user=\"" + root + "\""},
                                 {"user=\"ptz\"", "user=\"" + user + "\""},
                                 {"group=\"ptz\"", "group=\"" + group + "\""}}) {
    const auto at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    text.replace(at, from.size(), to);
    EXPECT_EQ(text.find(from, at + to.size()), std::string::npos) << from << " twice";
  }
  return text;
}

struct BusPolicy : testing::Test {
  TempDir dir;
  std::unique_ptr<Bus> bus;
  Connection one, other;

  // Around it is what a Debian system begins with.
  void start(const std::string &policy) {
    std::ofstream(dir.file("ptz.conf")) << policy;
    bus = std::make_unique<Bus>(
        "<policy context='default'><allow user='*'/><deny own='*'/><deny send_type='method_call'/>"
        "<allow send_type='signal'/><allow send_requested_reply='true' send_type='method_return'/>"
        "<allow send_requested_reply='true' send_type='error'/><allow receive_type='method_call'/>"
        "<allow receive_type='method_return'/><allow receive_type='error'/><allow receive_type='signal'/>"
        "<allow send_destination='org.freedesktop.DBus'/></policy><include>" +
        dir.file("ptz.conf") + "</include>");
    one = connect_to(*bus);
    other = connect_to(*bus);
  }
  bool may_own(const std::string &name = "com.velk.PTZ.policy") const { return request_name(one.get(), name) != 0; }
  // There is nothing at this path; the one who has the name says so.
  bool may_call() const {
    const auto answer = call(other.get(), "com.velk.PTZ.policy", "/", "com.velk.Configuration.Legacy", "Sync");
    return answer.error != nullptr && !g_error_matches(answer.error.get(), G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED);
  }
  bool events_arrive() const {
    const SignalLog heard(other.get(), events), last(other.get(), "com.velk.Last");
    g_dbus_connection_emit_signal(one.get(), nullptr, "/", events, "Changed", nullptr, nullptr);
    g_dbus_connection_emit_signal(one.get(), nullptr, "/", "com.velk.Last", "Last", nullptr, nullptr);
    EXPECT_TRUE(run_until([&] { return !last.signals.empty(); }));
    return !heard.signals.empty();
  }
};

TEST_F(BusPolicy, StrangersMayNothing) {
  start(policy_for(nobody, nobody, nobody));
  EXPECT_FALSE(may_own());
  EXPECT_FALSE(may_own("com.velk.PTZ"));
  EXPECT_FALSE(may_own("com.velk.PTZ.policy.part"));
  EXPECT_FALSE(events_arrive());
}

TEST_F(BusPolicy, ItsUserMayServe) {
  start(policy_for(nobody, own_user(), nobody));
  EXPECT_TRUE(may_own());
  EXPECT_TRUE(may_own("com.velk.PTZ.policy.part"));
  EXPECT_FALSE(may_own("com.velk.PTZother"));
  EXPECT_FALSE(may_own("com.velk.Other"));
}

// Of the service of ItsUserMayServe.
TEST_F(BusPolicy, OthersMayNotCall) {
  start(policy_for(nobody, own_user(), nobody));
  ASSERT_TRUE(may_own());
  EXPECT_FALSE(may_call());
  EXPECT_FALSE(events_arrive());
}

TEST_F(BusPolicy, ItsGroupMayCallAndListen) {
  start(policy_for(nobody, own_user(), own_group()));
  ASSERT_TRUE(may_own());
  EXPECT_TRUE(may_call());
  EXPECT_TRUE(events_arrive());
}

TEST_F(BusPolicy, ItsGroupMayNeitherServeNorSendEvents) {
  start(policy_for(nobody, nobody, own_group()));
  EXPECT_FALSE(may_own());
  EXPECT_FALSE(events_arrive());
}

TEST_F(BusPolicy, RootMayEverything) {
  start(policy_for(own_user(), nobody, nobody));
  ASSERT_TRUE(may_own());
  EXPECT_TRUE(may_call());
  EXPECT_TRUE(events_arrive());
}

}  // namespace
