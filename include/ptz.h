/* ptz.h - the whole public interface of the library. */
#pragma once

#include "ptz_api.h"
#include "ptz_enum_types.h"
#include "ptz_file_g_source.h"
#include "ptz_flag_types.h"
#include "ptz_flags_utils.h"
#include "ptz_queue.h"
#include "ptz_serialize.h"
#include "ptz_socket.h"
#include "ptz_socket_client.h"
#include "ptz_socket_client_command.h"
#include "ptz_socket_client_signal_data_ready.h"
#include "ptz_socket_frame.h"
#include "ptz_socket_server.h"
#include "ptz_socket_server_command.h"
#include "ptz_socket_signal.h"
