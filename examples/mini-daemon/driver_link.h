// driver_link.h - the daemon's connection to one driver, through its restarts.
#pragma once
#include <ptz_socket_client_command.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "driver_messages.h"

namespace example {

// What became of a request. The reply is there only where it was answered.
enum class Outcome {
  answered,
  not_connected,  // no driver listens now
  lost,           // it could not be sent, or the driver went before it answered
  timed_out,      // the driver is there but does not answer; a reply that still comes is dropped
};
struct Answer {
  Outcome outcome = Outcome::not_connected;
  Body reply;
};

// A client watches the descriptor that it was made with, and nothing brings it back to life when the driver has gone.
// So this link looks for a listening driver on the main loop, makes a client for each connection, and drops the client
// as soon as a request is lost.
class DriverLink {
 public:
  using Handler = std::function<void(Answer)>;

  explicit DriverLink(std::string path) : path_(std::move(path)) {}
  DriverLink(const DriverLink &) = delete;
  ~DriverLink();

  // Main thread. Looks for the driver until it is there.
  void search();
  // Main thread. Ends whatever waits; nothing connects again.
  void close();
  // Main thread. The handler is called on the main loop, once. Waits at most seconds for a driver that does not read.
  void ask_from_main_loop(const Body &request, Handler handler);

  // Any thread but the main one: waits for the reply, at most ten seconds.
  Answer ask(const Body &request);
  // Any thread: as ask_from_main_loop(), which it has the main loop do.
  void ask_later(Body request, Handler handler);
  // Any thread but the main one. False when the time is over or the link was closed. A limit of 0 waits for ever.
  bool wait_until_connected(std::chrono::milliseconds limit);
  // Any thread but the main one. Returns early, with false, when the link was closed.
  bool sleep(std::chrono::milliseconds time);
  [[nodiscard]] bool closed();

 private:
  struct Connection {
    Descriptor descriptor;  // the client borrows it
    Object<PTZSocketClientCommand> client;
  };

  // Main thread.
  bool connect();
  void drop(const std::shared_ptr<Connection> &connection);
  static gboolean on_search(gpointer link);
  static void on_reply(gpointer request_handler, gpointer data, guint32 length);
  static void on_never_answered(gpointer request_handler, gpointer unused);

  std::shared_ptr<Connection> borrow();
  void give_back(std::shared_ptr<Connection> connection, bool lost);

  const std::string path_;
  guint search_ = 0;  // id of the timer that looks for the driver; main thread

  std::mutex lock_;  // guards what follows
  std::condition_variable changed_;
  std::shared_ptr<Connection> connection_;
  bool closed_ = false;
};

}  // namespace example
