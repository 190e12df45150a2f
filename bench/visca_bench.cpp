// How long a request to move takes from the driver's socket to the camera, on each transport, beside a bare relay of
// the same bytes; and how often the driver wakes up at rest.
//
//   visca_bench [--quick]
//
// The camera is a thread of this program. It answers at once, and its clock is that of the caller.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pty.h>
#include <ptz_kit.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "handles.h"
#include "statistics.h"
#include "temp_dir.h"

namespace {

using ptz_test::Object;
using Bytes = std::vector<unsigned char>;

[[noreturn]] void give_up(const char *what) {
  std::fprintf(stderr, "%s\n", what);
  std::exit(2);
}

double now_us() {
  timespec time = {};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

enum class Way { udp, udp_raw, tcp, serial };
struct Transport {
  Way way;
  const char *name;
};
constexpr Transport transports[] = {
    {Way::udp, "udp"}, {Way::udp_raw, "udp-raw"}, {Way::tcp, "tcp"}, {Way::serial, "serial"}};

// --- the camera
// -------------------------------------------------------------------------------------------------------

class Camera {
  const Way way_;
  int fd_ = -1, listener_ = -1, other_end_ = -1;
  std::string device_;
  Bytes part_;
  sockaddr_in peer_ = {};
  std::atomic<bool> ends_ = false;
  std::atomic<double> moved_us_ = 0;  // when the last drive arrived
  std::thread thread_;

  void answer(const Bytes &packet, const unsigned char *header) {
    Bytes all;
    if (way_ == Way::udp) {
      all = {0x01, 0x11, 0x00, static_cast<unsigned char>(packet.size()), header[4], header[5], header[6], header[7]};
    }
    all.insert(all.end(), packet.begin(), packet.end());
    const bool is_datagram = way_ == Way::udp || way_ == Way::udp_raw;
    const ssize_t sent =
        is_datagram ? sendto(fd_, all.data(), all.size(), 0, reinterpret_cast<sockaddr *>(&peer_), sizeof peer_)
                    : write(fd_, all.data(), all.size());
    if (sent < 0 && !ends_) std::perror("camera");
  }
  void take(const Bytes &packet, const unsigned char *header, double when_us) {
    if (packet[0] == 0x88) {
      return answer(packet[1] == 0x30 ? Bytes{0x88, 0x30, 0x02, 0xff} : packet, header);
    }
    if (packet[1] == 0x09) {
      switch (packet[2] << 8 | packet[3]) {
        case 0x0612:
          return answer({0x90, 0x50, 0, 0, 0, 1, 0, 0, 0, 1, 0xff}, header);
        case 0x0447:
          return answer({0x90, 0x50, 0, 0, 0, 0, 0xff}, header);
        case 0x0400:
          return answer({0x90, 0x50, 0x02, 0xff}, header);
        default:
          return answer({0x90, 0x60, 0x02, 0xff}, header);
      }
    }
    if (packet[1] == 0x01 && packet[2] == 0x06 && packet[3] == 0x01) moved_us_ = when_us;
    answer({0x90, 0x41, 0xff}, header);
    answer({0x90, 0x51, 0xff}, header);
  }
  void receive() {
    unsigned char bytes[512];
    socklen_t size = sizeof peer_;
    const bool is_datagram = way_ == Way::udp || way_ == Way::udp_raw;
    const ssize_t count = is_datagram
                              ? recvfrom(fd_, bytes, sizeof bytes, 0, reinterpret_cast<sockaddr *>(&peer_), &size)
                              : read(fd_, bytes, sizeof bytes);
    const double when_us = now_us();
    if (count <= 0) return;
    const unsigned char *data = bytes, *const end = bytes + count;
    if (way_ == Way::udp) {
      if (bytes[0] == 0x02) {
        const unsigned char done[] = {0x02, 0x01, 0, 1, 0, 0, 0, 0, 1};
        sendto(fd_, done, sizeof done, 0, reinterpret_cast<sockaddr *>(&peer_), size);
        return;
      }
      data += 8;
    }
    for (; data < end; ++data) {
      part_.push_back(*data);
      if (*data != 0xff) continue;
      take(part_, bytes, when_us);
      part_.clear();
    }
  }
  void run() {
    while (!ends_) {
      pollfd fds[] = {{listener_, POLLIN, 0}, {fd_, POLLIN, 0}};
      poll(fds, 2, 50);
      if ((fds[0].revents & POLLIN) != 0) {
        if (fd_ >= 0) close(fd_);
        fd_ = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        const int on = 1;
        setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      } else if (fds[1].revents != 0) {
        receive();
      }
    }
  }

 public:
  explicit Camera(Way way) : way_(way) {
    if (way == Way::serial) {
      char name[64];
      if (openpty(&fd_, &other_end_, name, nullptr, nullptr) != 0) give_up("openpty");
      fcntl(fd_, F_SETFD, FD_CLOEXEC);
      fcntl(other_end_, F_SETFD, FD_CLOEXEC);
      termios raw = {};
      tcgetattr(other_end_, &raw);
      cfmakeraw(&raw);
      tcsetattr(other_end_, TCSANOW, &raw);
      device_ = std::string("serial:") + name;
    } else {
      const int fd = socket(AF_INET, (way == Way::tcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, 0);
      sockaddr_in address = {};
      address.sin_family = AF_INET;
      address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      socklen_t size = sizeof address;
      if (bind(fd, reinterpret_cast<sockaddr *>(&address), size) != 0) give_up("bind");
      getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size);
      if (way == Way::tcp) listen(fd, 4);
      (way == Way::tcp ? listener_ : fd_) = fd;
      device_ = std::string(way == Way::udp       ? "udp"
                            : way == Way::udp_raw ? "udp-raw"
                                                  : "tcp") +
                ":127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    }
    thread_ = std::thread([this] { run(); });
  }
  Camera(const Camera &) = delete;
  ~Camera() {
    ends_ = true;
    thread_.join();
    for (const int fd : {fd_, listener_, other_end_}) {
      if (fd >= 0) close(fd);
    }
  }
  [[nodiscard]] const std::string &device() const { return device_; }
  // When the next drive has come.
  double wait_for_move() {
    double when_us = 0;
    for (int turns = 0; (when_us = moved_us_.exchange(0)) == 0; ++turns) {
      if (turns > 100'000) give_up("no command has come to the camera");
      usleep(20);
    }
    return when_us;
  }
};

// --- the driver and the relay
// -----------------------------------------------------------------------------------------

class Child {
  pid_t process_ = -1;

 public:
  template <typename Run>
  explicit Child(Run run) : process_(fork()) {
    if (process_ < 0) give_up("fork");
    if (process_ > 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    run();
    _exit(127);
  }
  Child(const Child &) = delete;
  ~Child() {
    kill(process_, SIGTERM);
    waitpid(process_, nullptr, 0);
  }
  [[nodiscard]] long wake_ups() const {
    std::ifstream status("/proc/" + std::to_string(process_) + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.rfind("voluntary_ctxt_switches:", 0) == 0) return std::atol(line.c_str() + 24);
    }
    return 0;
  }
};

// Reads a frame from a socket and writes a packet to the camera: what no driver can do without.
[[noreturn]] void relay(int socket_fd, const std::string &device) {
  const std::string host = device.substr(device.find(':') + 1);
  int fd = -1;
  if (device.rfind("serial:", 0) == 0) {
    fd = open(host.c_str(), O_RDWR | O_NOCTTY);
  } else {
    fd = socket(AF_INET, device.rfind("tcp", 0) == 0 ? SOCK_STREAM : SOCK_DGRAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(std::atoi(host.substr(host.rfind(':') + 1).c_str())));
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) _exit(1);
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  }
  const Bytes header = {0x01, 0x00, 0x00, 0x09, 0, 0, 0, 0};
  Bytes packet = {0x81, 0x01, 0x06, 0x01, 0x01, 0x01, 0x01, 0x03, 0xff};
  if (device.rfind("udp:", 0) == 0) packet.insert(packet.begin(), header.begin(), header.end());
  char frame[64];
  while (read(socket_fd, frame, sizeof frame) > 0) {
    if (write(fd, packet.data(), packet.size()) < 0) _exit(1);
  }
  _exit(0);
}

std::vector<double> measure_relay(Way way, int calls) {
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) give_up("socketpair");
  std::vector<double> times_us;
  Camera camera(way);
  {
    const Child child([&] { relay(pair[1], camera.device()); });
    const char frame[36] = {};
    for (int call = 0; call < calls; ++call) {
      usleep(1000);
      const double began_us = now_us();
      if (write(pair[0], frame, sizeof frame) < 0) give_up("write");
      times_us.push_back(camera.wait_for_move() - began_us);
    }
  }
  close(pair[0]);
  close(pair[1]);
  return times_us;
}

struct Measured {
  std::vector<double> times_us;
  double wake_ups = 0;  // a second
};

Measured measure_driver(Way way, int calls, int seconds) {
  const ptz_test::TempDir folder;
  const std::string path = folder.file("socket");
  setenv("PTZ_PLATFORM_RUNTIME_DIR", folder.path().c_str(), 1);
  Camera camera(way);
  const Child child([&] {
    execl(VISCA_DRIVER, "visca-driver", "--socket", path.c_str(), "--device", camera.device().c_str(), nullptr);
  });
  const Object<PTZKitLink> link(ptz_kit_link_new(path.c_str()));
  ptz_kit_link_open(link.get());
  if (ptz_kit_link_wait_ready(link.get(), 10'000, nullptr) == FALSE) give_up("the driver does not listen");
  Measured measured;
  // A drive with speed 0 would be a stop, and a stop at the start must be over.
  PTZKitMoveRequest request = {.kind = PTZ_MOVE_CONTINUOUS, .axes = 1, .speed = 100, .value = {0, 0, 0}};
  for (int tries = 0; ptz_kit_link_query_position(link.get(), 1000, nullptr, nullptr) == nullptr; ++tries) {
    if (tries > 50) give_up("the camera is not found");
    usleep(100'000);
  }
  usleep(1'500'000);
  const long before = child.wake_ups();
  sleep(static_cast<unsigned>(seconds));
  measured.wake_ups = static_cast<double>(child.wake_ups() - before) / seconds;
  for (int call = -20; call < calls; ++call) {
    request.value[0] = call % 2 == 0 ? 3000 : -3000;
    usleep(1000);
    const double began_us = now_us();
    if (ptz_kit_link_move(link.get(), &request, 2000, nullptr, nullptr) == FALSE) give_up("a move was refused");
    const double time_us = camera.wait_for_move() - began_us;
    if (call >= 0) measured.times_us.push_back(time_us);
  }
  return measured;
}

}  // namespace

int main(int argc, char **argv) {
  const bool quick = argc == 2 && std::strcmp(argv[1], "--quick") == 0;
  const int calls = quick ? 20 : 1000, seconds = quick ? 1 : 10;
  signal(SIGPIPE, SIG_IGN);  // a driver that ends hangs up
  std::printf("From a request to the first byte at the camera\n");
  for (const Transport &transport : transports) {
    const auto relayed_us = measure_relay(transport.way, calls);
    const Measured driver = measure_driver(transport.way, calls, seconds);
    const double floor_us = bench::median(relayed_us), median_us = bench::median(driver.times_us);
    std::printf("  %-8s driver %7.1f us (95 %%: %7.1f), relay %7.1f us; %.2f times; at rest %.1f wake-ups a second\n",
                transport.name, median_us, bench::quantile(driver.times_us, 0.95), floor_us, median_us / floor_us,
                driver.wake_ups);
  }
  return 0;
}
