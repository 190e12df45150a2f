// server.h - the ways to the simulated cameras: a pseudo-terminal, UDP with and without header, TCP.
//
// Main context. Each client is a peer that has sent something: the terminal, a TCP connection, or an address that
// datagrams came from. The cameras know a client by its number only. The timer runs while a camera works.
#pragma once
#include <glib-unix.h>
#include <netinet/in.h>

#include <deque>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "camera.h"

namespace visca_sim {

struct ServerOptions {
  CameraOptions camera;
  unsigned cameras = 1;                                              // on the pseudo-terminal
  int loss_percent = 0, duplicate_percent = 0, reorder_percent = 0;  // of datagrams, each way
  std::string log_file;
};

class Server final : public Sink {
  enum class Kind { terminal, tcp, udp, udp_header };
  struct Client {
    Kind kind = Kind::terminal;
    int fd = -1;
    sockaddr_storage address = {};
    socklen_t address_size = 0;
    Packet part;  // of a packet that is not complete
    Packet joined;
    bool has_numbers = false;
    std::uint32_t last_number = 0;
    std::deque<std::pair<std::uint32_t, std::vector<Packet>>> answers;  // by number, for repeats
    bool was_flooded = false;
  };

  const ServerOptions options_;
  std::vector<std::unique_ptr<Camera>> cameras_;
  std::map<unsigned, Client> clients_;
  std::map<int, unsigned> client_of_fd_;
  std::vector<std::pair<int, guint>> watches_;
  unsigned next_client_ = 1, replies_ = 0;
  int terminal_slave_ = -1, other_udp_ = -1;
  std::string terminal_link_;
  guint tick_ = 0, change_ = 0;
  FILE *log_ = nullptr;
  std::mt19937 random_{1};

  static gboolean on_tick(gpointer server);
  static gboolean on_network_change(gpointer server);
  static gboolean on_accept(gint fd, GIOCondition, gpointer server);
  static gboolean on_stream(gint fd, GIOCondition condition, gpointer server);
  static gboolean on_datagram(gint fd, GIOCondition, gpointer server);
  static gboolean on_header_datagram(gint fd, GIOCondition, gpointer server);
  void read_datagram(int fd, Kind kind);
  void watch(int fd, GUnixFDSourceFunc function);
  void unwatch(int fd);
  unsigned client_at(int fd, Kind kind, const sockaddr_storage &address, socklen_t size);
  [[nodiscard]] bool by_chance(int percent) { return static_cast<int>(random_() % 100) < percent; }

  void take_stream(unsigned client, const std::uint8_t *data, std::size_t size);
  void take_packet(const Sender &sender, const Packet &packet);
  void take_broadcast(const Sender &sender, const Packet &packet);
  void take_message(unsigned client, const Packet &datagram);
  bool is_repeat(unsigned client, std::uint32_t number);
  void control(unsigned client, std::uint32_t number, const Packet &payload);
  void start_ticking();

  void deliver(const Sender &sender, const Packet &packet);
  void deliver_stream(Client &client, Packet packet);
  void send_datagram(unsigned client, const Packet &datagram, bool is_kept, std::uint32_t number);
  void write_out(const Client &client, const Packet &bytes);
  void note(char direction, const Packet &packet);

 public:
  explicit Server(const ServerOptions &options);
  Server(const Server &) = delete;
  ~Server() override;

  // Each prints what it listens on; false, with the reason printed, on failure.
  bool open_terminal(const std::string &link);
  bool open_udp(const char *host, int port, bool has_header);
  bool open_tcp(const char *host, int port);

  void reply(const Sender &sender, const Packet &packet, std::int64_t delay_us) override;
};

}  // namespace visca_sim
