// src/transport/socket_client_private.h - what the client shares with the classes derived from it.
#pragma once
#include "ptz_socket_client.h"

namespace ptz {

// ptz_socket_client_async_send() with the count: negative when nothing could be sent (the watch is off then), 0 on a
// client that is not connected, less than length when the peer took only a part in time.
gssize send_counted(PTZSocketClient *client, gconstpointer data, gsize length);

// Whether the main loop watches the descriptor.
bool is_watched(PTZSocketClient *client);

}  // namespace ptz
