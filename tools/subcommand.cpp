#include "subcommand.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <utility>

namespace ptzctl {

namespace {

void print_table(std::FILE *file, std::span<const Subcommand> subcommands, const std::string &words) {
  std::fprintf(file, "Usage: %s SUBCOMMAND ...\n\n", words.c_str());
  for (const auto &each : subcommands) std::fprintf(file, "  %-10s %s\n", each.name, each.summary);
  std::fprintf(file, "\nEach has a --help of its own.\n");
}

}  // namespace

int run_one_of(std::span<const Subcommand> subcommands, const std::string &words, int argc, char **argv) {
  const std::string_view wanted = argc > 1 ? argv[1] : "";
  if (wanted == "--help" || wanted == "-h") {
    print_table(stdout, subcommands, words);
    return EXIT_SUCCESS;
  }
  for (const auto &each : subcommands) {
    if (wanted == each.name) return each.run(words + " " + each.name, argc - 1, argv + 1);
  }
  if (!wanted.empty()) complain("%s has no '%s'", words.c_str(), argv[1]);
  print_table(stderr, subcommands, words);
  return exit_usage;
}

void complain(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const ptz::Text text(g_strdup_vprintf(format, arguments));
  va_end(arguments);
  g_printerr("ptzctl: %s\n", text.get());
}

Options::Options(const std::string &words, const char *parameters, const char *summary, const GOptionEntry *entries)
    : context_(g_option_context_new(parameters)), words_(words) {
  g_option_context_set_summary(context_.get(), summary);
  g_option_context_add_main_entries(context_.get(), entries, nullptr);
}

std::optional<std::vector<std::string>> Options::parse(int argc, char **argv, std::size_t most_words) {
  // The help names the program by this.
  g_set_prgname(words_.c_str());
  ptz::Error error;
  std::vector<char *> arguments(argv, argv + argc);
  arguments.push_back(nullptr);
  char **given = arguments.data();
  if (!g_option_context_parse(context_.get(), &argc, &given, ptz::out(error))) {
    complain("%s; see %s --help", error->message, words_.c_str());
    return std::nullopt;
  }
  std::vector<std::string> words(given + 1, given + argc);
  if (!words.empty() && words.front() == "--") words.erase(words.begin());
  if (words.size() > most_words) {
    complain("there is no use for '%s'; see %s --help", words[most_words].c_str(), words_.c_str());
    return std::nullopt;
  }
  return words;
}

std::optional<gint64> parse_number(const std::string &text, const char *what, gint64 least, gint64 most) {
  gint64 number = 0;
  ptz::Error error;
  if (g_ascii_string_to_signed(text.c_str(), 10, least, most, &number, ptz::out(error))) return number;
  complain("'%s' is no %s: it is a number from %" G_GINT64_FORMAT " to %" G_GINT64_FORMAT, text.c_str(), what, least,
           most);
  return std::nullopt;
}

void JsonLine::member(const char *name, const char *value) const {
  json_builder_set_member_name(get(), name);
  json_builder_add_string_value(get(), value);
}

void JsonLine::member(const char *name, gint64 value) const {
  json_builder_set_member_name(get(), name);
  json_builder_add_int_value(get(), value);
}

void JsonLine::member(const char *name, double value) const {
  json_builder_set_member_name(get(), name);
  json_builder_add_double_value(get(), value);
}

void JsonLine::begin_object(const char *name) const {
  json_builder_set_member_name(get(), name);
  json_builder_begin_object(get());
}

void JsonLine::print() const {
  const ptz::Handle<JsonNode, json_node_unref> root(json_builder_get_root(get()));
  const ptz::Text text(json_to_string(root.get(), FALSE));
  std::printf("%s\n", text.get());
  std::fflush(stdout);
}

}  // namespace ptzctl
