// status_screen.h - a view in the terminal, redrawn in place.
#pragma once
#include <string>
#include <vector>

#include "colours.h"

namespace ptzctl {

class StatusScreen {
 public:
  struct Line {
    std::string text;
    Look look = Look::plain;
  };

  StatusScreen();  // takes the terminal, until the end of its life
  StatusScreen(const StatusScreen &) = delete;
  ~StatusScreen();

  void draw(const std::vector<Line> &lines) const;
  // Waits; false where the user wants to leave.
  [[nodiscard]] bool wait(int milliseconds) const;
};

}  // namespace ptzctl
