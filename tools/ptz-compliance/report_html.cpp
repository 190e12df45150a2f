// The verdicts as a page: failures first, then how the head moved and how long the replies took.
#include <glib.h>

#include <algorithm>

#include "html_page.h"
#include "output_file.h"
#include "report.h"

namespace compliance {

namespace {

using tools::Cell;
using tools::Mood;
using tools::Section;

constexpr mode_t page_mode = 0644;

// "move" of "move.stop-stops"
std::string area_of(const std::string &check) { return check.substr(0, check.find('.')); }

std::string title_of(const Check &check) { return std::string(check.name) + ": " + check.title; }

struct Verdict {
  const Check *check;
  Outcome outcome;
};

class HtmlReport : public Report {
  std::string path_, socket_, command_;
  gint64 start_us_ = g_get_monotonic_time();
  std::vector<Verdict> verdicts_;

  [[nodiscard]] std::size_t count(Result result) const {
    return static_cast<std::size_t>(
        std::ranges::count(verdicts_, result, [](const Verdict &each) { return each.outcome.result; }));
  }
  [[nodiscard]] Section summary() const;
  [[nodiscard]] Section failures() const;
  [[nodiscard]] Section others(Result result, const char *id, const char *title, const char *remark) const;
  [[nodiscard]] Section motions() const;
  [[nodiscard]] Section latencies() const;
  [[nodiscard]] tools::Page page() const;

 public:
  HtmlReport(std::string path, const Subject &subject) : path_(std::move(path)), socket_(subject.path()) {
    for (const std::string &word : subject.command()) command_ += (command_.empty() ? "" : " ") + word;
  }
  void add(const Check &check, const Outcome &outcome) override { verdicts_.push_back({&check, outcome}); }
  [[nodiscard]] std::string finish() override {
    return tools::write_output(path_, tools::html_of(page()), tools::Existing::replace, page_mode);
  }
};

Section HtmlReport::summary() const {
  Section section = {"run", "Run", {}};
  tools::Facts facts;
  const auto add = [&facts](const char *name, const std::string &value) {
    if (!value.empty()) facts.rows.emplace_back(name, value);
  };
  add("socket", socket_);
  add("command", command_);
  add("ended", tools::local_time_text(g_get_real_time()));
  add("took", tools::number_text(static_cast<double>(g_get_monotonic_time() - start_us_) / G_USEC_PER_SEC, 1) + " s");
  add("tool", std::string("ptz-compliance ") + TOOLS_VERSION);
  add("machine", g_get_host_name());
  section.blocks.emplace_back(facts);
  return section;
}

Section HtmlReport::failures() const {
  Section section = {"failed", "Failed", {}, Mood::bad};
  for (const auto &[check, outcome] : verdicts_) {
    if (outcome.result != Result::failed) continue;
    tools::Finding finding = {Mood::bad, "failed", title_of(*check), {outcome.explanation()}, {}};
    for (const Traffic &traffic : outcome.traffic) {
      const Text line(
          g_strdup_printf("client %d %-8s  %s", traffic.client, name_of(traffic.direction), hex(traffic).c_str()));
      finding.lines.emplace_back(line.get());
    }
    section.blocks.emplace_back(finding);
  }
  return section;
}

// A table for each area of checks.
Section HtmlReport::others(Result result, const char *id, const char *title, const char *remark) const {
  Section section = {id, title, {}};
  tools::Table table;
  const auto finish_table = [&] {
    if (!table.rows.empty()) section.blocks.emplace_back(table);
    table.rows.clear();
  };
  for (const auto &[check, outcome] : verdicts_) {
    if (outcome.result != result) continue;
    if (const std::string area = area_of(check->name); area != table.caption) {
      finish_table();
      table = {area, {{"check"}, {"what it checks"}, {remark}, {"took", true}}, {}};
    }
    table.rows.push_back({{check->name, result == Result::passed ? Mood::good : Mood::plain},
                          {check->title},
                          {outcome.explanation()},
                          {tools::duration_text(outcome.ms * 1000)}});
  }
  finish_table();
  return section;
}

Section HtmlReport::motions() const {
  Section section = {"motion", "Motion", {}};
  tools::Table table = {"Orders and what became of them", tools::MotionTrace::columns(), {}};
  table.columns.insert(table.columns.begin(), {"check"});
  tools::Figures figures;
  auto verdicts = verdicts_;
  std::ranges::stable_partition(verdicts, [](const Verdict &each) { return each.outcome.result == Result::failed; });
  for (const auto &[check, outcome] : verdicts) {
    const auto &motion = outcome.trace.motion();
    if (!motion.has_motion()) continue;
    const bool is_failed = outcome.result == Result::failed;
    for (auto &figure : motion.plots(check->name + std::string(is_failed ? " (failed)" : "")))
      figures.figures.push_back(std::move(figure));
    for (auto &row : motion.rows()) {
      row.insert(row.begin(), Cell{check->name, is_failed ? Mood::bad : Mood::plain});
      table.rows.push_back(std::move(row));
    }
  }
  if (table.rows.empty()) return section;
  section.blocks.emplace_back(
      tools::Paragraph{"Overshoot is how far an axis went beyond its target, or how far it ran on after a stop. Time "
                       "to rest is from the "
                       "order to the first reply that reports the axis idle."});
  section.blocks.emplace_back(table);
  section.blocks.emplace_back(figures);
  return section;
}

Section HtmlReport::latencies() const {
  Section section = {"latency", "Latency", {}};
  tools::Figures figures;
  std::vector<double> all;
  const auto add = [&figures](const std::string &title, std::vector<double> us) {
    if (us.empty()) return;
    std::ranges::sort(us);
    const auto mark = [&us](const char *name, double share) {
      const double at = us[static_cast<std::size_t>(share * static_cast<double>(us.size() - 1))];
      return tools::PlotMark{at, std::string(name) + " " + tools::duration_text(at)};
    };
    figures.figures.emplace_back(
        tools::HistogramPlot{title, tools::buckets_of(us), {mark("p50", 0.5), mark("p99", 0.99)}});
  };
  for (const auto &[check, outcome] : verdicts_) {
    const auto &us = outcome.trace.latencies_us();
    all.insert(all.end(), us.begin(), us.end());
  }
  add("replies of all checks", all);
  for (const auto &[check, outcome] : verdicts_) {
    if (area_of(check->name) == "latency") add(check->name, outcome.trace.latencies_us());
  }
  if (!figures.figures.empty()) section.blocks.emplace_back(figures);
  return section;
}

tools::Page HtmlReport::page() const {
  const std::size_t failed = count(Result::failed);
  tools::Page page = {"Compliance of a driver", command_.empty() ? socket_ : command_, {}, {}};
  page.tiles = {{std::to_string(failed), "failed", failed > 0 ? Mood::bad : Mood::good},
                {std::to_string(count(Result::passed)), "passed", Mood::good},
                {std::to_string(count(Result::not_applicable)), "not applicable"}};
  for (auto &section :
       {summary(), failures(), motions(), latencies(), others(Result::passed, "passed", "Passed", "figures"),
        others(Result::not_applicable, "not-applicable", "Not applicable", "reason")}) {
    if (!section.blocks.empty()) page.sections.push_back(section);
  }
  return page;
}

}  // namespace

std::unique_ptr<Report> make_html_report(const std::string &path, const Subject &subject) {
  return std::make_unique<HtmlReport>(path, subject);
}

}  // namespace compliance
