#include "top_view.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>

#include "plain_text.h"

namespace ptzctl {

namespace {

constexpr std::array<const char *, 5> order_names = {"requests", "latency", "errors", "pending",
                                                     "name"};  // by TopOrder
constexpr std::array<const char *, 7> no_figures = {"-", "-", "-", "-", "-", "-", "-"};

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

// "12", "1.2k"
std::string short_count(guint64 count) {
  return count < 1000 ? std::to_string(count) : short_number(static_cast<double>(count));
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

// In the order of the screen.
struct Column {
  const char *title;
  std::size_t width;
  bool is_left;
  int use;  // the least useful column is left out first
};
constexpr std::array<Column, 11> columns = {{{"DRIVER, #CLIENT", 28, true, 11},
                                             {"PID", 7, false, 5},
                                             {"STATE", 8, true, 9},
                                             {"REQ/S", 7, false, 10},
                                             {"P50", 7, false, 3},
                                             {"P99", 7, false, 7},
                                             {"ERRORS", 7, false, 8},
                                             {"BYTES/S", 8, false, 2},
                                             {"PENDING", 7, false, 4},
                                             {"UNSENT", 6, false, 1},
                                             {"STATUS, LAST COMMAND", 20, true, 6}}};
using Row = std::array<std::string, columns.size()>;

// Widths of the columns; 0 for one that is left out. The name gives way before a column does.
std::array<std::size_t, columns.size()> widths_within(std::size_t width) {
  constexpr std::size_t least_name = 20;
  std::array<std::size_t, columns.size()> widths;
  std::ranges::transform(columns, widths.begin(), &Column::width);
  const auto excess = [&] {
    std::size_t total = 0;
    for (const std::size_t each : widths) total += each > 0 ? each + 1 : 0;
    return total > width ? total - width : 0;
  };
  for (int use = 1; excess() > columns[0].width - least_name && use < columns[0].use; ++use) {
    const auto *const least = std::ranges::find(columns, use, &Column::use);
    widths[static_cast<std::size_t>(least - columns.begin())] = 0;
  }
  widths[0] -= std::min(excess(), widths[0] - std::min<std::size_t>(widths[0], std::strlen(columns[0].title)));
  return widths;
}

std::string cut(const std::string &text, std::size_t width) {
  if (static_cast<std::size_t>(g_utf8_strlen(text.c_str(), -1)) <= width) return text;
  const tools::Text beginning(g_utf8_substring(text.c_str(), 0, static_cast<glong>(width)));
  return beginning.get();
}

// The last column needs no padding, and has what is left of the width.
std::string line_of(const Row &row, std::size_t width) {
  const auto widths = widths_within(width);
  std::string line;
  for (std::size_t i = 0; i < columns.size(); ++i) {
    if (widths[i] == 0) continue;
    const bool is_last = i + 1 == columns.size();
    if (i > 0) line += is_last ? "  " : " ";
    const std::string text = is_last ? row[i] : cut(row[i], i == 0 ? widths[i] : any_width);
    const auto length = static_cast<std::size_t>(g_utf8_strlen(text.c_str(), -1));
    const std::string padding(is_last || length > widths[i] ? 0 : widths[i] - length, ' ');
    line += columns[i].is_left ? text + padding : padding + text;
  }
  return width == any_width ? line : cut(line, width);
}

Row row_of(const std::string &name, const std::string &pid, const char *state,
           const std::array<std::string, 7> &figures, const std::string &last) {
  Row row = {tools::plain_text(name), pid, state};
  std::ranges::copy(figures, row.begin() + 3);
  row.back() = last;
  return row;
}

std::array<std::string, 7> figures_of(const Load &load) {
  return {short_number(load.requests_per_s), time_text(load.p50_us),         time_text(load.p99_us),
          short_count(load.total.errors),    short_number(load.bytes_per_s), short_count(load.total.pending),
          short_count(load.total.unsent)};
}

std::array<std::string, 7> figures_of(const Load &load, bool has_figures) {
  if (has_figures) return figures_of(load);
  std::array<std::string, 7> none;
  std::ranges::copy(no_figures, none.begin());
  return none;
}

StatusScreen::Line line_of(const DriverSight &driver, std::size_t width) {
  const bool has_figures = driver.problem.empty();
  const std::string name = driver.name + ":" + std::to_string(driver.instance);
  const std::string status = status_text(driver), problem = tools::plain_text(driver.problem);
  const std::string last = problem + (problem.empty() || status.empty() ? "" : ", ") + status;
  const Look look = !has_figures || is_out_of_action(driver.state) ? Look::bad
                    : driver.is_status_stale                       ? Look::notice
                                                                   : Look::heading;
  return {line_of(row_of(name, std::to_string(driver.pid), name_of(driver.state), figures_of(driver.load, has_figures),
                         last),
                  width),
          look};
}

StatusScreen::Line line_of(const ClientSight &client, bool has_figures, std::size_t width) {
  const std::string name =
      "  #" + std::to_string(client.number) + " " + (client.program.empty() ? "unknown" : base_name(client.program));
  return {line_of(row_of(name, client.pid > 0 ? std::to_string(client.pid) : "-", name_of(client.state),
                         figures_of(client.load, has_figures), client.last_command),
                  width),
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

std::string top_titles(std::size_t width) {
  Row titles;
  std::ranges::transform(columns, titles.begin(), &Column::title);
  return line_of(titles, width);
}

std::vector<StatusScreen::Line> top_lines(const std::vector<DriverSight> &drivers, std::size_t width) {
  std::vector<StatusScreen::Line> lines;
  for (const DriverSight &driver : drivers) {
    lines.push_back(line_of(driver, width));
    for (const ClientSight &client : driver.clients) {
      lines.push_back(line_of(client, driver.problem.empty(), width));
    }
  }
  return lines;
}

std::vector<std::string> wrapped(const std::vector<std::string> &items, std::size_t width) {
  std::vector<std::string> lines;
  for (const std::string &item : items) {
    if (lines.empty() || lines.back().size() + 2 + item.size() > width) {
      lines.push_back(item);
    } else {
      lines.back() += "  " + item;
    }
  }
  return lines;
}

}  // namespace ptzctl
