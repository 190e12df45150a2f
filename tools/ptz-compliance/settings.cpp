#include "settings.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "colours.h"
#include "driver_socket.h"
#include "output_file.h"
#include "problems.h"

namespace compliance {

namespace {

constexpr double most_seconds = 3600;

constexpr const Checks *areas[] = {&socket_checks,  &framing_checks,    &client_checks,  &reply_checks,
                                   &command_checks, &capability_checks, &motion_checks,  &limit_checks,
                                   &preset_checks,  &status_checks,     &latency_checks, &process_checks};

constexpr char description[] =
    "A COMMAND is started, and started again if a check ends it; each \"{socket}\" in it stands for the path\n"
    "on which it is to listen. Without a COMMAND the driver that listens on --socket, or that runs as --driver, is "
    "checked.\n"
    "\n"
    "The driver's head moves, a little. Two presets are stored under numbers that are free.\n"
    "\n"
    "Examples:\n"
    "  ptz-compliance --instance 1 -- sim-driver --instance 1 --socket {socket}\n"
    "  ptz-compliance --socket /run/ptz/head.socket --only 'framing.*' --only 'clients.*'\n"
    "  ptz-compliance --tap --log driver.log -- ./my-driver {socket}\n"
    "\n"
    "Exit status:\n"
    "  0  no check failed\n"
    "  1  a check failed\n"
    "  2  wrong usage, or the driver could not be started";

// The options as GLib fills them in.
class CommandLine {
  char *socket_ = nullptr, *driver_ = nullptr, *log_ = nullptr, *html_ = nullptr, *colours_ = nullptr;
  char **only_ = nullptr, **skip_ = nullptr;
  gboolean list_ = FALSE, tap_ = FALSE, json_ = FALSE, version_ = FALSE;
  double timeout_s_ = 2, motion_timeout_s_ = 20, start_timeout_s_ = 10;
  gint instance_ = 0;
  std::vector<std::string> command_;

  [[nodiscard]] std::vector<GOptionEntry> entries();
  [[nodiscard]] Format format() const { return tap_ ? Format::tap : json_ ? Format::json : Format::text; }
  [[nodiscard]] std::vector<const Check *> checks() const;

 public:
  CommandLine() = default;
  CommandLine(const CommandLine &) = delete;
  ~CommandLine();

  [[nodiscard]] bool asks_for_version() const { return version_ != FALSE; }
  // The problem, or null.
  [[nodiscard]] tools::Error parse(int argc, char **argv);
  [[nodiscard]] const char *problem() const;
  [[nodiscard]] Settings settings() const;
  // The name of the driver that runs; null if it was not given.
  [[nodiscard]] const char *driver() const { return list_ ? nullptr : driver_; }
};

CommandLine::~CommandLine() {
  for (char *text : {socket_, driver_, log_, html_, colours_}) g_free(text);
  for (char **list : {only_, skip_}) g_strfreev(list);
}

std::vector<GOptionEntry> CommandLine::entries() {
  const auto entry = [](const char *name, char letter, GOptionArg kind, gpointer value, const char *text,
                        const char *of) {
    return GOptionEntry{name, letter, G_OPTION_FLAG_NONE, kind, value, text, of};
  };
  return {entry("socket", 's', G_OPTION_ARG_FILENAME, &socket_,
                "The driver's socket (with a COMMAND: default a new path)", "PATH"),
          entry("driver", 'd', G_OPTION_ARG_STRING, &driver_,
                "The driver that runs under this name in ptzctl driver list, and its instance", "NAME"),
          entry("list", 'l', G_OPTION_ARG_NONE, &list_, "List the checks and end", nullptr),
          entry("only", 'o', G_OPTION_ARG_STRING_ARRAY, &only_,
                "Only checks with such a name, with * and ?; may be given several times", "PATTERN"),
          entry("skip", 0, G_OPTION_ARG_STRING_ARRAY, &skip_, "No checks with such a name; may be given several times",
                "PATTERN"),
          entry("timeout", 't', G_OPTION_ARG_DOUBLE, &timeout_s_,
                "Wait for a reply, or for an end on SIGTERM, at most so long (default: 2)", "SECONDS"),
          entry("motion-timeout", 0, G_OPTION_ARG_DOUBLE, &motion_timeout_s_,
                "Wait for the end of a motion at most so long (default: 20)", "SECONDS"),
          entry("start-timeout", 0, G_OPTION_ARG_DOUBLE, &start_timeout_s_,
                "Wait at most so long until a driver that was started listens (default: 10)", "SECONDS"),
          entry("log", 0, G_OPTION_ARG_FILENAME, &log_,
                "Append what the COMMAND prints to this file (default: nowhere)", "FILE"),
          entry("instance", 'i', G_OPTION_ARG_INT, &instance_,
                "The driver publishes its status as this PTZ instance (default: its status is not looked at)", "N"),
          entry("tap", 0, G_OPTION_ARG_NONE, &tap_, "Print TAP, for a test harness", nullptr),
          entry("json", 0, G_OPTION_ARG_NONE, &json_, "Print JSON", nullptr),
          entry("html", 0, G_OPTION_ARG_FILENAME, &html_,
                "Write a page with the verdicts, the motions and the latencies, too; replaces the file", "FILE"),
          entry("version", 0, G_OPTION_ARG_NONE, &version_, "Print the version, and end", nullptr),
          entry("color", 0, G_OPTION_ARG_STRING, &colours_,
                "Colours: always, never, or auto, on a terminal if NO_COLOR is not set", "WHEN"),
          {}};
}

tools::Error CommandLine::parse(int argc, char **argv) {
  const std::vector<GOptionEntry> options = entries();
  const Handle<GOptionContext, g_option_context_free> context(
      g_option_context_new("[-- COMMAND...] - check a pan-tilt-zoom driver"));
  g_option_context_add_main_entries(context.get(), options.data(), nullptr);
  g_option_context_set_description(context.get(), description);
  tools::Error error;
  if (g_option_context_parse(context.get(), &argc, &argv, tools::out(error)) == FALSE) return error;
  char **words = argv + 1;
  if (*words != nullptr && std::string_view(*words) == "--") ++words;
  for (; *words != nullptr; ++words) command_.emplace_back(*words);
  return nullptr;
}

std::vector<const Check *> CommandLine::checks() const {
  const auto matches = [](char **patterns, const char *name) {
    for (; *patterns != nullptr; ++patterns) {
      if (g_pattern_match_simple(*patterns, name) != FALSE) return true;
    }
    return false;
  };
  std::vector<const Check *> chosen;
  for (const Checks *area : areas) {
    for (const Check &check : *area) {
      if (only_ != nullptr && !matches(only_, check.name)) continue;
      if (skip_ != nullptr && matches(skip_, check.name)) continue;
      chosen.push_back(&check);
    }
  }
  return chosen;
}

const char *CommandLine::problem() const {
  for (const double seconds : {timeout_s_, motion_timeout_s_, start_timeout_s_}) {
    if (!(seconds > 0 && seconds <= most_seconds)) return "times are above 0 and at most 3600 seconds";
  }
  if (instance_ < 0) return "instances count from 1";
  if (!choose_colours(colours_ != nullptr ? colours_ : "auto")) return "--color is always, never or auto";
  if (tap_ && json_) return "--tap and --json exclude each other";
  if (checks().empty()) return "no check has such a name";
  if (list_) return nullptr;
  if (driver_ != nullptr) {
    return socket_ != nullptr || !command_.empty() ? "--driver excludes --socket and a COMMAND" : nullptr;
  }
  if (socket_ == nullptr && command_.empty()) return "it takes --socket PATH, or --driver NAME, or a COMMAND";
  const auto names_socket = [](const std::string &word) { return word.find(placeholder) != std::string::npos; };
  if (socket_ == nullptr && std::ranges::none_of(command_, names_socket)) {
    return "without --socket, the COMMAND needs {socket} where it takes its path";
  }
  return nullptr;
}

Settings CommandLine::settings() const {
  const auto ms = [](double seconds) { return static_cast<int>(std::ceil(seconds * 1000)); };
  return {socket_ != nullptr ? socket_ : "",
          command_,
          log_ != nullptr ? log_ : "",
          html_ != nullptr ? html_ : "",
          ms(timeout_s_),
          ms(motion_timeout_s_),
          ms(start_timeout_s_),
          static_cast<guint>(instance_),
          format(),
          list_ != FALSE,
          checks()};
}

// False if no such driver runs; the user was told.
bool use_driver(Settings &settings, const char *name) {
  std::string problem;
  const tools::RegistryEntry entry = tools::driver_named(name, problem);
  if (entry == nullptr) {
    tools::print_problem("ptz-compliance", problem);
    return false;
  }
  settings.socket = entry->socket_path;
  if (settings.instance == 0) settings.instance = entry->instance;
  return true;
}

}  // namespace

void complain_of_usage(const char *problem) {
  tools::print_problem("ptz-compliance", std::string(problem) + "; see --help");
}

std::optional<Settings> settings_from(int argc, char **argv) {
  if (tools::asks_for_json(argc, argv)) tools::print_problems_as_json();
  CommandLine line;
  const tools::Error error = line.parse(argc, argv);
  if (error == nullptr && line.asks_for_version()) {
    std::printf("ptz-compliance %s\n", TOOLS_VERSION);
    std::exit(EXIT_SUCCESS);
  }
  const char *const problem = error != nullptr ? error->message : line.problem();
  if (problem != nullptr) {
    complain_of_usage(problem);
    return std::nullopt;
  }
  Settings settings = line.settings();
  if (!settings.list && !settings.html.empty()) {
    // Before the driver is started: a run takes a while.
    const std::string reason = tools::problem_with_output(settings.html, tools::Existing::replace);
    if (!reason.empty()) {
      complain_of_usage(reason.c_str());
      return std::nullopt;
    }
  }
  if (line.driver() != nullptr && !use_driver(settings, line.driver())) return std::nullopt;
  return settings;
}

}  // namespace compliance
