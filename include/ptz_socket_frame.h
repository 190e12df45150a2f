/* ptz_socket_frame.h - the frame that carries every request and every reply of the command channel.
 *
 *   offset  size        field
 *   0       4           length: the whole frame in bytes, these eight included
 *   4       4           message id: chosen by the client, counting up from 0; the server copies it into its reply
 *   8       length - 8  body: opaque to the transport
 *
 * Both words are unsigned and in host byte order, since the peers are processes of one machine. A length below
 * PTZ_SOCKET_FRAME_HEADER_SIZE or above PTZ_SOCKET_FRAME_MAX can never be completed: whoever reads one gives the
 * connection up.
 */
#pragma once

/**
 * PTZ_SOCKET_FRAME_HEADER_SIZE:
 *
 * Bytes of a frame before its body.
 */
#define PTZ_SOCKET_FRAME_HEADER_SIZE 8u
/**
 * PTZ_SOCKET_FRAME_MAX:
 *
 * Bytes of the longest frame, header included.
 */
#define PTZ_SOCKET_FRAME_MAX 2560u
/**
 * PTZ_SOCKET_BODY_MAX:
 *
 * Bytes of the longest body; also what a buffer for a reply must hold.
 */
#define PTZ_SOCKET_BODY_MAX 2552u
/**
 * PTZ_SOCKET_FRAME_UNKNOWN:
 *
 * Stands for the length of a frame whose header has not arrived yet.
 */
#define PTZ_SOCKET_FRAME_UNKNOWN 0xFFFFFFFFu
