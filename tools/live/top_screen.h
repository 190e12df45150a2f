// top_screen.h - top on the whole screen of a terminal.
#pragma once
#include <csignal>
#include <string>
#include <vector>

#include "driver_watch.h"
#include "top_view.h"

namespace ptzctl {

class TopScreen {
  StatusScreen screen_;
  TopOrder order_;
  std::string filter_;
  const gint interval_ms_;
  bool is_paused_ = false, is_filter_typed_ = false;
  std::size_t first_ = 0;  // of the lines that are shown
  std::vector<DriverSight> drivers_;

  [[nodiscard]] std::vector<StatusScreen::Line> body() const;
  [[nodiscard]] std::string heading() const;
  [[nodiscard]] std::vector<std::string> help() const;
  [[nodiscard]] std::size_t body_rows() const;
  void draw();
  void type(int key);
  void scroll(int key);
  [[nodiscard]] bool obey(int key);

 public:
  TopScreen(TopOrder order, std::string filter, gint interval_ms)
      : order_(order), filter_(std::move(filter)), interval_ms_(interval_ms) {}
  // Shows these until the time is over, and longer while the user has paused. False if the user leaves, or if
  // `is_interrupted` has become true.
  [[nodiscard]] bool show(std::vector<DriverSight> drivers, const volatile std::sig_atomic_t &is_interrupted);
};

}  // namespace ptzctl
