// fuzz/command_channel.h - what the targets of the command channel share: the other end of a connection, which keeps
// its own account of what it sent, and a world in which nothing takes time.
//
// With command_channel.cpp in a program, waits of the library end at once where they would wait, the monotonic clock
// moved on by as long as they would have taken. What is logged goes nowhere.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "input.h"
#include "peers.h"

namespace ptz_fuzz {

// The low four bits of a byte say which length: those around the limits of the frame matter most.
[[nodiscard]] std::uint32_t body_length(std::uint8_t code);
[[nodiscard]] std::size_t piece_length(std::uint8_t code);
// A body that differs from every other.
[[nodiscard]] std::string body_of(std::uint32_t number, std::size_t length);

struct Message {
  std::uint32_t id;
  std::string body;
};

// The messages in a stream of frames, up to the first length that cannot be.
class Messages {
  std::string stream_;
  std::size_t parsed_ = 0;
  std::vector<Message> complete_;
  bool impossible_ = false;

 public:
  void add(std::string_view bytes);
  [[nodiscard]] const std::vector<Message> &complete() const { return complete_; }
  [[nodiscard]] bool impossible() const { return impossible_; }
  // From the frame on that is not complete.
  [[nodiscard]] std::string_view rest() const { return std::string_view(stream_).substr(parsed_); }
};

// The end of a connection that the fuzzer plays.
class Peer {
  ptz_test::Descriptor fd_;
  std::string outbox_;
  Messages sent_;
  bool sends_ = true;
  bool receives_ = true;

 public:
  explicit Peer(ptz_test::Descriptor fd) : fd_(std::move(fd)) {}
  // What was composed is sent in pieces, as far as there is room.
  void compose(std::string_view bytes) { outbox_ += bytes; }
  void send(std::size_t most = std::string::npos);
  [[nodiscard]] const Messages &sent() const { return sent_; }

  void stop_sending();
  void stop_receiving();
  void hang_up();
  [[nodiscard]] bool is_open() const { return static_cast<bool>(fd_); }
  [[nodiscard]] bool has_stopped_sending() const { return !sends_; }
  [[nodiscard]] bool has_stopped_receiving() const { return !receives_; }
  [[nodiscard]] bool has_hung_up() const { return !sends_ && !receives_; }

  [[nodiscard]] std::size_t unread() const;
  std::string receive();
};

void start_clock();
void move_clock(std::int64_t milliseconds);
[[nodiscard]] std::int64_t clock_ms();

// Prepares the default main context, once for the process.
void start_main_loop();
// False where nothing was dispatched and no descriptor was ready: a main loop would sleep.
bool iterate();
// Iterates until it would sleep. Taking more than this many turns is a finding: it spins.
void settle(std::size_t turns_max);

// How many of GLib's checks have failed since this was asked last.
[[nodiscard]] int take_failed_checks();
[[nodiscard]] std::size_t open_descriptors();

}  // namespace ptz_fuzz
