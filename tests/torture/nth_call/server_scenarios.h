// tests/torture/nth_call/server_scenarios.h - operations of the servers.
#pragma once
#include <ptz_socket_server_command.h>

#include "ends.h"

namespace nth_call {

inline gboolean echo(gpointer, gpointer context, gpointer data, guint32 length) {
  ptz_socket_server_send(context, data, length);
  return TRUE;
}

// A command server with one client that was served before, and another.
class ServerScenario : public Scenario {
 protected:
  const std::string path_ = scratch() + "/server";
  Object<PTZSocketServerCommand> server_;
  Descriptor client_, bystander_;
  bool spins_ = false;

  PTZSocketServer *base() { return PTZ_SOCKET_SERVER(server_.get()); }
  int fd() { return PTZ_SOCKET(server_.get())->fd; }

  void open() {
    server_.reset(ptz_socket_server_command_new(path_.c_str(), SOCK_STREAM));
    ptz_socket_server_register_callback(base(), echo, nullptr);
  }
  Descriptor connect() {
    const AsPeer peer;
    return ptz_test::connect_to(path_);
  }
  bool is_served(const Descriptor &client) {
    return client && ptz_test::send_all(client.get(), ptz_test::frame(9, "again")) &&
           receives_frame(client.get(), 9, "again");
  }
  void ask(const Descriptor &client) {
    const AsPeer peer;
    ptz_test::send_all(client.get(), ptz_test::frame(7, request_body));
  }
  void serve_a_while() {
    iterate();
    if (fails_onwards()) spins_ = main_loop_spins();
  }
  std::string judge_bystander() {
    if (spins_) return "the main loop spins";
    return is_served(bystander_) ? "" : "another client is not served";
  }

 public:
  void prepare() override {
    open();
    client_ = connect();
    bystander_ = connect();
    iterate();
    (void)is_served(client_);
    (void)is_served(bystander_);
  }
  void clean() override {
    client_.reset();
    bystander_.reset();
    iterate();
    server_.reset();
  }
};

class ServerOpen : public ServerScenario {
 public:
  void prepare() override {}
  void act() override { open(); }
  std::string judge() override {
    succeeded = fd() >= 0;
    const bool has_path = access(path_.c_str(), F_OK) == 0;
    if (!succeeded && logged().empty()) return "failed without a line in the log";
    if (!succeeded) return has_path && !was_logged("too short") ? "failed, but left its path" : "";
    client_ = connect();
    if (!client_) return "open, but no client can connect";
    return is_served(client_) ? "" : "a client is not served";
  }
  void clean() override {
    ServerScenario::clean();
    unlink(path_.c_str());  // the fault may have kept the server from it
  }
};

class ServerAccept : public ServerScenario {
  Descriptor late_;

 public:
  void prepare() override {
    ServerScenario::prepare();
    late_ = connect();
  }
  void act() override { serve_a_while(); }
  // contract: a failed accept(2) ends the source of the server; the server and its clients stay until it is dropped.
  std::string judge() override {
    succeeded = is_served(late_);
    if (spins_) return "the main loop spins";
    if (!succeeded) return was_logged("accept failed, errno=") ? "" : "neither served nor a line in the log";
    return judge_bystander();
  }
  void clean() override {
    late_.reset();
    ServerScenario::clean();
  }
};

// A request that is answered in its callback. The client is answered whole, gets nothing, or is hung up on.
class ServerRequest : public ServerScenario {
 public:
  void act() override {
    ask(client_);
    serve_a_while();
  }
  std::string judge() override {
    iterate();
    const std::string received = ptz_test::receive_waiting(client_.get());
    const std::string wanted = ptz_test::frame(7, request_body);
    succeeded = received == wanted;
    if (!succeeded && !received.empty() && !was_closed(client_.get()))
      return "half a reply, and the connection is open";
    if (!succeeded && received.size() >= wanted.size()) return "another reply than that";
    if (!succeeded && !was_closed(client_.get()) && !is_served(client_)) return "the client is not served any more";
    return judge_bystander();
  }
};

class ServerHangUp : public ServerScenario {
  guint clients_ = 0;

 public:
  void act() override {
    {
      const AsPeer peer;
      client_.reset();
    }
    serve_a_while();
    clients_ = g_list_length(base()->source->clients);
  }
  std::string judge() override {
    iterate();
    succeeded = g_list_length(base()->source->clients) == 1;
    if (!succeeded) return "the connection of a client that has gone is kept";
    return judge_bystander();
  }
};

class ServerEnd : public ServerScenario {
 public:
  void act() override { server_.reset(); }
  std::string judge() override {
    succeeded = access(path_.c_str(), F_OK) != 0;
    const AsPeer peer;
    if (!was_closed(bystander_.get())) return "a client of a server that has ended is still connected";
    unlink(path_.c_str());
    return "";
  }
};

// A plain server, whose reply waits for room at most a second.
class PlainServerRequest : public Scenario {
  const std::string path_ = scratch() + "/plain";
  Object<PTZSocketServer> server_;
  Descriptor client_;

 public:
  void prepare() override {
    server_.reset(ptz_socket_server_new(PTZ_TYPE_SOCKET_SERVER, path_.c_str(), SOCK_STREAM));
    ptz_socket_server_register_callback(server_.get(), echo, nullptr);
    const AsPeer peer;
    client_ = ptz_test::connect_to(path_);
    iterate();
  }
  void act() override {
    {
      const AsPeer peer;
      ptz_test::send_all(client_.get(), request_body);
    }
    iterate();
  }
  std::string judge() override {
    iterate();
    const std::string received = ptz_test::receive_waiting(client_.get());
    succeeded = received == request_body;
    // contract: a reply that takes longer than its second counts as sent, though a part is missing.
    return request_body.starts_with(received) ? "" : "bytes that were never sent";
  }
  void clean() override {
    client_.reset();
    iterate();
    server_.reset();
  }
};

// A server around a descriptor that the caller owns.
class ServerOfDescriptor : public Scenario {
  std::optional<ptz_test::Pair> pair_;
  Object<PTZSocketServer> server_;

 public:
  void prepare() override { pair_.emplace(); }
  void act() override {
    server_.reset(ptz_socket_server_fd_new(PTZ_TYPE_SOCKET_SERVER_COMMAND, pair_->ours.get(), SOCK_STREAM));
    ptz_socket_server_register_callback(server_.get(), echo, nullptr);
    {
      const AsPeer peer;
      ptz_test::send_all(pair_->theirs.get(), ptz_test::frame(7, request_body));
    }
    iterate();
  }
  std::string judge() override {
    iterate();
    const std::string received = ptz_test::receive_waiting(pair_->theirs.get());
    succeeded = received == ptz_test::frame(7, request_body);
    const bool closed = was_closed(pair_->theirs.get());
    return succeeded || received.empty() || closed ? "" : "half a reply, and the connection is open";
  }
  void clean() override {
    // contract: the server closes what it served as a connection; the number is not the test's any more.
    (void)pair_->ours.release();
    server_.reset();
    pair_.reset();
  }
};

}  // namespace nth_call
