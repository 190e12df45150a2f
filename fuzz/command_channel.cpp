#include "command_channel.h"

#include <glib.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>
#include <algorithm>
#include <cstring>
#include <ctime>

#include "fuzz_target.h"
#include "interpose.h"
#include "ptz_socket_frame.h"

namespace {

constexpr std::int64_t nanoseconds_per_millisecond = 1'000'000;
constexpr std::int64_t nanoseconds_per_second = 1'000'000'000;
// Not on a full second, so that what counts in whole seconds is seen to.
constexpr std::int64_t clock_start_ns = 1000 * nanoseconds_per_second + 400 * nanoseconds_per_millisecond;
constexpr std::size_t watched_descriptors = 128;
constexpr std::size_t noise_starts = 251;

std::int64_t clock_ns = clock_start_ns;
int ready_descriptors = 0;
int failed_checks = 0;

}  // namespace

INTERPOSE(int, poll, (pollfd * fds, nfds_t count, int timeout_ms)) {
  const int ready = REAL(poll)(fds, count, 0);
  if (ready == 0) ptz_fuzz::move_clock(std::max(timeout_ms, 0));
  return ready;
}

namespace {

gint poll_for_main_loop(GPollFD *fds, guint count, gint) {
  static_assert(sizeof(GPollFD) == sizeof(pollfd));
  ready_descriptors = REAL(poll)(reinterpret_cast<pollfd *>(fds), count, 0);
  return ready_descriptors;
}

void count_failed_check(const gchar *, GLogLevelFlags level, const gchar *message, gpointer) {
  if ((level & G_LOG_LEVEL_CRITICAL) == 0) std::fprintf(stderr, "unexpected: %s\n", message);
  REQUIRE((level & G_LOG_LEVEL_CRITICAL) != 0);
  ++failed_checks;
}

}  // namespace

namespace ptz_fuzz {

std::uint32_t body_length(std::uint8_t code) {
  constexpr std::uint32_t lengths[16] = {1, 2, 3, 4, 5, 8, 0, 12, 60, 255, 256, 1000, 2547, 2550, 2551, 2552};
  return lengths[code % 16];
}

std::size_t piece_length(std::uint8_t code) {
  constexpr std::size_t lengths[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 11, 12, 16, 100, 2559, 2560, 2561};
  return lengths[code % 16];
}

std::string body_of(std::uint32_t number, std::size_t length) {
  static const std::string noise = [] {
    std::string bytes(PTZ_SOCKET_BODY_MAX + noise_starts, '\0');
    std::uint32_t state = 1;
    for (char &byte : bytes) byte = static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
    return bytes;
  }();
  std::string body = noise.substr(number % noise_starts, length);
  std::memcpy(body.data(), &number, std::min(length, sizeof number));
  return body;
}

void Messages::add(std::string_view bytes) {
  stream_ += bytes;
  while (!impossible_ && stream_.size() - parsed_ >= sizeof(std::uint32_t)) {
    std::uint32_t header[2];
    std::memcpy(header, stream_.data() + parsed_, sizeof header[0]);
    const std::uint32_t length = header[0];
    impossible_ = length < PTZ_SOCKET_FRAME_HEADER_SIZE || length > PTZ_SOCKET_FRAME_MAX;
    if (impossible_ || stream_.size() - parsed_ < length) return;
    std::memcpy(header, stream_.data() + parsed_, sizeof header);
    complete_.push_back(
        {header[1], stream_.substr(parsed_ + PTZ_SOCKET_FRAME_HEADER_SIZE, length - PTZ_SOCKET_FRAME_HEADER_SIZE)});
    parsed_ += length;
  }
}

void Peer::send(std::size_t most) {
  if (!sends_) return;
  const std::size_t length = std::min(most, outbox_.size());
  if (length == 0) return;
  const ssize_t count = ::send(fd_.get(), outbox_.data(), length, MSG_DONTWAIT | MSG_NOSIGNAL);
  if (count <= 0) return;
  sent_.add(std::string_view(outbox_).substr(0, static_cast<std::size_t>(count)));
  outbox_.erase(0, static_cast<std::size_t>(count));
}

void Peer::stop_sending() {
  if (sends_) shutdown(fd_.get(), SHUT_WR);
  sends_ = false;
}

void Peer::stop_receiving() {
  if (receives_) shutdown(fd_.get(), SHUT_RD);
  receives_ = false;
}

void Peer::hang_up() {
  fd_.reset();
  sends_ = receives_ = false;
}

std::size_t Peer::unread() const {
  int count = 0;
  if (is_open()) REQUIRE(ioctl(fd_.get(), FIONREAD, &count) == 0);
  return static_cast<std::size_t>(count);
}

std::string Peer::receive() {
  std::string bytes(unread(), '\0');
  if (bytes.empty()) return bytes;
  const ssize_t count = recv(fd_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
  REQUIRE(count == static_cast<ssize_t>(bytes.size()));
  return bytes;
}

void start_clock() { clock_ns = clock_start_ns; }
void move_clock(std::int64_t milliseconds) { clock_ns += milliseconds * nanoseconds_per_millisecond; }
std::int64_t clock_ms() { return clock_ns / nanoseconds_per_millisecond; }

void start_main_loop() {
  static const bool started = [] {
    g_main_context_set_poll_func(g_main_context_default(), poll_for_main_loop);
    g_log_set_default_handler(count_failed_check, nullptr);
    return true;
  }();
  REQUIRE(started);
}

bool iterate() {
  ready_descriptors = 0;
  const bool dispatched = g_main_context_iteration(nullptr, FALSE);
  return dispatched || ready_descriptors > 0;
}

void settle(std::size_t turns_max) {
  for (std::size_t turns = 0; iterate(); ++turns) REQUIRE(turns < turns_max);
}

int take_failed_checks() { return std::exchange(failed_checks, 0); }

std::size_t open_descriptors() {
  std::array<pollfd, watched_descriptors> fds;
  for (std::size_t i = 0; i < fds.size(); ++i) fds[i] = {static_cast<int>(i), 0, 0};
  REAL(poll)(fds.data(), fds.size(), 0);
  return static_cast<std::size_t>(
      std::count_if(fds.begin(), fds.end(), [](const pollfd &fd) { return (fd.revents & POLLNVAL) == 0; }));
}

}  // namespace ptz_fuzz

// Asked by the address sanitizer. The blocks of the last few inputs are enough to hold back, and a short call stack is
// enough to know who allocated one: both are most of what an input costs.
extern "C" const char *__asan_default_options() { return "quarantine_size_mb=16:malloc_context_size=8"; }

INTERPOSE(int, clock_gettime, (clockid_t clock, timespec *time)) {
  if (clock != CLOCK_MONOTONIC) return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
  time->tv_sec = clock_ns / nanoseconds_per_second;
  time->tv_nsec = clock_ns % nanoseconds_per_second;
  return 0;
}

INTERPOSE(int, usleep, (useconds_t microseconds)) {
  clock_ns += std::int64_t{microseconds} * 1000;
  return 0;
}

INTERPOSE(void, syslog, (int, const char *, ...)) {}
