// Pages and plots as the tools write them, without a driver.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>

#include "fixtures.h"
#include "html_page.h"
#include "motion_trace.h"
#include "output_file.h"
#include "ptz_kit_messages.h"
#include "ptz_serialize.h"
#include "text_page.h"

namespace {

using namespace tools;

bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }
int count(const std::string &text, const std::string &part) {
  int found = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++found;
  return found;
}

TEST(VisibleText, ControlAndFormattingCharactersBecomeEscapes) {
  EXPECT_EQ(visible_text("a\x1b[31m\n\x7f"), "a\\x1b[31m\\x0a\\u007f");
  EXPECT_EQ(visible_text("a\u202eb\u200bc\u2028d\ue000"), "a\\u202eb\\u200bc\\u2028d\\ue000");
  EXPECT_EQ(visible_text(std::string("a\0b", 3)), "a\\x00b");
}

TEST(VisibleText, BytesThatAreNotUtf8BecomeEscapes) {
  EXPECT_EQ(visible_text("a\xff\xc3(\xed\xa0\x80 \xf0\x9f"), "a\\xff\\xc3(\\xed\\xa0\\x80 \\xf0\\x9f");
}

TEST(VisibleText, LettersOfAnyScriptStay) { EXPECT_EQ(visible_text("Grün 東京 °"), "Grün 東京 °"); }

TEST(HtmlText, MarkupAndQuotesAreEscaped) {
  EXPECT_EQ(html_text("<script>a('\"') && b</script>"),
            "&lt;script&gt;a(&#39;&quot;&#39;) &amp;&amp; b&lt;/script&gt;");
}

// Each text of a page comes from elsewhere.
Page hostile_page() {
  const std::string evil = "<script>alert(1)</script>\"'\x1b\xff";
  Page page = {evil, evil, {{evil, evil, Mood::bad}}, {}};
  Section section = {evil, evil, {}};
  section.blocks = {Paragraph{evil},
                    Heading{evil},
                    Facts{{{evil, evil}}},
                    Table{evil, {{evil, true}}, {{{evil, Mood::good}}}},
                    Listing{evil, {{evil}}},
                    Finding{Mood::bad, evil, evil, {evil}, {evil}},
                    Figures{{TimePlot{evil, evil, {{evil, {{0, 1}, {1, 2}}}, {evil, {{0, 1}}}}, {{0.5, evil}}},
                             HistogramPlot{evil, {{1, 2, 3}}, {{1, evil}}}}}};
  page.sections.push_back(section);
  return page;
}

TEST(HtmlPage, ForeignTextIsEscapedInEveryBlock) {
  const std::string html = html_of(hostile_page());
  EXPECT_FALSE(has(html, "<script"));
  EXPECT_FALSE(has(html, "\x1b"));
  EXPECT_TRUE(g_utf8_validate(html.data(), static_cast<gssize>(html.size()), nullptr));
  EXPECT_GE(count(html, "&lt;script&gt;alert(1)&lt;/script&gt;&quot;&#39;\\x1b\\xff"), 25);
}

TEST(HtmlPage, PolicyForbidsScriptsAndForeignFiles) {
  EXPECT_TRUE(has(html_of({}), "content=\"default-src 'none'; style-src 'unsafe-inline'\""));
}

TEST(TextPage, ForeignTextReachesNoTerminalAsControls) {
  const std::string text = text_of(hostile_page());
  EXPECT_FALSE(has(text, "\x1b"));
  EXPECT_TRUE(g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr));
}

TEST(TextPage, TableColumnsAreAligned) {
  Page page = {"t", "l", {}, {{"s", "Section", {}}}};
  page.sections[0].blocks = {Table{"clients", {{"name"}, {"requests", true}}, {{{"a"}, {"7"}}, {{"Grün"}, {"1234"}}}}};
  EXPECT_TRUE(has(text_of(page), "\nSection\n-------\nclients\n  name  requests\n  a            7\n  Grün      1234\n"))
      << text_of(page);
}

TEST(NumberText, IsNeverNegativeZero) {
  EXPECT_EQ(number_text(-0.001, 2), "0.00");
  EXPECT_EQ(number_text(-0.01, 2), "-0.01");
}

TEST(DurationText, PicksTheUnit) {
  EXPECT_EQ(duration_text(350), "350 µs");
  EXPECT_EQ(duration_text(2500), "2.50 ms");
  EXPECT_EQ(duration_text(1e6), "1 s");
}

TEST(TimePlot, LineEndsAtANumberThatIsNone) {
  const double none = std::numeric_limits<double>::quiet_NaN();
  const std::string svg = svg_of(TimePlot{"t", "°", {{"a", {{0, 0}, {1, 1}, {1, none}, {2, 0}, {3, 1}}}}, {}}, 1);
  const std::string path = svg.substr(svg.find(" d=\"") + 4);
  EXPECT_EQ(count(path.substr(0, path.find('"')), "M"), 2) << path;
}

TEST(TimePlot, LevelPartsOfALineAreOneStroke) {
  Series series = {"a", {}};
  for (int i = 0; i < 1000; ++i) series.points.push_back({i / 100.0, i < 500 ? 0.0 : 1.0});
  const std::string svg = svg_of(TimePlot{"t", "°", {series}, {}}, 1);
  const std::string path = svg.substr(svg.find(" d=\"") + 4);
  EXPECT_EQ(count(path.substr(0, path.find('"')), "L"), 3) << path;
}

TEST(TimePlot, WithoutPointsIsDrawn) {
  const std::string svg = svg_of(TimePlot{"t", "°", {{"a", {}}}, {}}, 1);
  EXPECT_FALSE(has(svg, "nan"));
  EXPECT_FALSE(has(svg, "inf"));
  EXPECT_TRUE(has(svg, "a: nothing"));
}

TEST(TimePlot, ExtremeValuesAreDrawn) {
  const double great = 2147483647;
  for (const auto &points : {std::vector<PlotPoint>{{0, -great}, {1e9, great}},
                             {{0, great}},
                             {{-1e-9, 0}, {1e-9, 1e-9}},
                             {{0, 1e15}},
                             {{1e15, 0}},
                             {{0, 1e15}, {1, 1e15 + 1}},
                             {{0, -1e30}, {1, 1e300}}}) {
    const std::string svg = svg_of(TimePlot{"t", "°", {{"a", points}}, {}}, 1);
    EXPECT_FALSE(has(svg, "nan"));
    EXPECT_FALSE(has(svg, "inf"));
    EXPECT_LT(count(svg, "<text"), 40);
  }
}

TEST(TimePlot, NamesOfMarksStandAboveTheCurves) {
  const std::string svg = svg_of(TimePlot{"t", "°", {{"a", {{0, 0}, {9, 1}}}}, {{1, "x"}, {2, "x"}, {3, "x"}}}, 1);
  const std::string grid = svg.substr(svg.rfind("class=\"grid\""));
  const double highest = std::stod(grid.substr(grid.find("y1=\"") + 4));
  for (std::size_t at = svg.find("class=\"name\""); at != std::string::npos; at = svg.find("class=\"name\"", at + 1)) {
    EXPECT_LT(std::stod(svg.substr(svg.find(" y=\"", at) + 4)), highest);
  }
}

TEST(HistogramPlot, RareLatencyIsVisibleBesideFrequentOnes) {
  const std::string svg = svg_of(HistogramPlot{"t", {{100, 119, 1e6}, {10000, 11900, 1}}, {}}, 1);
  EXPECT_EQ(count(svg, "class=\"bar\""), 2);
  EXPECT_TRUE(has(svg, "height=\"2.0\"")) << svg;
}

TEST(HistogramPlot, OpenLastBucketIsDrawn) {
  const std::string svg =
      svg_of(HistogramPlot{"t", {{0, 1, 5}, {1e6, std::numeric_limits<double>::infinity(), 1}}, {}}, 1);
  EXPECT_FALSE(has(svg, "inf\""));
  EXPECT_TRUE(has(svg, "1 of 1 s to more"));
}

TEST(Buckets, CountEverySampleOnce) {
  const auto buckets = buckets_of({0.2, 1, 1.1, 40, 40.5, 1e6});
  double counted = 0;
  for (const auto &bucket : buckets) counted += bucket.count;
  EXPECT_EQ(counted, 6);
  EXPECT_EQ(buckets.front().count, 3);
}

// --- motion -----------------------------------------------------------------------------------------------------

struct Motion : testing::Test {
  MotionTrace trace;

  template <auto write, typename Message>
  static std::vector<guint8> body(const Message &message) {
    GArray *const array = ptz_serialize_create_array();
    EXPECT_TRUE(write(&message, array, nullptr));
    const std::vector<guint8> bytes(array->data, array->data + array->len);
    g_array_unref(array);
    return bytes;
  }
  void move(gint64 at_us, guint32 id, PTZMove kind, gint32 pan, guint16 speed = 100) {
    trace.add_request(at_us, id,
                      body<ptz_kit_move_request_write>(PTZKitMoveRequest{static_cast<guint32>(kind), 1, speed, {pan}}));
  }
  void sample(gint64 at_us, double pan, bool is_moving) { trace.add_sample({at_us, {pan}, {is_moving}}); }
  [[nodiscard]] std::string cell(std::size_t row, std::size_t column) const {
    return trace.rows().at(row).at(column).text;
  }
};
constexpr std::size_t order_column = 2, rest_column = 4, overshoot_column = 5, time_column = 6;

TEST_F(Motion, AbsoluteMoveTellsOvershootAndTimeToRest) {
  sample(0, 0, false);
  move(1000, 1, PTZ_MOVE_ABSOLUTE, 1000);
  sample(101'000, 8, true);
  sample(201'000, 10.5, true);
  sample(301'000, 10, false);
  sample(401'000, 10, false);
  EXPECT_EQ(cell(0, order_column), "absolute to 10.00 °");
  EXPECT_EQ(cell(0, rest_column), "10.00 °");
  EXPECT_EQ(cell(0, overshoot_column), "0.50 °");
  EXPECT_EQ(cell(0, time_column), "300 ms");
}

TEST_F(Motion, OvershootOfADownwardMoveIsPositive) {
  sample(0, 0, false);
  move(1000, 1, PTZ_MOVE_RELATIVE, -1000);
  sample(101'000, -11, true);
  sample(201'000, -10, false);
  EXPECT_EQ(cell(0, order_column), "relative to -10.00 °");
  EXPECT_EQ(cell(0, overshoot_column), "1.00 °");
}

TEST_F(Motion, OrderThatIsReplacedHasNoRest) {
  sample(0, 0, false);
  move(1000, 1, PTZ_MOVE_ABSOLUTE, 1000);
  sample(101'000, 5, true);
  move(150'000, 2, PTZ_MOVE_ABSOLUTE, 0);
  sample(301'000, 0, false);
  EXPECT_EQ(cell(0, rest_column), "next order first");
  EXPECT_EQ(cell(1, time_column), "151 ms");
}

TEST_F(Motion, RefusedOrderIsNoCommand) {
  sample(0, 0, false);
  move(1000, 7, PTZ_MOVE_ABSOLUTE, 1000);
  trace.add_reply(2000, 7, body<ptz_kit_error_reply_write>(PTZKitErrorReply{4, const_cast<gchar *>("no")}));
  sample(101'000, 0, false);
  EXPECT_FALSE(trace.has_motion());
  EXPECT_TRUE(trace.plots("t").empty());
}

TEST_F(Motion, ContinuousMoveIsCommandedAsARampUpToTheLimit) {
  trace.add_reply(0, 1,
                  body<ptz_kit_query_limit_ranges_reply_write>(PTZKitQueryLimitRangesReply{{-500, 0, 0}, {500, 0, 0}}));
  sample(0, 0, false);
  move(0, 2, PTZ_MOVE_CONTINUOUS, 1000, 50);  // 5 degrees a second
  sample(2'000'000, 5, false);
  const auto figures = trace.plots("t");
  ASSERT_EQ(figures.size(), 1U);
  const auto &points = std::get<TimePlot>(figures[0]).series.at(1).points;
  ASSERT_EQ(points.size(), 4U);
  EXPECT_EQ(points[1].x, 1);
  EXPECT_EQ(points[1].y, 5);
  EXPECT_EQ(points[2].x, 2);
  EXPECT_TRUE(std::isnan(points[3].y));
}

TEST_F(Motion, StopCommandsNoPosition) {
  sample(0, 0, false);
  move(0, 1, PTZ_MOVE_CONTINUOUS, 1000);
  sample(1'000'000, 8, true);
  trace.add_request(1'000'000, 2, std::vector<guint8>{PTZ_COMMAND_STOP, 0, 0, 0});
  sample(1'500'000, 7, false);
  const auto figures = trace.plots("t");
  ASSERT_EQ(figures.size(), 1U);
  for (const PlotPoint &point : std::get<TimePlot>(figures[0]).series.at(1).points) {
    EXPECT_TRUE(point.x <= 1 || std::isnan(point.y)) << point.x << " " << point.y;
  }
}

TEST_F(Motion, WindowIsShownWholeAndTheEndOfReportsIsMarked) {
  trace.set_window(0, 8'000'000);
  sample(1'000'000, 0, false);
  move(1'000'000, 1, PTZ_MOVE_ABSOLUTE, 1000);
  sample(5'900'000, 8, true);
  const auto figures = trace.plots("t");
  ASSERT_EQ(figures.size(), 1U);
  const auto &plot = std::get<TimePlot>(figures[0]);
  EXPECT_EQ(plot.from, 0);
  EXPECT_EQ(plot.to, 8);
  ASSERT_EQ(plot.marks.size(), 2U);
  EXPECT_EQ(plot.marks[1].name, "no reports");
  EXPECT_DOUBLE_EQ(plot.marks[1].x, 5.9);
  EXPECT_TRUE(has(svg_of(plot, 1), ">8</text>"));
}

TEST_F(Motion, AxisThatStandsStillHasNoPlot) {
  sample(0, 0, false);
  move(1000, 1, PTZ_MOVE_ABSOLUTE, 1000);
  sample(101'000, 10, false);
  const auto figures = trace.plots("check");
  ASSERT_EQ(figures.size(), 1U);
  EXPECT_EQ(title_of(figures[0]), "check: pan");
}

TEST_F(Motion, MalformedFramesAreIgnored) {
  const std::vector<guint8> cut = {5, 0, 0, 0, 1};
  trace.add_request(0, 1, cut);
  trace.add_request(0, 1, {});
  trace.add_reply(0, 1, std::vector<guint8>{13, 0, 0, 0, 9});
  EXPECT_FALSE(trace.has_motion());
}

// --- files ------------------------------------------------------------------------------------------------------

struct OutputFile : testing::Test {
  ptz_test::TempDir dir;
  const std::string path = dir.file("page");

  [[nodiscard]] std::string contents() const {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  [[nodiscard]] std::ptrdiff_t files() const {
    return std::distance(std::filesystem::directory_iterator(dir.path()), std::filesystem::directory_iterator());
  }
};

TEST_F(OutputFile, IsWrittenWithItsModeAndNothingElse) {
  EXPECT_EQ(write_output(path, "text", Existing::keep, 0600), "");
  struct stat status = {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
  EXPECT_EQ(contents(), "text");
  EXPECT_EQ(files(), 1);
}

TEST_F(OutputFile, ExistingFileIsKeptUnlessItMayBeReplaced) {
  ASSERT_EQ(write_output(path, "first", Existing::keep, 0600), "");
  EXPECT_TRUE(has(write_output(path, "second", Existing::keep, 0600), "exists"));
  EXPECT_EQ(contents(), "first");
  EXPECT_EQ(write_output(path, "second", Existing::replace, 0600), "");
  EXPECT_EQ(contents(), "second");
  EXPECT_EQ(files(), 1);
}

TEST_F(OutputFile, WhatIsNoRegularFileIsNeverReplaced) {
  ASSERT_EQ(symlink("/dev/null", path.c_str()), 0);
  EXPECT_TRUE(has(write_output(path, "text", Existing::replace, 0600), "no regular file"));
  EXPECT_TRUE(std::filesystem::is_symlink(path));
}

TEST_F(OutputFile, MissingFolderIsTold) {
  EXPECT_TRUE(has(problem_with_output(dir.file("no/page"), Existing::keep), "No such file"));
}

}  // namespace
