// tests/torture/load/processes.h - servers in processes of their own, and clients that measure them.
#pragma once
#include <poll.h>
#include <ptz_socket_server_command.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <cerrno>
#include <fstream>
#include <sstream>

#include "peers.h"
#include "temp_dir.h"
#include "torture.h"

namespace load {

using ptz_test::Descriptor;

inline void sleep_ms(int milliseconds) { usleep(static_cast<useconds_t>(milliseconds) * 1000); }

inline gboolean echo(gpointer, gpointer context, gpointer data, guint32 length) {
  ptz_socket_server_send(context, data, length);
  return TRUE;
}

// Ends with the test.
inline void run_main_loop() {
  while (getppid() != 1) g_main_context_iteration(nullptr, TRUE);
}

inline void limit_descriptors(rlim_t count) {
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::min(count, limit.rlim_max);
  setrlimit(RLIMIT_NOFILE, &limit);
}

// A command server that echoes.
inline int serve_echo(const std::string &path, rlim_t descriptors = 0) {
  if (descriptors > 0) limit_descriptors(descriptors);
  auto *server = ptz_socket_server_command_new(path.c_str(), SOCK_STREAM);
  ptz_socket_server_register_callback(PTZ_SOCKET_SERVER(server), echo, nullptr);
  g_timeout_add(
      200, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
  run_main_loop();
  return 0;
}

// A process that is killed with its owner.
class Process {
  pid_t pid_;

 public:
  explicit Process(const std::function<int()> &run) : pid_(torture::start(run)) {}
  Process(const Process &) = delete;
  ~Process() { end(); }
  void end() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    torture::wait_for(pid_);
    pid_ = -1;
  }
  void send(int signal) const { kill(pid_, signal); }
  [[nodiscard]] bool runs() const { return pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == 0; }
  [[nodiscard]] double processor_s() const {
    std::ifstream file("/proc/" + std::to_string(pid_) + "/stat");
    std::string word;
    double ticks = 0;
    for (int i = 1; i <= 15 && file >> word; ++i) ticks += i >= 14 ? std::atof(word.c_str()) : 0;
    return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
  }
  [[nodiscard]] long memory_kib() const {
    std::ifstream file("/proc/" + std::to_string(pid_) + "/status");
    for (std::string line; std::getline(file, line);) {
      if (line.rfind("RssAnon:", 0) == 0) return std::atol(line.c_str() + 8);
    }
    return 0;
  }
};

inline bool wait_for(const std::function<bool()> &condition, int limit_ms) {
  const auto end = torture::now_us() + limit_ms * 1000LL;
  while (!condition()) {
    if (torture::now_us() >= end) return false;
    usleep(300);
  }
  return true;
}

// A connected client that waits at most so long for a reply.
class Client {
  Descriptor fd_;
  std::uint32_t id_ = 0;

 public:
  explicit Client(const std::string &path) : fd_(ptz_test::connect_to(path)) {}
  explicit operator bool() const { return static_cast<bool>(fd_); }
  [[nodiscard]] int fd() const { return fd_.get(); }
  // Microseconds until the whole reply; negative if there is none.
  std::int64_t ask(const std::string &body, int limit_ms = 2000) {
    const auto begun = torture::now_us();
    const std::string wanted = ptz_test::frame(++id_, body);
    if (!fd_ || !ptz_test::send_all(fd_.get(), wanted)) return -1;
    std::string received;
    while (received.size() < wanted.size()) {
      pollfd watched = {fd_.get(), POLLIN, 0};
      const auto left = limit_ms - (torture::now_us() - begun) / 1000;
      if (left <= 0 || poll(&watched, 1, static_cast<int>(left)) <= 0) return -1;
      char buffer[4096];
      const ssize_t count = read(fd_.get(), buffer, std::min(sizeof buffer, wanted.size() - received.size()));
      if (count <= 0) return -1;
      received.append(buffer, static_cast<std::size_t>(count));
    }
    return received == wanted ? torture::now_us() - begun : -1;
  }
};

inline std::int64_t percentile(std::vector<std::int64_t> values, double share) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[std::min(values.size() - 1, static_cast<std::size_t>(share * static_cast<double>(values.size())))];
}

}  // namespace load
