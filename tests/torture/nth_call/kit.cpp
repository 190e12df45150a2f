// Each system call of a kit driver, of a link and of the registry fails in turn.
#include <ptz_kit.h>
#include <ptz_kit_link_calls.h>
#include <signal.h>

#include <filesystem>

#include "../../kit/driver/recording_driver.h"
#include "ends.h"
#include "torture.h"

using namespace nth_call;

namespace {

constexpr guint deadline_ms = 3000;

RecordingDriver *new_driver(const std::string &path) {
  return static_cast<RecordingDriver *>(
      g_object_new(recording_driver_get_type(), "name", "torture", "socket-path", path.c_str(), nullptr));
}

std::string request_for_name() {
  const gint32 command = GINT32_TO_LE(PTZ_COMMAND_GET_DRIVER_NAME);
  return ptz_test::frame(1, {reinterpret_cast<const char *>(&command), sizeof command});
}

// Whether a new client of the driver in this process gets an answer.
bool serves(const std::string &path) {
  const Descriptor client = ptz_test::connect_to(path);
  if (!client) return false;
  ptz_test::send_all(client.get(), request_for_name());
  return ptz_test::run_until([&] { return ptz_test::is_readable(client.get()); }, 2000) &&
         ptz_test::receive_frame(client.get()).has_value();
}

bool contains_entry(const std::string &path) {
  const Object<PTZKitRegistry> registry(ptz_kit_registry_new(nullptr));
  GPtrArray *entries = ptz_kit_registry_list(registry.get(), nullptr);
  bool found = false;
  for (guint i = 0; entries != nullptr && i < entries->len; ++i) {
    const auto *entry = static_cast<const PTZKitRegistryEntry *>(g_ptr_array_index(entries, i));
    found = found || path == entry->socket_path;
  }
  if (entries != nullptr) g_ptr_array_unref(entries);
  return found;
}

class DriverScenario : public Scenario {
 protected:
  const std::string path_ = scratch() + "/kit-driver";
  Object<RecordingDriver> driver_;
  bool states_ = true;

  PTZKitDriver *kit() { return PTZ_KIT_DRIVER(driver_.get()); }
  bool start() {
    if (driver_ == nullptr) driver_.reset(new_driver(path_));
    GError *error = nullptr;
    const bool started = ptz_kit_driver_start(kit(), &error) != FALSE;
    states_ = started == (error == nullptr);
    g_clear_error(&error);
    return started;
  }

 public:
  void prepare() override { (void)start(); }
  void clean() override {
    if (driver_ != nullptr) ptz_kit_driver_stop(kit());
    driver_.reset();
    iterate();
    unlink(path_.c_str());
  }
};

class DriverStart : public DriverScenario {
 public:
  void prepare() override { driver_.reset(new_driver(path_)); }
  void act() override { succeeded = start(); }
  std::string judge() override {
    if (!states_) return "failed without an error, or succeeded with one";
    if (succeeded) return serves(path_) ? "" : "started, but does not serve";
    if (contains_entry(path_)) return "failed, but left its entry";
    return start() && serves(path_) ? "" : "cannot be started after the fault";
  }
};

class DriverServe : public DriverScenario {
  Descriptor client_;

 public:
  void prepare() override {
    DriverScenario::prepare();
    client_ = ptz_test::connect_to(path_);
    iterate();
  }
  void act() override {
    {
      const AsPeer peer;
      ptz_test::send_all(client_.get(), request_for_name());
    }
    iterate();
  }
  std::string judge() override {
    iterate();
    const std::string received = ptz_test::receive_waiting(client_.get());
    const bool closed = was_closed(client_.get());
    succeeded = received.size() > 8;
    if (!succeeded && !received.empty() && !closed) return "half a reply, and the connection is open";
    return serves(path_) ? "" : "a new client is not served";
  }
  void clean() override {
    client_.reset();
    DriverScenario::clean();
  }
};

class DriverStop : public DriverScenario {
 public:
  void act() override {
    ptz_kit_driver_stop(kit());
    succeeded = true;
  }
  std::string judge() override {
    if (driver_->closed == FALSE) return "the device was not closed";
    return start() && serves(path_) ? "" : "cannot be started after the fault";
  }
};

// The path is removed by another program, and taken back.
class DriverRecover : public DriverScenario {
 public:
  void prepare() override {
    DriverScenario::prepare();
    iterate();
    ptz_test::run_until([] { return false; }, 30);  // it listens for more than a moment
  }
  void act() override {
    {
      const AsPeer peer;
      unlink(path_.c_str());
    }
    for (int i = 0; i < 6 && access(path_.c_str(), F_OK) != 0; ++i) g_main_context_iteration(nullptr, TRUE);
  }
  std::string judge() override {
    succeeded = access(path_.c_str(), F_OK) == 0;
    const bool back = ptz_test::run_until([this] { return access(path_.c_str(), F_OK) == 0; }, 8000);
    return back && serves(path_) ? "" : "does not listen again";
  }
};

// A driver in a process of its own.
class LinkScenario : public Scenario {
  pid_t driver_ = -1;

 protected:
  const std::string path_ = scratch() + "/link-driver";
  Object<PTZKitLink> link_;
  bool states_ = true;

  void start_driver() {
    const AsPeer peer;
    driver_ = torture::start([this] {
      auto *driver = PTZ_KIT_DRIVER(new_driver(path_));
      if (!ptz_kit_driver_start(driver, nullptr)) return 1;
      while (getppid() != 1) g_main_context_iteration(nullptr, TRUE);
      return 0;
    });
    for (int i = 0; i < 3000 && access(path_.c_str(), F_OK) != 0; ++i) usleep(1000);
    usleep(3000);  // the second look of the driver at its path
  }
  void end_driver() {
    const AsPeer peer;
    if (driver_ > 0) kill(driver_, SIGKILL);
    if (driver_ > 0) torture::wait_for(driver_);
    driver_ = -1;
    unlink(path_.c_str());
  }
  bool wait_ready(guint ms = deadline_ms) {
    GError *error = nullptr;
    const bool ready = ptz_kit_link_wait_ready(link_.get(), ms, &error) != FALSE;
    states_ = ready == (error == nullptr);
    g_clear_error(&error);
    return ready;
  }
  bool call() {
    GError *error = nullptr;
    PTZKitQueryPositionReply *reply = ptz_kit_link_query_position(link_.get(), deadline_ms, nullptr, &error);
    const bool answered = reply != nullptr;
    states_ = answered == (error == nullptr);
    g_clear_error(&error);
    ptz_kit_query_position_reply_free(reply);
    return answered;
  }
  void open() {
    link_.reset(ptz_kit_link_new(path_.c_str()));
    ptz_kit_link_open(link_.get());
  }
  // contract: a failed connection removes the path, which the driver makes anew.
  std::string judge_use() {
    if (!states_) return "failed without an error, or succeeded with one";
    for (int i = 0; i < 20; ++i) {
      if (wait_ready(5000) && call()) return "";
    }
    return "no answer after the fault";
  }

 public:
  void prepare() override {
    start_driver();
    open();
    (void)wait_ready();
    (void)call();
  }
  void clean() override {
    if (link_ != nullptr) ptz_kit_link_close(link_.get());
    link_.reset();
    iterate();
    end_driver();
  }
};

class LinkOpen : public LinkScenario {
 public:
  void prepare() override { start_driver(); }
  void act() override {
    open();
    succeeded = wait_ready();
  }
  std::string judge() override { return judge_use(); }
};

class LinkCall : public LinkScenario {
 public:
  void act() override { succeeded = call(); }
  std::string judge() override { return judge_use(); }
};

class LinkReconnect : public LinkScenario {
 public:
  void act() override {
    end_driver();
    start_driver();
    succeeded = wait_ready() && call();
    if (!succeeded) succeeded = wait_ready() && call();
  }
  std::string judge() override { return judge_use(); }
};

class LinkClose : public LinkScenario {
 public:
  void act() override {
    ptz_kit_link_close(link_.get());
    iterate();
    succeeded = true;
  }
  std::string judge() override {
    ptz_kit_link_open(link_.get());
    return judge_use();
  }
};

class RegistryList : public DriverScenario {
  bool lists_ = false;
  guint length_ = 0;

 public:
  void act() override {
    const Object<PTZKitRegistry> registry(ptz_kit_registry_new(nullptr));
    GError *error = nullptr;
    GPtrArray *entries = ptz_kit_registry_list(registry.get(), &error);
    states_ = (entries != nullptr) == (error == nullptr);
    lists_ = entries != nullptr;
    length_ = lists_ ? entries->len : 0;
    g_clear_error(&error);
    if (entries != nullptr) g_ptr_array_unref(entries);
  }
  std::string judge() override {
    succeeded = length_ == 1;
    if (!states_) return "neither a list nor an error";
    // A file that may not be read, or does not make sense, is skipped.
    const int error = running_fault().error;
    const bool may_be_skipped = error == EACCES || error == short_transfer;
    if (lists_ && !succeeded && !may_be_skipped) return "a list without the driver that runs";
    return contains_entry(path_) ? "" : "the driver is not listed after the fault";
  }
};

class RegistryWatch : public DriverScenario {
  int changes_ = 0;

 public:
  void prepare() override {}
  void act() override {
    const Object<PTZKitRegistry> registry(ptz_kit_registry_new(nullptr));
    GError *error = nullptr;
    g_signal_connect_swapped(registry.get(), "driver-appeared", G_CALLBACK(+[](int *count) { ++*count; }), &changes_);
    const bool watches = ptz_kit_registry_watch(registry.get(), &error) != FALSE;
    states_ = watches == (error == nullptr);
    g_clear_error(&error);
    {
      const AsPeer peer;
      (void)start();
    }
    for (int i = 0; i < 10 && changes_ == 0 && watches; ++i) g_main_context_iteration(nullptr, TRUE);
    succeeded = watches && changes_ > 0;
  }
  std::string judge() override { return states_ ? "" : "neither watches nor an error"; }
};

}  // namespace

int main(int argc, char **argv) {
  std::vector<Operation> operations = {
      operation<DriverStart>("driver_start"),     operation<DriverServe>("driver_serve"),
      operation<DriverStop>("driver_stop"),       operation<DriverRecover>("driver_recover"),
      operation<LinkOpen>("link_open"),           operation<LinkCall>("link_call"),
      operation<LinkReconnect>("link_reconnect"), operation<LinkClose>("link_close"),
      operation<RegistryList>("registry_list"),   operation<RegistryWatch>("registry_watch"),
  };
  // contract: a descriptor that cannot listen is left open, each time.
  operations[0].descriptors_if_refused = 1;
  operations[3].descriptors_kept = 8;
  return run(argc, argv, "kit", operations);
}
