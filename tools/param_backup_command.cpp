#include "commands.h"
#include "platform/param_service_backup.h"

// A device's platform library need not have these functions. As weak references they are then null.
#pragma weak param_service_backup
#pragma weak param_service_restore

namespace ptzctl {

namespace {

using Copy = decltype(param_service_backup);

int run_copy(const std::string &words, const Manual &manual, Copy *copy, int argc, char **argv) {
  Options options(words, manual, Asks::none);
  const auto given = options.parse(argc, argv);
  if (!given) return exit_usage;
  if (copy == nullptr) {
    complain("this platform library has no backup");
    return EXIT_FAILURE;
  }
  const auto &file = given->front();
  tools::Error error;
  const bool is_done = copy(file.c_str(), tools::out(error)) != FALSE;
  if (!is_done) {
    complain("%s: %s", file.c_str(), tools::message_of(error, "the service has given no reason"));
    return EXIT_FAILURE;
  }
  if (options.as_json()) {
    const JsonLine json;
    const tools::Text name(g_filename_display_name(file.c_str()));
    json.member("file", name.get());
    json.print();
  }
  return EXIT_SUCCESS;
}

}  // namespace

int run_param_backup(const std::string &words, int argc, char **argv) {
  return run_copy(
      words,
      {"FILE", "Writes a copy of the whole tree to a file, while other processes use the tree.", " params.backup"},
      param_service_backup, argc, argv);
}

int run_param_restore(const std::string &words, int argc, char **argv) {
  return run_copy(words,
                  {"FILE", "Replaces the whole tree by a copy that backup wrote. What was set since then is lost.",
                   " params.backup"},
                  param_service_restore, argc, argv);
}

}  // namespace ptzctl
