// tests/dbus/config_event_fake.h - a configuration-event service that keeps what is asked of it, in place of the
// platform's.
#pragma once
#include <string>
#include <vector>

namespace ptz_test {

struct ConfigEventFake {
  std::vector<std::string> calls;  // such as "declare owner /path interface"
  int events = 0;                  // that exist now
  bool makes_events = true;
  bool declares = true;
  bool undeclares = true;
  bool sends = true;
  bool gives_errors = true;  // with a failure
};
extern ConfigEventFake config_events;

}  // namespace ptz_test
