#include <syslog.h>

#include <cstdio>
#include <utility>

#include "commands.h"
#include "parameter_group.h"

namespace ptzctl {

namespace {

std::string full_path(const std::string &path) {
  return path == "root" || g_str_has_prefix(path.c_str(), "root.") ? path : "root." + path;
}

// A list shows a group with a dot at its end.
std::string group_path(const std::string &path) {
  return full_path(path.ends_with('.') ? path.substr(0, path.size() - 1) : path);
}

int complain_of(const std::string &what, gint32 error) {
  complain("%s: %s (error %d)", what.c_str(), reason_of(error), error);
  return EXIT_FAILURE;
}

// Without what would begin another line or move the cursor of a terminal.
tools::Text on_one_line(const std::string &text) {
  tools::Text line = as_utf8(tools::Text(g_strdup(text.c_str())));
  for (char *c = line.get(); *c != '\0'; ++c) {
    if (g_ascii_iscntrl(*c)) *c = '?';
  }
  return line;
}

void print_parameter(const Parameter &parameter, bool as_json) {
  if (!as_json) {
    std::printf("%s=%s\n", on_one_line(parameter.path).get(), on_one_line(parameter.value.get()).get());
    return;
  }
  const JsonLine json;
  json.member("path", on_one_line(parameter.path).get());
  json.member("value", parameter.value.get());
  json.print();
}

void print_group(const std::string &path, const char *end, bool as_json) {
  const tools::Text line = on_one_line(path);
  if (!as_json) {
    std::printf("%s%s\n", painted(Look::heading, line.get()).c_str(), end);
    return;
  }
  const JsonLine json;
  json.member("group", line.get());
  json.print();
}

// The root exists as soon as a parameter does. An empty tree is no error.
bool is_empty_tree(const std::string &path, gint32 error) { return path == "root" && error == PARAM_SERVICE_NO_GROUP; }

int run_get(const std::string &words, int argc, char **argv) {
  Options options(words,
                  {"PATH...", "Prints the value of a parameter; of several, path and value of each.",
                   " PTZ.Support root.PTZ.Head.H1.PanMax"},
                  Asks::none);
  const auto given = options.parse(argc, argv);
  if (!given) return exit_usage;
  int status = EXIT_SUCCESS;
  for (const auto &word : *given) {
    Parameter parameter{full_path(word), "", nullptr};
    gint32 error = 0;
    parameter.value = read_parameter(parameter.path, error);
    if (parameter.value == nullptr) {
      status = complain_of(parameter.path, error);
    } else if (given->size() == 1 && !options.as_json()) {
      std::printf("%s\n", parameter.value.get());
    } else {
      print_parameter(parameter, options.as_json());
    }
  }
  return status;
}

int run_set(const std::string &words, int argc, char **argv) {
  Options options(words, {"PATH VALUE", "Writes a parameter, which need not exist.", " PTZ.Head.H1.PanMax 9000"},
                  Asks::none);
  const auto given = options.parse(argc, argv);
  if (!given) return exit_usage;
  ParameterCall call;
  Parameter parameter{full_path(given->front()), "", nullptr};
  param_service_set_custom(parameter.path.c_str(), given->back().c_str(), &call.options, &call.error);
  if (call.error != 0) return complain_of(parameter.path + " is not written", call.error);
  parameter.value = read_parameter(parameter.path, call.error);
  if (parameter.value == nullptr) return complain_of(parameter.path + " is written, and cannot be read", call.error);
  if (options.as_json()) print_parameter(parameter, true);
  return EXIT_SUCCESS;
}

int run_list(const std::string &words, int argc, char **argv) {
  Options options(
      words, {"[GROUP]", "Prints the parameters of a group, and the groups in it, which end in a dot.", " PTZ.Head"},
      Asks::none);
  const auto given = options.parse(argc, argv);
  if (!given) return exit_usage;
  const auto path = group_path(given->empty() ? "root" : given->front());
  ParameterGroup group;
  gint32 error = 0;
  if (!read_parameter_group(path, group, error) && !is_empty_tree(path, error)) return complain_of(path, error);
  for (const auto &parameter : group.parameters) print_parameter(parameter, options.as_json());
  for (const auto &each : group.groups) print_group(each, ".", options.as_json());
  return EXIT_SUCCESS;
}

// How a terminal draws the lines of a tree.
struct Lines {
  const char *branch, *last_branch, *trunk, *nothing;
};
constexpr Lines ascii_lines = {"|-- ", "`-- ", "|   ", "    "};
constexpr Lines box_lines = {"\u251C\u2500\u2500 ", "\u2514\u2500\u2500 ", "\u2502   ", "    "};

// Prints what is in a group. False if a group cannot be read, which is then reported.
bool draw(const std::string &path, const std::string &indent, const Lines &lines, int level) {
  ParameterGroup group;
  gint32 error = 0;
  if (level > most_levels || !read_parameter_group(path, group, error)) {
    complain_of(path, error);
    return false;
  }
  std::size_t left = group.parameters.size() + group.groups.size();
  for (const auto &each : group.parameters) {
    const char *branch = --left > 0 ? lines.branch : lines.last_branch;
    std::printf("%s%s%s = %s\n", indent.c_str(), branch, on_one_line(each.name).get(),
                on_one_line(each.value.get()).get());
  }
  bool is_whole = true;
  for (const auto &each : group.groups) {
    const bool is_last = --left == 0;
    const std::string name = on_one_line(each.substr(each.rfind('.') + 1)).get();
    std::printf("%s%s%s\n", indent.c_str(), is_last ? lines.last_branch : lines.branch,
                painted(Look::heading, name).c_str());
    is_whole &= draw(each, indent + (is_last ? lines.nothing : lines.trunk), lines, level + 1);
  }
  return is_whole;
}

bool build(const JsonLine &json, const std::string &path, int level) {
  ParameterGroup group;
  gint32 error = 0;
  if (level > most_levels || !read_parameter_group(path, group, error)) {
    complain_of(path, error);
    return false;
  }
  json.begin_object("parameters");
  for (const auto &each : group.parameters) json.member(on_one_line(each.name).get(), each.value.get());
  json.end_object();
  json.begin_object("groups");
  bool is_whole = true;
  for (const auto &each : group.groups) {
    json.begin_object(on_one_line(each.substr(each.rfind('.') + 1)).get());
    is_whole &= build(json, each, level + 1);
    json.end_object();
  }
  json.end_object();
  return is_whole;
}

int print_empty_tree(bool as_json) {
  if (!as_json) {
    print_group("root", "", false);
    return EXIT_SUCCESS;
  }
  const JsonLine json;
  json.member("group", "root");
  for (const char *kind : {"parameters", "groups"}) {
    json.begin_object(kind);
    json.end_object();
  }
  json.print();
  return EXIT_SUCCESS;
}

int run_tree(const std::string &words, int argc, char **argv) {
  Options options(words, {"[GROUP]", "Draws all that is in a group, by default in root.", " PTZ"}, Asks::none);
  const auto given = options.parse(argc, argv);
  if (!given) return exit_usage;
  const auto path = group_path(given->empty() ? "root" : given->front());
  Words groups;
  gint32 error = 0;
  if (!walk_parameters(path, param_service_get_child_groups, param_service_get_child_group, groups, error)) {
    return is_empty_tree(path, error) ? print_empty_tree(options.as_json()) : complain_of(path, error);
  }
  if (!options.as_json()) {
    print_group(path, "", false);
    return draw(path, "", g_get_charset(nullptr) ? box_lines : ascii_lines, 1) ? EXIT_SUCCESS : EXIT_FAILURE;
  }
  const JsonLine json;
  json.member("group", on_one_line(path).get());
  const bool is_whole = build(json, path, 1);
  json.print();
  return is_whole ? EXIT_SUCCESS : EXIT_FAILURE;
}

int run_create(const std::string &words, int argc, char **argv) {
  Options options(words,
                  {"GROUP TEMPLATE [NUMBER]",
                   "Creates a dynamic group in a group, by default of the lowest free number, and prints its path.",
                   " PTZ.Head head 2"},
                  Asks::none);
  const auto given = options.parse(argc, argv);
  if (!given) return exit_usage;
  const auto number = given->size() < 3 ? -1 : options.number((*given)[2], "number of a group", 0, G_MAXINT32);
  if (!number) return exit_usage;
  ParameterCall call;
  call.options.number = static_cast<gint32>(*number);
  const auto path = group_path(given->front());
  const tools::Text created(
      param_service_create_dynamic_group(path.c_str(), (*given)[1].c_str(), &call.options, &call.error));
  if (call.error != 0 || created == nullptr) {
    return complain_of(created != nullptr ? created.get() : path + " from " + (*given)[1], call.error);
  }
  print_group(created.get(), "", options.as_json());
  return EXIT_SUCCESS;
}

int run_delete(const std::string &words, int argc, char **argv) {
  Options options(words, {"GROUP", "Deletes a group with all that is in it.", " PTZ.Head.H2"}, Asks::none);
  const auto given = options.parse(argc, argv);
  if (!given) return exit_usage;
  ParameterCall call;
  const auto path = group_path(given->front());
  param_service_delete_group(path.c_str(), &call.options, &call.error);
  if (call.error != 0) return complain_of(path, call.error);
  if (options.as_json()) print_group(path, "", true);
  return EXIT_SUCCESS;
}

int run_sync(const std::string &words, int argc, char **argv) {
  Options options(words, {"", "Flushes to storage what all processes have written.", ""}, Asks::none);
  if (!options.parse(argc, argv)) return exit_usage;
  ParameterCall call;
  param_service_sync(&call.options, &call.error);
  if (call.error != 0) return complain_of("not flushed", call.error);
  if (options.as_json()) JsonLine().print();
  return EXIT_SUCCESS;
}

}  // namespace

int run_param(const std::string &words, int argc, char **argv) {
  static constexpr Subcommand subcommands[] = {
      {"get", "the value of a parameter", run_get},
      {"set", "write a parameter", run_set},
      {"list", "what is in a group", run_list},
      {"tree", "all that is in a group, drawn as a tree", run_tree},
      {"create", "create a dynamic group from a template", run_create},
      {"delete", "delete a group", run_delete},
      {"sync", "flush the tree to storage", run_sync},
      {"backup", "write a copy of the tree to a file", run_param_backup},
      {"restore", "replace the tree by such a copy", run_param_restore},
  };
  openlog("ptzctl", LOG_PERROR, LOG_USER);  // the service logs why it has failed
  return run_one_of(subcommands, "Example: ptzctl param tree PTZ", words, argc, argv);
}

}  // namespace ptzctl
