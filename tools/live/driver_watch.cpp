#include "driver_watch.h"

#include <gio/gio.h>
#include <ptz_kit_body.h>

#include <algorithm>
#include <set>

#include "figures.h"
#include "status_group.h"

namespace ptzctl {

namespace {

constexpr guint answer_ms = 150;
constexpr gint64 look_us = 400'000;         // for all drivers of one look
constexpr gint64 ask_again_us = 3'000'000;  // after a driver has not answered
constexpr char no_answer[] = "does not answer", socket_gone[] = "its socket is gone";

void read_status(DriverSight &sight) {
  sight.status_age_ms.reset();
  sight.is_status_stale = false;
  if (sight.instance == 0) return;
  StatusGroup group(position_kind, sight.instance);
  if (read_group(group.name, group.values) != Reading::done) return;
  sight.status_age_ms = group.age_ms();
  sight.is_status_stale = group.is_stale();
}

}  // namespace

void DriverWatch::read_figures(DriverSight &sight, const std::string &key, GVariant *figures) {
  const gint64 now_us = g_get_monotonic_time();
  sight.load = history_.load_of(key, now_us, Counters(figures));
  sight.clients.clear();
  const tools::Variant clients(g_variant_lookup_value(figures, "clients", G_VARIANT_TYPE("aa{sv}")));
  for (gsize i = 0; clients != nullptr && i < g_variant_n_children(clients.get()); ++i) {
    const tools::Variant figures_of_client(g_variant_get_child_value(clients.get(), i));
    GVariant *const each = figures_of_client.get();
    ClientSight client;
    gint32 command = 0;
    g_variant_lookup(each, "client", "u", &client.number);
    g_variant_lookup(each, "pid", "i", &client.pid);
    client.program = text_in(each, "program");
    client.state = state_of_process(client.pid);
    if (g_variant_lookup(each, "last-command", "i", &command) != FALSE) {
      const gchar *const name = ptz_kit_command_name(command);
      client.last_command = name != nullptr ? name : std::to_string(command);
    }
    client.load = history_.load_of(key + "#" + std::to_string(client.number), now_us, Counters(each));
    sight.clients.push_back(client);
  }
}

// What a driver that gives no figures does now is unknown. Its clients may have ended meanwhile.
void DriverWatch::forget_loads(DriverSight &sight) {
  const auto forget = [](Load &load) { load.requests_per_s = load.bytes_per_s = load.p50_us = load.p99_us = -1; };
  forget(sight.load);
  for (ClientSight &client : sight.clients) {
    forget(client.load);
    client.state = state_of_process(client.pid);
  }
  std::erase_if(sight.clients, [](const ClientSight &client) { return client.state == ProcessState::dead; });
}

// The next figures of a driver that was not asked, or has not answered, are compared with the last ones that it gave.
void DriverWatch::keep_loads(const std::string &key, const DriverSight &sight) {
  history_.keep(key);
  for (const ClientSight &client : sight.clients) history_.keep(key + "#" + std::to_string(client.number));
}

void DriverWatch::look_at(Watched &watched, const std::string &key, guint timeout_ms) {
  DriverSight &sight = watched.last;
  watched.asked_us = g_get_monotonic_time();
  if (watched.monitor == nullptr) watched.monitor.reset(ptz_kit_monitor_new(sight.socket.c_str()));
  tools::Error error;
  tools::Variant figures;
  if (ptz_kit_monitor_open(watched.monitor.get(), tools::out(error)) != FALSE) {
    figures.reset(ptz_kit_monitor_get_figures(watched.monitor.get(), timeout_ms, nullptr, tools::out(error)));
  }
  if (figures != nullptr) {
    if (sight.problem != socket_gone) sight.problem.clear();
    watched.next_us = 0;
    read_figures(sight, key, figures.get());
    return;
  }
  // A late answer would be taken for that to the next question.
  watched.monitor.reset();
  const bool is_late = g_error_matches(error.get(), PTZ_KIT_ERROR, PTZ_KIT_ERROR_TIMED_OUT) != FALSE;
  sight.problem = is_late                                                               ? no_answer
                  : g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_NOT_FOUND) != 0 ? "has no monitor socket"
                                                                                        : error->message;
  watched.next_us = g_get_monotonic_time() + ask_again_us;
}

// Keys of the drivers in the order of the list.
std::vector<std::string> DriverWatch::update_entries(const tools::RegistryList &list) {
  std::vector<std::string> keys;
  for (guint i = 0; i < list->len; ++i) {
    const auto &entry = *static_cast<const PTZKitRegistryEntry *>(g_ptr_array_index(list.get(), i));
    keys.push_back(std::to_string(entry.pid) + " " + std::to_string(entry.since) + " " + entry.socket_path);
    DriverSight &sight = watched_[keys.back()].last;
    sight.name = entry.name;
    sight.socket = entry.socket_path;
    sight.program = entry.program != nullptr ? entry.program : "";
    sight.pid = entry.pid;
    sight.instance = entry.instance;
    sight.state = entry.liveness == PTZ_KIT_DRIVER_DEAD ? ProcessState::dead : state_of_process(entry.pid);
    if (sight.problem == socket_gone) sight.problem.clear();
    if (entry.liveness == PTZ_KIT_DRIVER_STOLEN) sight.problem = socket_gone;
    if (is_out_of_action(sight.state)) sight.problem = no_answer;
  }
  const std::set<std::string> present(keys.begin(), keys.end());
  std::erase_if(watched_, [&](const auto &each) { return !present.contains(each.first); });
  return keys;
}

std::optional<std::vector<DriverSight>> DriverWatch::look(std::string &problem) {
  tools::Error error;
  const tools::RegistryList list = tools::registered_drivers(error);
  if (list == nullptr) {
    problem = error->message;
    return std::nullopt;
  }
  const std::vector<std::string> keys = update_entries(list);
  std::vector<std::string> order = keys;
  std::ranges::stable_sort(order, {}, [this](const std::string &key) { return watched_.at(key).asked_us; });
  const gint64 end_us = g_get_monotonic_time() + look_us;
  for (const std::string &key : order) {
    Watched &watched = watched_.at(key);
    const gint64 now_us = g_get_monotonic_time();
    if (is_out_of_action(watched.last.state)) {
      watched.monitor.reset();
      watched.next_us = 0;
    } else if (now_us >= watched.next_us && now_us < end_us) {
      look_at(watched, key, answer_ms);
    }
    if (!watched.last.problem.empty()) forget_loads(watched.last);
    keep_loads(key, watched.last);
    read_status(watched.last);
  }
  history_.end_of_round();
  std::vector<DriverSight> sights;
  for (const std::string &key : keys) sights.push_back(watched_.at(key).last);
  return sights;
}

}  // namespace ptzctl
