// tests/transport/command_ends.h - the library's servers and command client as the tests use them: owned, and with
// everything kept that they were called with.
#pragma once
#include <glib.h>
#include <ptz_file_g_source.h>
#include <ptz_socket_client_command.h>
#include <ptz_socket_server_command.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <future>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fixtures.h"
#include "handles.h"
#include "peers.h"

namespace ptz_test {

// Bytes that differ from place to place, and from one number to another.
inline std::string body_of(std::size_t length, unsigned number = 0) {
  std::string body(length, '\0');
  for (std::size_t i = 0; i < length; ++i) body[i] = static_cast<char>(i * 31 + number * 97 + i / 251);
  return body;
}

inline void iterate(int times = 1) {
  for (int i = 0; i < times; ++i) g_main_context_iteration(nullptr, FALSE);
}

template <typename T>
bool is_ready(const std::future<T> &result) {
  return result.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

// Also where the other end closed without having read everything, which ends the connection with an error.
inline bool was_closed(int fd) {
  char byte = 0;
  const auto got = recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  return got == 0 || (got < 0 && errno == ECONNRESET);
}

// Starts it on a thread of its own.
template <typename Function>
auto in_thread(Function function) {
  return std::async(std::launch::async, std::move(function));
}

// While it lives, the default main context finds these events on the descriptor, instead of what is there.
class InjectedEvents {
  static inline int injected_fd = -1;
  static inline gushort injected_events = 0;

 public:
  InjectedEvents(int fd, gushort events) {
    injected_fd = fd;
    injected_events = events;
    g_main_context_set_poll_func(nullptr, [](GPollFD *fds, guint count, gint timeout_ms) {
      g_poll(fds, count, std::any_of(fds, fds + count, matches) ? 0 : timeout_ms);
      for (GPollFD *fd = fds; fd != fds + count; ++fd) {
        if (matches(*fd)) fd->revents = injected_events;
      }
      return static_cast<gint>(std::count_if(fds, fds + count, [](const GPollFD &fd) { return fd.revents != 0; }));
    });
  }
  InjectedEvents(const InjectedEvents &) = delete;
  ~InjectedEvents() { g_main_context_set_poll_func(nullptr, nullptr); }

 private:
  static bool matches(const GPollFD &fd) { return fd.fd == injected_fd; }
};

// What a server's callback received.
struct Message {
  gpointer context;
  int client_fd;
  std::string body;
  bool terminated;  // by a NUL byte behind the body
};

// A plain server; its contexts are valid during the callback only.
class PlainServer {
  Object<PTZSocketServer> server_;

  static gboolean receive(gpointer user_data, gpointer context, gpointer data, guint32 length) {
    auto *self = static_cast<PlainServer *>(user_data);
    const auto *bytes = static_cast<const char *>(data);
    const auto *client = static_cast<PTZSocketServerReplyContext *>(context)->client;
    const Message message{context, client != nullptr ? client->fd : -1, {bytes, length}, bytes[length] == '\0'};
    self->messages.push_back(message);
    const auto handler = self->on_message;  // which may drop this object
    return handler(message);
  }

 public:
  explicit PlainServer(PTZSocketServer *server) : server_(server) {
    ptz_socket_server_register_callback(server, receive, this);
  }
  explicit PlainServer(const std::string &path, GType type = PTZ_TYPE_SOCKET_SERVER)
      : PlainServer(ptz_socket_server_new(type, path.c_str(), SOCK_STREAM)) {}
  PlainServer(const PlainServer &) = delete;

  std::vector<Message> messages;
  std::function<gboolean(const Message &)> on_message = [](const Message &) { return TRUE; };

  [[nodiscard]] PTZSocketServer *get() const { return server_.get(); }
  [[nodiscard]] int fd() const { return server_->parent_instance.fd; }
  [[nodiscard]] GList *clients() const { return server_->source->clients; }
  [[nodiscard]] guint client_count() const { return g_list_length(clients()); }
  [[nodiscard]] PTZSocketServerClient *client(guint index) const {
    return static_cast<PTZSocketServerClient *>(g_list_nth_data(clients(), index));
  }
  void drop() { server_.reset(); }
};

// A command server. Contexts that are open when it ends are answered then, which frees them.
class CommandServer {
  Object<PTZSocketServerCommand> server_;
  std::vector<gpointer> open_;

  static gboolean receive(gpointer user_data, gpointer context, gpointer data, guint32 length) {
    auto *self = static_cast<CommandServer *>(user_data);
    const auto *bytes = static_cast<const char *>(data);
    const auto fd = static_cast<PTZSocketServerCommandReplyContext *>(context)->fd;
    const Message message{context, fd, {bytes, length}, bytes[length] == '\0'};
    self->messages.push_back(message);
    self->open_.push_back(context);
    const auto handler = self->on_message;
    return handler(message);
  }

 public:
  explicit CommandServer(const std::string &path) : server_(ptz_socket_server_command_new(path.c_str(), SOCK_STREAM)) {
    ptz_socket_server_register_callback(base(), receive, this);
  }
  CommandServer(const CommandServer &) = delete;
  ~CommandServer() { drop(); }

  std::vector<Message> messages;
  std::function<gboolean(const Message &)> on_message = [](const Message &) { return TRUE; };

  [[nodiscard]] PTZSocketServerCommand *get() const { return server_.get(); }
  [[nodiscard]] PTZSocketServer *base() const { return PTZ_SOCKET_SERVER(server_.get()); }
  [[nodiscard]] GList *clients() const { return base()->source->clients; }
  [[nodiscard]] guint client_count() const { return g_list_length(clients()); }
  [[nodiscard]] PTZSocketServerClient *client(guint index) const {
    return static_cast<PTZSocketServerClient *>(g_list_nth_data(clients(), index));
  }
  gboolean answer(const Message &message, std::string_view body) {
    std::erase(open_, message.context);
    return ptz_socket_server_send(message.context, body.data(), static_cast<guint32>(body.size()));
  }
  void echo() {
    on_message = [this](const Message &message) {
      answer(message, message.body);
      return TRUE;
    };
  }
  void drop() {
    if (server_ == nullptr) return;
    for (gpointer context : std::exchange(open_, {})) ptz_socket_server_send(context, "end", 3);
    server_.reset();
  }
};

// A raw client that the server has accepted.
template <typename Server>
Descriptor connect_client(const Server &server, const std::string &path) {
  run_pending();  // those that have gone are forgotten before the count
  const guint before = server.client_count();
  Descriptor peer = connect_to(path);
  if (!run_until([&] { return server.client_count() == before + 1; })) peer.reset();
  return peer;
}

// The context of an asynchronous request, which keeps what became of it.
struct Answer {
  int calls = 0;
  int freed = 0;
  bool has_data = false;
  std::string body;
  const void *data = nullptr;
  GThread *thread = nullptr;
  GSource *source = nullptr;  // that the callback ran under, not to be looked into
  gpointer free_user_data = nullptr;
  int turn = 0;  // counts callbacks over all answers
  std::function<void()> then;

  [[nodiscard]] bool replied() const { return calls == 1 && freed == 0 && has_data; }
  [[nodiscard]] bool timed_out() const { return calls == 1 && freed == 0 && !has_data && body.empty(); }
  [[nodiscard]] bool untouched() const { return calls == 0 && freed == 0; }

  static inline std::atomic<int> turns = 0;
  static void receive(gpointer context, gpointer data, guint32 length) {
    auto *self = static_cast<Answer *>(context);
    ++self->calls;
    self->has_data = data != nullptr;
    self->data = data;
    if (data != nullptr) self->body.assign(static_cast<const char *>(data), length);
    self->thread = g_thread_self();
    self->source = g_main_current_source();
    self->turn = ++turns;
    if (self->then) self->then();
  }
  static void release(gpointer context, gpointer free_user_data) {
    auto *self = static_cast<Answer *>(context);
    ++self->freed;
    self->free_user_data = free_user_data;
  }
};

inline bool is_watched(PTZSocketClient *client) {
  auto *source = reinterpret_cast<PTZFileGSource *>(client->source);
  g_mutex_lock(&source->mutex);
  const bool watched = source->tag != nullptr;
  g_mutex_unlock(&source->mutex);
  return watched;
}

// A command client whose request contexts are Answers.
class CommandClient {
  Object<PTZSocketClientCommand> client_;

  explicit CommandClient(PTZSocketClientCommand *client) : client_(client) {
    ptz_socket_client_register_callback(base(), Answer::receive, nullptr);
    ptz_socket_client_command_register_free_callback(client, Answer::release, this);
  }

 public:
  explicit CommandClient(const std::string &path)
      : CommandClient(ptz_socket_client_command_new(path.c_str(), -1, SOCK_STREAM)) {}
  explicit CommandClient(int fd) : CommandClient(ptz_socket_client_command_new(nullptr, fd, SOCK_STREAM)) {}
  CommandClient(const CommandClient &) = delete;

  [[nodiscard]] PTZSocketClientCommand *get() const { return client_.get(); }
  [[nodiscard]] PTZSocketClient *base() const { return PTZ_SOCKET_CLIENT(client_.get()); }
  [[nodiscard]] int fd() const { return PTZ_SOCKET(client_.get())->fd; }
  [[nodiscard]] bool watched() const { return is_watched(base()); }
  [[nodiscard]] guint pending_count() const {
    g_mutex_lock(&client_->mutex);
    const guint count = g_list_length(client_->pending);
    g_mutex_unlock(&client_->mutex);
    return count;
  }
  gboolean send(std::string_view body, Answer *answer) {
    return ptz_socket_client_command_async_send(client_.get(), body.data(), static_cast<guint32>(body.size()), answer);
  }
  // The body of the reply; none for a failure. The buffer is exactly as long as it must be.
  std::optional<std::string> sync_send(std::string_view body) {
    std::vector<char> reply(PTZ_SOCKET_BODY_MAX);
    guint32 length = 0;
    if (!ptz_socket_client_command_sync_send(client_.get(), body.data(), static_cast<guint32>(body.size()),
                                             reply.data(), &length)) {
      return std::nullopt;
    }
    return std::string(reply.data(), length);
  }
  void drop() { client_.reset(); }
};

}  // namespace ptz_test
