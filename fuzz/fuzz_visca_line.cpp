// The heads, the links and the line of the VISCA driver over a socket pair, on a moved clock: the camera sends any
// bytes in any pieces, or replies that fit the moment, and hangs up. Each order must have exactly one outcome, and what
// is sent must be packets.
//
//   input       kind of the line (2 bits) and number of cameras (the other bits), operations
//   operation   low three bits: which (see `operations`), high five bits: its argument; some take further bytes
#include <glib-unix.h>
#include <head.h>
#include <line.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>

#include <array>
#include <memory>
#include <vector>

#include "command_channel.h"
#include "fuzz_target.h"
#include "interpose.h"

using namespace visca;
using ptz_fuzz::Input;

namespace {

constexpr std::size_t operations_max = 128, turns_max = 4096;

int timer_fd = -1;
std::int64_t timer_ms = 0;  // when the line's timer is due; 0: never
int camera_fd = -1;         // the camera's end of the socket pair

void settle() { ptz_fuzz::settle(turns_max); }

void pass(std::int64_t milliseconds) {
  const std::int64_t end = ptz_fuzz::clock_ms() + milliseconds;
  for (unsigned rounds = 0; timer_ms != 0 && timer_ms <= end; ++rounds) {
    REQUIRE(rounds < 20'000);
    ptz_fuzz::move_clock(std::max<std::int64_t>(timer_ms - ptz_fuzz::clock_ms(), 0));
    timer_ms = 0;
    const std::uint64_t once = 1;
    REQUIRE(write(timer_fd, &once, sizeof once) == sizeof once);
    settle();
  }
  ptz_fuzz::move_clock(end - ptz_fuzz::clock_ms());
}

class Pair final : public Transport {
  TransportUser &user_;
  const bool is_stream_;
  Stream stream_;
  UniqueFd datagrams_;
  Watch readable_;

  static gboolean on_datagram(gint fd, GIOCondition, gpointer user_data) {
    auto &pair = *static_cast<Pair *>(user_data);
    Byte bytes[2048];
    const ssize_t count = recv(fd, bytes, sizeof bytes, 0);
    if (count > 0) pair.user_.on_bytes({bytes, static_cast<std::size_t>(count)});
    if (count == 0) pair.readable_.stop();  // a camera that is off
    return G_SOURCE_CONTINUE;
  }

 public:
  Pair(TransportUser &user, bool is_stream) : user_(user), is_stream_(is_stream), stream_(user) {}
  ~Pair() override { close(); }
  void open() override {
    close();
    int fds[2];
    const int type = (is_stream_ ? SOCK_STREAM : SOCK_SEQPACKET) | SOCK_NONBLOCK | SOCK_CLOEXEC;
    REQUIRE(socketpair(AF_UNIX, type, 0, fds) == 0);
    camera_fd = fds[1];
    if (is_stream_) {
      stream_.start(UniqueFd(fds[0]));
    } else {
      datagrams_ = UniqueFd(fds[0]);
      readable_.keep(g_unix_fd_add(fds[0], G_IO_IN, on_datagram, this));
    }
    user_.transport_is_open();
  }
  void close() override {
    stream_.close();
    readable_.stop();
    datagrams_ = UniqueFd();
    if (camera_fd >= 0) ::close(std::exchange(camera_fd, -1));
  }
  void write(ByteSpan bytes) override {
    if (is_stream_) return stream_.write(bytes);
    if (datagrams_) (void)send(datagrams_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
  }
};

std::unique_ptr<Transport> make_pair(const Address &address, const IpOptions &, TransportUser &user) {
  const bool is_stream = address.kind == TransportKind::serial || address.kind == TransportKind::tcp;
  return std::make_unique<Pair>(user, is_stream);
}

class Observer final : public HeadUser {
 public:
  void axis_is_at(std::size_t axis, std::int32_t, bool) override { REQUIRE(axis < axis_count); }
  void axis_is_unknown(std::size_t) override {}
  void axis_runs(std::size_t axis, std::int32_t) override { REQUIRE(axis < axis_count); }
  void head_is_ready() override {}
  void focus_mode_is(bool) override {}
  void head_lacks_focus() override {}
};

class Scene {
  Input &input_;
  const TransportKind kind_;
  Observer observer_;
  std::vector<std::unique_ptr<unsigned>> outcomes_;
  std::vector<std::unique_ptr<Head>> heads_;
  std::unique_ptr<Line> line_;
  std::array<Byte, 4> number_ = {};  // of the last datagram that was sent
  std::vector<Byte> sent_;           // on a stream: the beginning of a packet

 public:
  Scene(Input &input, std::uint8_t first) : input_(input), kind_(static_cast<TransportKind>(first % 4)) {
    LineOptions options;
    options.address.kind = kind_;
    options.link = link_options_for(kind_);
    line_ = std::make_unique<Line>(options, make_pair);
    const unsigned cameras = kind_ == TransportKind::serial ? 1 + first / 4 % last_camera : 1;
    HeadOptions head;
    head.profile = *find_profile("generic");
    head.has_zoom = first < 0x80;
    for (unsigned camera = 1; camera <= cameras; ++camera) {
      heads_.push_back(std::make_unique<Head>(observer_, head));
      line_->add_camera(static_cast<Byte>(camera), *heads_.back());
    }
    line_->start();
    settle();
  }
  ~Scene() {
    line_->stop();
    settle();
    for (const auto &count : outcomes_) REQUIRE(*count == 1);
    line_.reset();
  }
  Scene(const Scene &) = delete;

  void play() {
    for (std::size_t left = operations_max; left > 0 && !input_.empty(); --left) {
      const std::uint8_t operation = input_.byte();
      (this->*operations[operation % 8])(operation / 8);
      settle();
      receive();
    }
  }

 private:
  Head &head(std::uint8_t argument) { return *heads_[argument % heads_.size()]; }
  Done done() {
    unsigned *const count = outcomes_.emplace_back(std::make_unique<unsigned>(0)).get();
    return [count](Outcome) { REQUIRE(++*count == 1); };
  }

  // What the driver has sent.
  void receive() {
    Byte bytes[4096];
    for (ssize_t count = 0; camera_fd >= 0 && (count = recv(camera_fd, bytes, sizeof bytes, 0)) > 0;) {
      const ByteSpan all(bytes, static_cast<std::size_t>(count));
      if (kind_ == TransportKind::udp) {
        REQUIRE(all.size() > header_size && all.size() == header_size + all[3] && all[2] == 0);
        std::copy_n(all.begin() + 4, 4, number_.begin());
        if (all[0] != 0x02) check(all.subspan(header_size));
      } else if (kind_ == TransportKind::udp_raw) {
        check(all);
      } else {
        check_stream(all);
      }
    }
  }
  static void check(ByteSpan packet) {
    REQUIRE(packet.size() >= shortest_packet && packet.size() <= longest_packet);
    REQUIRE(packet[0] > 0x80 && packet[0] <= 0x88);
    REQUIRE(std::ranges::find(packet, terminator) == packet.end() - 1);
  }
  void check_stream(ByteSpan bytes) {
    for (const Byte byte : bytes) {
      sent_.push_back(byte);
      REQUIRE(sent_.size() <= longest_packet);
      if (byte != terminator) continue;
      check(sent_);
      sent_.clear();
    }
  }

  void send_bytes(const std::vector<Byte> &bytes) {
    if (camera_fd >= 0 && !bytes.empty()) (void)send(camera_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  }
  void send_packet(std::vector<Byte> packet, std::uint8_t camera) {
    packet.insert(packet.begin(), static_cast<Byte>(0x80 + 0x10 * (1 + camera % heads_.size())));
    packet.push_back(terminator);
    if (kind_ == TransportKind::udp) {
      std::vector<Byte> header = {0x01, 0x11, 0x00, static_cast<Byte>(packet.size())};
      header.insert(header.end(), number_.begin(), number_.end());
      header[7] = static_cast<Byte>(header[7] - input_.byte() % 4);
      packet.insert(packet.begin(), header.begin(), header.end());
    }
    send_bytes(packet);
  }

  // Operations.

  void bytes(std::uint8_t argument) {
    const auto text = input_.bytes(argument + 1U);
    send_bytes({text.begin(), text.end()});
  }
  void reply(std::uint8_t argument) {
    send_packet({static_cast<Byte>(0x40 + 0x10 * (argument % 2) + argument / 2 % 4)}, argument / 8);
  }
  void refuse(std::uint8_t argument) {
    constexpr Byte codes[] = {error_length,    error_syntax,    error_buffer_full,
                              error_cancelled, error_no_socket, error_not_executable};
    send_packet({static_cast<Byte>(0x60 + argument % 4), codes[argument / 4 % std::size(codes)]}, input_.byte());
  }
  void answer(std::uint8_t argument) {
    constexpr std::size_t lengths[] = {1, 2, 4, 7, 8, 9, 10, 13};
    std::vector<Byte> packet = {0x50};
    for (std::size_t left = lengths[argument % 8]; left > 0; --left) packet.push_back(input_.byte() & 0x0f);
    send_packet(packet, argument / 8);
  }
  void control(std::uint8_t argument) {
    if (kind_ == TransportKind::serial) {
      const std::vector<Byte> messages[] = {
          {0x88, 0x30, 0x03, 0xff}, {0x88, 0x01, 0x00, 0x01, 0xff}, {0x90, 0x38, 0xff}};
      return send_bytes(messages[argument % std::size(messages)]);
    }
    std::vector<Byte> message = {0x02, static_cast<Byte>(argument % 2), 0x00, 0x02};
    message.insert(message.end(), number_.begin(), number_.end());
    message.insert(message.end(),
                   {static_cast<Byte>(argument & 2 ? 0x0f : 0x01), static_cast<Byte>(1 + argument / 4 % 2)});
    send_bytes(message);
  }
  void order(std::uint8_t argument) {
    Head &of = head(input_.byte());
    Order wanted = {.kind = static_cast<MoveKind>(argument % 3)};
    const std::uint8_t axes = input_.byte();
    for (std::size_t axis = 0; axis < axis_count; ++axis) {
      wanted.axes[axis] = (axes >> axis & 1U) != 0 && (axis != zoom_axis || of.profile().zoom.most() > 0);
      wanted.value[axis] = (input_.byte() - 128) * 100;
    }
    if (!of.is_there()) return;
    of.move(wanted, done());
  }
  void command(std::uint8_t argument) {
    Head &of = head(argument / 8);
    switch (argument % 8) {
      case 0:
      case 1:
        return of.stop(done());
      case 2:
        return of.home(done());
      case 3:
        return of.memory(static_cast<MemoryAction>(input_.byte() % 3), 1, done());
      case 4:
        return of.send(focus_drive(of.address(), FocusDirection::far, 3), Group::focus, false, done());
      case 5:
        return of.send(focus_stop(of.address()), Group::focus, true, done());
      case 6:
        return of.set_power(true, done());
      default:
        if (camera_fd >= 0) (void)shutdown(camera_fd, SHUT_RDWR);
    }
  }
  void wait(std::uint8_t argument) { pass(argument < 16 ? 10 * argument : 200 * (argument - 15)); }

  static constexpr void (Scene::*operations[8])(std::uint8_t) = {&Scene::bytes,   &Scene::reply,   &Scene::refuse,
                                                                 &Scene::answer,  &Scene::control, &Scene::order,
                                                                 &Scene::command, &Scene::wait};
};

}  // namespace

INTERPOSE(int, timerfd_create, (clockid_t, int)) {
  timer_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  timer_ms = 0;
  return timer_fd;
}
INTERPOSE(int, timerfd_settime, (int, int, const itimerspec *time, itimerspec *)) {
  const auto &at = time->it_value;
  timer_ms = at.tv_sec == 0 && at.tv_nsec == 0 ? 0 : at.tv_sec * 1000 + (at.tv_nsec + 999'999) / 1'000'000;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  ptz_fuzz::start_main_loop();
  ptz_fuzz::start_clock();
  Input input(data, size);
  {
    Scene scene(input, input.byte());
    scene.play();
  }
  REQUIRE(ptz_fuzz::take_failed_checks() == 0);
  return 0;
}
