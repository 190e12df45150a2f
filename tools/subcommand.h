// subcommand.h - what every subcommand of ptzctl is made with: a place in a table, options, errors and JSON.
#pragma once
#include <glib.h>

#include <cstdlib>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "colours.h"
#include "handles.h"
#include "json_line.h"

namespace ptzctl {

// Exit statuses, next to EXIT_SUCCESS and to EXIT_FAILURE for what was refused or has failed.
constexpr int exit_usage = 2;
constexpr int exit_nobody = 3;  // no peer is there to answer, or not in time

using Words = std::vector<std::string>;

// One word of the command line. It is run with the words that led to it, such as "ptzctl status show", and with what
// follows; argv[0] is the last of these words. Its result is the program's exit status.
struct Subcommand {
  const char *name;
  const char *summary;
  int (*run)(const std::string &words, int argc, char **argv);
};

// Runs the one that argv[1] names; lists all for the user if it names none. The rest ends the help.
int run_one_of(std::span<const Subcommand> subcommands, const char *rest, const std::string &words, int argc,
               char **argv);

// Tells the user, on standard error, what went wrong: in text, or in JSON with --json.
void complain(const char *format, ...) G_GNUC_PRINTF(1, 2);
// " (did you mean 'show'?)" if one of the words is nearly the one that was given.
[[nodiscard]] std::string did_you_mean(const std::string &given, const Words &words);

// The peer that a subcommand asks. With a service or a driver it takes --timeout, with a driver or its monitor socket
// --socket and --driver.
enum class Asks { none, service, driver, monitor };

// What the help says. The parameters are what follows the options, such as "PATH [VALUE...]", and tell how many words
// there are to be.
struct Manual {
  const char *parameters;
  const char *summary;
  const char *example;  // what follows the words that lead to the subcommand
};

// The command line of a subcommand. All have the same options, and each has its own.
class Options {
  std::string words_;
  Manual manual_;
  gboolean as_json_ = FALSE;
  gint timeout_ms_;
  std::string timeout_text_;
  char *socket_ = nullptr, *driver_ = nullptr, *colours_ = nullptr;
  std::vector<GOptionEntry> entries_;

  // What is left of the words without the options.
  [[nodiscard]] std::optional<Words> parse_options(std::vector<char *> arguments);
  [[nodiscard]] bool are_values_sensible() const;
  [[nodiscard]] bool are_as_many_as_needed(const Words &given) const;

 public:
  Options(const std::string &words, const Manual &manual, Asks asks, std::vector<GOptionEntry> further = {},
          gint timeout_ms = 10'000);
  Options(const Options &) = delete;
  ~Options();
  // What follows the options; nothing if the user was told what is wrong. Help ends the program.
  [[nodiscard]] std::optional<Words> parse(int argc, char **argv);

  [[nodiscard]] bool as_json() const { return as_json_ != FALSE; }
  [[nodiscard]] guint timeout_ms() const { return static_cast<guint>(timeout_ms_); }
  // What --driver and --socket were given; null if they were not.
  [[nodiscard]] const char *driver_name() const { return driver_; }
  [[nodiscard]] const char *socket_path() const { return socket_; }
  // The socket of the driver that is to be asked. Nothing, with the exit status, if there is no such driver or if it is
  // not clear which one is meant; the user was told.
  [[nodiscard]] std::optional<std::string> socket(int &status) const;

  // Tells the user what makes no sense, and where the help is; the exit status for it.
  int misused(const char *format, ...) const G_GNUC_PRINTF(2, 3);
  // A number of this range; the user is told if the text is none.
  [[nodiscard]] std::optional<gint64> number(const std::string &text, const char *what, gint64 least,
                                             gint64 most) const;
  // Whether an option's value is one of this range; the user is told if it is not.
  [[nodiscard]] bool is_within(const char *option, gint value, gint least, gint most) const;
};

}  // namespace ptzctl
