// tests/support/bus.h - a message bus of the tests' own, and peers on it that know nothing of the library.
#pragma once
#include <gio/gio.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "fixtures.h"
#include "handles.h"

namespace ptz_test {

using Connection = Object<GDBusConnection>;
using Variant = std::unique_ptr<GVariant, FreeWith<g_variant_unref>>;
using Error = std::unique_ptr<GError, FreeWith<g_error_free>>;

// For a "GError **" argument: read it one statement later.
class Into {
  Error &error_;
  GError *raw_ = nullptr;

 public:
  explicit Into(Error &filled) : error_(filled) {}
  Into(const Into &) = delete;
  ~Into() { error_.reset(raw_); }
  operator GError **() { return &raw_; }
};

// A dbus-daemon that listens in a folder of its own. It ends with this object, and with the test program.
class Bus {
  TempDir dir_;
  std::string policy_;
  pid_t daemon_ = -1;

 public:
  static constexpr char allow_all[] =
      "<policy context='default'><allow send_destination='*' eavesdrop='true'/><allow eavesdrop='true'/>"
      "<allow own='*'/></policy>";
  // Further elements of the daemon's configuration: who may do what.
  explicit Bus(std::string policy = allow_all);
  Bus(const Bus &) = delete;
  ~Bus() { kill(); }
  [[nodiscard]] std::string address() const { return "unix:path=" + dir_.file("bus"); }
  void start();  // again, at the same address
  void kill();   // without a farewell
};

// The bus of the test program, which is also its system bus from its first use on.
Bus &system_bus();

// A connection of its own to a bus. Its signals, and answers to its asynchronous calls, arrive on the thread-default
// main context of the thread that made it.
[[nodiscard]] Connection connect_to(const Bus &bus);
[[nodiscard]] std::string unique_name(GDBusConnection *connection);

// The bus's answer to RequestName; 0 for an error.
guint32 request_name(GDBusConnection *connection, const std::string &name, guint32 flags = 0);
void release_name(GDBusConnection *connection, const std::string &name);
// The unique name of who has the name; "" if nobody.
[[nodiscard]] std::string owner_of(GDBusConnection *connection, const std::string &name);

// An answer to a call: a body, or an error.
struct Answer {
  Variant body;
  Error error;
  [[nodiscard]] std::string text() const;  // the body, printed with its types; or the error's message
};

// Calls and runs the default main context until the answer is there, so that the test program may be the one who
// answers. The parameters are in GVariant text form, such as "(3, 'name')".
Answer call(GDBusConnection *connection, const std::string &destination, const std::string &path,
            const std::string &interface, const std::string &method, const std::string &parameters = "()",
            int timeout_ms = -1);

// Keeps the signals of an interface while it lives.
class SignalLog {
  Connection connection_;
  guint subscription_;

 public:
  struct Signal {
    std::string path;
    std::string name;
    std::string body;  // printed with its types
  };
  std::vector<Signal> signals;
  SignalLog(GDBusConnection *connection, const std::string &interface);
  SignalLog(const SignalLog &) = delete;
  ~SignalLog();
};

// A thread with a main context of its own, which is the default one there.
class LoopThread {
  Context context_;
  std::unique_ptr<GMainLoop, FreeWith<g_main_loop_unref>> loop_;
  std::thread thread_;

 public:
  LoopThread();
  LoopThread(const LoopThread &) = delete;
  ~LoopThread();
  void run(const std::function<void()> &work);  // there, and waits for it
};

}  // namespace ptz_test
