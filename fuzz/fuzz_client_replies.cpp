// A command client whose peer answers what it likes in whatever pieces: in any order, twice, to nobody, with lengths
// that cannot be, up to an end of the stream anywhere; with callbacks that send again and drop the client, and requests
// that time out. Every request must end exactly once, with a body that the peer sent for it if any, and the peer must
// read exactly what was sent.
//
//   input       how the client is set up (1 byte), operations
//   operation   low four bits: which (see `operations`), high four bits: its argument; some take further bytes
#include <sys/select.h>
#include <sys/socket.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "command_channel.h"
#include "fuzz_target.h"
#include "handles.h"
#include "interpose.h"
#include "ptz_file_g_source.h"
#include "ptz_socket_client_command.h"

using namespace ptz_fuzz;

namespace {

constexpr std::size_t operations_max = 128;
constexpr std::size_t requests_max = 128;
constexpr std::size_t sessions_max = 4;
constexpr int nested_loops_max = 3;
constexpr std::int64_t reply_timeout_ms = 360'000;
constexpr std::int64_t sync_timeout_ms = 10'000;
constexpr std::int64_t second_ms = 1000;
constexpr std::int64_t longest_wait_ms = reply_timeout_ms + 2 * second_ms;

enum SetUp : std::uint8_t { near_last_id = 1, no_free_callback = 2, narrow = 4, deaf = 8 };

class Scene;

struct Request {
  Scene *scene;
  std::size_t messages_before = 0;  // that the peer had sent when the request was
  std::int64_t sent_after = 0;
  std::int64_t sent_before = 0;
  bool pending = false;  // was sent, with a context, and has not ended
  guint32 id = 0;
  int ends = 0;
};

// One client and the peer at the other end of its connection.
class Scene {
  Input &input_;
  ptz_test::Pair pair_;
  Peer peer_;
  ptz_test::Object<PTZSocketClientCommand> client_;
  gpointer watched_client_ = nullptr;
  std::deque<Request> requests_;
  std::vector<bool> delivered_;  // which of the messages that the peer sent
  std::deque<std::uint8_t> reactions_;
  std::deque<std::uint8_t> events_while_waiting_;
  std::string sent_;  // what the peer must read
  std::size_t read_ = 0;
  guint32 next_id_ = 0;
  std::uint32_t composed_ = 0;
  std::size_t waits_left_ = 0;
  int callbacks_running_ = 0;
  int nested_loops_ = 0;
  bool disturbed_wait_ = false;
  bool hears_ = true;           // has a callback ...
  bool always_heard_ = true;    // ... and had one all the time
  bool releases_ = true;        // has a free callback
  bool send_failed_ = false;    // the watch may be off
  bool fragment_sent_ = false;  // nothing may follow
  bool unwatched_ = false;      // by one of us
  bool resumed_ = false;        // after a length that cannot be

 public:
  Scene(Input &input, std::uint8_t set_up) : input_(input), peer_(std::move(pair_.theirs)) {
    client_.reset(ptz_socket_client_command_new(nullptr, pair_.ours.get(), SOCK_STREAM));
    watched_client_ = client_.get();
    g_object_add_weak_pointer(G_OBJECT(client_.get()), &watched_client_);
    if ((set_up & near_last_id) != 0) client_->next_id = next_id_ = 0xfffffffd;
    if ((set_up & no_free_callback) == 0) {
      ptz_socket_client_command_register_free_callback(client_.get(), release, this);
    } else {
      releases_ = false;
    }
    if ((set_up & narrow) != 0) {
      const int size = 1;
      setsockopt(pair_.ours.get(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    }
    if ((set_up & deaf) != 0) {
      hears_ = always_heard_ = false;
    } else {
      listen();
    }
  }
  Scene(const Scene &) = delete;
  ~Scene() {
    drop_client();
    REQUIRE(watched_client_ == nullptr);
    REQUIRE(ptz_test::is_open(pair_.ours.get()));  // it was lent
    settle(turns());
    check_what_was_sent();
    for (const Request &request : requests_) REQUIRE(!request.pending || !releases_);
  }

  // Returns when the input is used up, or begins anew.
  void play(std::size_t &operations_left) {
    for (; operations_left > 0 && !input_.empty(); --operations_left) {
      const std::uint8_t operation = input_.byte();
      if (operation == renewal) return;
      (this->*operations[operation % 16])(operation / 16);
    }
    go_on_until_idle(0);
  }

  // The library waits for the descriptor: what happens meanwhile.
  int wait_for_reply(fd_set *readable, int fd, std::int64_t timeout_ms) {
    REQUIRE(waits_left_ > 0);
    --waits_left_;
    REQUIRE(timeout_ms > 0 && timeout_ms <= sync_timeout_ms);
    if (!events_while_waiting_.empty()) {
      const std::uint8_t event = events_while_waiting_.front();
      events_while_waiting_.pop_front();
      switch (event % 8) {
        default:
          peer_.send(piece_length(event / 16));
          break;
        case 3:
          peer_.stop_sending();
          break;
        case 4:
          peer_.hang_up();
          break;
        case 5:
          disturbed_wait_ = true;
          move_clock(event / 8 * second_ms / 2);
          break;
        case 6:
          errno = EINTR;
          return -1;
        case 7:
          disturbed_wait_ = true;
          errno = ENOMEM;
          return -1;
      }
      waits_left_ += 2;
    } else {
      peer_.send();
    }
    if (ptz_test::is_readable(fd)) return 1;
    if (!events_while_waiting_.empty()) return 1;  // wakes up for nothing
    move_clock(timeout_ms);
    FD_ZERO(readable);
    return 0;
  }

  static constexpr std::uint8_t renewal = 0xff;

 private:
  [[nodiscard]] PTZSocketClient *base() const { return PTZ_SOCKET_CLIENT(client_.get()); }
  [[nodiscard]] std::size_t turns() const {
    return 64 + 4 * (composed_ + requests_.size() + reactions_.size() + events_while_waiting_.size());
  }

  void listen() {
    hears_ = true;
    ptz_socket_client_register_callback(
        base(),
        [](gpointer context, gpointer data, guint32 length) {
          auto *request = static_cast<Request *>(context);
          request->scene->end(*request, static_cast<const char *>(data), length);
        },
        nullptr);
  }

  static void release(gpointer context, gpointer scene) {
    auto *request = static_cast<Request *>(context);
    auto *self = static_cast<Scene *>(scene);
    REQUIRE(request->scene == self);
    REQUIRE(self->watched_client_ == nullptr || !self->hears_);
    request->pending = false;
    REQUIRE(++request->ends == 1);
  }

  // The callback.
  void end(Request &request, const char *data, guint32 length) {
    REQUIRE(hears_);
    // A callback runs inside another only if that runs a main loop. Replies that it drains wait for the main loop.
    REQUIRE(callbacks_running_ <= nested_loops_);
    request.pending = false;
    REQUIRE(++request.ends == 1);
    if (data == nullptr) {
      REQUIRE(length == 0);
      REQUIRE(clock_ms() - request.sent_after > reply_timeout_ms - second_ms);
    } else {
      require_peer_sent(request.id, std::string_view(data, length));
    }
    if (reactions_.empty()) return;
    const std::uint8_t reaction = reactions_.front();
    reactions_.pop_front();
    const std::string before(data != nullptr ? data : "", length);
    ++callbacks_running_;
    react(reaction % 16, reaction / 16);
    --callbacks_running_;
    REQUIRE(before == std::string_view(data != nullptr ? data : "", length));
  }

  void require_peer_sent(guint32 id, std::string_view body) {
    const auto &messages = peer_.sent().complete();
    delivered_.resize(messages.size());
    for (std::size_t i = 0; i < messages.size(); ++i) {
      if (delivered_[i] || messages[i].id != id || messages[i].body != body) continue;
      delivered_[i] = true;
      return;
    }
    // Whoever goes on behind a length that cannot be may take anything for a reply, but it must have been sent.
    REQUIRE(resumed_ && peer_.sent().rest().find(body) != std::string_view::npos);
  }

  void react(std::uint8_t reaction, std::uint8_t argument) {
    switch (reaction) {
      default:
        send(argument, true);
        break;
      case 3:
        send(argument, false);
        break;
      case 4:
        drop_client();
        break;
      case 5:
        send_and_wait(argument);
        break;
      case 6:
        if (nested_loops_ >= nested_loops_max) break;
        ++nested_loops_;
        for (int i = 0; i <= argument; ++i) iterate();
        --nested_loops_;
        break;
      case 7:
        peer_.send(piece_length(argument));
        break;
      case 8:
        send(argument, true);
        drop_client();
        break;
      case 9:
        peer_.hang_up();
        break;
      case 10:
        change_watch(argument);
        break;
      case 11:
        change_callback(argument);
        break;
      case 12:
        move_clock(argument * 30 * second_ms);
        break;
      case 13:
        answer_next(argument);
        peer_.send();
        break;
    }
  }

  void drop_client() {
    if (client_ != nullptr) REQUIRE(client_->next_id == next_id_);
    client_.reset();
  }

  // Holds what has come to the peer of a request against its frame.
  // Returns whether all of it has come.
  bool account_for(guint32 id, std::string_view body) {
    if (!peer_.is_open()) return false;
    const std::string frame = ptz_test::frame(id, body);
    const std::size_t arrived = peer_.unread() - (sent_.size() - read_);
    REQUIRE(arrived <= frame.size());
    REQUIRE(arrived == 0 || !fragment_sent_);
    sent_ += frame.substr(0, arrived);
    fragment_sent_ = fragment_sent_ || (arrived > 0 && arrived < frame.size());
    return arrived == frame.size();
  }

  void send(std::uint8_t argument, bool with_context) {
    if (client_ == nullptr || requests_.size() >= requests_max) return;
    Request &request = requests_.emplace_back();
    request.scene = this;
    const std::string body = body_of(++composed_, body_length(argument));
    request.sent_after = clock_ms();
    const bool sent =
        ptz_socket_client_command_async_send(client_.get(), body.data(), static_cast<guint32>(body.size()),
                                             with_context ? &request : nullptr) != FALSE;
    request.sent_before = clock_ms();
    request.id = next_id_++;
    request.messages_before = peer_.sent().complete().size();
    if (!sent) send_failed_ = true;
    if (!sent) REQUIRE(request.ends == 0);
    request.pending = sent && with_context && request.ends == 0;
    if (request.pending) REQUIRE(watched_client_ != nullptr || !releases_);
    const bool arrived = account_for(request.id, body);
    if (peer_.is_open() && !body.empty()) REQUIRE(sent == arrived);
    if (body.empty()) REQUIRE(!sent);
  }

  void send_and_wait(std::uint8_t argument) {
    if (client_ == nullptr) return;
    const std::string body = body_of(++composed_, body_length(argument));
    const auto reply = std::make_unique<char[]>(PTZ_SOCKET_BODY_MAX);
    guint32 reply_length = 0xffffffff;
    const std::size_t messages_before = peer_.sent().complete().size();
    const std::int64_t start = clock_ms();
    waits_left_ = turns();
    disturbed_wait_ = false;
    const bool answered =
        ptz_socket_client_command_sync_send(client_.get(), body.data(), static_cast<guint32>(body.size()), reply.get(),
                                            &reply_length) != FALSE;
    const guint32 id = next_id_++;
    const bool arrived = account_for(id, body);
    if (answered) {
      REQUIRE(arrived || !peer_.is_open());
      REQUIRE(reply_length <= PTZ_SOCKET_BODY_MAX);
      REQUIRE(disturbed_wait_ || clock_ms() - start < sync_timeout_ms + 4 * second_ms);
      require_peer_sent(id, std::string_view(reply.get(), reply_length));
    } else if (arrived && !body.empty() && !disturbed_wait_ && !peer_.sent().impossible()) {
      REQUIRE(clock_ms() - start >= sync_timeout_ms || peer_.has_stopped_sending());
      for (std::size_t i = messages_before; i < peer_.sent().complete().size(); ++i) {
        REQUIRE(peer_.sent().complete()[i].id != id);
      }
    }
    unwatched_ = false;
  }

  void check_what_was_sent() {
    const std::string bytes = peer_.receive();
    REQUIRE(std::string_view(sent_).substr(read_, bytes.size()) == bytes);
    read_ += bytes.size();
    if (peer_.is_open()) REQUIRE(read_ == sent_.size());
  }

  // Nothing that has come waits for ever, nobody waits longer than is said, and the watch is off only for a reason.
  void check_settled() {
    if (client_ == nullptr) return;
    REQUIRE(client_->next_id == next_id_);
    const bool watches = reinterpret_cast<PTZFileGSource *>(base()->source)->tag != nullptr;
    const bool impossible = peer_.sent().impossible();
    REQUIRE(watches || peer_.has_stopped_sending() || impossible || send_failed_ || fragment_sent_ || unwatched_);
    if (watches) REQUIRE(!peer_.has_stopped_sending());
    if (watches && impossible) REQUIRE(resumed_);
    for (const Request &request : requests_) {
      if (!request.pending) continue;
      // Without callbacks nobody is told of an expiry.
      if (releases_ || always_heard_) REQUIRE(clock_ms() - request.sent_before < longest_wait_ms);
      if (!watches || impossible || !always_heard_) continue;
      for (std::size_t i = request.messages_before; i < peer_.sent().complete().size(); ++i) {
        REQUIRE(peer_.sent().complete()[i].id != request.id);
      }
    }
  }

  // Operations.

  void send_with_context(std::uint8_t argument) { send(argument, true); }
  void send_without_context(std::uint8_t argument) { send(argument, false); }

  void answer(std::uint8_t argument) {
    const std::uint8_t index = input_.byte();
    const guint32 id = requests_.empty() ? index : requests_[index % requests_.size()].id;
    peer_.compose(ptz_test::frame(id, body_of(++composed_, body_length(argument))));
  }

  void answer_next(std::uint8_t argument) {
    peer_.compose(ptz_test::frame(next_id_, body_of(++composed_, body_length(argument))));
  }

  void answer_number(std::uint8_t argument) {
    const guint32 id = input_.byte() * 0x01010101u;
    peer_.compose(ptz_test::frame(id, body_of(++composed_, body_length(argument))));
  }

  void compose_claim(std::uint8_t argument) {
    constexpr std::uint32_t lengths[4] = {0, PTZ_SOCKET_FRAME_HEADER_SIZE - 1, PTZ_SOCKET_FRAME_MAX + 1, 0xffffffff};
    composed_ += 4;
    peer_.compose(ptz_test::frame_claiming(lengths[argument % 4], argument / 4, input_.bytes(argument)));
  }

  void compose_bytes(std::uint8_t argument) {
    const auto bytes = input_.bytes(argument + 1u);
    composed_ += static_cast<std::uint32_t>(bytes.size());
    peer_.compose(bytes);
  }

  void send_pieces(std::uint8_t argument) {
    const std::uint8_t code = input_.byte();
    for (int i = code / 16; i >= 0; --i) {
      peer_.send(piece_length(argument));
      if (code % 16 != 0) iterate();
    }
  }

  void send_all(std::uint8_t argument) {
    peer_.send();
    for (int i = argument; i > 0; --i) iterate();
  }

  void go_on_until_idle(std::uint8_t) {
    settle(turns());
    check_settled();
  }

  void let_time_pass(std::uint8_t argument) {
    constexpr std::int64_t times[16] = {0,       1,       250,     600,     1000,    5000,    9999,    10'000,
                                        100'000, 359'000, 359'500, 359'999, 360'000, 360'250, 361'000, 400'000};
    move_clock(times[argument]);
  }

  void add_reaction(std::uint8_t argument) {
    const std::uint8_t reaction = input_.byte();
    for (int i = 0; i <= argument; ++i) reactions_.push_back(reaction);
  }

  void add_event_while_waiting(std::uint8_t argument) {
    const std::uint8_t event = input_.byte();
    for (int i = 0; i <= argument; ++i) events_while_waiting_.push_back(event);
  }

  void receive(std::uint8_t) { check_what_was_sent(); }

  void stop(std::uint8_t argument) {
    if (!peer_.is_open()) return;
    switch (argument % 4) {
      case 0:
        peer_.stop_sending();
        break;
      case 1:
        peer_.stop_receiving();
        break;
      default:
        peer_.hang_up();
    }
  }

  void intervene(std::uint8_t argument) {
    switch (argument) {
      case 0:
      case 1:
      case 2:
        drop_client();
        break;
      case 3:
      case 4:
      case 5:
      case 6:
        change_callback(argument);
        break;
      default:
        change_watch(argument);
    }
  }

  void change_callback(std::uint8_t argument) {
    if (client_ == nullptr) return;
    if (argument % 2 == 0) {
      listen();
      return;
    }
    hears_ = always_heard_ = false;
    ptz_socket_client_register_callback(base(), nullptr, nullptr);
  }

  void change_watch(std::uint8_t argument) {
    if (client_ == nullptr) return;
    unwatched_ = argument % 2 != 0;
    if (unwatched_) {
      ptz_socket_client_remove_poll(base());
    } else {
      ptz_socket_client_add_poll(base());
      resumed_ = resumed_ || peer_.sent().impossible();
    }
  }

  void stop_or_intervene(std::uint8_t argument) {
    if (argument < 4) {
      stop(argument);
    } else {
      intervene(argument - 4);
    }
  }

  static constexpr void (Scene::*operations[16])(std::uint8_t argument) = {
      &Scene::send_with_context, &Scene::send_without_context,
      &Scene::send_and_wait,     &Scene::answer,
      &Scene::answer_next,       &Scene::answer_number,
      &Scene::compose_claim,     &Scene::compose_bytes,
      &Scene::send_pieces,       &Scene::send_all,
      &Scene::go_on_until_idle,  &Scene::let_time_pass,
      &Scene::add_reaction,      &Scene::add_event_while_waiting,
      &Scene::receive,           &Scene::stop_or_intervene,
  };
};

Scene *scene = nullptr;

}  // namespace

INTERPOSE(int, select, (int count, fd_set *readable, fd_set *, fd_set *, timeval *timeout)) {
  REQUIRE(scene != nullptr && readable != nullptr && timeout != nullptr);
  REQUIRE(FD_ISSET(count - 1, readable));
  return scene->wait_for_reply(readable, count - 1, timeout->tv_sec * 1000 + timeout->tv_usec / 1000);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  start_main_loop();
  start_clock();
  const std::size_t descriptors = open_descriptors();
  Input input(data, size);
  std::size_t operations_left = operations_max;
  for (std::size_t sessions = 0; sessions < sessions_max && !input.empty(); ++sessions) {
    Scene played(input, input.byte());
    scene = &played;
    played.play(operations_left);
    scene = nullptr;
  }
  REQUIRE(open_descriptors() == descriptors);
  REQUIRE(take_failed_checks() == 0);
  return 0;
}
