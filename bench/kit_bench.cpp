// What a typed call of the kit costs beside the base's synchronous call with the same bytes, to the same server
// process; what a request costs that a driver on the kit serves, beside a server that sends ready bytes; and what it
// takes to decode a request.
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

// Publishes its status, timings and a counter as this instance, if it is above 0.
int drive(const char *path, guint instance) {
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  const Object<PTZKitDriver> driver(static_cast<PTZKitDriver *>(
      g_object_new(PTZ_KIT_TYPE_DRIVER, "socket-path", path, "instance", instance, nullptr)));
  ptz_kit_driver_set_axis(driver.get(), PTZ_KIT_AXIS_PAN, -17000, 17000, 9000, 0);
  if (ptz_kit_driver_start(driver.get(), nullptr) == FALSE) give_up("the driver does not start");
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
  explicit Server(const char *how, const char *instance = nullptr) : process_(fork()) {
    if (process_ < 0) give_up("fork");
    if (process_ > 0) return;
    setenv("PTZ_PLATFORM_RUNTIME_DIR", folder_.path().c_str(), 1);
    execl("/proc/self/exe", "kit_bench", how, path_.c_str(), instance, nullptr);
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

using Client = Object<PTZSocketClientCommand>;

// The driver's first request may come before it listens.
Client connect_to(const Server &server) {
  const Object<PTZKitLink> link(ptz_kit_link_new(server.path()));
  ptz_kit_link_open(link.get());
  if (ptz_kit_link_wait_ready(link.get(), 10'000, nullptr) == FALSE) give_up("the link is not ready");
  return Client(ptz_socket_client_command_new(server.path(), -1, SOCK_STREAM));
}

// By the same client, so that only the answering side differs; and last with the kit on both sides.
void compare_servers(GBytes *request, int rounds, int calls) {
  const Server bare("--serve"), driver("--drive", "0"), publishing("--drive", "1");
  const Client to_bare = connect_to(bare), to_driver = connect_to(driver), to_publishing = connect_to(publishing);
  const Object<PTZKitLink> link(ptz_kit_link_new(driver.path()));
  ptz_kit_link_open(link.get());
  if (ptz_kit_link_wait_ready(link.get(), 10'000, nullptr) == FALSE) give_up("the link is not ready");
  std::vector<Contender> contenders = {
      {"base server", [&] { return call_base(to_bare.get(), request); }},
      {"kit driver", [&] { return call_base(to_driver.get(), request); }},
      {"kit driver with status and timings", [&] { return call_base(to_publishing.get(), request); }},
      {"kit driver, by a typed call", [&] { return call_typed(link.get(), nullptr); }},
  };
  compare("The base's call to a", contenders, rounds, calls);
}

// From bytes to a checked structure and back to nothing.
void measure_decoding(int rounds, int calls) {
  const gint32 axes[] = {100, -200, 0};
  PTZKitMoveRequest *move = ptz_kit_move_request_new(PTZ_MOVE_ABSOLUTE, 3, 50, axes);
  GBytes *body = ptz_kit_move_request_to_bytes(move, nullptr);
  ptz_kit_move_request_free(move);
  gsize length = 0;
  const auto *bytes = static_cast<const guint8 *>(g_bytes_get_data(body, &length));
  std::vector<Contender> contenders = {{"move request", [&] {
                                          PTZKitMoveRequest *read = ptz_kit_move_request_read(bytes, length, nullptr);
                                          const bool good = ptz_kit_move_request_validate(read, nullptr) != FALSE;
                                          ptz_kit_move_request_free(read);
                                          return good;
                                        }}};
  compare("Decoded and checked:", contenders, rounds, calls * 50);
  g_bytes_unref(body);
}

}  // namespace

int main(int argc, char **argv) {
  if (argc == 3 && std::strcmp(argv[1], "--serve") == 0) return serve(argv[2]);
  if (argc == 4 && std::strcmp(argv[1], "--drive") == 0) return drive(argv[2], static_cast<guint>(std::atoi(argv[3])));
  const bool quick = argc == 2 && std::strcmp(argv[1], "--quick") == 0;
  const int rounds = quick ? 2 : 31, calls = quick ? 20 : 2000;
  const Server server("--serve");
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
  compare_servers(request, rounds, calls);
  measure_decoding(rounds, calls);
  g_bytes_unref(request);
  return 0;
}
