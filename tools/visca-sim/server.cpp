#include "server.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

namespace visca_sim {

namespace {

constexpr guint tick_ms = 5, change_ms = 500, joined_ms = 5, split_ms = 30;
constexpr std::size_t most_answers = 64, header_bytes = 8, most_part = 4096;

struct Later {
  Server *server;
  Sender sender;
  Packet packet;
};

Packet with_header(std::uint16_t type, std::uint32_t number, const Packet &payload) {
  Packet bytes = {static_cast<std::uint8_t>(type >> 8), static_cast<std::uint8_t>(type),
                  static_cast<std::uint8_t>(payload.size() >> 8), static_cast<std::uint8_t>(payload.size())};
  for (int shift = 24; shift >= 0; shift -= 8) bytes.push_back(static_cast<std::uint8_t>(number >> shift));
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  return bytes;
}

}  // namespace

Server::Server(const ServerOptions &options) : options_(options) {
  for (unsigned number = 1; number <= options.cameras; ++number) {
    cameras_.push_back(std::make_unique<Camera>(*this, options.camera, static_cast<std::uint8_t>(number)));
  }
  if (!options.log_file.empty()) log_ = fopen(options.log_file.c_str(), "ae");
  if (options.camera.quirks.has(Quirk::network_change)) change_ = g_timeout_add(change_ms, on_network_change, this);
}

Server::~Server() {
  while (!watches_.empty()) unwatch(watches_.back().first);
  if (terminal_slave_ >= 0) close(terminal_slave_);
  if (other_udp_ >= 0) close(other_udp_);
  if (!terminal_link_.empty()) unlink(terminal_link_.c_str());
  if (tick_ != 0) g_source_remove(tick_);
  if (change_ != 0) g_source_remove(change_);
  if (log_ != nullptr) fclose(log_);
}

// A line is the time in milliseconds, the direction, and the bytes: ">" came from a controller.
void Server::note(char direction, const Packet &packet) {
  if (log_ == nullptr) return;
  fprintf(log_, "%.3f %c", static_cast<double>(g_get_monotonic_time()) / 1000, direction);
  for (const std::uint8_t byte : packet) fprintf(log_, " %02X", byte);
  fputc('\n', log_);
  fflush(log_);
}

gboolean Server::on_tick(gpointer user_data) {
  auto &server = *static_cast<Server *>(user_data);
  bool works = false;
  for (const auto &camera : server.cameras_) {
    camera->advance(g_get_monotonic_time());
    works |= camera->works();
  }
  if (works) return G_SOURCE_CONTINUE;
  server.tick_ = 0;
  return G_SOURCE_REMOVE;
}

void Server::start_ticking() {
  const bool works = std::ranges::any_of(cameras_, [](const auto &camera) { return camera->works(); });
  if (works && tick_ == 0) tick_ = g_timeout_add(tick_ms, on_tick, this);
}

gboolean Server::on_network_change(gpointer user_data) {
  auto &server = *static_cast<Server *>(user_data);
  for (const auto &each : server.clients_) server.deliver({each.first, 0}, {0x90, 0x38, 0xff});
  return G_SOURCE_CONTINUE;
}

// A stream or a datagram without header: packets end with FF.
void Server::take_stream(unsigned number, const std::uint8_t *data, std::size_t size) {
  for (std::size_t index = 0; index < size; ++index) {
    const auto found = clients_.find(number);
    if (found == clients_.end()) return;
    Packet &part = found->second.part;
    if (part.size() < most_part) part.push_back(data[index]);
    if (data[index] == 0xff) take_packet({number, 0}, std::exchange(part, {}));
  }
}

void Server::take_packet(const Sender &sender, const Packet &packet) {
  note('>', packet);
  if (packet.empty()) return;
  if (packet[0] == 0x88) return take_broadcast(sender, packet);
  const unsigned address = packet[0] & 0x0f;
  if ((packet[0] & 0xf0) != 0x80 || address == 0 || address > cameras_.size()) return;
  cameras_[address - 1]->handle(sender, packet, g_get_monotonic_time());
  start_ticking();
}

void Server::take_broadcast(const Sender &sender, const Packet &packet) {
  if (packet.size() == 4 && packet[1] == 0x30 && packet[2] == 0x01) {
    return deliver(sender, {0x88, 0x30, static_cast<std::uint8_t>(cameras_.size() + 1), 0xff});
  }
  if (packet.size() == 5 && packet[1] == 0x01 && packet[2] == 0x00 && packet[3] == 0x01) {
    for (const auto &camera : cameras_) camera->clear();
    deliver(sender, packet);
  }
}

void Server::take_message(unsigned number, const Packet &datagram) {
  if (datagram.size() <= header_bytes) return;
  const unsigned type = static_cast<unsigned>(datagram[0]) << 8 | datagram[1];
  const unsigned length = static_cast<unsigned>(datagram[2]) << 8 | datagram[3];
  std::uint32_t sequence = 0;
  for (std::size_t index = 4; index < header_bytes; ++index) sequence = sequence << 8 | datagram[index];
  const Packet payload(datagram.begin() + header_bytes, datagram.end());
  if (length != payload.size() || length > 16) return note('!', datagram);
  if (type == 0x0200) return control(number, sequence, payload);
  if (type != 0x0100 && type != 0x0110 && type != 0x0120) {
    return send_datagram(number, with_header(0x0200, sequence, {0x0f, 0x02}), false, sequence);
  }
  // An inquiry is 8x 09 ...: noted if it comes as a command, or the other way round, but answered.
  if (payload.size() > 1 && (payload[1] == 0x09) != (type == 0x0110)) note('!', datagram);
  if (is_repeat(number, sequence)) return;
  take_packet({number, sequence}, payload);
}

// Whether the message has been answered here: as before if its number is known, else as abnormal.
bool Server::is_repeat(unsigned number, std::uint32_t sequence) {
  const Quirks &quirks = options_.camera.quirks;
  Client &client = clients_[number];
  const bool is_new = !client.has_numbers || sequence > client.last_number;
  const bool is_too_large = quirks.has(Quirk::sequence_small) && sequence > 255;
  if ((is_new || quirks.has(Quirk::sequence_ignored)) && !is_too_large) {
    client.has_numbers = true;
    client.last_number = std::max(client.last_number, sequence);
    client.answers.emplace_back(sequence, std::vector<Packet>());
    if (client.answers.size() > most_answers) client.answers.pop_front();
    return false;
  }
  note('=', {static_cast<std::uint8_t>(sequence >> 8), static_cast<std::uint8_t>(sequence)});
  if (!is_too_large) {
    for (const auto &[answered, datagrams] : std::deque(client.answers)) {
      if (answered != sequence) continue;
      for (const Packet &datagram : datagrams) send_datagram(number, datagram, false, sequence);
      return true;
    }
  }
  const std::uint16_t type = quirks.has(Quirk::error_in_reply) ? 0x0201 : 0x0200;
  send_datagram(number, with_header(type, sequence, {0x0f, 0x01}), false, sequence);
  return true;
}

void Server::control(unsigned number, std::uint32_t sequence, const Packet &payload) {
  note('>', payload);
  if (payload.size() != 1 || payload[0] != 0x01) return;
  Client &client = clients_[number];
  client.has_numbers = false;
  client.last_number = 0;
  client.answers.clear();
  if (options_.camera.quirks.has(Quirk::no_reset)) return;
  send_datagram(number, with_header(0x0201, sequence, {0x01}), false, sequence);
}

void Server::reply(const Sender &sender, const Packet &packet, std::int64_t delay_us) {
  if (delay_us == 0) return deliver(sender, packet);
  const auto run = [](gpointer later) -> gboolean {
    auto *const due = static_cast<Later *>(later);
    due->server->deliver(due->sender, due->packet);
    return G_SOURCE_REMOVE;
  };
  g_timeout_add_full(G_PRIORITY_DEFAULT, static_cast<guint>(delay_us / 1000), run, new Later{this, sender, packet},
                     [](gpointer later) { delete static_cast<Later *>(later); });
}

void Server::deliver(const Sender &sender, const Packet &whole) {
  const auto found = clients_.find(sender.client);
  if (found == clients_.end()) return;
  Client &client = found->second;
  const Quirks &quirks = options_.camera.quirks;
  Packet packet = whole;
  note('<', packet);
  if (quirks.has(Quirk::cut_off) && ++replies_ % 5 == 0) packet.resize(packet.size() / 2);
  if (client.kind == Kind::udp_header && !quirks.has(Quirk::bare_replies)) {
    const std::uint32_t number = quirks.has(Quirk::sequence_one)    ? 1
                                 : quirks.has(Quirk::sequence_zero) ? 0
                                                                    : sender.sequence;
    packet = with_header(0x0111, number, packet);
  }
  if (quirks.has(Quirk::joined)) {
    if (client.joined.empty()) {
      const auto run = [](gpointer later) -> gboolean {
        auto *const due = static_cast<Later *>(later);
        const auto of = due->server->clients_.find(due->sender.client);
        if (of == due->server->clients_.end()) return G_SOURCE_REMOVE;
        const Packet joined = std::exchange(of->second.joined, {});
        due->server->write_out(of->second, joined);
        return G_SOURCE_REMOVE;
      };
      g_timeout_add_full(G_PRIORITY_DEFAULT, joined_ms, run, new Later{this, sender, {}},
                         [](gpointer later) { delete static_cast<Later *>(later); });
    }
    client.joined.insert(client.joined.end(), packet.begin(), packet.end());
    return;
  }
  if (client.kind == Kind::udp || client.kind == Kind::udp_header) {
    return send_datagram(sender.client, packet, client.kind == Kind::udp_header, sender.sequence);
  }
  deliver_stream(client, std::move(packet));
}

void Server::deliver_stream(Client &client, Packet packet) {
  const Quirks &quirks = options_.camera.quirks;
  if (quirks.has(Quirk::endless) && !std::exchange(client.was_flooded, true)) write_out(client, Packet(5000, 0x05));
  if (quirks.has(Quirk::noise)) {
    write_out(client, {static_cast<std::uint8_t>(random_()), static_cast<std::uint8_t>(random_()),
                       static_cast<std::uint8_t>(random_() % 0x80)});
  }
  if (!quirks.has(Quirk::split) || packet.size() < 3) return write_out(client, packet);
  const auto middle = packet.begin() + static_cast<std::ptrdiff_t>(packet.size() / 2);
  write_out(client, Packet(packet.begin(), middle));
  g_usleep(split_ms * 1000);  // nothing may come between the halves
  write_out(client, Packet(middle, packet.end()));
}

void Server::send_datagram(unsigned number, const Packet &datagram, bool is_kept, std::uint32_t sequence) {
  Client &client = clients_[number];
  if (is_kept) {
    for (auto &[answered, datagrams] : client.answers) {
      if (answered == sequence) datagrams.push_back(datagram);
    }
  }
  if (by_chance(options_.loss_percent)) return;
  const int times = by_chance(options_.duplicate_percent) ? 2 : 1;
  for (int time = 0; time < times; ++time) {
    if (!by_chance(options_.reorder_percent)) {
      write_out(client, datagram);
      continue;
    }
    const auto run = [](gpointer later) -> gboolean {
      auto *const due = static_cast<Later *>(later);
      due->server->write_out(due->server->clients_[due->sender.client], due->packet);
      return G_SOURCE_REMOVE;
    };
    g_timeout_add_full(G_PRIORITY_DEFAULT, 3, run, new Later{this, {number, 0}, datagram},
                       [](gpointer later) { delete static_cast<Later *>(later); });
  }
}

void Server::write_out(const Client &client, const Packet &bytes) {
  if (bytes.empty()) return;
  if (client.kind == Kind::terminal || client.kind == Kind::tcp) {
    const ssize_t written = write(client.fd, bytes.data(), bytes.size());
    if (written < 0) note('!', bytes);
    return;
  }
  const int from = options_.camera.quirks.has(Quirk::other_address) ? other_udp_ : client.fd;
  sendto(from, bytes.data(), bytes.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&client.address),
         client.address_size);
}

}  // namespace visca_sim
