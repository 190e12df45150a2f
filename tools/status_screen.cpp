#include "status_screen.h"

// Nothing of ours stands behind this: the terminal library defines a lot of short names.
#include <ncurses.h>

namespace ptzctl {

namespace {

short number_of(Look look) { return static_cast<short>(look); }

chtype attributes_of(Look look) {
  if (!colours_are_on() || look == Look::plain) return A_NORMAL;
  return look == Look::heading ? A_BOLD : static_cast<chtype>(COLOR_PAIR(number_of(look)));
}

}  // namespace

StatusScreen::StatusScreen() {
  initscr();
  cbreak();
  noecho();
  curs_set(0);
  keypad(stdscr, TRUE);
  if (!colours_are_on() || !has_colors()) return;
  start_color();
  use_default_colors();
  init_pair(number_of(Look::notice), COLOR_YELLOW, -1);
  init_pair(number_of(Look::good), COLOR_GREEN, -1);
  init_pair(number_of(Look::bad), COLOR_RED, -1);
}

StatusScreen::~StatusScreen() { endwin(); }

void StatusScreen::draw(const std::vector<Line> &lines) const {
  erase();
  int row = 0;
  for (const auto &line : lines) {
    attrset(static_cast<int>(attributes_of(line.look)));
    mvaddnstr(row++, 0, line.text.c_str(), COLS);
  }
  refresh();
}

bool StatusScreen::wait(int milliseconds) const {
  timeout(milliseconds);
  const int key = getch();
  return key != 'q' && key != 'Q';
}

}  // namespace ptzctl
