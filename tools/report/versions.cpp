#include <sys/utsname.h>
#include <unistd.h>

#include <cstring>
#include <set>

#include "report/report.h"

namespace ptzctl {

namespace {

std::string first_line(const char *path) {
  char *raw = nullptr;
  if (g_file_get_contents(path, &raw, nullptr, nullptr) == FALSE) return "";
  const tools::Text text(raw);
  const std::string line = text.get();
  return line.substr(0, line.find('\n'));
}

// "Debian GNU/Linux 12 (bookworm)"
std::string system_name() {
  const tools::Text name(g_get_os_info(G_OS_INFO_KEY_PRETTY_NAME));
  return name != nullptr ? name.get() : "unknown";
}

// The files of our libraries that this process has loaded: their names tell the version.
std::string loaded_libraries(const std::string &beginning) {
  char *raw = nullptr;
  if (g_file_get_contents("/proc/self/maps", &raw, nullptr, nullptr) == FALSE) return "unknown";
  const tools::Text text(raw);
  const tools::TextList lines(g_strsplit(text.get(), "\n", -1));
  std::set<std::string> files;
  for (char **line = lines.get(); *line != nullptr; ++line) {
    const std::string path = std::string(*line).find('/') != std::string::npos ? strchr(*line, '/') : "";
    if (path.substr(path.rfind('/') + 1).starts_with(beginning)) files.insert(path);
  }
  std::string names;
  for (const auto &file : files) names += (names.empty() ? "" : " ") + file;
  return names.empty() ? "linked statically" : names;
}

std::string uptime() {
  const double seconds = g_ascii_strtod(first_line("/proc/uptime").c_str(), nullptr);
  return tools::number_text(seconds / 3600, 1) + " hours";
}

}  // namespace

tools::Section versions_section() {
  tools::Section section = {"versions", "Versions and machine", {}};
  utsname kernel = {};
  uname(&kernel);
  section.blocks.emplace_back(tools::Facts{{
      {"time", tools::local_time_text(g_get_real_time())},
      {"tools", TOOLS_VERSION},
      {"library", loaded_libraries("libptznimbo_common.so")},
      {"kit", loaded_libraries("libptznimbo_kit.so")},
      {"GLib", std::to_string(glib_major_version) + "." + std::to_string(glib_minor_version) + "." +
                   std::to_string(glib_micro_version)},
      {"system", system_name()},
      {"kernel", std::string(kernel.sysname) + " " + kernel.release},
      {"machine", std::string(kernel.nodename) + ", " + kernel.machine + ", " + std::to_string(g_get_num_processors()) +
                      " processors"},
      {"running for", uptime()},
      {"load", first_line("/proc/loadavg")},
      {"user", user_text(getuid())},
  }});
  return section;
}

}  // namespace ptzctl
