#include "dbus/system_bus.h"

#include <syslog.h>

namespace ptz {

Connection connect_to_system_bus() {
  Error error;
  Connection connection(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, out(error)));
  if (connection == nullptr) {
    syslog(LOG_ERR, "%s: %s", "Could not connect to the bus", message_of(error));
  } else {
    // GLib would end the process when the bus goes away.
    g_dbus_connection_set_exit_on_close(connection.get(), FALSE);
  }
  return connection;
}

}  // namespace ptz
