#include "status_screen.h"

// Nothing of ours stands behind this: the terminal library defines a lot of short names.
#include <ncurses.h>

namespace ptzctl {

namespace {

constexpr int escape_delay_ms = 25;  // between the bytes of one key

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
  set_escdelay(escape_delay_ms);
  if (!colours_are_on() || !has_colors()) return;
  start_color();
  use_default_colors();
  init_pair(number_of(Look::notice), COLOR_YELLOW, -1);
  init_pair(number_of(Look::good), COLOR_GREEN, -1);
  init_pair(number_of(Look::bad), COLOR_RED, -1);
}

StatusScreen::~StatusScreen() { endwin(); }

void StatusScreen::draw(const std::vector<Line> &lines) const {
  ::erase();
  int row = 0;
  for (const auto &line : lines) {
    attrset(static_cast<int>(attributes_of(line.look)));
    mvaddnstr(row++, 0, line.text.c_str(), COLS);
  }
  refresh();
}

int StatusScreen::rows() { return LINES; }

int StatusScreen::columns() { return COLS; }

int StatusScreen::wait_for_key(int milliseconds) {
  timeout(milliseconds);
  switch (const int key = getch(); key) {
    case ERR:
      return none;
    case KEY_UP:
      return up;
    case KEY_DOWN:
      return down;
    case KEY_PPAGE:
      return page_up;
    case KEY_NPAGE:
      return page_down;
    case KEY_HOME:
      return home;
    case KEY_END:
      return end;
    case KEY_RESIZE:
      return resized;
    case KEY_BACKSPACE:
    case '\b':
    case '\x7f':
      return StatusScreen::erase;
    case KEY_ENTER:
    case '\n':
    case '\r':
      return enter;
    case '\x1b':
      return escape;
    default:
      return key < 0x100 ? key : none;
  }
}

bool StatusScreen::wait(int milliseconds) const {
  timeout(milliseconds);
  const int key = getch();
  return key != 'q' && key != 'Q';
}

}  // namespace ptzctl
