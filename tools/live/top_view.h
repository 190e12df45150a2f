// top_view.h - the lines of top: which drivers and clients, in which order.
#pragma once
#include <optional>
#include <string>
#include <vector>

#include "driver_watch.h"
#include "status_screen.h"

namespace ptzctl {

enum class TopOrder { requests, latency, errors, pending, name };
[[nodiscard]] const char *name_of(TopOrder order);
[[nodiscard]] std::optional<TopOrder> top_order_named(const std::string &name);
// "r", "l", "e", "p", "n"
[[nodiscard]] std::optional<TopOrder> top_order_of_key(int key);

// Those whose name, program, process or socket has the text in it, in any case; a driver also if a client has. All if
// the text is empty.
[[nodiscard]] std::vector<DriverSight> chosen(std::vector<DriverSight> drivers, const std::string &filter);
// Greatest first; by name, the first one first. The clients of each driver, too.
void sort_by(TopOrder order, std::vector<DriverSight> &drivers);

// No line is wider than this many characters. The least useful columns are left out first, always whole.
constexpr std::size_t any_width = G_MAXSIZE;
[[nodiscard]] std::string top_titles(std::size_t width = any_width);
// A line for each driver, and one for each of its clients below it.
[[nodiscard]] std::vector<StatusScreen::Line> top_lines(const std::vector<DriverSight> &drivers,
                                                        std::size_t width = any_width);
// The items, two spaces apart, on as many lines as they need.
[[nodiscard]] std::vector<std::string> wrapped(const std::vector<std::string> &items, std::size_t width);

}  // namespace ptzctl
