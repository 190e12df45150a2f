// camera.h - a simulated camera: takes whole packets, gives replies, moves.
//
// The bytes are written from the protocol's tables once more, apart from the driver's codec, so that one misreading
// does not hide another. A camera has no descriptor: its endpoint hands it packets with handle(), takes the replies in
// Sink::reply(), and calls advance() often enough for motion to look real.
#pragma once
#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "motion.h"
#include "quirks.h"

namespace visca_sim {

using Packet = std::vector<std::uint8_t>;

struct CameraOptions {
  Quirks quirks;
  double speed_factor = 1;
  bool starts_on = true;
  std::int64_t power_on_us = 1'000'000;
  std::int64_t ack_delay_us = 0;
};

// The receiver of a reply: a client of the endpoint and the number of its message, which the camera only returns.
struct Sender {
  unsigned client = 0;
  std::uint32_t sequence = 0;
};

class Sink {
 public:
  virtual ~Sink() = default;
  virtual void reply(const Sender &sender, const Packet &packet, std::int64_t delay_us) = 0;
};

class Camera {
  enum class Work { none, immediate, pan_tilt, zoom, recall };
  struct Socket {
    bool busy = false;
    Work work = Work::none;
    Sender sender;
    std::int64_t held_until_us = 0;
  };
  struct Place {
    int pan, tilt, zoom, focus;
  };

  Sink &sink_;
  const CameraOptions options_;
  const std::uint8_t address_;
  Axis pan_{-2267, 2267}, tilt_{-400, 1200}, zoom_{0, 0x4000}, focus_{0x1000, 0xf000};
  std::array<Socket, 2> sockets_;
  std::array<std::optional<Place>, 16> memory_;
  std::int64_t now_us_ = 0, on_at_us_ = 0;
  bool on_, autofocus_ = true;

  void send(const Sender &sender, Packet message, std::int64_t delay_us = 0);
  void error(const Sender &sender, std::uint8_t socket, std::uint8_t code);
  void complete(unsigned index);
  void begin(const Sender &sender, Work work, bool silent = false);
  void replace(Work work);
  [[nodiscard]] bool is_moving(Work work) const;
  void handle_command(const Sender &sender, const Packet &packet);
  void handle_inquiry(const Sender &sender, const Packet &packet);
  void handle_cancel(const Sender &sender, unsigned socket);
  void handle_lens(const Sender &sender, const Packet &packet);
  void handle_pan_tilt(const Sender &sender, const Packet &packet);
  void drive(const Sender &sender, const Packet &packet);
  void go(const Sender &sender, const Packet &packet, bool relative);
  void drive_lens(const Sender &sender, Axis &axis, std::uint8_t value);
  void use_memory(const Sender &sender, const Packet &packet);
  void set_power(const Sender &sender, std::uint8_t value);
  [[nodiscard]] bool is_full() const { return sockets_[0].busy && sockets_[1].busy; }

 public:
  Camera(Sink &sink, const CameraOptions &options, std::uint8_t address)
      : sink_(sink), options_(options), address_(address), on_(options.starts_on) {}
  Camera(const Camera &) = delete;

  // A packet with header and terminator.
  void handle(const Sender &sender, const Packet &packet, std::int64_t now_us);
  void advance(std::int64_t now_us);
  void clear();
  [[nodiscard]] bool moves() const { return pan_.moves() || tilt_.moves() || zoom_.moves() || focus_.moves(); }
  [[nodiscard]] bool works() const { return moves() || sockets_[0].busy || sockets_[1].busy || on_at_us_ != 0; }
  [[nodiscard]] std::string describe() const;
};

}  // namespace visca_sim
