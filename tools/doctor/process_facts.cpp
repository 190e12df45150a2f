#include "doctor/process_facts.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <csignal>

namespace ptzctl {

namespace {

std::string file_of(pid_t pid, const char *name) { return "/proc/" + std::to_string(pid) + "/" + name; }

std::vector<std::string> fields_of(const std::string &text) {
  std::vector<std::string> fields;
  const tools::TextList words(g_strsplit_set(text.c_str(), " \t\n", -1));
  for (char **each = words.get(); *each != nullptr; ++each) {
    if (**each != '\0') fields.emplace_back(*each);
  }
  return fields;
}

// The words behind "Name:" in /proc/PID/status.
std::vector<std::string> status_line(const std::string &status, const std::string &name) {
  const auto at = status.find("\n" + name + ":");
  if (at == std::string::npos) return {};
  const auto begin = at + name.size() + 2;
  return fields_of(status.substr(begin, status.find('\n', begin) - begin));
}

guint32 number_of(const std::string &text) { return static_cast<guint32>(g_ascii_strtoull(text.c_str(), nullptr, 10)); }

// The fields of /proc/PID/stat behind the name, which may hold blanks and parentheses.
std::vector<std::string> stat_fields(pid_t pid, std::string &command) {
  const std::string stat = beginning_of(file_of(pid, "stat"));
  const auto open = stat.find('('), close = stat.rfind(')');
  if (open == std::string::npos || close == std::string::npos || close < open) return {};
  command = stat.substr(open + 1, close - open - 1);
  return fields_of(stat.substr(close + 1));
}

double seconds_of(const std::string &ticks) {
  return static_cast<double>(g_ascii_strtoull(ticks.c_str(), nullptr, 10)) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

}  // namespace

std::string beginning_of(const std::string &path, std::size_t most) {
  const tools::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  std::string text;
  char buffer[4096];
  while (fd && text.size() < most) {
    const ssize_t count = read(fd.get(), buffer, std::min(sizeof buffer, most - text.size()));
    if (count <= 0) break;
    text.append(buffer, static_cast<std::size_t>(count));
  }
  return text;
}

std::string target_of(const std::string &link) {
  char target[PATH_MAX];
  const ssize_t length = readlink(link.c_str(), target, sizeof target);
  return length > 0 ? std::string(target, static_cast<std::size_t>(length)) : "";
}

std::vector<std::string> names_in(const std::string &folder) {
  std::vector<std::string> names;
  const tools::Handle<DIR, closedir> directory(opendir(folder.c_str()));
  while (const dirent *found = directory != nullptr ? readdir(directory.get()) : nullptr) {
    const std::string name = found->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  std::ranges::sort(names);
  return names;
}

std::optional<ProcessFacts> facts_of(pid_t pid) {
  enum StatField { state, parent, flags = 6, user_time = 11, system_time = 12, start_time = 19 };
  ProcessFacts facts;
  const auto stat = pid > 0 ? stat_fields(pid, facts.command) : std::vector<std::string>();
  if (stat.size() <= start_time) return std::nullopt;
  facts.state = stat[state].front();
  facts.parent = static_cast<pid_t>(number_of(stat[parent]));
  facts.cpu_s = seconds_of(stat[user_time]) + seconds_of(stat[system_time]);
  facts.start_s = seconds_of(stat[start_time]);
  const auto schedule = fields_of(beginning_of(file_of(pid, "schedstat")));
  for (std::size_t i = 0; i < 2 && schedule.size() > 2; ++i) {
    facts.runnable_s += static_cast<double>(g_ascii_strtoull(schedule[i].c_str(), nullptr, 10)) / 1e9;
  }
  const std::string status = beginning_of(file_of(pid, "status"));
  constexpr guint32 exiting = 0x4;  // PF_EXITING of the kernel
  facts.is_ending = facts.state == 'Z' || facts.state == 'X' || (number_of(stat[flags]) & exiting) != 0;
  for (const char *pending : {"SigPnd", "ShdPnd"}) {
    const auto words = status_line(status, pending);
    const guint64 signals = words.empty() ? 0 : g_ascii_strtoull(words.front().c_str(), nullptr, 16);
    if ((signals >> (SIGKILL - 1) & 1) != 0) facts.is_ending = true;
  }
  constexpr std::size_t effective = 1;
  if (const auto words = status_line(status, "TracerPid"); !words.empty()) {
    facts.tracer = static_cast<pid_t>(number_of(words.front()));
  }
  if (const auto words = status_line(status, "Uid"); words.size() > effective) facts.uid = number_of(words[effective]);
  if (const auto words = status_line(status, "Gid"); words.size() > effective) facts.gid = number_of(words[effective]);
  for (const auto &word : status_line(status, "Groups")) facts.groups.push_back(number_of(word));
  return facts;
}

bool is_halted(pid_t pid) {
  const auto facts = facts_of(pid);
  return facts && std::string_view("TtZX").find(facts->state) != std::string_view::npos;
}

bool is_gone(pid_t pid) {
  if (pid <= 0) return false;
  const auto facts = facts_of(pid);
  return !facts || facts->is_ending;
}

std::vector<std::string> arguments_of(pid_t pid) {
  std::vector<std::string> words;
  const std::string text = pid > 0 ? beginning_of(file_of(pid, "cmdline")) : "";
  for (std::size_t at = 0; at < text.size(); at += words.back().size() + 1) words.emplace_back(text.c_str() + at);
  return words;
}

std::string name_of_process(pid_t pid) {
  const auto facts = facts_of(pid);
  return std::to_string(pid) + (facts ? " (" + facts->command + ")" : "");
}

std::string unit_of(pid_t pid) {
  const std::string groups = beginning_of(file_of(pid, "cgroup"));
  const auto end = groups.rfind(".service");
  if (end == std::string::npos) return "";
  const auto begin = groups.rfind('/', end);
  return begin == std::string::npos ? "" : groups.substr(begin + 1, end + 7 - begin);
}

std::vector<pid_t> all_processes() {
  std::vector<pid_t> found;
  for (const auto &name : names_in("/proc")) {
    if (const guint32 pid = number_of(name); pid != 0) found.push_back(static_cast<pid_t>(pid));
  }
  return found;
}

std::string name_of_user(uid_t uid) {
  const passwd *const user = getpwuid(uid);
  return user != nullptr ? user->pw_name : std::to_string(uid);
}

std::string name_of_group(gid_t gid) {
  const group *const found = getgrgid(gid);
  return found != nullptr ? found->gr_name : std::to_string(gid);
}

}  // namespace ptzctl
