// The faults of frames and of the order in which they are served.
#include <linux/sockios.h>
#include <poll.h>
#include <ptz_socket_frame.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "faulty_server.h"

namespace sim {

namespace {

constexpr std::size_t header_size = PTZ_SOCKET_FRAME_HEADER_SIZE;
constexpr guint32 large_frame = 2048;
constexpr gulong slow_us = 60'000;
constexpr gulong pause_us = 20'000;
constexpr gint64 patience_us = 50'000;
constexpr int half_close_ms = 4;
constexpr guint32 unasked_id = 0xabcdef;
// By these numbers of frames in one piece, the fault recognises its check.
constexpr unsigned frames_of_pipelined = 32;
constexpr unsigned frames_of_latency_pipelined = 64;
constexpr unsigned frames_of_flood = 128;

guint32 word(std::string_view bytes, std::size_t offset) {
  guint32 value = 0;
  std::memcpy(&value, bytes.data() + offset, sizeof(value));
  return value;
}
guint32 length_of(std::string_view frame) { return word(frame, 0); }
guint32 id_of(std::string_view frame) { return word(frame, sizeof(guint32)); }
bool is_possible(guint32 length) { return length >= header_size && length <= PTZ_SOCKET_FRAME_MAX; }

struct Contents {
  unsigned whole_frames = 0;
  std::size_t rest = 0;
};
Contents look_into(std::string_view bytes) {
  Contents contents;
  while (bytes.size() >= header_size && is_possible(length_of(bytes)) && bytes.size() >= length_of(bytes)) {
    bytes.remove_prefix(length_of(bytes));
    ++contents.whole_frames;
  }
  contents.rest = bytes.size();
  return contents;
}

}  // namespace

void FaultyServer::lose_a_part(Client &client, std::string &piece) {
  const Contents contents = look_into(piece);
  if (fault("framing.merged-and-split") && contents.whole_frames == 1) piece.resize(piece.size() - contents.rest);
  if (fault("framing.merged-requests") && contents.whole_frames == 2 && length_of(piece) > header_size) {
    piece.resize(piece.size() / 2);
  }
  if (fault("replies.pipelined") && contents.whole_frames == frames_of_pipelined) {
    piece.resize(piece.size() / frames_of_pipelined * (frames_of_pipelined - 1));
  }
  if ((fault("latency.pipelined") && contents.whole_frames == frames_of_latency_pipelined) ||
      (fault("clients.flood-does-not-starve-others") && contents.whole_frames == frames_of_flood)) {
    client.pace_us = pause_us;
  }
}

bool FaultyServer::survives(Client &client, std::string &piece) {
  if (fault("framing.byte-by-byte") && client.reads_of_frame > header_size) return false;
  if (!client.in.empty()) return true;
  if (fault("framing.split-header") && piece.size() > 1 && piece.size() < header_size) return false;
  // With its ids from 0 on, the library's client may send such pieces, too.
  if (fault("framing.header-and-body-apart") && piece.size() == header_size && length_of(piece) > header_size &&
      id_of(piece) != 0) {
    return false;
  }
  if (fault("framing.split-body") && piece.size() == header_size + 2 && look_into(piece).rest > 0) return false;
  lose_a_part(client, piece);
  return true;
}

void FaultyServer::take(Client &client) {
  std::array<char, 65536> buffer;
  const ssize_t count = recv(client.fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
  if (count < 0 && errno == EAGAIN) return;
  if (count <= 0) {
    client.at_end = client.has_gone = true;
    return;
  }
  std::string piece(buffer.data(), static_cast<std::size_t>(count));
  ++client.reads_of_frame;
  client.at_end = !survives(client, piece);
  if (!client.at_end) client.in += piece;
  if (fault("clients.half-closed-is-answered") && client.asker.requests == 0) {
    pollfd watched = {client.fd, POLLRDHUP, 0};
    client.at_end = poll(&watched, 1, half_close_ms) > 0;
  }
  if (client.at_end) client.in.clear();
}

// Whether a client keeps its connection that has sent a frame of an impossible length.
bool FaultyServer::forgives(Client &client, guint32 length) {
  if (fault("framing.nothing-behind-a-bad-length") && client.in.size() > header_size) {
    client.in.erase(0, header_size);
    return true;
  }
  const bool ignored = length == PTZ_SOCKET_FRAME_UNKNOWN ? fault("framing.length-of-all-ones")
                       : length < header_size             ? fault("framing.undersized-length")
                                                          : fault("framing.oversized-length");
  client.in.clear();
  return ignored;
}

// Whether half a frame of another client keeps this one waiting.
bool FaultyServer::held_up(const Client &client, guint32 id) const {
  if (!fault("clients.half-frame-does-not-delay-others")) return false;
  for (const Client &other : clients_) {
    if (&other == &client || !other.has_header || other.at_end) continue;
    if (other.in.size() >= header_size && id_of(other.in) != id) return true;
  }
  return false;
}

void FaultyServer::dawdle(Client &client, const Body &request) const {
  constexpr unsigned short_visits = 2;
  constexpr unsigned names_in_a_row = 6;
  if (client.pace_us > 0) g_usleep(client.pace_us);
  if (fault("latency.connect") && client.asker.requests == 1 && short_visits_ >= short_visits) g_usleep(slow_us);
  client.names_in_a_row = command_of(request) == PTZ_COMMAND_GET_DRIVER_NAME ? client.names_in_a_row + 1 : 0;
  int unread = 0;
  if (fault("latency.sequential") && client.names_in_a_row > names_in_a_row && client.in.empty() &&
      ioctl(client.fd, SIOCOUTQ, &unread) == 0 && unread == 0) {
    g_usleep(slow_us);
  }
}

bool FaultyServer::serve_one(Client &client) {
  if (client.in.size() < header_size) return false;
  const guint32 length = length_of(client.in);
  if (!is_possible(length) || (fault("framing.largest-frame") && length > large_frame) ||
      (fault("framing.empty-body") && length == header_size)) {
    client.at_end = !forgives(client, length);
    return true;
  }
  const guint32 id = id_of(client.in);
  if (!std::exchange(client.has_header, true)) last_by_id_[id] = client.number;
  if (client.in.size() < length || held_up(client, id)) return false;
  const Body request = client.in.substr(header_size, length - header_size);
  client.in.erase(0, length);
  client.has_header = false;
  client.reads_of_frame = 0;
  if (!request.empty()) serve_frame(client, id, request);
  return true;
}

void FaultyServer::serve_frame(Client &client, guint32 id, const Body &request) {
  if (fault("replies.repeated-id") && !client.ids.insert(id).second) return;
  if (fault("replies.first-request-of-a-daemon") && id == 0) return;
  if (++client.asker.requests == 1) client.asker.first_command = command_of(request);
  dawdle(client, request);
  const auto body = answers_.answer(client.asker, request);
  if (!body) return;
  reply(client, id, *body);
  if (fault("replies.one-each") && command_of(request) == PTZ_COMMAND_QUERY_LIMIT_RANGES) reply(client, id, *body);
}

void FaultyServer::reply(Client &client, guint32 id, const Body &body) {
  const Client *to = &client;
  if (fault("clients.same-id-in-two-clients")) {
    for (const Client &other : clients_) {
      if (other.number == last_by_id_[id]) to = &other;
    }
  }
  if (fault("replies.id-is-copied")) id &= 0xffff;
  const guint32 header[] = {static_cast<guint32>(header_size + body.size()), id};
  const std::string bytes = std::string(reinterpret_cast<const char *>(header), sizeof(header)) + body;
  const int flags =
      (fault("clients.never-reads") ? 0 : MSG_DONTWAIT) | (fault("clients.disconnect-before-reply") ? 0 : MSG_NOSIGNAL);
  static_cast<void>(send(to->fd, bytes.data(), bytes.size(), flags));
}

// Sends a reply that no client has asked for.
void FaultyServer::greet(Client &client) {
  if (client.greeted || client.asker.requests > 0 || !client.in.empty()) return;
  if (g_get_monotonic_time() - client.since_us < patience_us) return;
  client.greeted = true;
  reply(client, unasked_id, bare(PTZ_COMMAND_GET_DRIVER_NAME));
}

}  // namespace sim
