#include "report.h"

#include <array>
#include <cstdio>
#include <map>

#include "colours.h"
#include "json_text.h"

namespace compliance {

const char *name_of(Traffic::Direction direction) { return direction == Traffic::sent ? "sent" : "received"; }

std::string hex(const Traffic &traffic) {
  std::string text;
  for (const char byte : traffic.beginning) {
    const Text digits(g_strdup_printf(text.empty() ? "%02x" : " %02x", static_cast<guint8>(byte)));
    text += digits.get();
  }
  if (traffic.size > traffic.beginning.size()) text += " ... (" + std::to_string(traffic.size) + " bytes)";
  return text;
}

namespace {

using Builder = Object<JsonBuilder>;

constexpr std::array<const char *, 3> result_names = {"passed", "failed", "not applicable"};  // by Result
constexpr std::array<Look, 3> result_looks = {Look::good, Look::bad, Look::notice};

const char *name_of(Result result) { return result_names[static_cast<std::size_t>(result)]; }

struct Counts {
  std::array<int, result_names.size()> of{};
  std::map<std::string, int> inapplicable;  // by reason
  gint64 start = g_get_monotonic_time();
  void count(const Outcome &outcome) {
    ++of[static_cast<std::size_t>(outcome.result)];
    if (outcome.result == Result::not_applicable) ++inapplicable[outcome.remark];
  }
  // "3 the driver announces no zoom; 9 no --instance says ..."
  [[nodiscard]] std::string reasons() const {
    std::string text;
    for (const auto &[reason, checks] : inapplicable) {
      text += (text.empty() ? "" : "; ") + std::to_string(checks) + " " + reason;
    }
    return text;
  }
  [[nodiscard]] double seconds() const { return static_cast<double>(g_get_monotonic_time() - start) / G_USEC_PER_SEC; }
};

class TextReport : public Report {
  Counts counts_;

 public:
  void add(const Check &check, const Outcome &outcome) override {
    counts_.count(outcome);
    std::string result = name_of(outcome.result);
    result.resize(14, ' ');
    const Look look = result_looks[static_cast<std::size_t>(outcome.result)];
    std::printf("%s  %s: %s", painted(look, result).c_str(), check.name, check.title);
    if (!outcome.remark.empty()) {
      std::printf(outcome.result == Result::passed ? " (%s)" : " - %s", outcome.explanation().c_str());
    }
    std::printf("\n");
    if (outcome.result == Result::failed) {
      for (const Traffic &traffic : outcome.traffic) {
        std::printf("                  client %d %-8s  %s\n", traffic.client, name_of(traffic.direction),
                    hex(traffic).c_str());
      }
    }
    std::fflush(stdout);
  }
  std::string finish() override {
    const std::string reasons = counts_.reasons();
    std::printf("%d passed, %d failed, %d not applicable in %.1f s%s%s\n", counts_.of[0], counts_.of[1], counts_.of[2],
                counts_.seconds(), reasons.empty() ? "" : ": ", reasons.c_str());
    return "";
  }
};

// Text that a YAML reader takes as it is.
std::string quoted(const std::string &text) {
  std::string result = "\"";
  for (const char byte : text) {
    if (byte == '"' || byte == '\\') result += '\\';
    result += byte == '\n' ? ' ' : byte;
  }
  return result + "\"";
}

class TapReport : public Report {
  int number_ = 0;
  Counts counts_;

 public:
  explicit TapReport(std::size_t checks) { std::printf("TAP version 13\n1..%zu\n", checks); }
  void add(const Check &check, const Outcome &outcome) override {
    counts_.count(outcome);
    std::printf("%s %d - %s", outcome.result == Result::failed ? "not ok" : "ok", ++number_, check.name);
    if (outcome.result == Result::not_applicable) std::printf(" # SKIP %s", outcome.explanation().c_str());
    std::printf("\n");
    if (outcome.result == Result::passed && !outcome.remark.empty()) std::printf("# %s\n", outcome.remark.c_str());
    if (outcome.result == Result::failed) {
      std::printf("  ---\n  check: %s\n  message: %s\n  bytes:\n", quoted(check.title).c_str(),
                  quoted(outcome.remark).c_str());
      for (const Traffic &traffic : outcome.traffic) {
        std::printf("    - \"client %d %s: %s\"\n", traffic.client, name_of(traffic.direction), hex(traffic).c_str());
      }
      std::printf("  ...\n");
    }
    std::fflush(stdout);
  }
  std::string finish() override {
    if (counts_.inapplicable.empty()) return "";
    std::printf("# %d not applicable: %s\n", counts_.of[2], counts_.reasons().c_str());
    return "";
  }
};

void add_text(const Builder &builder, const char *name, const std::string &value) {
  json_builder_set_member_name(builder.get(), name);
  const Text valid(g_utf8_make_valid(value.c_str(), static_cast<gssize>(value.size())));
  json_builder_add_string_value(builder.get(), valid.get());
}
void add_number(const Builder &builder, const char *name, gint64 value) {
  json_builder_set_member_name(builder.get(), name);
  json_builder_add_int_value(builder.get(), value);
}
void print(const Builder &builder) {
  JsonNode *const root = json_builder_get_root(builder.get());
  std::printf("%s\n", json_text(root, true).c_str());
  json_node_free(root);
}

class JsonReport : public Report {
  Counts counts_;
  Builder builder_ = Builder(json_builder_new());

 public:
  explicit JsonReport(const Subject &subject) {
    json_builder_begin_object(builder_.get());
    add_text(builder_, "socket", subject.path());
    json_builder_set_member_name(builder_.get(), "command");
    json_builder_begin_array(builder_.get());
    for (const std::string &word : subject.command()) json_builder_add_string_value(builder_.get(), word.c_str());
    json_builder_end_array(builder_.get());
    json_builder_set_member_name(builder_.get(), "checks");
    json_builder_begin_array(builder_.get());
  }
  void add(const Check &check, const Outcome &outcome) override {
    counts_.count(outcome);
    json_builder_begin_object(builder_.get());
    add_text(builder_, "name", check.name);
    add_text(builder_, "title", check.title);
    add_text(builder_, "result", name_of(outcome.result));
    add_text(builder_, outcome.result == Result::passed ? "note" : "reason", outcome.remark);
    if (!outcome.answer.empty()) add_text(builder_, "answer", outcome.answer);
    json_builder_set_member_name(builder_.get(), "milliseconds");
    json_builder_add_double_value(builder_.get(), outcome.ms);
    if (outcome.result == Result::failed) {
      json_builder_set_member_name(builder_.get(), "bytes");
      json_builder_begin_array(builder_.get());
      for (const Traffic &traffic : outcome.traffic) {
        json_builder_begin_object(builder_.get());
        add_number(builder_, "client", traffic.client);
        add_text(builder_, "direction", name_of(traffic.direction));
        add_number(builder_, "size", static_cast<gint64>(traffic.size));
        add_text(builder_, "hex", hex(traffic));
        json_builder_end_object(builder_.get());
      }
      json_builder_end_array(builder_.get());
    }
    json_builder_end_object(builder_.get());
  }
  std::string finish() override {
    json_builder_end_array(builder_.get());
    for (std::size_t index = 0; index < counts_.of.size(); ++index) {
      constexpr std::array<const char *, 3> keys = {"passed", "failed", "not_applicable"};  // by Result
      add_number(builder_, keys[index], counts_.of[index]);
    }
    json_builder_set_member_name(builder_.get(), "not_applicable_by_reason");
    json_builder_begin_object(builder_.get());
    for (const auto &[reason, checks] : counts_.inapplicable) add_number(builder_, reason.c_str(), checks);
    json_builder_end_object(builder_.get());
    json_builder_end_object(builder_.get());
    print(builder_);
    return "";
  }
};

}  // namespace

std::unique_ptr<Report> make_report(Format format, std::size_t checks, const Subject &subject) {
  if (format == Format::tap) return std::make_unique<TapReport>(checks);
  if (format == Format::json) return std::make_unique<JsonReport>(subject);
  return std::make_unique<TextReport>();
}

void list_checks(Format format, const std::vector<const Check *> &checks) {
  if (format != Format::json) {
    for (const Check *check : checks) std::printf("%s: %s\n", check->name, check->title);
    return;
  }
  const Builder builder(json_builder_new());
  json_builder_begin_array(builder.get());
  for (const Check *check : checks) {
    json_builder_begin_object(builder.get());
    add_text(builder, "name", check->name);
    add_text(builder, "title", check->title);
    json_builder_end_object(builder.get());
  }
  json_builder_end_array(builder.get());
  print(builder);
}

}  // namespace compliance
