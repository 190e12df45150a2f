#include "platform/config_event.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "bus.h"

namespace {

using namespace ptz_test;

using Event = std::unique_ptr<ConfigEvent, FreeWith<config_event_free>>;

constexpr char path[] = "/com/velk/PTZ/ptz";
constexpr char interface[] = "com.velk.Configuration.Legacy";

Event make(const char *name = "presets") { return Event(config_event_new(name, 0, 0)); }

struct ConfigEvents : testing::Test {
  Connection peer = connect_to(system_bus());
  SignalLog heard{peer.get(), "com.velk.PTZ.ConfigEvent"};
  Event event = make();
  Error error;

  // The next signal.
  SignalLog::Signal signal(std::size_t number = 1) {
    EXPECT_TRUE(run_until([&] { return heard.signals.size() >= number; }));
    return heard.signals.size() >= number ? heard.signals[number - 1] : SignalLog::Signal{};
  }
  std::string changes_of(std::vector<std::pair<const char *, const char *>> pairs) {
    const auto seen = heard.signals.size();
    config_event_init_change_string(event.get());
    for (const auto &[key, value] : pairs) config_event_append_escaped_pair(event.get(), key, value);
    EXPECT_TRUE(config_event_send(event.get(), "owner", path, interface, "key", 0, nullptr));
    const auto body = signal(seen + 1).body;
    const std::string before = "('presets', 'owner', 'com.velk.Configuration.Legacy', 'key', 0, '";
    EXPECT_EQ(body.substr(0, before.size()), before);
    return body.substr(before.size(), body.size() - before.size() - 2);
  }
};

TEST_F(ConfigEvents, DeclareIsBroadcastFromTheObject) {
  EXPECT_TRUE(config_event_declare(event.get(), "owner", path, interface, Into(error)));
  const auto seen = signal();
  EXPECT_EQ(seen.path, path);
  EXPECT_EQ(seen.name, "Declared");
  EXPECT_EQ(seen.body, "('presets', 'owner', 'com.velk.Configuration.Legacy')");
  EXPECT_EQ(error, nullptr);
}

TEST_F(ConfigEvents, UndeclareIsBroadcastFromTheObject) {
  EXPECT_TRUE(config_event_undeclare(event.get(), "owner", path, interface, Into(error)));
  const auto seen = signal();
  EXPECT_EQ(seen.path, path);
  EXPECT_EQ(seen.name, "Undeclared");
  EXPECT_EQ(seen.body, "('presets', 'owner', 'com.velk.Configuration.Legacy')");
}

TEST_F(ConfigEvents, ChangesAreBroadcastFromTheObject) {
  config_event_init_change_string(event.get());
  config_event_append_escaped_pair(event.get(), "Name", "Gate");
  config_event_append_escaped_pair(event.get(), "Speed", "7");
  EXPECT_TRUE(config_event_send(event.get(), "owner", path, interface, "/com/velk/PTZ/ptz/3", 17, Into(error)));
  const auto seen = signal();
  EXPECT_EQ(seen.path, path);
  EXPECT_EQ(seen.name, "Changed");
  EXPECT_EQ(seen.body,
            "('presets', 'owner', 'com.velk.Configuration.Legacy', '/com/velk/PTZ/ptz/3', 17, 'Name=Gate&Speed=7')");
}

TEST_F(ConfigEvents, NothingIsChangedAtFirst) {
  EXPECT_TRUE(config_event_send(event.get(), "owner", path, interface, "key", -1, nullptr));
  EXPECT_EQ(signal().body, "('presets', 'owner', 'com.velk.Configuration.Legacy', 'key', -1, '')");
}

TEST_F(ConfigEvents, ANewDescriptionForgetsTheLastOne) {
  EXPECT_EQ(changes_of({{"A", "1"}}), "A=1");
  EXPECT_EQ(changes_of({{"B", "2"}}), "B=2");
  EXPECT_EQ(changes_of({}), "");
}

TEST_F(ConfigEvents, PairsAreEscapedAsInUris) {
  EXPECT_EQ(changes_of({{"a=b", "c&d"}}), "a%3Db=c%26d");
  EXPECT_EQ(changes_of({{"a b", "100%"}}), "a%20b=100%25");
  EXPECT_EQ(changes_of({{"A-Z_a.z~0", "/?#"}}), "A-Z_a.z~0=%2F%3F%23");
  EXPECT_EQ(changes_of({{"caf\xC3\xA9", "caf\xE9\x01"}}), "caf%C3%A9=caf%E9%01");
  EXPECT_EQ(changes_of({{"Empty", ""}, {"", "x"}}), "Empty=&=x");
}

TEST_F(ConfigEvents, APairWithoutAKeyIsLeftOutAndAMissingValueIsEmpty) {
  EXPECT_EQ(changes_of({{nullptr, "1"}, {"A", nullptr}}), "A=");
}

TEST_F(ConfigEvents, DescriptionsMayBeLong) {
  const std::string value(100'000, 'x');
  EXPECT_EQ(changes_of({{"A", value.c_str()}}), "A=" + value);
}

TEST_F(ConfigEvents, EventsAreIndependent) {
  const auto other = make("other");
  config_event_append_escaped_pair(event.get(), "A", "1");
  config_event_append_escaped_pair(other.get(), "B", "2");
  EXPECT_TRUE(config_event_send(other.get(), "owner", path, interface, "key", 0, nullptr));
  EXPECT_EQ(signal().body, "('other', 'owner', 'com.velk.Configuration.Legacy', 'key', 0, 'B=2')");
}

TEST_F(ConfigEvents, AnEventHasAName) {
  EXPECT_EQ(make(nullptr), nullptr);
  EXPECT_EQ(make("\xff"), nullptr);
  EXPECT_NE(make(""), nullptr);
}

TEST_F(ConfigEvents, APathThatIsNoneIsRefused) {
  const GlibLogCapture criticals;
  for (const char *wrong : {"/com/velk/PTZ/a.b", "", "no path"}) {
    EXPECT_FALSE(config_event_declare(event.get(), "owner", wrong, interface, Into(error)));
    EXPECT_TRUE(g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT));
  }
  EXPECT_FALSE(config_event_undeclare(event.get(), "owner", nullptr, interface, nullptr));
  EXPECT_FALSE(config_event_send(event.get(), "owner", "no path", interface, "key", 0, Into(error)));
  EXPECT_STREQ(error->message, "\"no path\" is no object path");
  EXPECT_TRUE(criticals.messages().empty());
}

TEST_F(ConfigEvents, TextsThatCannotTravelAreRefused) {
  const GlibLogCapture criticals;
  EXPECT_FALSE(config_event_declare(event.get(), nullptr, path, interface, Into(error)));
  EXPECT_TRUE(g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT));
  EXPECT_FALSE(config_event_declare(event.get(), "\xff", path, interface, nullptr));
  EXPECT_FALSE(config_event_undeclare(event.get(), "owner", path, nullptr, nullptr));
  EXPECT_FALSE(config_event_send(event.get(), "owner", path, interface, nullptr, 0, nullptr));
  EXPECT_FALSE(config_event_send(event.get(), "owner", path, interface, "\xff", 0, Into(error)));
  EXPECT_STREQ(error->message, "a name is missing or not UTF-8");
  EXPECT_TRUE(criticals.messages().empty());
}

// What was sent has left the process, even if that ends at once.
TEST_F(ConfigEvents, AreNotLostWithTheirSender) {
  for (std::size_t i = 1; i <= 20; ++i) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
      execl("/proc/self/exe", "config_event_test", "--gtest_filter=ConfigEventSender.*",
            "--gtest_also_run_disabled_tests", static_cast<char *>(nullptr));
      _exit(127);
    }
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_EQ(signal(i).body, "('short', 'owner', 'com.velk.Configuration.Legacy', 'key', 0, '')");
  }
}

TEST(ConfigEventSender, DISABLED_SendsAndIsGone) {
  const auto event = make("short");
  const gboolean sent = config_event_send(event.get(), "owner", path, interface, "key", 0, nullptr);
  _exit(sent ? 0 : 1);
}

}  // namespace
