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

  // A key is its character, or one of these.
  enum Key { none = -1, up = 0x100, down, page_up, page_down, home, end, resized, erase, enter, escape };

  [[nodiscard]] static int rows();
  [[nodiscard]] static int columns();
  void draw(const std::vector<Line> &lines) const;
  // Waits for a key; none if the time is over, or if a signal has come.
  [[nodiscard]] static int wait_for_key(int milliseconds);
  // Waits; false if the user wants to leave.
  [[nodiscard]] bool wait(int milliseconds) const;
};

}  // namespace ptzctl
