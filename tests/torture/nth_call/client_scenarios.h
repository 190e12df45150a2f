// tests/torture/nth_call/client_scenarios.h - operations of the clients, the signal and the queue.
#pragma once
#include <ptz_queue.h>
#include <ptz_socket_client_command.h>
#include <ptz_socket_signal.h>

#include <atomic>

#include "ends.h"

namespace nth_call {

// A driver that echoes, in a thread of its own, to one client after another.
class EchoPeer {
  const std::string path_;
  ptz_test::Listener listener_;
  std::atomic<bool> ends_ = false;
  std::thread thread_;

  void run() {
    const AsPeer peer;
    Descriptor client;
    while (!ends_) {
      pollfd watched[] = {{listener_.fd(), POLLIN, 0}, {client.get(), POLLIN, 0}};
      if (poll(watched, 2, 5) <= 0) continue;
      if ((watched[0].revents & POLLIN) != 0) client = listener_.accept();
      if (client && watched[1].revents != 0) {
        const auto request = ptz_test::receive_frame(client.get());
        if (!request) client.reset();
        if (request) ptz_test::send_all(client.get(), ptz_test::frame(request->id, request->body));
      }
    }
  }

 public:
  explicit EchoPeer(const std::string &path) : path_(path), listener_((AsPeer(), path)), thread_([this] { run(); }) {}
  ~EchoPeer() {
    const AsPeer peer;
    ends_ = true;
    thread_.join();
    unlink(path_.c_str());
  }
  // contract: a failed connection removes the path.
  void listen_again() {
    const AsPeer peer;
    if (access(path_.c_str(), F_OK) != 0) listener_ = ptz_test::Listener(path_);
  }
  [[nodiscard]] const std::string &path() const { return path_; }
};

class ClientScenario : public Scenario {
 protected:
  std::unique_ptr<EchoPeer> peer_;
  Object<PTZSocketClientCommand> client_;
  int replies_ = 0, released_ = 0;
  std::string reply_;

  PTZSocketClient *base() { return PTZ_SOCKET_CLIENT(client_.get()); }
  int fd() { return PTZ_SOCKET(client_.get())->fd; }
  void open() {
    client_.reset(ptz_socket_client_command_new(peer_->path().c_str(), -1, SOCK_STREAM));
    ptz_socket_client_register_callback(
        base(),
        [](gpointer context, gpointer data, guint32 length) {
          auto *self = static_cast<ClientScenario *>(context);
          ++self->replies_;
          self->reply_.assign(static_cast<const char *>(data), data != nullptr ? length : 0);
        },
        nullptr);
    ptz_socket_client_command_register_free_callback(
        client_.get(), [](gpointer context, gpointer) { ++static_cast<ClientScenario *>(context)->released_; },
        nullptr);
  }
  bool ask() {
    return ptz_socket_client_command_async_send(client_.get(), request_body.data(),
                                                static_cast<guint32>(request_body.size()), this) != FALSE;
  }
  bool ask_and_wait(std::string &reply) {
    std::string buffer(PTZ_SOCKET_BODY_MAX, '\0');
    guint32 length = 0;
    const bool answered =
        ptz_socket_client_command_sync_send(client_.get(), request_body.data(),
                                            static_cast<guint32>(request_body.size()), buffer.data(), &length) != FALSE;
    reply = buffer.substr(0, length);
    return answered;
  }
  // After a new connection, if need be.
  std::string judge_use() {
    peer_->listen_again();
    PTZ_SOCKET_GET_CLASS(client_.get())->add_retry(PTZ_SOCKET(client_.get()));
    if (!ptz_test::run_until([this] { return fd() >= 0; }, 3000)) return "does not connect again";
    std::string reply;
    if (!ask_and_wait(reply)) return "no reply on a new connection";
    return reply == request_body ? "" : "a wrong reply on a new connection";
  }

 public:
  void prepare() override {
    peer_ = std::make_unique<EchoPeer>(scratch() + "/driver");
    open();
    std::string reply;
    if (fd() >= 0) (void)ask_and_wait(reply);
  }
  void clean() override {
    client_.reset();
    peer_.reset();
  }
};

class ClientOpen : public ClientScenario {
 public:
  void prepare() override { peer_ = std::make_unique<EchoPeer>(scratch() + "/driver"); }
  void act() override { open(); }
  std::string judge() override {
    succeeded = fd() >= 0;
    peer_->listen_again();
    if (!ptz_test::run_until([this] { return fd() >= 0; }, 3000)) return "does not connect after the fault";
    std::string reply;
    return ask_and_wait(reply) && reply == request_body ? "" : "no reply after the fault";
  }
};

class ClientRetry : public ClientScenario {
 public:
  void act() override {
    PTZ_SOCKET_GET_CLASS(client_.get())->add_retry(PTZ_SOCKET(client_.get()));
    for (int i = 0; i < 6 && fd() < 0; ++i) g_main_context_iteration(nullptr, TRUE);
  }
  std::string judge() override {
    succeeded = fd() >= 0;
    peer_->listen_again();
    if (!ptz_test::run_until([this] { return fd() >= 0; }, 3000)) return "does not connect after the fault";
    std::string reply;
    return ask_and_wait(reply) && reply == request_body ? "" : "no reply after the fault";
  }
};

class ClientSyncSend : public ClientScenario {
 public:
  void act() override { succeeded = ask_and_wait(reply_); }
  std::string judge() override {
    if (succeeded && reply_ != request_body) return "success with a wrong reply";
    return judge_use();
  }
};

// From the request to its reply.
class ClientAsyncSend : public ClientScenario {
  bool sent_ = false;

 public:
  void act() override {
    ptz_socket_client_add_poll(base());
    sent_ = ask();
    for (int i = 0; i < 200 && replies_ == 0 && sent_; ++i) {
      g_main_context_iteration(nullptr, FALSE);
      const AsPeer peer;
      if (replies_ == 0) g_usleep(fails_onwards() ? 20 : 100);
    }
  }
  std::string judge() override {
    succeeded = sent_ && replies_ == 1 && reply_ == request_body;
    if (!sent_ && replies_ + released_ > 0) return "refused, but the context was handed out";
    if (replies_ > 1 || (replies_ == 1 && reply_ != request_body)) return "a wrong reply";
    const std::string use = judge_use();
    if (!use.empty()) return use;
    client_.reset();
    const int wanted = sent_ ? 1 : 0;
    return replies_ + released_ == wanted ? "" : "the context was not handed out once";
  }
};

class PlainClientSend : public Scenario {
  std::optional<ptz_test::Pair> pair_;
  Object<PTZSocketClient> client_;
  std::string got_;

 public:
  void prepare() override {
    pair_.emplace();
    client_.reset(ptz_socket_client_new(PTZ_TYPE_SOCKET_CLIENT, nullptr, pair_->ours.get(), SOCK_STREAM));
    ptz_socket_client_register_callback(
        client_.get(),
        [](gpointer self, gpointer data, guint32 length) {
          static_cast<PlainClientSend *>(self)->got_.append(static_cast<const char *>(data), length);
        },
        this);
  }
  void act() override {
    succeeded = ptz_socket_client_async_send(client_.get(), request_body.data(),
                                             static_cast<guint32>(request_body.size())) != FALSE;
    {
      const AsPeer peer;
      ptz_test::send_all(pair_->theirs.get(), "answer");
    }
    iterate();
  }
  std::string judge() override {
    const std::string received = ptz_test::receive_waiting(pair_->theirs.get());
    if (!request_body.starts_with(received)) return "bytes that were never sent";
    if (succeeded && received.empty()) return "success, but nothing was sent";
    ptz_socket_client_add_poll(client_.get());
    iterate();
    return got_ == "answer" ? "" : "what the peer sent was not received: " + got_;
  }
  void clean() override {
    client_.reset();
    pair_.reset();
  }
};

class SignalEmit : public Scenario {
  const int type_;
  const std::string path_ = scratch() + "/signal";
  std::optional<ptz_test::Listener> listener_;
  Descriptor receiver_;
  Object<PTZSocketSignal> signal_;
  static constexpr char text[] = "a text that a driver sends";

  int fd() { return PTZ_SOCKET(signal_.get())->fd; }
  int source() const { return type_ == SOCK_DGRAM ? listener_->fd() : receiver_.get(); }
  void accept() {
    if (type_ != SOCK_DGRAM) receiver_ = listener_->accept();
  }

 public:
  explicit SignalEmit(int type) : type_(type) {}
  void prepare() override {
    listener_.emplace(path_, type_);
    signal_.reset(ptz_socket_signal_new(path_.c_str(), type_));
    accept();
  }
  void act() override { ptz_socket_signal_emit(signal_.get(), text); }
  std::string judge() override {
    const std::string received = ptz_test::receive_waiting(source());
    succeeded = received.size() >= sizeof text && fd() >= 0;
    if (!succeeded && fd() >= 0) return "nothing was received, and the connection is kept";
    if (fd() >= 0) return "";
    listener_.reset();
    unlink(path_.c_str());
    listener_.emplace(path_, type_);
    if (!ptz_test::run_until([this] { return fd() >= 0; }, 3000)) return "does not connect again";
    accept();
    ptz_socket_signal_emit(signal_.get(), text);
    return ptz_test::receive_waiting(source()).size() == sizeof text ? "" : "nothing on a new connection";
  }
  void clean() override {
    signal_.reset();
    receiver_.reset();
    listener_.reset();
    unlink(path_.c_str());
  }
};

class QueuePush : public Scenario {
  PTZQueue *queue_ = nullptr;
  int taken_ = 0;

 public:
  void act() override {
    queue_ = ptz_queue_setup(g_main_context_default(), nullptr, G_PRIORITY_DEFAULT);
    ptz_queue_set_callback(
        queue_,
        [](gpointer self, gpointer) -> gboolean {
          ++static_cast<QueuePush *>(self)->taken_;
          return TRUE;
        },
        this);
    for (int i = 0; i < 3; ++i) ptz_queue_push(queue_, this);
    iterate(3);
  }
  std::string judge() override {
    succeeded = taken_ == 3;
    return succeeded ? "" : "items are missing";
  }
  void clean() override {
    g_source_destroy(queue_->source);
    ptz_queue_free(queue_);
  }
};

}  // namespace nth_call
