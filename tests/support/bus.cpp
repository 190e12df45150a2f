#include "bus.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <future>
#include <utility>

namespace ptz_test {

namespace {

constexpr char bus_driver[] = "org.freedesktop.DBus";
constexpr char bus_driver_path[] = "/org/freedesktop/DBus";

// Only a lack of something that the tests need; it would make every further check meaningless.
void require(bool condition, const char *what) {
  if (condition) return;
  ADD_FAILURE() << what;
  std::abort();
}

Variant call_driver(GDBusConnection *connection, const char *method, GVariant *parameters) {
  return Variant(g_dbus_connection_call_sync(connection, bus_driver, bus_driver_path, bus_driver, method, parameters,
                                             nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
}

std::string printed(GVariant *value) { return Text(g_variant_print(value, TRUE)).get(); }

}  // namespace

Bus::Bus(std::string policy) : policy_(std::move(policy)) { start(); }

void Bus::start() {
  const std::string configuration = dir_.file("bus.conf");
  std::ofstream(configuration) << "<busconfig><type>session</type><keep_umask/><listen>" << address()
                               << "</listen><auth>EXTERNAL</auth>" << policy_
                               << "<limit name='max_replies_per_connection'>50000</limit></busconfig>";
  int ends[2];
  require(pipe2(ends, O_CLOEXEC) == 0, "no pipe");
  const std::string config_argument = "--config-file=" + configuration;
  const char *arguments[] = {"dbus-daemon", config_argument.c_str(), "--nofork",
                             "--nopidfile", "--print-address=1",     nullptr};
  const pid_t parent = getpid();
  daemon_ = fork();
  require(daemon_ >= 0, "no process");
  if (daemon_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
    dup2(ends[1], STDOUT_FILENO);
    dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);  // where it has much to say of limits
    execvp(arguments[0], const_cast<char **>(arguments));
    _exit(127);
  }
  close(ends[1]);
  // It prints its address when it listens.
  char byte = 0;
  const bool listening = read(ends[0], &byte, 1) == 1;
  close(ends[0]);
  require(listening, "dbus-daemon does not start");
}

void Bus::kill() {
  if (daemon_ < 0) return;
  ::kill(daemon_, SIGKILL);
  waitpid(std::exchange(daemon_, -1), nullptr, 0);
}

Bus &system_bus() {
  static Bus bus;
  static const bool chosen = setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().c_str(), 1) == 0;
  require(chosen, "no environment");
  return bus;
}

Connection connect_to(const Bus &bus) {
  constexpr auto as_client = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                               G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
  Connection connection(
      g_dbus_connection_new_for_address_sync(bus.address().c_str(), as_client, nullptr, nullptr, nullptr));
  require(connection != nullptr, "no connection to the bus");
  return connection;
}

std::string unique_name(GDBusConnection *connection) { return g_dbus_connection_get_unique_name(connection); }

guint32 request_name(GDBusConnection *connection, const std::string &name, guint32 flags) {
  const auto reply = call_driver(connection, "RequestName", g_variant_new("(su)", name.c_str(), flags));
  guint32 result = 0;
  if (reply != nullptr) g_variant_get(reply.get(), "(u)", &result);
  return result;
}

void release_name(GDBusConnection *connection, const std::string &name) {
  call_driver(connection, "ReleaseName", g_variant_new("(s)", name.c_str()));
}

std::string owner_of(GDBusConnection *connection, const std::string &name) {
  const auto reply = call_driver(connection, "GetNameOwner", g_variant_new("(s)", name.c_str()));
  const char *owner = "";
  if (reply != nullptr) g_variant_get(reply.get(), "(&s)", &owner);
  return owner;
}

std::string Answer::text() const { return body != nullptr ? printed(body.get()) : error->message; }

Answer call(GDBusConnection *connection, const std::string &destination, const std::string &path,
            const std::string &interface, const std::string &method, const std::string &parameters, int timeout_ms) {
  Answer answer;
  Object<GAsyncResult> result;
  GVariant *parsed = g_variant_parse(nullptr, parameters.c_str(), nullptr, nullptr, nullptr);
  require(parsed != nullptr, "the parameters cannot be parsed");
  g_dbus_connection_call(
      connection, destination.c_str(), path.c_str(), interface.c_str(), method.c_str(), parsed, nullptr,
      G_DBUS_CALL_FLAGS_NONE, timeout_ms, nullptr,
      [](GObject *, GAsyncResult *arrived, gpointer result) {
        static_cast<Object<GAsyncResult> *>(result)->reset(G_ASYNC_RESULT(g_object_ref(arrived)));
      },
      &result);
  g_variant_unref(parsed);
  require(run_until([&] { return result != nullptr; }), "a call has no answer");
  GError *error = nullptr;
  answer.body.reset(g_dbus_connection_call_finish(connection, result.get(), &error));
  answer.error.reset(error);
  return answer;
}

SignalLog::SignalLog(GDBusConnection *connection, const std::string &interface)
    : connection_(G_DBUS_CONNECTION(g_object_ref(connection))) {
  subscription_ = g_dbus_connection_signal_subscribe(
      connection, nullptr, interface.c_str(), nullptr, nullptr, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
      [](GDBusConnection *, const gchar *, const gchar *path, const gchar *, const gchar *name, GVariant *body,
         gpointer self) {
        static_cast<SignalLog *>(self)->signals.push_back({path, name, printed(body)});
      },
      this, nullptr);
  // The bus has handled the subscription when it has answered this.
  const auto answered = call_driver(connection, "GetId", nullptr);
  require(answered != nullptr, "the bus does not answer");
}

SignalLog::~SignalLog() { g_dbus_connection_signal_unsubscribe(connection_.get(), subscription_); }

LoopThread::LoopThread() : context_(g_main_context_new()), loop_(g_main_loop_new(context_.get(), FALSE)) {
  thread_ = std::thread([this] {
    g_main_context_push_thread_default(context_.get());
    g_main_loop_run(loop_.get());
    g_main_context_pop_thread_default(context_.get());
  });
}

LoopThread::~LoopThread() {
  run([this] { g_main_loop_quit(loop_.get()); });
  thread_.join();
}

void LoopThread::run(const std::function<void()> &work) {
  std::promise<void> done;
  const std::function<void()> task = [&] {
    work();
    done.set_value();
  };
  const Source source(g_idle_source_new());
  g_source_set_callback(
      source.get(),
      [](gpointer task) -> gboolean {
        (*static_cast<const std::function<void()> *>(task))();
        return G_SOURCE_REMOVE;
      },
      const_cast<std::function<void()> *>(&task), nullptr);
  g_source_attach(source.get(), context_.get());
  done.get_future().wait();
}

}  // namespace ptz_test
