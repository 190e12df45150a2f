// src/transport/socket_client_private.h - what the client shares with the classes derived from it.
#pragma once
#include "ptz_socket_client.h"

namespace ptz {

// ptz_socket_client_async_send() on this descriptor, with the count: negative if nothing could be sent (the watch is
// off then), 0 if the descriptor is -1, less than length if the peer took only a part in time.
gssize send_counted(PTZSocketClient *client, gint fd, gconstpointer data, gsize length);

// Whether the main loop watches the descriptor.
[[nodiscard]] bool is_watched(PTZSocketClient *client);

}  // namespace ptz
