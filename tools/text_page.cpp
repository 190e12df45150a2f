#include "text_page.h"

#include <glib.h>

#include <algorithm>

namespace tools {

namespace {

constexpr std::size_t widest_column = 48;  // a longer text moves the rest of its own line only

// As a terminal counts: a character is one column.
std::size_t length_of(const std::string &text) { return static_cast<std::size_t>(g_utf8_strlen(text.c_str(), -1)); }

std::string underlined(const std::string &text, char with) {
  const std::string visible = visible_text(text);
  return visible + "\n" + std::string(length_of(visible), with) + "\n";
}

struct TextWriter {
  std::string text;

  void operator()(const Paragraph &paragraph) { text += visible_text(paragraph.text) + "\n"; }
  void operator()(const Heading &heading) { text += "\n" + visible_text(heading.text) + ":\n"; }
  void operator()(const Facts &facts) {
    std::size_t width = 0;
    for (const auto &[name, value] : facts.rows) width = std::max(width, length_of(visible_text(name)));
    for (const auto &[name, value] : facts.rows) {
      const std::string shown = visible_text(name);
      text += "  " + shown + std::string(width + 2 - length_of(shown), ' ') + visible_text(value) + "\n";
    }
  }
  void operator()(const Table &table) {
    std::vector<std::size_t> widths;
    std::vector<std::vector<std::string>> rows(1);
    for (const Column &column : table.columns) rows.front().push_back(visible_text(column.title));
    for (const auto &row : table.rows) {
      auto &cells = rows.emplace_back();
      for (const Cell &cell : row) cells.push_back(visible_text(cell.text));
    }
    for (const auto &row : rows) {
      widths.resize(std::max(widths.size(), row.size()));
      for (std::size_t i = 0; i < row.size(); ++i) {
        if (const std::size_t length = length_of(row[i]); length <= widest_column)
          widths[i] = std::max(widths[i], length);
      }
    }
    if (!table.caption.empty()) text += visible_text(table.caption) + "\n";
    for (const auto &row : rows) {
      std::string line;
      for (std::size_t i = 0; i < row.size(); ++i) {
        const std::size_t length = length_of(row[i]);
        const std::string padding(widths[i] > length ? widths[i] - length : 0, ' ');
        const bool is_number = i < table.columns.size() && table.columns[i].is_number;
        line += "  " + (is_number ? padding + row[i] : row[i] + padding);
      }
      text += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
    }
  }
  void operator()(const Listing &listing) {
    if (!listing.caption.empty()) text += visible_text(listing.caption) + "\n";
    for (const Cell &line : listing.lines) text += "  " + visible_text(line.text) + "\n";
  }
  void operator()(const Finding &finding) {
    text += visible_text(finding.verdict) + ": " + visible_text(finding.title) + "\n";
    for (const auto &remark : finding.remarks) text += "    " + visible_text(remark) + "\n";
    for (const auto &line : finding.lines) text += "      " + visible_text(line) + "\n";
  }
  void operator()(const Figures &figures) {
    for (const Figure &figure : figures.figures) {
      text += "  " + visible_text(title_of(figure)) + ": " + visible_text(description_of(figure)) + "\n";
    }
  }
};

}  // namespace

std::string text_of(const Page &page) {
  TextWriter writer;
  writer.text = underlined(page.title, '=') + visible_text(page.lead) + "\n";
  std::string tiles;
  for (const Tile &tile : page.tiles) {
    tiles += (tiles.empty() ? "" : ", ") + visible_text(tile.value) + " " + visible_text(tile.label);
  }
  if (!tiles.empty()) writer.text += tiles + "\n";
  for (const Section &section : page.sections) {
    writer.text += "\n" + underlined(section.title, '-');
    for (const Block &block : section.blocks) std::visit(writer, block);
  }
  return std::move(writer.text);
}

}  // namespace tools
