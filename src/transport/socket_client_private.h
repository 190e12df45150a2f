// src/transport/socket_client_private.h - what the client shares with the classes derived from it.
#pragma once
#include "ptz_socket_client.h"

namespace ptz {

// ptz_socket_client_async_send() on this descriptor, with the count: negative if nothing could be sent (the watch is
// off then), 0 if the descriptor is -1, less than length if the peer took only a part in time.
gssize send_counted(PTZSocketClient *client, gint fd, gconstpointer data, gsize length);

// The watch of the descriptor by the main loop. A client that ptz_socket_new() or ptz_socket_fd_new() has made has
// none.
[[nodiscard]] bool is_watched(PTZSocketClient *client);
inline void start_watch(PTZSocketClient *client) {
  if (client->source != nullptr) ptz_file_g_source_add_poll(client->source);
}
inline void stop_watch(PTZSocketClient *client) {
  if (client->source != nullptr) ptz_file_g_source_remove_poll(client->source);
}

}  // namespace ptz
