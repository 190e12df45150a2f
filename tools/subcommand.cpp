#include "subcommand.h"

#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <numeric>
#include <string_view>
#include <utility>

#include "driver_socket.h"
#include "problems.h"

namespace ptzctl {

namespace {

constexpr char default_socket[] = "/run/ptz/driver.socket";

void print_table(std::FILE *file, std::span<const Subcommand> subcommands, const char *rest, const std::string &words) {
  std::fprintf(file, "Usage: %s SUBCOMMAND ...\n\n", words.c_str());
  for (const auto &each : subcommands) std::fprintf(file, "  %-10s %s\n", each.name, each.summary);
  std::fprintf(file, "\nEach has a --help of its own.\n\n%s\n", rest);
}

int complain_of_misuse(const std::string &words, const char *problem) {
  complain("%s; see %s --help", problem, words.c_str());
  return exit_usage;
}

// How many letters have to be changed, added or left out.
std::size_t distance(std::string_view one, std::string_view other) {
  std::vector<std::size_t> row(other.size() + 1);
  std::iota(row.begin(), row.end(), 0);
  for (std::size_t i = 0; i < one.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < other.size(); ++j) {
      const std::size_t changed = diagonal + (one[i] == other[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({changed, row[j] + 1, diagonal + 1});
    }
  }
  return row.back();
}

// Options that others of the tool have.
gboolean refuse_option(const gchar *name, const gchar *, gpointer, GError **error) {
  const bool is_timeout = g_str_has_prefix(name, "--") ? strcmp(name, "--timeout") == 0 : strcmp(name, "-t") == 0;
  g_set_error(error, G_OPTION_ERROR, G_OPTION_ERROR_FAILED, "it takes no %s: it %s", name,
              is_timeout ? "waits for no answer" : "asks no driver");
  return FALSE;
}

}  // namespace

int run_one_of(std::span<const Subcommand> subcommands, const char *rest, const std::string &words, int argc,
               char **argv) {
  const std::string wanted = argc > 1 ? argv[1] : "";
  if (wanted == "--help" || wanted == "-h") {
    print_table(stdout, subcommands, rest, words);
    return EXIT_SUCCESS;
  }
  if (wanted.empty()) {
    print_table(stderr, subcommands, rest, words);
    return exit_usage;
  }
  Words names;
  for (const auto &each : subcommands) {
    if (wanted == each.name) return each.run(words + " " + each.name, argc - 1, argv + 1);
    names.emplace_back(each.name);
  }
  const char *what = wanted.front() == '-' ? ": options stand behind its subcommand" : "";
  return complain_of_misuse(words, (words + " has no '" + wanted + "'" + what + did_you_mean(wanted, names)).c_str());
}

void complain(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const tools::Text text(g_strdup_vprintf(format, arguments));
  va_end(arguments);
  tools::print_problem("ptzctl", text.get());
}

std::string did_you_mean(const std::string &given, const Words &words) {
  const auto of_given = [&](const std::string &word) { return distance(given, word); };
  const auto nearest = std::ranges::min_element(words, {}, of_given);
  // Of a short word, few letters are the whole.
  if (nearest == words.end() || of_given(*nearest) > std::min<std::size_t>(2, nearest->size() / 2)) return "";
  return " (did you mean '" + *nearest + "'?)";
}

Options::Options(const std::string &words, const Manual &manual, Asks asks, std::vector<GOptionEntry> further,
                 gint timeout_ms)
    : words_(words),
      manual_(manual),
      timeout_ms_(timeout_ms),
      timeout_text_("How long to wait for an answer, by default " + std::to_string(timeout_ms)),
      entries_(std::move(further)) {
  const bool has_driver = asks == Asks::driver || asks == Asks::monitor;
  const auto add = [this](const char *name, char letter, bool is_taken, GOptionArg kind, gpointer value,
                          const char *description, const char *of) {
    if (is_taken) {
      entries_.push_back({name, letter, G_OPTION_FLAG_NONE, kind, value, description, of});
    } else {
      entries_.push_back({name, letter, G_OPTION_FLAG_HIDDEN | G_OPTION_FLAG_NO_ARG, G_OPTION_ARG_CALLBACK,
                          reinterpret_cast<gpointer>(refuse_option), nullptr, nullptr});
    }
  };
  add("socket", 's', has_driver, G_OPTION_ARG_FILENAME, &socket_,
      "The driver's socket, by default /run/ptz/driver.socket, or the socket of the only driver that runs", "PATH");
  add("driver", 'd', has_driver, G_OPTION_ARG_STRING, &driver_,
      "The driver by its name in ptzctl driver list, by NAME:INSTANCE, or by its instance", "NAME");
  add("timeout", 't', asks == Asks::service || asks == Asks::driver, G_OPTION_ARG_INT, &timeout_ms_,
      timeout_text_.c_str(), "MS");
  // A subcommand whose output cannot be JSON has a hidden entry of its own, which it refuses.
  const auto is_json = [](const GOptionEntry &each) { return g_strcmp0(each.long_name, "json") == 0; };
  if (std::ranges::none_of(entries_, is_json))
    add("json", 'j', true, G_OPTION_ARG_NONE, &as_json_, "One object a line", nullptr);
  add("color", 0, true, G_OPTION_ARG_STRING, &colours_, "Colours: always, never, or auto, on a terminal", "WHEN");
  entries_.push_back({});
}

Options::~Options() {
  g_free(socket_);
  g_free(driver_);
  g_free(colours_);
}

std::optional<Words> Options::parse_options(std::vector<char *> arguments) {
  const tools::Handle<GOptionContext, g_option_context_free> context(g_option_context_new(manual_.parameters));
  g_set_prgname(words_.c_str());  // as which the help names the program
  g_option_context_set_summary(context.get(), manual_.summary);
  g_option_context_set_description(context.get(), ("Example: " + words_ + manual_.example).c_str());
  g_option_context_add_main_entries(context.get(), entries_.data(), nullptr);
  g_option_context_set_ignore_unknown_options(context.get(), TRUE);  // -300 is a word
  int count = static_cast<int>(arguments.size());
  arguments.push_back(nullptr);
  char **left = arguments.data();
  tools::Error error;
  if (!g_option_context_parse(context.get(), &count, &left, tools::out(error))) {
    misused("%s", error->message);
    return std::nullopt;
  }
  if (as_json_ != FALSE) tools::print_problems_as_json();
  for (int i = 1; i < count; ++i) {
    char *end = nullptr;
    g_ascii_strtod(left[i], &end);
    if (left[i][0] != '-' || left[i][1] == '\0' || *end == '\0') continue;
    Words names = {"--help"};
    for (const auto &each : entries_) {
      if (each.long_name != nullptr) names.push_back(std::string("--") + each.long_name);
    }
    misused("there is no option '%s'%s", left[i], did_you_mean(left[i], names).c_str());
    return std::nullopt;
  }
  return Words(left + 1, left + count);
}

bool Options::are_values_sensible() const {
  if (!is_within("--timeout", timeout_ms_, 1, G_MAXINT)) return false;
  const std::size_t most = sizeof sockaddr_un::sun_path - 1;
  if (const std::string_view path = socket_ != nullptr ? socket_ : "x"; path.empty() || path.size() > most) {
    misused("--socket '%s' is no path of 1 to %zu bytes", socket_, most);
    return false;
  }
  if (socket_ != nullptr && driver_ != nullptr) {
    misused("--socket and --driver exclude each other");
    return false;
  }
  if (!choose_colours(colours_ != nullptr ? colours_ : "auto")) {
    misused("--color '%s' is not always, never or auto", colours_);
    return false;
  }
  return true;
}

std::optional<std::string> Options::socket(int &status) const {
  if (socket_ != nullptr) return socket_;
  std::string problem;
  tools::RegistryEntry entry;
  if (driver_ != nullptr) {
    entry = tools::driver_named(driver_, problem);
    if (entry == nullptr) {
      complain("%s", problem.c_str());
      status = exit_nobody;
      return std::nullopt;
    }
  } else if (access(default_socket, F_OK) != 0) {
    entry = tools::only_driver(problem);
    if (!problem.empty()) {
      status = misused("%s: name one with --driver", problem.c_str());
      return std::nullopt;
    }
  }
  return entry != nullptr ? entry->socket_path : default_socket;
}

bool Options::are_as_many_as_needed(const Words &given) const {
  std::size_t least = 0, most = 0;
  const tools::TextList parameters(g_strsplit(manual_.parameters, " ", -1));
  for (char **each = parameters.get(); *each != nullptr; ++each) {
    if (**each != '[') ++least;
    most = strstr(*each, "...") != nullptr ? G_MAXINT : most + 1;
  }
  if (given.size() < least) {
    misused("it takes %s", manual_.parameters);
  } else if (given.size() > most) {
    misused("there is no use for '%s'", given[most].c_str());
  }
  return given.size() >= least && given.size() <= most;
}

std::optional<Words> Options::parse(int argc, char **argv) {
  char **const end = argv + argc;
  char **const separator = std::find(argv, end, std::string_view("--"));
  auto words = parse_options({argv, separator});
  if (!words || !are_values_sensible()) return std::nullopt;
  if (separator != end) words->insert(words->end(), separator + 1, end);
  return are_as_many_as_needed(*words) ? words : std::nullopt;
}

int Options::misused(const char *format, ...) const {
  va_list arguments;
  va_start(arguments, format);
  const tools::Text text(g_strdup_vprintf(format, arguments));
  va_end(arguments);
  return complain_of_misuse(words_, text.get());
}

std::optional<gint64> Options::number(const std::string &text, const char *what, gint64 least, gint64 most) const {
  gint64 number = 0;
  if (g_ascii_string_to_signed(text.c_str(), 10, least, most, &number, nullptr)) return number;
  misused("'%s' is no %s: it is a number from %" G_GINT64_FORMAT " to %" G_GINT64_FORMAT, text.c_str(), what, least,
          most);
  return std::nullopt;
}

bool Options::is_within(const char *option, gint value, gint least, gint most) const {
  const bool is_it = value >= least && value <= most;
  if (!is_it) misused("%s %d is not from %d to %d", option, value, least, most);
  return is_it;
}

}  // namespace ptzctl
