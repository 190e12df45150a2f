#include "plot.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "html_page.h"

namespace tools {

namespace {

// Lengths of the view box. Labels are 13 units high, which is readable on a phone, where the box is some 350 px wide.
constexpr double width = 440, height = 292;
constexpr double left = 56, right = 12, bottom = 42;
constexpr std::size_t rows_of_names = 3;
constexpr double row_of_names = 14;
constexpr double top = 12 + rows_of_names * row_of_names;  // the names of marks stand above the curves
constexpr double inner_width = width - left - right, inner_height = height - top - bottom;
constexpr int wanted_ticks = 5;
constexpr double least_span = 0.2;    // of the values, in degrees
constexpr double least_share = 1e-9;  // of the greatest value: a shorter span is lost in the rounding of a double
constexpr int most_ticks = 50;
constexpr double longest_in_ms = 0.5;  // of the seconds
constexpr double least_bar = 2;        // a rare latency is seen beside frequent ones
constexpr std::size_t most_marks = 200, most_names = 12;
constexpr const char *dashes[] = {"none", "7 4", "2 3", "10 3 2 3"};  // series differ without colour, too

struct Range {
  double least = std::numeric_limits<double>::infinity();
  double most = -std::numeric_limits<double>::infinity();
  void include(double value) {
    if (!std::isfinite(value)) return;
    least = std::min(least, value);
    most = std::max(most, value);
  }
  [[nodiscard]] bool is_empty() const { return least > most; }
};

std::string coordinate(double value) { return number_text(value, 1); }

// 1, 2 or 5 times a power of ten.
double nice_step(double span) {
  const double rough = span / wanted_ticks;
  const double power = std::pow(10, std::floor(std::log10(rough)));
  const double times = rough / power;
  return power * (times <= 1 ? 1 : times <= 2 ? 2 : times <= 5 ? 5 : 10);
}
int digits_for(double step) { return std::clamp(static_cast<int>(-std::floor(std::log10(step) + 1e-9)), 0, 6); }

// A linear axis whose ends are ticks.
struct Axis {
  double least = 0, most = 1, step = 0.2;
  // At least as long as the span: the noise of a head that stands still is to look like noise.
  Axis(Range range, double span, bool is_rounded, double least_step = 0) {
    if (range.is_empty()) range = {0, span};
    span = std::max(span, least_share * std::max(std::abs(range.least), std::abs(range.most)));
    const double margin = std::max(0.0, (span - (range.most - range.least)) / 2);
    least = range.least - margin;
    most = range.most + margin;
    step = std::max(nice_step(most - least), least_step);
    if (!is_rounded) return;
    least = std::floor(least / step) * step;
    most = std::ceil(most / step) * step;
  }
  [[nodiscard]] double share(double value) const { return (value - least) / (most - least); }
  [[nodiscard]] std::vector<double> ticks() const {
    std::vector<double> ticks;
    const double first = std::ceil(least / step - 1e-6) * step;
    for (int i = 0; i < most_ticks && first + i * step <= most + step * 1e-6; ++i) ticks.push_back(first + i * step);
    return ticks;
  }
  [[nodiscard]] std::string label(double tick) const { return number_text(tick, digits_for(step)); }
};

double x_at(double share) { return left + share * inner_width; }
double y_at(double share) { return top + (1 - share) * inner_height; }

std::string text_at(double x, double y, const char *anchor, const std::string &text) {
  return "<text x=\"" + coordinate(x) + "\" y=\"" + coordinate(y) + "\" text-anchor=\"" + anchor + "\">" +
         html_text(text) + "</text>\n";
}
std::string line_at(const char *kind, double x1, double y1, double x2, double y2) {
  return std::string("<line class=\"") + kind + "\" x1=\"" + coordinate(x1) + "\" y1=\"" + coordinate(y1) + "\" x2=\"" +
         coordinate(x2) + "\" y2=\"" + coordinate(y2) + "\"/>\n";
}

std::string y_axis(const Axis &axis, const std::string &unit) {
  std::string svg;
  for (const double tick : axis.ticks()) {
    const double y = y_at(axis.share(tick));
    svg += line_at("grid", left, y, width - right, y) + text_at(left - 6, y + 4, "end", axis.label(tick));
  }
  const std::string middle = coordinate(top + inner_height / 2);
  return svg + "<text x=\"12\" y=\"" + middle + "\" text-anchor=\"middle\" transform=\"rotate(-90 12 " + middle +
         ")\">" + html_text(unit) + "</text>\n";
}

std::string x_tick(double share, const std::string &label) {
  const double x = x_at(share);
  const char *const anchor = share > 0.95 ? "end" : "middle";
  return line_at("axis", x, y_at(0), x, y_at(0) + 4) +
         text_at(share > 0.95 ? width - 2 : x, y_at(0) + 18, anchor, label);
}
std::string x_title(const std::string &text) { return text_at(left + inner_width / 2, height - 6, "middle", text); }
std::string frame_lines() {
  return line_at("axis", left, y_at(0), width - right, y_at(0)) + line_at("axis", left, top, left, y_at(0));
}

std::string name_at(double x, double y, const char *anchor, const std::string &text) {
  return "<text class=\"name\"" + text_at(x, y, anchor, text).substr(5);
}

// Names stand at different heights, so that near ones do not cover each other. Many marks have no names.
template <typename AnyAxis>
std::string marks_of(const std::vector<PlotMark> &marks, const AnyAxis &axis) {
  std::string lines, names;
  for (std::size_t i = 0; i < std::min(marks.size(), most_marks); ++i) {
    const double share = std::clamp(axis.share(marks[i].x), 0.0, 1.0), x = x_at(share);
    const bool is_right = share > 0.7;
    const double y = row_of_names * static_cast<double>(1 + i % rows_of_names);
    lines += line_at("mark", x, marks.size() <= most_names ? y : top, x, y_at(0));
    if (marks.size() <= most_names) {
      names += name_at(is_right ? x - 4 : x + 4, y, is_right ? "end" : "start", marks[i].name);
    }
  }
  return lines + names;
}

// The path without points that change nothing: a head stands still for most of the time.
std::string path_of(const Series &series, const Axis &x, const Axis &y) {
  std::string path, last_x, last_y, skipped_x;
  bool is_down = false;
  const auto draw = [&](const std::string &to_x, const std::string &to_y) {
    path += std::string(is_down ? "L" : "M") + to_x + " " + to_y;
    is_down = true;
  };
  for (const PlotPoint &point : series.points) {
    if (!std::isfinite(point.y)) {
      if (!skipped_x.empty()) draw(skipped_x, last_y);
      skipped_x.clear();
      is_down = false;
      continue;
    }
    const std::string at_x = coordinate(x_at(x.share(point.x))), at_y = coordinate(y_at(y.share(point.y)));
    if (is_down && at_y == last_y) {
      skipped_x = at_x;
      continue;
    }
    if (!skipped_x.empty()) draw(skipped_x, last_y);
    skipped_x.clear();
    if (is_down && series.line == Line::steps) draw(at_x, last_y);
    draw(at_x, at_y);
    last_x = at_x;
    last_y = at_y;
  }
  if (!skipped_x.empty()) draw(skipped_x, last_y);
  return path;
}

std::string style_of(std::size_t number) {
  return "class=\"series s" + std::to_string(number % std::size(dashes)) + "\" stroke-dasharray=\"" +
         dashes[number % std::size(dashes)] + "\"";
}

std::string dots_of(const Series &series, std::size_t number, const Axis &x, const Axis &y) {
  std::string svg;
  for (const PlotPoint &point : series.points) {
    if (!std::isfinite(point.y)) continue;
    svg += "<circle class=\"dot s" + std::to_string(number % std::size(dashes)) + "\" cx=\"" +
           coordinate(x_at(x.share(point.x))) + "\" cy=\"" + coordinate(y_at(y.share(point.y))) + "\" r=\"3\"/>\n";
  }
  return svg;
}

std::string legend_of(const std::vector<Series> &series) {
  std::string html = "<ul class=\"legend\">\n";
  for (std::size_t i = 0; i < series.size(); ++i) {
    const std::string sample =
        series[i].line == Line::dots
            ? "<circle class=\"dot s" + std::to_string(i % std::size(dashes)) + "\" cx=\"14\" cy=\"5\" r=\"3\"/>"
            : "<path " + style_of(i) + " d=\"M0 5L28 5\"/>";
    html += "<li><svg viewBox=\"0 0 28 10\" width=\"28\" height=\"10\" aria-hidden=\"true\">" + sample + "</svg> " +
            html_text(series[i].name) + "</li>\n";
  }
  return html + "</ul>\n";
}

std::string drawing_of(const TimePlot &plot) {
  Range times, values;
  for (const Series &series : plot.series) {
    for (const PlotPoint &point : series.points) {
      times.include(point.x);
      values.include(point.y);
    }
  }
  for (const PlotMark &mark : plot.marks) times.include(mark.x);
  if (plot.from < plot.to) {
    times.include(plot.from);
    times.include(plot.to);
  }
  if (times.is_empty()) times = {0, 1};
  const bool is_short = times.most - times.least < longest_in_ms;
  const double scale = is_short ? 1000 : 1;
  const Axis x(times, 1e-3, false), y(values, least_span, true);
  const Axis shown(Range{times.least * scale, times.most * scale}, 1e-3 * scale, false);
  std::string svg = y_axis(y, plot.y_unit);
  for (const double tick : shown.ticks()) svg += x_tick(shown.share(tick), shown.label(tick));
  svg += frame_lines() + x_title(is_short ? "milliseconds" : "seconds");
  for (std::size_t i = 0; i < plot.series.size(); ++i) {
    if (plot.series[i].line == Line::dots) {
      svg += dots_of(plot.series[i], i, x, y);
    } else if (const std::string path = path_of(plot.series[i], x, y); !path.empty()) {
      svg += "<path " + style_of(i) + " d=\"" + path + "\"/>\n";
    }
  }
  return svg + marks_of(plot.marks, x);
}

// --- histogram --------------------------------------------------------------------------------------------------

// Of a logarithmic axis; the lowest bucket begins at 0, which it has not.
double lower_end(const HistogramBucket &bucket) { return bucket.from > 0 ? bucket.from : std::max(bucket.to / 2, 0.5); }
double upper_end(const HistogramBucket &bucket) {
  return std::isfinite(bucket.to) ? bucket.to : lower_end(bucket) * 1.19;
}

struct LogAxis {
  double least, most;
  explicit LogAxis(Range range) {
    if (range.is_empty()) range = {1, 1000};
    least = std::log10(range.least);
    most = std::max(std::log10(range.most), least + 0.3);
  }
  [[nodiscard]] double share(double value) const {
    return (std::log10(std::max(value, 1e-3)) - least) / (most - least);
  }
  // 1, 2 and 5 times the powers of ten, or the powers only if these are many.
  [[nodiscard]] std::vector<double> ticks() const {
    std::vector<double> ticks;
    for (double power = std::floor(least); power <= most; power += 1) {
      for (const double times : {1.0, 2.0, 5.0}) {
        if (times > 1 && most - least > 2) break;
        const double tick = times * std::pow(10, power);
        if (std::log10(tick) >= least - 1e-9 && std::log10(tick) <= most + 1e-9) ticks.push_back(tick);
      }
    }
    return ticks;
  }
};

std::string bar_of(const HistogramBucket &bucket, const LogAxis &x, const Axis &y) {
  const double from = x_at(x.share(lower_end(bucket))), to = x_at(x.share(upper_end(bucket)));
  const double tall = std::max(least_bar, y.share(bucket.count) * inner_height);
  return "<rect class=\"bar\" x=\"" + coordinate(from + 0.5) + "\" y=\"" + coordinate(y_at(0) - tall) + "\" width=\"" +
         coordinate(std::max(1.0, to - from - 1)) + "\" height=\"" + coordinate(tall) + "\"><title>" +
         html_text(number_text(bucket.count, 0) + " of " + duration_text(bucket.from) + " to " +
                   (std::isfinite(bucket.to) ? duration_text(bucket.to) : "more")) +
         "</title></rect>\n";
}

std::string drawing_of(const HistogramPlot &plot) {
  Range times, counts{0, 1};
  for (const HistogramBucket &bucket : plot.buckets) {
    if (bucket.count <= 0) continue;
    times.include(lower_end(bucket));
    times.include(upper_end(bucket));
    counts.include(bucket.count);
  }
  const LogAxis x(times);
  const Axis y(counts, 1, true, 1);
  std::string svg = y_axis(y, "replies");
  for (const double tick : x.ticks()) svg += x_tick(x.share(tick), duration_text(tick));
  svg += frame_lines() + x_title("latency (logarithmic)");
  for (const HistogramBucket &bucket : plot.buckets) {
    if (bucket.count > 0) svg += bar_of(bucket, x, y);
  }
  return svg + marks_of(plot.marks, x);
}

std::string legend_of(const Figure &figure) {
  const auto *const plot = std::get_if<TimePlot>(&figure);
  return plot != nullptr && plot->series.size() > 1 ? legend_of(plot->series) : "";
}

std::string description_of(const TimePlot &plot) {
  std::string text;
  for (const Series &series : plot.series) {
    Range range;
    double last = 0;
    for (const PlotPoint &point : series.points) {
      range.include(point.y);
      if (std::isfinite(point.y)) last = point.y;
    }
    if (!text.empty()) text += "; ";
    text += series.name + ": ";
    text += range.is_empty() ? "nothing"
                             : number_text(range.least, 2) + " to " + number_text(range.most, 2) + " " + plot.y_unit +
                                   ", at last " + number_text(last, 2);
  }
  for (std::size_t i = 0; i < std::min(plot.marks.size(), most_names); ++i) {
    text += "; " + plot.marks[i].name + " at " + number_text(plot.marks[i].x, 2) + " s";
  }
  return text;
}

std::string description_of(const HistogramPlot &plot) {
  double count = 0;
  for (const HistogramBucket &bucket : plot.buckets) count += bucket.count;
  std::string text = number_text(count, 0) + " replies";
  for (const PlotMark &mark : plot.marks) text += ", " + mark.name;
  return text;
}

}  // namespace

std::vector<HistogramBucket> buckets_of(const std::vector<double> &microseconds) {
  constexpr double per_doubling = 4;
  const auto index_of = [](double value) {
    return static_cast<int>(std::floor(std::log2(std::max(value, 1.0)) * per_doubling));
  };
  std::vector<HistogramBucket> buckets;
  for (const double each : microseconds) {
    const auto index = static_cast<std::size_t>(index_of(each));
    while (buckets.size() <= index) {
      const auto at = static_cast<double>(buckets.size());
      buckets.push_back({std::exp2(at / per_doubling), std::exp2((at + 1) / per_doubling), 0});
    }
    ++buckets[index].count;
  }
  return buckets;
}

const std::string &title_of(const Figure &figure) {
  const auto *const plot = std::get_if<TimePlot>(&figure);
  return plot != nullptr ? plot->title : std::get_if<HistogramPlot>(&figure)->title;
}

std::string description_of(const Figure &figure) {
  const auto *const plot = std::get_if<TimePlot>(&figure);
  return plot != nullptr ? description_of(*plot) : description_of(*std::get_if<HistogramPlot>(&figure));
}

std::string svg_of(const Figure &figure, int number) {
  const std::string id = "plot-" + std::to_string(number), title = html_text(title_of(figure));
  const auto *const plot = std::get_if<TimePlot>(&figure);
  const std::string drawing = plot != nullptr ? drawing_of(*plot) : drawing_of(*std::get_if<HistogramPlot>(&figure));
  return "<figure id=\"" + id + "\">\n<figcaption>" + title + "</figcaption>\n<svg class=\"plot\" viewBox=\"0 0 " +
         number_text(width, 0) + " " + number_text(height, 0) + "\" role=\"img\" aria-describedby=\"" + id +
         "-desc\">\n<title>" + title + "</title>\n<desc id=\"" + id + "-desc\">" + html_text(description_of(figure)) +
         "</desc>\n" + drawing + "</svg>\n" + legend_of(figure) + "</figure>\n";
}

}  // namespace tools
