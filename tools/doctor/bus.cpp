// The system bus: names of services, and the policy that lets drivers own them.
#include <gio/gio.h>
#include <unistd.h>

#include <algorithm>

#include "doctor/examinations.h"
#include "doctor/process_facts.h"
#include "doctor/shell_text.h"

namespace ptzctl {

namespace {

constexpr char prefix[] = "com.velk.PTZ";
constexpr const char *policy_folders[] = {"/etc/dbus-1/system.d", "/usr/share/dbus-1/system.d"};

using Connection = tools::Object<GDBusConnection>;

// The name that the driver's options make it serve; empty if none.
std::string service_of(const Driver &driver) {
  const auto words = arguments_of(driver.pid);
  for (std::size_t i = 1; i < words.size(); ++i) {
    if (words[i] == "--dbus" && i + 1 < words.size()) return std::string(prefix) + "." + words[i + 1];
    if (words[i].starts_with("--dbus=")) return std::string(prefix) + "." + words[i].substr(7);
  }
  return "";
}

bool is_policy_installed() {
  for (const char *folder : policy_folders) {
    for (const auto &name : names_in(folder)) {
      if (beginning_of(std::string(folder) + "/" + name).find(prefix) != std::string::npos) return true;
    }
  }
  return false;
}

// The process that owns the name; 0 if none does.
pid_t owner_of(GDBusConnection *bus, const std::string &name, guint timeout_ms) {
  const tools::Variant reply(g_dbus_connection_call_sync(
      bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetConnectionUnixProcessID",
      g_variant_new("(s)", name.c_str()), G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NO_AUTO_START,
      static_cast<gint>(timeout_ms), nullptr, nullptr));
  guint32 pid = 0;
  if (reply != nullptr) g_variant_get(reply.get(), "(u)", &pid);
  return static_cast<pid_t>(pid);
}

void check_name(GDBusConnection *bus, const Driver &driver, const std::string &name, guint timeout_ms,
                Findings &findings) {
  const pid_t owner = owner_of(bus, name, timeout_ms);
  if (owner == driver.pid) return;
  if (owner == 0) {
    findings.fault({.id = "bus.no-name",
                    .subject = driver.label(),
                    .what = "The driver does not own the name " + name + " on the system bus.",
                    .why = "Its configuration cannot be reached. The bus was restarted, or the policy denies the name.",
                    .command = restart_command(driver)});
  } else {
    findings.fault({.id = "bus.name-taken",
                    .subject = driver.label(),
                    .what = "Process " + name_of_process(owner) + " owns the name " + name + " on the system bus.",
                    .why = "Two drivers of the same kind: the configuration of this one cannot be reached.",
                    .command = "kill " + std::to_string(owner)});
  }
}

}  // namespace

void examine_bus(const Surroundings &system, Findings &findings) {
  std::vector<std::pair<const Driver *, std::string>> services;
  for (const auto &driver : system.drivers) {
    if (const auto name = driver.runs() ? service_of(driver) : ""; !name.empty()) services.emplace_back(&driver, name);
  }
  const std::string subject = services.empty() ? "system bus" : services.front().first->label();
  if (!services.empty() && !is_policy_installed()) {
    findings.warning({.id = "bus.no-policy",
                      .subject = subject,
                      .what = format("No file in %s mentions %s.", policy_folders[1], prefix),
                      .why = "Without a policy, the bus lets no driver own its name, and no user call it.",
                      .command = "apt install --reinstall ptznimbo-system"});
  }
  tools::Error error;
  const Connection bus(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, tools::out(error)));
  if (bus == nullptr) {
    Finding finding = {.id = "bus.unreachable",
                       .subject = subject,
                       .what = "The system bus cannot be reached: " + std::string(error->message) + ".",
                       .why = "Services on the bus, such as the configuration of drivers, are not there.",
                       .command = access("/run/systemd/system", F_OK) == 0 ? "systemctl start dbus.socket" : ""};
    return services.empty() ? findings.note(std::move(finding)) : findings.fault(std::move(finding));
  }
  g_dbus_connection_set_exit_on_close(bus.get(), FALSE);
  for (const auto &[driver, name] : services) check_name(bus.get(), *driver, name, system.timeout_ms, findings);
}

}  // namespace ptzctl
