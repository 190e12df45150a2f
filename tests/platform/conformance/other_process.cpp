#include <cstdio>
#include <cstdlib>

#include "conformance.h"
#include "parameters.h"
#include "status_values.h"

namespace conformance {

std::optional<std::string> in_other_process(const Strings &action) {
  Strings words = {"/proc/self/exe", "--action"};
  words.insert(words.end(), action.begin(), action.end());
  words.emplace_back("--");
  words.insert(words.end(), libraries().begin(), libraries().end());
  std::vector<char *> argv;
  for (auto &word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  gchar *output = nullptr;
  gint status = -1;
  if (!g_spawn_sync(nullptr, argv.data(), nullptr, G_SPAWN_DEFAULT, nullptr, nullptr, &output, nullptr, &status,
                    nullptr)) {
    return std::nullopt;
  }
  const Text owned(output);
  return status == 0 ? std::optional<std::string>(owned.get()) : std::nullopt;
}

namespace {

int print_param(const std::string &path) {
  const auto answer = get_param(path);
  if (!answer.text) return 1;
  std::printf("%s", answer.text->c_str());
  return 0;
}

int print_status(const std::string &group, const std::string &key) {
  Numbers numbers = {{key}};
  if (get_status(group, numbers) != 1) return 1;
  std::printf("%d", numbers.front().value);
  return 0;
}

}  // namespace

int act(const Strings &action) {
  const auto word = [&](std::size_t index) { return index < action.size() ? action[index] : std::string(); };
  const auto name = word(0);
  if (name == "set-param") return set_param(word(1), word(2)) == 0 ? 0 : 1;
  if (name == "get-param") return print_param(word(1));
  if (name == "create-status") return create_status(word(1), 64) == 0 ? 0 : 1;
  if (name == "set-status") return set_status(word(1), {{word(2), std::atoi(word(3).c_str())}}) == 0 ? 0 : 1;
  if (name == "get-status") return print_status(word(1), word(2));
  return 2;
}

}  // namespace conformance
