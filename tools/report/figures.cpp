// What the drivers have counted, of all clients and of each.
#include <ptz_kit_body.h>

#include <algorithm>
#include <limits>

#include "figures.h"
#include "report/report.h"

namespace ptzctl {

namespace {

constexpr double least_seconds = 0.5;  // for a rate

using tools::Cell;
using tools::Mood;

template <typename Number>
Number number_in(GVariant *figures, const char *key, const char *format) {
  Number number = 0;
  if (figures != nullptr) g_variant_lookup(figures, key, format, &number);
  return number;
}
guint64 counter(GVariant *figures, const char *key) { return number_in<guint64>(figures, key, "t"); }
tools::Variant latency_of(GVariant *figures) {
  return tools::Variant(g_variant_lookup_value(figures, "latency", G_VARIANT_TYPE("au")));
}

std::string quantile_text(GVariant *figures, double quantile) {
  const tools::Variant latency = latency_of(figures);
  const double us = latency != nullptr ? ptz_kit_latency_quantile(latency.get(), quantile) : -1;
  return us >= 0 ? tools::duration_text(us) : "-";
}

Cell counted(GVariant *figures, const char *key, Mood mood = Mood::plain) {
  const guint64 count = counter(figures, key);
  return {std::to_string(count), count > 0 ? mood : Mood::plain};
}

std::string command_text(GVariant *figures) {
  gint32 command = 0;
  if (!g_variant_lookup(figures, "last-command", "i", &command)) return "-";
  const char *const name = ptz_kit_command_name(command);
  return name != nullptr ? name : "command " + std::to_string(command);
}

std::string rate_text(const WatchedDriver &driver) {
  const auto time = [](GVariant *figures) { return number_in<gint64>(figures, "now", "x"); };
  const double seconds = static_cast<double>(time(driver.last.get()) - time(driver.first.get())) / G_USEC_PER_SEC;
  if (seconds < least_seconds) return "-";
  const guint64 requests = counter(driver.last.get(), "requests") - counter(driver.first.get(), "requests");
  return tools::number_text(static_cast<double>(requests) / seconds, 1);
}

GVariant *figures_of(const WatchedDriver &driver) {
  return driver.last != nullptr ? driver.last.get() : driver.first.get();
}

std::vector<Cell> driver_row(const WatchedDriver &driver) {
  GVariant *const figures = figures_of(driver);
  return {{label_of(driver.entry)},
          {text_in(figures, "library-version")},
          counted(figures, "requests"),
          {driver.last != nullptr ? rate_text(driver) : "-"},
          counted(figures, "errors", Mood::warning),
          counted(figures, "timeouts", Mood::warning),
          counted(figures, "unsent-replies", Mood::warning),
          {std::to_string(number_in<guint32>(figures, "pending", "u"))},
          {quantile_text(figures, 0.5)},
          {quantile_text(figures, 0.99)}};
}

std::vector<Cell> client_row(const WatchedDriver &driver, GVariant *client) {
  return {{label_of(driver.entry)},
          {std::to_string(number_in<guint32>(client, "client", "u"))},
          {text_in(client, "program")},
          {std::to_string(number_in<gint32>(client, "pid", "i"))},
          {user_text(number_in<guint32>(client, "uid", "u"))},
          {tools::local_time_text(number_in<gint64>(client, "since", "x"))},
          counted(client, "requests"),
          counted(client, "errors", Mood::warning),
          {command_text(client)},
          {quantile_text(client, 0.99)}};
}

std::optional<tools::HistogramPlot> plot_of(const WatchedDriver &driver) {
  GVariant *const figures = figures_of(driver);
  const tools::Variant latency = latency_of(figures);
  if (latency == nullptr || ptz_kit_latency_quantile(latency.get(), 0.5) < 0) return std::nullopt;
  tools::HistogramPlot plot = {label_of(driver.entry) + ": latency of its replies", {}, {}};
  double from = 0;
  for (gsize i = 0; i < g_variant_n_children(latency.get()); ++i) {
    guint32 count = 0;
    g_variant_get_child(latency.get(), i, "u", &count);
    const guint64 limit = ptz_kit_latency_bucket_limit(static_cast<guint>(i));
    const double to = limit == G_MAXUINT64 ? std::numeric_limits<double>::infinity() : static_cast<double>(limit);
    plot.buckets.push_back({from, to, static_cast<double>(count)});
    from = to;
  }
  for (const auto &[name, quantile] : {std::pair("p50 ", 0.5), std::pair("p99 ", 0.99)}) {
    const double us = ptz_kit_latency_quantile(latency.get(), quantile);
    plot.marks.push_back({us, name + tools::duration_text(us)});
  }
  return plot;
}

void add_clients(const WatchedDriver &driver, tools::Table &table) {
  const tools::Variant clients(g_variant_lookup_value(figures_of(driver), "clients", G_VARIANT_TYPE("aa{sv}")));
  for (gsize i = 0; clients != nullptr && i < g_variant_n_children(clients.get()); ++i) {
    const tools::Variant client(g_variant_get_child_value(clients.get(), i));
    table.rows.push_back(client_row(driver, client.get()));
  }
}

}  // namespace

tools::Section figures_section(const Watch &watch, std::vector<tools::Tile> &tiles) {
  tools::Section section = {"figures", "Requests and clients", {}};
  tools::Table drivers = {"Since each driver started",
                          {{"driver"},
                           {"library"},
                           {"requests", true},
                           {"a second", true},
                           {"errors", true},
                           {"time-outs", true},
                           {"unsent replies", true},
                           {"pending", true},
                           {"p50", true},
                           {"p99", true}},
                          {}};
  tools::Table clients = {"Clients that are connected",
                          {{"driver"},
                           {"client", true},
                           {"program"},
                           {"pid", true},
                           {"user"},
                           {"since"},
                           {"requests", true},
                           {"errors", true},
                           {"last command"},
                           {"p99", true}},
                          {}};
  tools::Figures figures;
  guint64 requests = 0;
  for (const auto &driver : watch.drivers) {
    if (!driver->problem.empty()) {
      section.mood = Mood::warning;
      section.blocks.emplace_back(tools::Paragraph{
          label_of(driver->entry) +
              (figures_of(*driver) == nullptr ? " gave no figures: "
                                              : " gave figures at the beginning only, which follow: ") +
              driver->problem,
          Mood::warning});
    }
    if (figures_of(*driver) == nullptr) continue;
    drivers.rows.push_back(driver_row(*driver));
    requests += counter(figures_of(*driver), "requests");
    add_clients(*driver, clients);
    if (auto plot = plot_of(*driver)) figures.figures.emplace_back(std::move(*plot));
  }
  if (watch.drivers.empty()) section.blocks.emplace_back(tools::Paragraph{"There is no driver to ask."});
  tiles.push_back({std::to_string(requests), requests == 1 ? "request" : "requests"});
  if (!drivers.rows.empty()) section.blocks.emplace_back(std::move(drivers));
  if (!clients.rows.empty()) section.blocks.emplace_back(std::move(clients));
  if (!figures.figures.empty()) section.blocks.emplace_back(std::move(figures));
  return section;
}

tools::Section motion_section(const Watch &watch, guint seconds) {
  tools::Section section = {"motion", "Motion", {}};
  tools::Table table = {"Orders and what became of them", tools::MotionTrace::columns(), {}};
  table.columns.insert(table.columns.begin(), {"driver"});
  tools::Figures figures;
  for (const auto &driver : watch.drivers) {
    const std::string label = label_of(driver->entry);
    if (driver->motion.is_cut()) table.caption = "The first orders and what became of them";
    for (auto &figure : driver->motion.plots(label)) figures.figures.push_back(std::move(figure));
    for (auto &row : driver->motion.rows()) {
      row.insert(row.begin(), {label});
      table.rows.push_back(std::move(row));
    }
  }
  const std::string window = "for " + std::to_string(seconds) + (seconds == 1 ? " second" : " seconds");
  section.blocks.emplace_back(tools::Paragraph{
      figures.figures.empty() ? "Each head was watched " + window + ". None moved, and none was told to."
                              : "Each head was watched " + window +
                                    ": the position that its driver publishes, and what clients commanded."});
  if (!figures.figures.empty()) section.blocks.emplace_back(std::move(figures));
  if (!table.rows.empty()) section.blocks.emplace_back(std::move(table));
  return section;
}

}  // namespace ptzctl
