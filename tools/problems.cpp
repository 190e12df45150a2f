#include "problems.h"

#include <string_view>

#include "json_line.h"

namespace tools {

namespace {

bool are_json = false;

void print(const ptzctl::JsonLine &json) {
  json.end_object();
  g_printerr("%s\n", json.text().c_str());
}

}  // namespace

bool asks_for_json(int argc, char **argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view word = argv[i];
    if (word == "--") return false;
    if (word == "--json" || word == "-j") return true;
  }
  return false;
}

void print_problems_as_json() { are_json = true; }

void print_problem(const char *program, const std::string &text) {
  if (!are_json) {
    g_printerr("%s: %s\n", program, text.c_str());
    return;
  }
  const ptzctl::JsonLine json;
  json.begin_object("error");
  json.member("text", text);
  print(json);
}

void print_refusal(const char *program, guint32 code, const char *name, const std::string &text) {
  if (!are_json) {
    g_printerr("%s: refused with code %u: %s\n", program, code, text.c_str());
    return;
  }
  const ptzctl::JsonLine json;
  json.begin_object("error");
  json.member("text", text);
  json.member("code", gint64{code});
  if (name != nullptr) json.member("name", name);
  print(json);
}

}  // namespace tools
