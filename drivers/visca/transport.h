// transport.h - how bytes get to the cameras of a line and back. A transport owns its descriptor.
//
// Main context. open() begins to open; the user is told the result later, or before open() returns. After
// transport_is_closed() the transport is closed and may be opened again; when to do so is up to the user. close() tells
// nothing.
#pragma once
#include <memory>
#include <string>

#include "address.h"
#include "handles.h"
#include "packet.h"

namespace visca {

class TransportUser {
 public:
  virtual ~TransportUser() = default;
  virtual void transport_is_open() = 0;
  virtual void transport_is_closed(const std::string &reason) = 0;
  // Bytes of a stream, or one datagram.
  virtual void on_bytes(ByteSpan bytes) = 0;
};

class Transport {
 public:
  virtual ~Transport() = default;
  virtual void open() = 0;
  virtual void close() = 0;
  virtual void write(ByteSpan bytes) = 0;
};

struct IpOptions {
  bool any_host = false;         // take datagrams from other hosts than the camera, too
  std::uint16_t local_port = 0;  // of datagrams; 0: any
};

using TransportMaker = std::unique_ptr<Transport> (*)(const Address &, const IpOptions &, TransportUser &);
[[nodiscard]] std::unique_ptr<Transport> make_transport(const Address &address, const IpOptions &options,
                                                        TransportUser &user);

// A descriptor of a stream: a terminal or a connection. What cannot be written at once is kept, up to a limit.
class Stream {
  static constexpr std::size_t most_kept = 4096;
  TransportUser &user_;
  UniqueFd fd_;
  Watch readable_, writable_;
  std::string kept_;

  static gboolean on_readable(gint fd, GIOCondition condition, gpointer stream);
  static gboolean on_writable(gint fd, GIOCondition condition, gpointer stream);
  void fail(const std::string &reason);

 public:
  explicit Stream(TransportUser &user) : user_(user) {}
  [[nodiscard]] bool is_open() const { return bool(fd_); }
  void start(UniqueFd fd);
  void close();
  void write(ByteSpan bytes);
};

[[nodiscard]] std::unique_ptr<Transport> make_serial_transport(const Address &address, TransportUser &user);
[[nodiscard]] std::unique_ptr<Transport> make_tcp_transport(const Address &address, TransportUser &user);
[[nodiscard]] std::unique_ptr<Transport> make_udp_transport(const Address &address, const IpOptions &options,
                                                            TransportUser &user);

}  // namespace visca
