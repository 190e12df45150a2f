// subcommand.h - what every subcommand of ptzctl is made with: a place in a table, options, errors and JSON.
#pragma once
#include <glib.h>
#include <json-glib/json-glib.h>

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/handles.h"

namespace ptzctl {

constexpr int exit_usage = 2;

// One word of the command line. It is run with the words that led to it, such as "ptzctl status show", and with what
// follows; argv[0] is the last of these words. Its result is the program's exit status.
struct Subcommand {
  const char *name;
  const char *summary;
  int (*run)(const std::string &words, int argc, char **argv);
};

// Runs the one that argv[1] names; tells the user which there are, where it names none.
int run_one_of(std::span<const Subcommand> subcommands, const std::string &words, int argc, char **argv);

// Tells the user, on standard error, what went wrong.
void complain(const char *format, ...) G_GNUC_PRINTF(1, 2);

// Where the options of a subcommand are read into.
class Options {
  ptz::Handle<GOptionContext, g_option_context_free> context_;
  std::string words_;

 public:
  // The parameters are what follows the options, such as "[GROUP] [INSTANCE]"; the entries end with an empty one.
  Options(const std::string &words, const char *parameters, const char *summary, const GOptionEntry *entries);
  // Options then stand before every other word: what comes behind may begin with a dash.
  void take_dashes_as_words() { g_option_context_set_strict_posix(context_.get(), TRUE); }
  // What follows the options, at most so many words; nothing where the user was told what is wrong, or was given help.
  [[nodiscard]] std::optional<std::vector<std::string>> parse(int argc, char **argv, std::size_t most_words);
};

// A number of this range; the user is told where the text is none.
[[nodiscard]] std::optional<gint64> parse_number(const std::string &text, const char *what, gint64 least, gint64 most);

// Prints a value as one line of JSON.
class JsonLine {
  ptz::Object<JsonBuilder> builder_{json_builder_new()};

 public:
  [[nodiscard]] JsonBuilder *get() const { return builder_.get(); }
  void member(const char *name, const char *value) const;
  void member(const char *name, gint64 value) const;
  void member(const char *name, double value) const;
  void begin_object(const char *name) const;
  void print() const;
};

}  // namespace ptzctl
