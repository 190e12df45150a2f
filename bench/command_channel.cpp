#include <ptz.h>
#include <sys/socket.h>

#include <array>
#include <vector>

#include "answering_process.h"
#include "contender.h"
#include "handles.h"
#include "main_loop.h"
#include "socket_path.h"

namespace bench {
namespace {

// A driver's process, and this one's connection to it.
class Connection {
  SocketPath path_;
  AnsweringProcess process_{"command", path_.text()};
  ptz_test::Object<PTZSocketClientCommand> client_;
  std::vector<ptz_test::Object<PTZSocket>> idle_clients_;

 public:
  explicit Connection(unsigned idle_clients = 0) {
    process_.wait_until_ready();
    const char *path = path_.text().c_str();
    client_.reset(ptz_socket_client_command_new(path, -1, SOCK_STREAM));
    while (idle_clients_.size() < idle_clients) {
      idle_clients_.emplace_back(ptz_socket_new(PTZ_TYPE_SOCKET, PTZ_SOCKET_MODE_CLIENT, path, SOCK_STREAM));
    }
  }
  [[nodiscard]] PTZSocketClientCommand *client() const { return client_.get(); }
};

class CommandChannel final : public Caller {
  Connection connection_;
  std::array<std::uint8_t, PTZ_SOCKET_BODY_MAX> answer_;

 public:
  explicit CommandChannel(unsigned idle_clients) : connection_(idle_clients) {}
  Bytes ask(Bytes body) override {
    guint32 length = 0;
    const gboolean answered = ptz_socket_client_command_sync_send(
        connection_.client(), body.data(), static_cast<guint32>(body.size()), answer_.data(), &length);
    return answered ? Bytes(answer_).first(length) : Bytes();
  }
};

class PipelinedCommandChannel final : public PipelinedCaller {
  Connection connection_;

  static void take_answer(gpointer context, gpointer data, guint32 length) {
    static_cast<PipelinedCommandChannel *>(context)->answered(Bytes(static_cast<std::uint8_t *>(data), length));
  }

 public:
  PipelinedCommandChannel() {
    ptz_socket_client_register_callback(PTZ_SOCKET_CLIENT(connection_.client()), take_answer, nullptr);
  }
  bool send(Bytes body) override {
    return ptz_socket_client_command_async_send(connection_.client(), body.data(), static_cast<guint32>(body.size()),
                                                this);
  }
};

gboolean answer_with_the_body(gpointer, gpointer reply_context, gpointer data, guint32 length) {
  ptz_socket_server_send(reply_context, data, length);
  return TRUE;
}

}  // namespace

std::unique_ptr<Caller> command_channel(unsigned idle_clients) {
  return std::make_unique<CommandChannel>(idle_clients);
}

std::unique_ptr<PipelinedCaller> pipelined_command_channel() { return std::make_unique<PipelinedCommandChannel>(); }

int answer_on_command_channel(int link, const char *socket_path) {
  const ptz_test::Object<PTZSocketServerCommand> server(ptz_socket_server_command_new(socket_path, SOCK_STREAM));
  ptz_socket_server_register_callback(PTZ_SOCKET_SERVER(server.get()), answer_with_the_body, nullptr);
  announce_ready(link);
  const MainLoop loop(g_main_loop_new(nullptr, FALSE));
  g_main_loop_run(loop.get());
  return 0;
}

}  // namespace bench
