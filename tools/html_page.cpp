#include "html_page.h"

#include <iterator>

#include "report_style.h"  // made from report_style.css

namespace tools {

namespace {

constexpr std::size_t longest_line = 48;                                   // of a cell, in bytes
constexpr const char *mood_names[] = {"plain", "good", "warning", "bad"};  // by Mood
std::string name_of(Mood mood) { return mood_names[static_cast<std::size_t>(mood)]; }

std::string element(const std::string &name, const std::string &attributes, const std::string &html) {
  return "<" + name + (attributes.empty() ? "" : " " + attributes) + ">" + html + "</" + name + ">\n";
}
std::string of_class(const std::string &value) { return "class=\"" + value + "\""; }

// Wide contents scroll in their own box, which the keyboard reaches, too.
std::string scroll_box(const std::string &label, const std::string &html) {
  return "<div class=\"scroll\" tabindex=\"0\" role=\"region\" aria-label=\"" + html_text(label) + "\">\n" + html +
         "</div>\n";
}

class HtmlWriter {
  std::string html_;
  int figures_ = 0;

 public:
  [[nodiscard]] std::string take() { return std::move(html_); }

  void operator()(const Paragraph &paragraph) {
    html_ += element("p", of_class("note " + name_of(paragraph.mood)), html_text(paragraph.text));
  }
  void operator()(const Heading &heading) { html_ += element("h3", "", html_text(heading.text)); }
  void operator()(const Facts &facts) {
    std::string rows;
    for (const auto &[name, value] : facts.rows) {
      rows += element("dt", "", html_text(name)) + element("dd", "", html_text(value));
    }
    if (!rows.empty()) html_ += element("dl", "class=\"facts\"", "\n" + rows);
  }
  void operator()(const Table &table) {
    // A narrow window has no place for many columns: each cell bears its title there.
    const bool is_wide = table.columns.size() > 3;
    std::string html = (is_wide ? "<table class=\"wide\">\n" : "<table>\n") +
                       element("caption", "", html_text(table.caption)) + "<thead><tr>\n";
    for (const Column &column : table.columns) {
      html +=
          element("th", column.is_number ? "scope=\"col\" class=\"number\"" : "scope=\"col\"", html_text(column.title));
    }
    html += "</tr></thead>\n<tbody>\n";
    for (const auto &row : table.rows) {
      html += "<tr>";
      for (std::size_t i = 0; i < row.size(); ++i) {
        const bool is_number = i < table.columns.size() && table.columns[i].is_number;
        const char *const form = is_number ? "number " : row[i].text.size() > longest_line ? "long " : "";
        const bool has_title = is_wide && i < table.columns.size() && !table.columns[i].title.empty();
        const std::string title = has_title ? " data-title=\"" + html_text(table.columns[i].title) + "\"" : "";
        const std::string empty = row[i].text.empty() ? " empty" : "";
        html += element("td", of_class(form + name_of(row[i].mood) + empty) + title, html_text(row[i].text));
      }
      html += "</tr>\n";
    }
    html_ += scroll_box(table.caption, html + "</tbody>\n</table>\n");
  }
  void operator()(const Listing &listing) {
    std::string lines;
    for (const Cell &line : listing.lines) {
      lines += "<span class=\"" + name_of(line.mood) + "\">" + html_text(line.text) + "</span>\n";
    }
    if (!listing.caption.empty()) html_ += element("p", "class=\"caption\"", html_text(listing.caption));
    html_ += scroll_box(listing.caption.empty() ? "lines" : listing.caption, element("pre", "", lines));
  }
  void operator()(const Finding &finding) {
    html_ += "<article class=\"finding " + name_of(finding.mood) + "\">\n" +
             element("h4", "",
                     "<span class=\"badge " + name_of(finding.mood) + "\">" + html_text(finding.verdict) + "</span> " +
                         html_text(finding.title));
    for (const auto &remark : finding.remarks) html_ += element("p", "", html_text(remark));
    std::string lines;
    for (const auto &line : finding.lines) lines += html_text(line) + "\n";
    if (!lines.empty()) html_ += scroll_box(finding.title, element("pre", "", lines));
    html_ += "</article>\n";
  }
  void operator()(const Figures &figures) {
    html_ += "<div class=\"figures\">\n";
    for (const Figure &figure : figures.figures) html_ += svg_of(figure, ++figures_);
    html_ += "</div>\n";
  }

  void write(const Section &section) {
    html_ += "<section id=\"" + html_text(section.id) + "\">\n" + element("h2", "", html_text(section.title));
    for (const Block &block : section.blocks) std::visit(*this, block);
    html_ += "</section>\n";
  }
};

std::string header_of(const Page &page) {
  std::string html =
      "<header>\n" + element("h1", "", html_text(page.title)) + element("p", "class=\"lead\"", html_text(page.lead));
  std::string tiles, links;
  for (const Tile &tile : page.tiles) {
    tiles += element("li", of_class("tile " + name_of(tile.mood)),
                     "<strong>" + html_text(tile.value) + "</strong> <span>" + html_text(tile.label) + "</span>");
  }
  if (!tiles.empty()) html += element("ul", "class=\"tiles\"", "\n" + tiles);
  for (const Section &section : page.sections) {
    links += element("li", of_class(name_of(section.mood)),
                     "<a href=\"#" + html_text(section.id) + "\">" + html_text(section.title) + "</a>");
  }
  return html + element("nav", "aria-label=\"Contents\"", element("ul", "", "\n" + links)) + "</header>\n";
}

}  // namespace

std::string html_text(const std::string &text) {
  std::string html;
  for (const char byte : visible_text(text)) {
    switch (byte) {
      case '&':
        html += "&amp;";
        break;
      case '<':
        html += "&lt;";
        break;
      case '>':
        html += "&gt;";
        break;
      case '"':
        html += "&quot;";
        break;
      case '\'':
        html += "&#39;";
        break;
      default:
        html += byte;
    }
  }
  return html;
}

std::string html_of(const Page &page) {
  HtmlWriter writer;
  for (const Section &section : page.sections) writer.write(section);
  // The policy is a second fence behind the escaping: a page runs no script and loads nothing.
  return "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
         "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src 'unsafe-inline'\">\n"
         "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
         "<meta name=\"color-scheme\" content=\"light dark\">\n<meta name=\"referrer\" content=\"no-referrer\">\n" +
         element("title", "", html_text(page.title)) + "<style>\n" + embedded_text + "</style>\n</head>\n<body>\n" +
         header_of(page) + "<main>\n" + writer.take() + "</main>\n</body>\n</html>\n";
}

}  // namespace tools
