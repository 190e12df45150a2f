// status_screen.h - a view in the terminal, redrawn in place.
#pragma once
#include <string>
#include <vector>

namespace ptzctl {

class StatusScreen {
 public:
  StatusScreen();  // takes the terminal, until the end of its life
  StatusScreen(const StatusScreen &) = delete;
  ~StatusScreen();

  void draw(const std::vector<std::string> &lines) const;
  // Waits; false where the user wants to leave.
  [[nodiscard]] bool wait(int milliseconds) const;
};

}  // namespace ptzctl
