#include "top_view.h"

#include <algorithm>
#include <array>
#include <functional>

#include "plain_text.h"

namespace ptzctl {

namespace {

constexpr std::array<const char *, 5> order_names = {"requests", "latency", "errors", "pending",
                                                     "name"};  // by TopOrder
constexpr std::size_t widest_name = 28;

std::string base_name(const std::string &path) { return path.substr(path.rfind('/') + 1); }

bool has_text(const std::string &text, const std::string &part) {
  const tools::Text folded(g_utf8_strdown(tools::plain_text(text).c_str(), -1));
  const tools::Text wanted(g_utf8_strdown(tools::plain_text(part).c_str(), -1));
  return std::string(folded.get()).find(wanted.get()) != std::string::npos;
}

bool is_client_chosen(const ClientSight &client, const std::string &filter) {
  return has_text(client.program, filter) || has_text(std::to_string(client.pid), filter);
}

bool is_driver_chosen(const DriverSight &driver, const std::string &filter) {
  return has_text(driver.name, filter) || has_text(driver.socket, filter) || has_text(driver.program, filter) ||
         has_text(std::to_string(driver.pid), filter);
}

double key_of(TopOrder order, const Load &load) {
  switch (order) {
    case TopOrder::requests:
      return load.requests_per_s;
    case TopOrder::latency:
      return load.p99_us;
    case TopOrder::errors:
      return static_cast<double>(load.total.errors);
    case TopOrder::pending:
      return load.total.pending;
    case TopOrder::name:
      break;
  }
  return 0;
}

std::string printed(const char *format, double value) {
  const tools::Text text(g_strdup_printf(format, value));
  return text.get();
}

// "12", "1.2k", "3.4M"
std::string short_number(double value) {
  if (value < 0) return "-";
  if (value < 1e3) return printed(value < 10 && value > 0 ? "%.1f" : "%.0f", value);
  return value < 1e6 ? printed("%.1fk", value / 1e3) : printed("%.1fM", value / 1e6);
}

std::string time_text(double us) {
  if (us < 0) return "-";
  if (us < 1e3) return printed("%.0fus", us);
  return us < 1e6 ? printed("%.1fms", us / 1e3) : printed("%.2fs", us / 1e6);
}

std::string status_text(const DriverSight &driver) {
  if (driver.instance == 0) return "";
  if (!driver.status_age_ms) return "status unknown";
  return "status " + time_text(static_cast<double>(*driver.status_age_ms) * 1e3) +
         (driver.is_status_stale ? " stale" : "");
}

std::string row(const std::string &name, const std::string &pid, const char *state,
                const std::array<std::string, 7> &figures, const std::string &last) {
  std::string shown = tools::plain_text(name);
  if (g_utf8_strlen(shown.c_str(), -1) > static_cast<glong>(widest_name)) {
    const tools::Text cut(g_utf8_substring(shown.c_str(), 0, widest_name));
    shown = cut.get();
  }
  shown.append(widest_name - static_cast<std::size_t>(g_utf8_strlen(shown.c_str(), -1)), ' ');
  const tools::Text text(g_strdup_printf("%s %7s %-8s %7s %7s %7s %7s %8s %7s %6s  %s", shown.c_str(), pid.c_str(),
                                         state, figures[0].c_str(), figures[1].c_str(), figures[2].c_str(),
                                         figures[3].c_str(), figures[4].c_str(), figures[5].c_str(), figures[6].c_str(),
                                         last.c_str()));
  return text.get();
}

std::array<std::string, 7> figures_of(const Load &load) {
  return {short_number(load.requests_per_s),
          time_text(load.p50_us),
          time_text(load.p99_us),
          short_number(static_cast<double>(load.total.errors)),
          short_number(load.bytes_per_s),
          std::to_string(load.total.pending),
          short_number(static_cast<double>(load.total.unsent))};
}

StatusScreen::Line line_of(const DriverSight &driver) {
  const bool has_figures = driver.problem.empty();
  const std::string name = driver.name + ":" + std::to_string(driver.instance);
  const std::string status = status_text(driver), problem = tools::plain_text(driver.problem);
  const std::string last = problem + (problem.empty() || status.empty() ? "" : ", ") + status;
  const auto figures =
      has_figures ? figures_of(driver.load) : std::array<std::string, 7>{"-", "-", "-", "-", "-", "-", "-"};
  const Look look = !has_figures || is_out_of_action(driver.state) ? Look::bad
                    : driver.is_status_stale                       ? Look::notice
                                                                   : Look::heading;
  return {row(name, std::to_string(driver.pid), name_of(driver.state), figures, last), look};
}

StatusScreen::Line line_of(const ClientSight &client) {
  const std::string name =
      "  #" + std::to_string(client.number) + " " + (client.program.empty() ? "unknown" : base_name(client.program));
  return {row(name, client.pid > 0 ? std::to_string(client.pid) : "-", name_of(client.state), figures_of(client.load),
              client.last_command),
          is_out_of_action(client.state) ? Look::bad : Look::plain};
}

}  // namespace

const char *name_of(TopOrder order) { return order_names[static_cast<std::size_t>(order)]; }

std::optional<TopOrder> top_order_named(const std::string &name) {
  const auto *const found = std::ranges::find(order_names, name);
  if (found == order_names.end()) return std::nullopt;
  return static_cast<TopOrder>(found - order_names.begin());
}

std::optional<TopOrder> top_order_of_key(int key) {
  const auto *const found = std::ranges::find(order_names, key, [](const char *name) { return name[0]; });
  if (found == order_names.end()) return std::nullopt;
  return static_cast<TopOrder>(found - order_names.begin());
}

std::vector<DriverSight> chosen(std::vector<DriverSight> drivers, const std::string &filter) {
  if (filter.empty()) return drivers;
  std::erase_if(drivers, [&](DriverSight &driver) {
    if (is_driver_chosen(driver, filter)) return false;
    std::erase_if(driver.clients, [&](const ClientSight &client) { return !is_client_chosen(client, filter); });
    return driver.clients.empty();
  });
  return drivers;
}

void sort_by(TopOrder order, std::vector<DriverSight> &drivers) {
  const auto of_load = [order](const auto &each) { return key_of(order, each.load); };
  std::ranges::stable_sort(drivers, {}, [](const DriverSight &each) { return std::pair(each.name, each.instance); });
  if (order != TopOrder::name) std::ranges::stable_sort(drivers, std::greater<>(), of_load);
  for (DriverSight &driver : drivers) {
    if (order == TopOrder::name) {
      std::ranges::stable_sort(driver.clients, {}, [](const ClientSight &each) { return base_name(each.program); });
    } else {
      std::ranges::stable_sort(driver.clients, std::greater<>(), of_load);
    }
  }
}

std::string top_titles() {
  return row("DRIVER, #CLIENT", "PID", "STATE", {"REQ/S", "P50", "P99", "ERRORS", "BYTES/S", "PENDING", "UNSENT"},
             "STATUS, LAST COMMAND");
}

std::vector<StatusScreen::Line> top_lines(const std::vector<DriverSight> &drivers) {
  std::vector<StatusScreen::Line> lines;
  for (const DriverSight &driver : drivers) {
    lines.push_back(line_of(driver));
    for (const ClientSight &client : driver.clients) lines.push_back(line_of(client));
  }
  return lines;
}

}  // namespace ptzctl
