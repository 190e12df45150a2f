// bus_connection.h - the connection to the system bus that this process shares with the library.
#pragma once
#include <gio/gio.h>

#include "owners.h"

namespace sim {

// Whether com.velk.PTZ.NAME can be the name of a service, and /com/velk/PTZ/NAME that of its object.
[[nodiscard]] bool is_bus_name(const char *short_name);

// Main context.
class BusConnection {
  Object<GDBusConnection> connection_;

 public:
  BusConnection() = default;
  BusConnection(const BusConnection &) = delete;
  ~BusConnection();
  // Waits for a bus that does not answer for at most five seconds, and not longer than until SIGTERM or SIGINT: then
  // it is TRUE without a connection, and the driver ends when it obeys the signal. From then on, the library finds the
  // connection made. A line in the log tells when it is lost.
  [[nodiscard]] bool open(GError **error);
  [[nodiscard]] bool is_open() const { return connection_ != nullptr; }
};

}  // namespace sim
