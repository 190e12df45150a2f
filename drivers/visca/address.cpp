#include "address.h"

#include <glib.h>

#include <algorithm>

namespace visca {

namespace {

struct Scheme {
  const char *prefix;
  TransportKind kind;
  std::uint16_t port;
};
constexpr Scheme schemes[] = {{"serial:", TransportKind::serial, 0},
                              {"udp:", TransportKind::udp, 52381},
                              {"udp-raw:", TransportKind::udp_raw, 1259},
                              {"tcp:", TransportKind::tcp, 5678}};
constexpr unsigned bauds[] = {2400, 4800, 9600, 19200, 38400, 57600, 115200};

std::optional<unsigned> parse_number(const std::string &text, unsigned most) {
  guint64 number = 0;
  if (g_ascii_string_to_unsigned(text.c_str(), 10, 1, most, &number, nullptr) == FALSE) return std::nullopt;
  return static_cast<unsigned>(number);
}

bool parse_serial(const std::string &rest, Address &address, std::string &problem) {
  const std::size_t question = rest.find('?');
  address.host = rest.substr(0, question);
  if (question == std::string::npos) return true;
  const std::string option = rest.substr(question + 1);
  const std::string name = "baud=";
  const auto baud = option.starts_with(name) ? parse_number(option.substr(name.size()), 1'000'000) : std::nullopt;
  if (baud && std::ranges::find(bauds, *baud) != std::end(bauds)) {
    address.baud = *baud;
    return true;
  }
  problem = "\"" + option + "\" is not baud= with 2400, 4800, 9600, 19200, 38400, 57600 or 115200";
  return false;
}

bool parse_host(const std::string &rest, Address &address, std::string &problem) {
  std::size_t end = rest.rfind(':');
  const bool is_bracketed = !rest.empty() && rest.front() == '[';
  if (is_bracketed) {
    const std::size_t close = rest.find(']');
    if (close == std::string::npos || (close + 1 < rest.size() && rest[close + 1] != ':')) {
      problem = "the brackets are not closed";
      return false;
    }
    address.host = rest.substr(1, close - 1);
    end = close + 1 < rest.size() ? close + 1 : std::string::npos;
  } else {
    // More than one colon: an IPv6 address without a port.
    if (end != std::string::npos && rest.find(':') != end) end = std::string::npos;
    address.host = rest.substr(0, end);
  }
  if (end == std::string::npos) return true;
  const auto port = parse_number(rest.substr(end + 1), 65535);
  if (port) address.port = static_cast<std::uint16_t>(*port);
  if (!port) problem = "\"" + rest.substr(end + 1) + "\" is not a port";
  return port.has_value();
}

}  // namespace

std::optional<Address> parse_address(const std::string &text, std::string &problem) {
  for (const Scheme &scheme : schemes) {
    const std::string prefix = scheme.prefix;
    if (!text.starts_with(prefix)) continue;
    Address address = {scheme.kind, {}, scheme.port};
    const std::string rest = text.substr(prefix.size());
    const bool is_good = scheme.kind == TransportKind::serial ? parse_serial(rest, address, problem)
                                                              : parse_host(rest, address, problem);
    if (is_good && address.host.empty()) problem = "there is no host or terminal";
    if (!is_good || address.host.empty()) return std::nullopt;
    return address;
  }
  problem = "it does not begin with serial:, udp:, udp-raw: or tcp:";
  return std::nullopt;
}

}  // namespace visca
