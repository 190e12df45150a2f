// kit/driver/service_manager.h - what a driver tells the service manager that has started it.
#pragma once
#include "handles.h"

namespace ptz_kit {

// Speaks the notification protocol of systemd by itself: one datagram to the socket that the environment names. The
// library for it would add more private memory to each driver than the kit may take altogether.
//
// Main context. The watchdog is fed from a timer, so a driver whose main loop hangs is ended by its unit.
class ServiceManager {
  Timer watchdog_;
  static gboolean on_alive(gpointer);

 public:
  void ready();
  void stopping();
};

}  // namespace ptz_kit
