#include <pwd.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "driver_commands.h"
#include "driver_socket.h"
#include "plain_text.h"
#include "subcommand.h"

namespace ptzctl {

namespace {

// Of the column; a longer name moves the rest of its own line only.
constexpr std::size_t narrowest_name = 16, widest_name = 40;

using Time = tools::Handle<GDateTime, g_date_time_unref>;

const char *state_of(const PTZKitRegistryEntry &entry) {
  switch (entry.liveness) {
    case PTZ_KIT_DRIVER_LIVE:
      return "live";
    case PTZ_KIT_DRIVER_DEAD:
      return "dead";
    case PTZ_KIT_DRIVER_STOLEN:
      return "stolen";
  }
  return "unknown";
}

Look look_of(const PTZKitRegistryEntry &entry) {
  if (entry.liveness == PTZ_KIT_DRIVER_LIVE) return Look::good;
  return entry.liveness == PTZ_KIT_DRIVER_DEAD ? Look::bad : Look::notice;
}

std::string user_of(const PTZKitRegistryEntry &entry) {
  const passwd *const user = getpwuid(entry.uid);
  return user != nullptr ? user->pw_name : std::to_string(entry.uid);
}

void print_as_json(const PTZKitRegistryEntry &entry) {
  const Time utc(g_date_time_new_from_unix_utc(entry.since / G_USEC_PER_SEC));
  const tools::Text since(utc != nullptr ? g_date_time_format_iso8601(utc.get()) : g_strdup(""));
  const JsonLine json;
  json.member("name", std::string(entry.name));
  json.member("instance", gint64{entry.instance});
  json.member("state", std::string(state_of(entry)));
  json.member("pid", gint64{entry.pid});
  json.member("user", user_of(entry));
  json.member("protocol_version", gint64{entry.protocol_version});
  json.member("since", std::string(since.get()));
  json.member("socket", std::string(entry.socket_path));
  json.member("program", std::string(entry.program != nullptr ? entry.program : ""));
  json.print();
}

void print_as_text(const PTZKitRegistryEntry &entry, int name_width) {
  const Time local(g_date_time_new_from_unix_local(entry.since / G_USEC_PER_SEC));
  const tools::Text since(local != nullptr ? g_date_time_format(local.get(), "%Y-%m-%d %H:%M:%S") : g_strdup("-"));
  std::string state = state_of(entry);
  state.resize(6, ' ');
  std::printf("%-*s %8u  %s %8d  %-10s %8u  %s  %s\n", name_width, tools::plain_text(entry.name).c_str(),
              entry.instance, painted(look_of(entry), state).c_str(), entry.pid, user_of(entry).c_str(),
              entry.protocol_version, since.get(), tools::plain_text(entry.socket_path).c_str());
}

}  // namespace

int run_driver_list(const std::string &words, int argc, char **argv) {
  Options options(
      words,
      {"",
       "Shows the drivers that run on this machine: live; dead, which were killed; or stolen, whose socket is\n"
       "gone or belongs to another process. Drivers that are not written with the kit are not listed.",
       " --json"},
      Asks::none);
  if (!options.parse(argc, argv)) return exit_usage;
  tools::Error error;
  const tools::RegistryList list = tools::registered_drivers(error);
  if (list == nullptr) {
    complain("the drivers cannot be listed: %s", error->message);
    return EXIT_FAILURE;
  }
  const auto entry_at = [&list](guint i) -> const PTZKitRegistryEntry & {
    return *static_cast<const PTZKitRegistryEntry *>(g_ptr_array_index(list.get(), i));
  };
  std::size_t width = narrowest_name;
  for (guint i = 0; i < list->len; ++i) {
    const std::size_t length = tools::plain_text(entry_at(i).name).size();
    if (length <= widest_name) width = std::max(width, length);
  }
  if (list->len > 0 && !options.as_json()) {
    std::printf("%-*s instance  state       pid  user       protocol  since                socket\n",
                static_cast<int>(width), "name");
  }
  for (guint i = 0; i < list->len; ++i) {
    options.as_json() ? print_as_json(entry_at(i)) : print_as_text(entry_at(i), static_cast<int>(width));
  }
  return EXIT_SUCCESS;
}

}  // namespace ptzctl
