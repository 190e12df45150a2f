// line.h - a transport and the cameras behind it: one over IP, up to seven on a serial line.
//
// Main context. States: closed (the transport is opened again after a back-off), addressing (serial: address set, then
// interface clear, each sent twice at most), open (the links run). Over IP a line is open as soon as its transport is.
// A line without a camera that answers opens its transport again every `retry_us`, so that the host is resolved anew.
//
// One timer serves the line, its links and their users: armed for the earliest deadline of all of them. It is a timer
// descriptor, because changing the time of a GSource wakes the main loop up once more each time.
#pragma once
#include <array>
#include <cstdio>

#include "link.h"
#include "transport.h"

namespace visca {

struct LineOptions {
  Address address;
  IpOptions ip;
  LinkOptions link;
  std::int64_t most_backoff_us = 1'000'000;
  std::string trace_file;  // every packet is appended to it
};

// A camera's head: the user of its link, with deadlines of its own.
class LineUser : public LinkUser {
 public:
  // The link is there as long as the line is.
  virtual void attached(Link &link) = 0;
  [[nodiscard]] virtual std::int64_t deadline() const = 0;
  virtual void advance(std::int64_t now) = 0;
};

class Line final : public Wire, public TransportUser {
  enum class State : Byte { closed, addressing, clearing, open };
  struct Camera {
    std::unique_ptr<Link> link;
    LineUser *user = nullptr;
  };

  const LineOptions options_;
  std::unique_ptr<Transport> transport_;
  std::vector<Camera> cameras_;
  PacketAssembler assembler_;
  UniqueFd timer_;
  Watch timer_watch_;
  State state_ = State::closed;
  std::int64_t armed_us_ = 0, next_us_ = 0, backoff_us_ = 0;
  unsigned tries_ = 0;
  std::size_t next_turn_ = 0;  // camera that may send first
  std::int64_t addressed_us_ = 0, opened_us_ = 0;
  bool is_busy_ = false, must_rearm_ = false, must_readdress_ = false;
  std::string trouble_;
  FILE *trace_ = nullptr;

  static gboolean on_timer(gint fd, GIOCondition, gpointer line);
  void arm(std::int64_t when_us);
  void run(std::int64_t now);
  void open_links(std::int64_t now);
  void set_addresses(std::int64_t now);
  void look_for_cameras(std::int64_t now);
  void readdress(std::int64_t now);
  void on_line_reply(const Reply &reply, std::int64_t now);
  void on_packet(ByteSpan packet, std::optional<std::uint32_t> sequence);
  void on_datagram(ByteSpan datagram);
  [[nodiscard]] bool is_serial() const { return options_.address.kind == TransportKind::serial; }
  [[nodiscard]] bool is_any_up() const;
  void trace(char direction, ByteSpan bytes);

  void transport_is_open() override;
  void transport_is_closed(const std::string &reason) override;
  void on_bytes(ByteSpan bytes) override;

 public:
  explicit Line(const LineOptions &options, TransportMaker maker = make_transport);
  Line(const Line &) = delete;
  ~Line() override;

  // Before start().
  Link &add_camera(Byte address, LineUser &user);
  void start();
  void stop();
  // Why there is no connection; empty if there is one.
  [[nodiscard]] const std::string &trouble() const { return trouble_; }
  // A user has another deadline.
  void changed() override;

  void send(ByteSpan packet, PayloadType type, std::uint32_t sequence) override;
  [[nodiscard]] bool is_free_for(const Link &link) const override;
};

// The time-outs that suit the transport.
[[nodiscard]] LinkOptions link_options_for(TransportKind kind);

}  // namespace visca
