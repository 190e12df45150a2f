#include "transport/server_connection.h"

#include <cstddef>
#include <cstring>
#include <type_traits>
#include <utility>

namespace ptz {

static_assert(std::is_standard_layout_v<ServerConnection> && offsetof(ServerConnection, client) == 0);

ServerConnection *ServerConnection::create(gint fd, guint32 serial) {
  auto *connection = g_slice_new(ServerConnection);
  *connection = {.client = {fd, nullptr},
                 .serial = serial,
                 .input = Input::open,
                 .received = false,
                 .served_in = 0,
                 .assembler = nullptr,
                 .partial = nullptr,
                 .partial_fill = 0};
  return connection;
}

void ServerConnection::destroy(ServerConnection *connection) {
  if (connection->assembler != nullptr) connection->assembler->forget(connection);
  g_free(connection->partial);
  g_slice_free(ServerConnection, connection);
}

frame::FrameAssembler &SharedAssembler::turn_to(ServerConnection *connection) {
  if (connection == holder_) return assembler_;
  if (holder_ != nullptr) {
    const auto received = assembler_.received();
    if (!received.empty() && holder_->partial == nullptr) {
      holder_->partial = static_cast<guint8 *>(g_malloc(PTZ_SOCKET_FRAME_MAX));
    }
    if (!received.empty()) std::memcpy(holder_->partial, received.data(), received.size());
    holder_->partial_fill = static_cast<guint32>(received.size());
    holder_->assembler = nullptr;
  }
  assembler_.reset();
  holder_ = connection;
  if (connection != nullptr) {
    connection->assembler = this;
    const auto length = std::exchange(connection->partial_fill, 0);
    if (length > 0) (void)assembler_.resume({connection->partial, length});
  }
  return assembler_;
}

void SharedAssembler::forget(const ServerConnection *connection) {
  if (connection != holder_) return;
  holder_ = nullptr;
  assembler_.reset();
}

}  // namespace ptz
