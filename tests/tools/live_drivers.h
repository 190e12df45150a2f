// live_drivers.h - simulated drivers, and clients that keep them busy.
#pragma once
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>

#include "ptzctl.h"

namespace ptz_test {

// A client that sends requests without a body beside the command.
class PlainClient {
  int fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  std::uint32_t next_ = 0;

 public:
  explicit PlainClient(const std::string &path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
  }
  PlainClient(const PlainClient &) = delete;
  ~PlainClient() { close(fd_); }
  // Sends the command, and waits for its reply. False if there is none.
  bool ask(std::uint32_t command) {
    const std::uint32_t frame[] = {12, next_++, command};
    std::uint32_t header[2] = {};
    char body[4096];
    if (send(fd_, frame, sizeof frame, MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof frame) ||
        recv(fd_, header, sizeof header, MSG_WAITALL) != static_cast<ssize_t>(sizeof header) ||
        header[0] > sizeof body) {
      return false;
    }
    const std::size_t length = header[0] - sizeof header;
    return recv(fd_, body, length, MSG_WAITALL) == static_cast<ssize_t>(length);
  }
};
constexpr std::uint32_t stop_command = 6, unknown_command = 77;

struct LiveDrivers : Ptzctl {
  std::vector<std::unique_ptr<Process>> drivers;

  [[nodiscard]] std::string socket(int instance) const { return dir.file("socket" + std::to_string(instance)); }
  void start(int instance) {
    drivers.push_back(std::make_unique<Process>(
        SIM_DRIVER, std::vector<std::string>{"--socket", socket(instance), "--instance", std::to_string(instance)},
        dir.file("log")));
    ASSERT_TRUE(run_until([&] {
      return run({"driver", "info", "--socket", socket(instance)}).status == 0;
    })) << contents(dir.file("log"));
  }
};

}  // namespace ptz_test
