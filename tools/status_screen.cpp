#include "status_screen.h"

// Nothing of ours stands behind this: the terminal library defines a lot of short names.
#include <ncurses.h>

namespace ptzctl {

StatusScreen::StatusScreen() {
  initscr();
  cbreak();
  noecho();
  curs_set(0);
  keypad(stdscr, TRUE);
}

StatusScreen::~StatusScreen() { endwin(); }

void StatusScreen::draw(const std::vector<std::string> &lines) const {
  erase();
  int row = 0;
  for (const auto &line : lines) mvaddnstr(row++, 0, line.c_str(), COLS);
  refresh();
}

bool StatusScreen::wait(int milliseconds) const {
  timeout(milliseconds);
  const int key = getch();
  return key != 'q' && key != 'Q';
}

}  // namespace ptzctl
