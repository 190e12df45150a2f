#include "top_screen.h"

#include <algorithm>

namespace ptzctl {

namespace {

constexpr std::size_t other_rows = 3;  // heading, titles, what is above and below
constexpr std::size_t longest_filter = 60;

std::string counted(std::size_t count, const char *what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::size_t screen_width() { return static_cast<std::size_t>(std::max(StatusScreen::columns(), 1)); }

}  // namespace

std::size_t TopScreen::body_rows() const {
  const auto rows = static_cast<std::size_t>(std::max(StatusScreen::rows(), 0));
  const std::size_t others = other_rows + help().size();
  return rows > others ? rows - others : 1;
}

std::vector<StatusScreen::Line> TopScreen::body() const {
  auto drivers = chosen(drivers_, filter_);
  sort_by(order_, drivers);
  auto lines = top_lines(drivers, screen_width());
  if (lines.empty()) lines.push_back({drivers_.empty() ? "no driver runs" : "no driver and no client fits the filter"});
  return lines;
}

std::string TopScreen::heading() const {
  std::size_t clients = 0;
  for (const DriverSight &driver : drivers_) clients += driver.clients.size();
  std::string text = "ptzctl top: " + counted(drivers_.size(), "driver") + ", " + counted(clients, "client") + ", by " +
                     name_of(order_);
  if (!filter_.empty() && !is_filter_typed_) text += ", filter '" + filter_ + "'";
  return text + (is_paused_ ? ", paused" : "");
}

std::vector<std::string> TopScreen::help() const {
  if (is_filter_typed_) return {"filter: " + filter_ + "_   (Enter: keep it, Escape: show all)"};
  return wrapped({"q quit", "space pause", "/ filter", "sort: r requests", "l latency", "e errors", "p pending",
                  "n name", "arrows scroll"},
                 screen_width());
}

void TopScreen::draw() {
  const auto all = body();
  const std::size_t rows = body_rows();
  first_ = all.size() > rows ? std::min(first_, all.size() - rows) : 0;
  std::vector<StatusScreen::Line> lines = {{heading(), Look::heading}, {top_titles(screen_width()), Look::heading}};
  for (std::size_t i = first_; i < all.size() && i < first_ + rows; ++i) lines.push_back(all[i]);
  lines.resize(other_rows - 1 + rows);
  const std::size_t left = all.size() - std::min(all.size(), first_ + rows);
  std::string more;
  if (first_ > 0) more = counted(first_, "line") + " above  ";
  if (left > 0) more += counted(left, "line") + " below";
  lines.push_back({more, Look::notice});
  for (const std::string &line : help()) lines.push_back({line, Look::plain});
  screen_.draw(lines);
}

void TopScreen::type(int key) {
  if (key == StatusScreen::enter || key == StatusScreen::escape) is_filter_typed_ = false;
  if (key == StatusScreen::escape) filter_.clear();
  if (key == StatusScreen::erase && !filter_.empty()) filter_.pop_back();
  if (key >= ' ' && key < 0x7f && filter_.size() < longest_filter) filter_ += static_cast<char>(key);
}

void TopScreen::scroll(int key) {
  const std::size_t page = body_rows();
  if (key == StatusScreen::up) first_ -= std::min<std::size_t>(first_, 1);
  if (key == StatusScreen::page_up) first_ -= std::min(first_, page);
  if (key == StatusScreen::home) first_ = 0;
  if (key == StatusScreen::down) ++first_;
  if (key == StatusScreen::page_down) first_ += page;
  if (key == StatusScreen::end) first_ = G_MAXINT;  // drawing sees to it that it is not too far
}

bool TopScreen::obey(int key) {
  if (is_filter_typed_) {
    type(key);
    return true;
  }
  if (key == 'q' || key == 'Q') return false;
  if (key == ' ') is_paused_ = !is_paused_;
  if (key == '/') is_filter_typed_ = true;
  if (const auto order = top_order_of_key(key)) order_ = *order;
  scroll(key);
  return true;
}

bool TopScreen::show(std::vector<DriverSight> drivers, const volatile std::sig_atomic_t &is_interrupted) {
  drivers_ = std::move(drivers);
  const gint64 end_us = g_get_monotonic_time() + gint64{interval_ms_} * 1000;
  while (is_interrupted == 0) {
    draw();
    const gint64 left_ms = (end_us - g_get_monotonic_time() + 999) / 1000;
    if (left_ms <= 0 && !is_paused_) return true;
    if (!obey(StatusScreen::wait_for_key(static_cast<int>(is_paused_ ? interval_ms_ : left_ms)))) return false;
  }
  return false;
}

}  // namespace ptzctl
