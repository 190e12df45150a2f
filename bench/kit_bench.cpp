// What a typed call of the kit costs beside the base's synchronous call with the same bytes, to the same server
// process.
//
//   kit_bench [--quick]
//
// For one core, run it with taskset; for two, taskset with two cores.
#include <ptz.h>
#include <ptz_kit.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "handles.h"
#include "main_loop.h"
#include "temp_dir.h"

namespace {

using ptz_test::Object;

[[noreturn]] void give_up(const char *what) {
  std::fprintf(stderr, "%s\n", what);
  std::exit(2);
}

// --- the server
// -------------------------------------------------------------------------------------------------------

GBytes *answer_to(gint32 command) {
  constexpr gint32 position[] = {100, -200, 300}, status[] = {1, 1, 1};
  switch (command) {
    case PTZ_COMMAND_QUERY_POSITION:
      return ptz_kit_query_position_reply_to_bytes(ptz_kit_query_position_reply_new(position, status), nullptr);
    case PTZ_COMMAND_GET_DRIVER_NAME:
      return ptz_kit_get_driver_name_reply_to_bytes(ptz_kit_get_driver_name_reply_new("bench"), nullptr);
    default:
      return ptz_kit_error_reply_to_bytes(ptz_kit_error_reply_new(PTZ_KIT_ERROR_CODE_UNSUPPORTED, ""), nullptr);
  }
}

gboolean answer(gpointer position, gpointer reply_context, gpointer data, guint32 length) {
  gint32 command = 0;
  ptz_kit_body_get_command(static_cast<guint8 *>(data), length, &command);
  GBytes *reply = command == PTZ_COMMAND_QUERY_POSITION ? static_cast<GBytes *>(position) : answer_to(command);
  ptz_socket_server_send(reply_context, const_cast<gpointer>(g_bytes_get_data(reply, nullptr)),
                         static_cast<guint32>(g_bytes_get_size(reply)));
  return TRUE;
}

int serve(const char *path) {
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  const Object<PTZSocketServerCommand> server(ptz_socket_server_command_new(path, SOCK_STREAM));
  ptz_socket_server_register_callback(PTZ_SOCKET_SERVER(server.get()), answer, answer_to(PTZ_COMMAND_QUERY_POSITION));
  const bench::MainLoop loop(g_main_loop_new(nullptr, FALSE));
  g_main_loop_run(loop.get());
  return 0;
}

class Server {
  ptz_test::TempDir folder_;
  const std::string path_ = folder_.file("driver");
  pid_t process_;

 public:
  // A fresh image instead of a fork alone: GLib's state does not come along.
  Server() : process_(fork()) {
    if (process_ < 0) give_up("fork");
    if (process_ > 0) return;
    execl("/proc/self/exe", "kit_bench", "--serve", path_.c_str(), nullptr);
    _exit(127);
  }
  Server(Server &&) = delete;
  ~Server() {
    kill(process_, SIGTERM);
    waitpid(process_, nullptr, 0);
  }
  [[nodiscard]] const char *path() const { return path_.c_str(); }
};

// --- the contenders
// ---------------------------------------------------------------------------------------------------

struct Contender {
  const char *name;
  std::function<bool()> call;
  std::vector<double> rounds_us = {};

  void run(int calls) {
    const gint64 start_us = g_get_monotonic_time();
    for (int i = 0; i < calls; ++i) {
      if (!call()) give_up("a call has failed");
    }
    rounds_us.push_back(static_cast<double>(g_get_monotonic_time() - start_us) / calls);
  }
  [[nodiscard]] double best() const { return std::ranges::min(rounds_us); }
  [[nodiscard]] double median() const {
    std::vector<double> sorted = rounds_us;
    std::ranges::sort(sorted);
    return sorted[sorted.size() / 2];
  }
};

bool call_base(PTZSocketClientCommand *client, GBytes *request) {
  std::array<guint8, PTZ_SOCKET_BODY_MAX> reply;
  guint32 length = 0;
  return ptz_socket_client_command_sync_send(client, g_bytes_get_data(request, nullptr),
                                             static_cast<guint32>(g_bytes_get_size(request)), reply.data(),
                                             &length) != FALSE;
}

bool call_body(PTZKitLink *link, GBytes *request) {
  GBytes *reply = ptz_kit_link_call(link, request, 1000, nullptr, nullptr);
  if (reply != nullptr) g_bytes_unref(reply);
  return reply != nullptr;
}

bool call_typed(PTZKitLink *link, GCancellable *cancellable) {
  PTZKitQueryPositionReply *reply = ptz_kit_link_query_position(link, 1000, cancellable, nullptr);
  ptz_kit_query_position_reply_free(reply);
  return reply != nullptr;
}

void compare(const char *title, std::vector<Contender> &contenders, int rounds, int calls) {
  for (Contender &contender : contenders) contender.rounds_us.clear();
  for (int round = 0; round < rounds; ++round) {
    for (Contender &contender : contenders) contender.run(calls);
  }
  std::printf("%s\n", title);
  for (const Contender &contender : contenders) {
    std::printf("  %-34s %8.2f us, median %8.2f us; %.3f of the first, median %.3f\n", contender.name, contender.best(),
                contender.median(), contender.best() / contenders.front().best(),
                contender.median() / contenders.front().median());
  }
}

}  // namespace

int main(int argc, char **argv) {
  if (argc == 3 && std::strcmp(argv[1], "--serve") == 0) return serve(argv[2]);
  const bool quick = argc == 2 && std::strcmp(argv[1], "--quick") == 0;
  const int rounds = quick ? 2 : 31, calls = quick ? 20 : 2000;
  const Server server;
  const Object<PTZKitLink> link(ptz_kit_link_new(server.path()));
  ptz_kit_link_open(link.get());
  if (!ptz_kit_link_wait_ready(link.get(), 10'000, nullptr)) give_up("the link is not ready");
  const Object<PTZSocketClientCommand> client(ptz_socket_client_command_new(server.path(), -1, SOCK_STREAM));
  const Object<GCancellable> cancellable(g_cancellable_new());
  const gint32 word = GINT32_TO_LE(PTZ_COMMAND_QUERY_POSITION);
  GBytes *request = g_bytes_new(&word, sizeof word);
  std::vector<Contender> contenders = {
      {"base, synchronous call", [&] { return call_base(client.get(), request); }},
      {"kit, body", [&] { return call_body(link.get(), request); }},
      {"kit, typed", [&] { return call_typed(link.get(), nullptr); }},
      {"kit, typed, with a cancellable", [&] { return call_typed(link.get(), cancellable.get()); }},
  };
  compare("No main loop runs:", contenders, rounds, calls);
  {
    const bench::RunningMainLoop loop;
    compare("Another thread runs the main loop:", contenders, rounds, calls);
  }
  g_bytes_unref(request);
  return 0;
}
