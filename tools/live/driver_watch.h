// driver_watch.h - one look after another at all registered drivers and their clients.
#pragma once
#include <ptz_kit_monitor.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "driver_socket.h"
#include "load.h"
#include "process_state.h"

namespace ptzctl {

struct ClientSight {
  guint32 number = 0;
  gint32 pid = 0;
  std::string program;
  ProcessState state = ProcessState::unknown;
  std::string last_command;  // empty if it has sent nothing
  Load load;
};

struct DriverSight {
  std::string name, socket, program;
  gint32 pid = 0;
  guint32 instance = 0;
  ProcessState state = ProcessState::unknown;
  std::string problem;  // why it gives no figures; empty if it does
  Load load;
  std::optional<gint64> status_age_ms;
  bool is_status_stale = false;
  std::vector<ClientSight> clients;
};

// A driver that does not answer is asked again only now and then, and all of them together have a deadline: those that
// were not asked are the first ones of the next look.
class DriverWatch {
  struct Watched {
    tools::Object<PTZKitMonitor> monitor;
    DriverSight last;
    gint64 next_us = 0;   // not to be asked earlier
    gint64 asked_us = 0;  // when it was asked last
  };
  std::map<std::string, Watched> watched_;  // by process and socket
  LoadHistory history_;

  void look_at(Watched &watched, const std::string &key, guint timeout_ms);
  void read_figures(DriverSight &sight, const std::string &key, GVariant *figures);
  static void forget_loads(DriverSight &sight);
  void keep_loads(const std::string &key, const DriverSight &sight);
  [[nodiscard]] std::vector<std::string> update_entries(const tools::RegistryList &list);

 public:
  // Nothing with the problem told if the drivers cannot be listed.
  [[nodiscard]] std::optional<std::vector<DriverSight>> look(std::string &problem);
};

}  // namespace ptzctl
