// plot.h - diagrams as inline SVG, which scale with the page and need neither script nor file.
#pragma once
#include <string>
#include <variant>
#include <vector>

namespace tools {

struct PlotPoint {
  double x;
  double y;  // not a number: the line ends here, and begins again at the next point
};
enum class Line { straight, steps, dots };
struct Series {
  std::string name;
  std::vector<PlotPoint> points;
  Line line = Line::straight;
};
// A dashed upright with a name.
struct PlotMark {
  double x;
  std::string name;
};
// Over seconds.
struct TimePlot {
  std::string title;
  std::string y_unit;
  std::vector<Series> series;
  std::vector<PlotMark> marks;
  double from = 0, to = 0;  // seconds that the axis shows at least; none if they are equal
};

struct HistogramBucket {
  double from;
  double to;
  double count;
};
// Times in microseconds, on a logarithmic axis.
struct HistogramPlot {
  std::string title;
  std::vector<HistogramBucket> buckets;  // ascending
  std::vector<PlotMark> marks;
};
using Figure = std::variant<TimePlot, HistogramPlot>;

// "reported: -3.00 to 10.00 °, at last 10.00 °; commanded: ..."
[[nodiscard]] std::string description_of(const Figure &figure);
[[nodiscard]] const std::string &title_of(const Figure &figure);
// A <figure> with caption, diagram and legend. The number makes its ids.
[[nodiscard]] std::string svg_of(const Figure &figure, int number);
// One sample a latency; buckets are four for each power of two.
[[nodiscard]] std::vector<HistogramBucket> buckets_of(const std::vector<double> &microseconds);

}  // namespace tools
