// address.h - where a line is: "serial:/dev/ttyUSB0?baud=9600", "udp:HOST:PORT", "udp-raw:HOST:PORT", "tcp:HOST:PORT".
#pragma once
#include <cstdint>
#include <optional>
#include <string>

namespace visca {

enum class TransportKind { serial, udp, udp_raw, tcp };

struct Address {
  TransportKind kind = TransportKind::udp;
  std::string host;  // or the path of the terminal
  std::uint16_t port = 0;
  unsigned baud = 9600;
};

// A port may be missing: 52381, 1259 and 5678 are the usual ones. Brackets are needed around an IPv6 address with a
// port. On failure empty, and the reason is in `problem`.
[[nodiscard]] std::optional<Address> parse_address(const std::string &text, std::string &problem);

}  // namespace visca
