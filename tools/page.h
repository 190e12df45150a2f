// page.h - what a report says, without its form: html_page.h and text_page.h write it.
#pragma once
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "plot.h"
#include "time_text.h"

namespace tools {

enum class Mood { plain, good, warning, bad };

// Every text may come from another process: the writers escape it.
struct Paragraph {
  std::string text;
  Mood mood = Mood::plain;
};
struct Heading {
  std::string text;
};
// Names and values, such as "kernel" and "6.1".
struct Facts {
  std::vector<std::pair<std::string, std::string>> rows;
};
struct Cell {
  std::string text;
  Mood mood = Mood::plain;
};
struct Column {
  std::string title;
  bool is_number = false;
};
struct Table {
  std::string caption;
  std::vector<Column> columns;
  std::vector<std::vector<Cell>> rows;
};
// Lines of fixed width.
struct Listing {
  std::string caption;
  std::vector<Cell> lines;
};
// A verdict with its reason, what mends it, and what it is judged by.
struct Finding {
  Mood mood;
  std::string verdict;  // "failed"
  std::string title;
  std::vector<std::string> remarks;
  std::vector<std::string> lines;  // commands, or bytes
};
struct Figures {
  std::vector<Figure> figures;
};
using Block = std::variant<Paragraph, Heading, Facts, Table, Listing, Finding, Figures>;

struct Section {
  std::string id;  // letters and hyphens
  std::string title;
  std::vector<Block> blocks;
  Mood mood = Mood::plain;
};
// A figure that the reader sees first.
struct Tile {
  std::string value;
  std::string label;
  Mood mood = Mood::plain;
};
struct Page {
  std::string title;
  std::string lead;
  std::vector<Tile> tiles;
  std::vector<Section> sections;
};

// One line without control characters, formatting characters and bytes that are not UTF-8: these are shown as "\x1b"
// and
// "\u202e".
[[nodiscard]] std::string visible_text(const std::string &text);

}  // namespace tools
