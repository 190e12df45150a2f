// A method call from peer to peer, without a bus daemon between the two.
#include <fcntl.h>
#include <gio/gio.h>

#include "answering_process.h"
#include "contender.h"
#include "handles.h"
#include "main_loop.h"

namespace bench {
namespace {

constexpr char object_path[] = "/bench";
constexpr char interface_name[] = "bench.Answers";
constexpr char method_name[] = "Ask";
constexpr char introspection[] =
    "<node><interface name='bench.Answers'><method name='Ask'>"
    "<arg type='ay' direction='in'/><arg type='ay' direction='out'/>"
    "</method></interface></node>";

using Connection = ptz_test::Object<GDBusConnection>;
using Value = std::unique_ptr<GVariant, ptz_test::FreeWith<g_variant_unref>>;

// The descriptor becomes the connection's.
Connection connect(int fd, const gchar *guid, GDBusConnectionFlags flags) {
  const ptz_test::Object<GSocket> socket(g_socket_new_from_fd(fd, nullptr));
  if (socket == nullptr) give_up("no stream for GDBus");
  const ptz_test::Object<GSocketConnection> stream(g_socket_connection_factory_create_connection(socket.get()));
  Connection connection(g_dbus_connection_new_sync(G_IO_STREAM(stream.get()), guid, flags, nullptr, nullptr, nullptr));
  if (connection == nullptr) give_up("no GDBus connection");
  return connection;
}

GVariant *message_of(Bytes body) {
  return g_variant_new("(@ay)", g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, body.data(), body.size(), 1));
}

// The bytes are those of the value, and live as long.
Bytes body_of(GVariant *message) {
  const Value array(g_variant_get_child_value(message, 0));
  gsize length = 0;
  const auto *bytes = static_cast<const std::uint8_t *>(g_variant_get_fixed_array(array.get(), &length, 1));
  return {bytes, length};
}

class ClientConnection {
  AnsweringProcess process_{"gdbus"};
  Connection connection_ =
      connect(fcntl(process_.link(), F_DUPFD_CLOEXEC, 0), nullptr, G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT);

 public:
  [[nodiscard]] GDBusConnection *get() const { return connection_.get(); }
};

class GdbusPeer final : public Caller {
  ClientConnection connection_;
  Value answer_;

 public:
  Bytes ask(Bytes body) override {
    answer_.reset(g_dbus_connection_call_sync(connection_.get(), nullptr, object_path, interface_name, method_name,
                                              message_of(body), G_VARIANT_TYPE("(ay)"), G_DBUS_CALL_FLAGS_NONE, -1,
                                              nullptr, nullptr));
    return answer_ != nullptr ? body_of(answer_.get()) : Bytes();
  }
};

class PipelinedGdbusPeer final : public PipelinedCaller {
  ClientConnection connection_;

  static void take_answer(GObject *, GAsyncResult *result, gpointer user_data) {
    auto *self = static_cast<PipelinedGdbusPeer *>(user_data);
    const Value message(g_dbus_connection_call_finish(self->connection_.get(), result, nullptr));
    self->answered(message != nullptr ? body_of(message.get()) : Bytes());
  }

 public:
  bool send(Bytes body) override {
    g_dbus_connection_call(connection_.get(), nullptr, object_path, interface_name, method_name, message_of(body),
                           G_VARIANT_TYPE("(ay)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, take_answer, this);
    return true;
  }
};

void answer_with_the_body(GDBusConnection *, const gchar *, const gchar *, const gchar *, const gchar *,
                          GVariant *parameters, GDBusMethodInvocation *invocation, gpointer) {
  g_dbus_method_invocation_return_value(invocation, parameters);
}

const GDBusInterfaceVTable answers = {answer_with_the_body, nullptr, nullptr, {}};

}  // namespace

std::unique_ptr<Caller> gdbus_peer() { return std::make_unique<GdbusPeer>(); }

std::unique_ptr<PipelinedCaller> pipelined_gdbus_peer() { return std::make_unique<PipelinedGdbusPeer>(); }

int answer_on_gdbus_peer(int link) {
  const ptz_test::Text guid(g_dbus_generate_guid());
  const std::unique_ptr<GDBusNodeInfo, ptz_test::FreeWith<g_dbus_node_info_unref>> node(
      g_dbus_node_info_new_for_xml(introspection, nullptr));
  const Connection connection =
      connect(link, guid.get(),
              static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_SERVER |
                                                G_DBUS_CONNECTION_FLAGS_DELAY_MESSAGE_PROCESSING));
  g_dbus_connection_register_object(connection.get(), object_path, node->interfaces[0], &answers, nullptr, nullptr,
                                    nullptr);
  g_dbus_connection_start_message_processing(connection.get());
  const MainLoop loop(g_main_loop_new(nullptr, FALSE));
  g_main_loop_run(loop.get());
  return 0;
}

}  // namespace bench
