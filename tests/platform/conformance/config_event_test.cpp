#include "platform/config_event.h"

#include <thread>
#include <vector>

#include "conformance.h"

namespace {

using namespace conformance;

using Event = std::unique_ptr<ConfigEvent, FreeWith<config_event_free>>;

constexpr char owner[] = "conformance";
constexpr char path[] = "/com/velk/PTZ/conformance";
constexpr char interface[] = "com.velk.Configuration.Legacy";

// How events travel is the device's own affair; that they are accepted is tested.
struct ConfigEvents : ServiceTest {
  ConfigEvents() : ServiceTest("config_event") {}

  static Event make() {
    Event event(config_event_new("presets", 0, 0));
    EXPECT_NE(event, nullptr);
    return event;
  }
  static void expect_success(gboolean result, GError *raw, const char *operation) {
    const Error error(raw);
    EXPECT_EQ(result, TRUE) << operation;
    EXPECT_EQ(error, nullptr) << operation << ": " << error->message;
  }
  static void send(ConfigEvent *event, int kind) {
    GError *error = nullptr;
    const gboolean result = config_event_send(event, owner, path, interface, "1", kind, &error);
    expect_success(result, error, "send");
  }
};

TEST_F(ConfigEvents, SourceIsDeclaredSendsAndIsUndeclared) {
  const auto event = make();
  ASSERT_NE(event, nullptr);
  GError *error = nullptr;
  gboolean result = config_event_declare(event.get(), owner, path, interface, &error);
  expect_success(result, error, "declare");
  config_event_init_change_string(event.get());
  config_event_append_escaped_pair(event.get(), "Name", "north gate");
  config_event_append_escaped_pair(event.get(), "Pan & Tilt", "5=5&\n%\xC3\xA9");
  config_event_append_escaped_pair(event.get(), "Empty", "");
  send(event.get(), 2);
  error = nullptr;
  result = config_event_undeclare(event.get(), owner, path, interface, &error);
  expect_success(result, error, "undeclare");
}

TEST_F(ConfigEvents, SeveralEventsAreSentWithoutTakingTheError) {
  const auto first = make(), second = make();
  ASSERT_TRUE(first != nullptr && second != nullptr);
  EXPECT_TRUE(config_event_declare(first.get(), owner, path, interface, nullptr));
  for (int kind = 0; kind < 20; ++kind) {
    for (auto *event : {first.get(), second.get()}) {
      config_event_init_change_string(event);
      config_event_append_escaped_pair(event, "Kind", std::to_string(kind).c_str());
      EXPECT_TRUE(config_event_send(event, owner, path, interface, "1", kind, nullptr));
    }
  }
  EXPECT_TRUE(config_event_undeclare(first.get(), owner, path, interface, nullptr));
}

TEST_F(ConfigEvents, EventWithoutChangesIsSent) {
  const auto event = make();
  ASSERT_NE(event, nullptr);
  config_event_init_change_string(event.get());
  send(event.get(), 0);
}

TEST_F(ConfigEvents, EventThatIsNotUsedIsFreed) { make(); }

TEST_F(ConfigEvents, ThreadsSendEventsOfTheirOwn) {
  std::vector<std::thread> threads;
  for (int number = 0; number < 3; ++number) {
    threads.emplace_back([] {
      const auto event = make();
      for (int kind = 0; event != nullptr && kind < 10; ++kind) {
        config_event_init_change_string(event.get());
        send(event.get(), kind);
      }
    });
  }
  for (auto &thread : threads) thread.join();
}

}  // namespace
