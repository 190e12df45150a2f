// Clients of a command server that send what they like in whatever pieces, do not read, half-close, leave and come
// back, with a callback that answers at once, late or never, and closes clients. Each client keeps its own account of
// the frames that it sent: the callback must hear exactly those, in order; each must read exactly what the server said
// it sent to it.
//
//   input       how it ends (1 byte), operations
//   operation   low four bits: which (see `operations`), high four bits: its argument; some take further bytes
#include <sys/socket.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "command_channel.h"
#include "fuzz_target.h"
#include "handles.h"
#include "interpose.h"
#include "ptz_socket_server_command.h"

using namespace ptz_fuzz;

namespace {

constexpr std::size_t operations_max = 128;
constexpr std::size_t connections_max = 16;
constexpr std::size_t slots = 4;
constexpr std::size_t messages_per_reaction = 4;
constexpr std::size_t burst = 16;  // messages before the server takes turns

struct Connection {
  Peer peer;
  int fd = -1;  // the server's, while it is open
  bool accepted = false;
  bool narrow = false;
  std::size_t heard = 0;  // how far the callback has heard the messages that the peer sent
  std::size_t passed_over = 0;
  std::string answers;
  std::size_t read = 0;  // of the answers

  explicit Connection(ptz_test::Descriptor end) : peer(std::move(end)) {}

  // Nobody hears of a message without a body.
  [[nodiscard]] const Message *next() const {
    for (std::size_t i = heard; i < peer.sent().complete().size(); ++i) {
      if (!peer.sent().complete()[i].body.empty()) return &peer.sent().complete()[i];
    }
    return nullptr;
  }

  [[nodiscard]] bool is_waiting() const {
    if (!accepted) return true;
    return fd >= 0 && heard < peer.sent().complete().size() && !peer.sent().complete()[heard].body.empty();
  }

  [[nodiscard]] bool has_reason_to_be_closed() const {
    if (next() != nullptr) {
      // After a hang-up a frame that nobody hears of ends the connection, whatever is behind it.
      return peer.has_hung_up() && peer.sent().complete()[heard].body.empty();
    }
    return has_ended();
  }

  // A peer that has only stopped sending may still receive.
  [[nodiscard]] bool has_ended() const { return peer.has_hung_up() || peer.sent().impossible(); }

  [[nodiscard]] bool has_room_for_answer() const {
    return fd >= 0 && peer.is_open() && !peer.has_stopped_receiving() && peer.unread() == 0 && !narrow;
  }

  void receive() {
    const std::string bytes = peer.receive();
    REQUIRE(std::string_view(answers).substr(read, bytes.size()) == bytes);
    read += bytes.size();
  }
};

// Why the server may close a client now.
enum class Doing { serving, answering, closing, ending };

class Scene {
  // Where it listens; the folder is there for the life of the process.
  static const std::string &path() {
    static const std::string path = [] {
      // Where there is a file system in memory, a socket comes and goes more quickly.
      static std::string folder =
          (access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") + std::string("/ptznimbo-fuzz-XXXXXX");
      REQUIRE(mkdtemp(folder.data()) != nullptr);
      std::atexit([] { rmdir(folder.c_str()); });
      return folder + "/server";
    }();
    return path;
  }

  struct Kept {
    gpointer reply_context;
    Connection *from;
    guint32 message_id;
  };

  Input input_;
  std::deque<Connection> connections_;
  std::deque<Connection *> unaccepted_;
  std::array<Connection *, slots> slot_ = {};
  std::deque<std::uint8_t> reactions_;
  std::vector<Kept> kept_;
  std::uint32_t composed_ = 0;
  Doing doing_ = Doing::serving;
  Connection *concerned_ = nullptr;
  bool serves_ = true;
  bool fails_to_accept_ = false;
  bool in_callback_ = false;
  gpointer watched_server_ = nullptr;
  ptz_test::Object<PTZSocketServerCommand> server_;

 public:
  Scene(const std::uint8_t *data, std::size_t size) : input_(data, size) {}

  void play() {
    server_.reset(ptz_socket_server_command_new(path().c_str(), SOCK_STREAM));
    watched_server_ = server_.get();
    g_object_add_weak_pointer(G_OBJECT(server_.get()), &watched_server_);
    ptz_socket_server_register_callback(
        base(),
        [](gpointer scene, gpointer reply_context, gpointer data, guint32 length) {
          return static_cast<Scene *>(scene)->hear(static_cast<PTZSocketServerCommandReplyContext *>(reply_context),
                                                   static_cast<const char *>(data), length);
        },
        this);
    const std::uint8_t ending = input_.byte();
    for (std::size_t i = 0; i < operations_max && !input_.empty(); ++i) {
      const std::uint8_t operation = input_.byte();
      (this->*operations[operation % 16])(operation / 16);
    }
    end(ending);
  }

  // Of the functions below that take the place of the C library's.
  int accepted(int fd) {
    REQUIRE(!unaccepted_.empty());
    Connection *connection = std::exchange(unaccepted_.front(), nullptr);
    unaccepted_.pop_front();
    connection->accepted = true;
    connection->passed_over = 0;  // it is a client that waits from now on
    connection->fd = fd;
    return fd;
  }
  [[nodiscard]] bool fails_to_accept() {
    if (fails_to_accept_) serves_ = false;
    return std::exchange(fails_to_accept_, false);
  }
  void closed(int fd) {
    Connection *connection = holder_of(fd);
    if (connection == nullptr) return;
    connection->fd = -1;
    switch (doing_) {
      case Doing::serving:
        REQUIRE(connection->has_reason_to_be_closed());
        break;
      case Doing::answering:
      case Doing::closing:
        REQUIRE(connection == concerned_);
        break;
      case Doing::ending:
        break;
    }
  }

 private:
  [[nodiscard]] PTZSocketServer *base() const { return PTZ_SOCKET_SERVER(server_.get()); }

  [[nodiscard]] Connection *holder_of(int fd) {
    for (Connection &connection : connections_) {
      if (fd >= 0 && connection.fd == fd) return &connection;
    }
    return nullptr;
  }

  template <typename Action>
  auto while_doing(Doing doing, Connection *concerned, Action action) {
    const auto outer = std::pair(std::exchange(doing_, doing), std::exchange(concerned_, concerned));
    const auto restore = [&] { std::tie(doing_, concerned_) = outer; };
    if constexpr (std::is_void_v<decltype(action())>) {
      action();
      restore();
    } else {
      const auto result = action();
      restore();
      return result;
    }
  }

  // The callback.
  gboolean hear(PTZSocketServerCommandReplyContext *reply_context, const char *data, guint32 length) {
    REQUIRE(serves_ && !in_callback_);
    REQUIRE(reply_context->server == base());
    REQUIRE(!server_->have_message && server_->message_id == reply_context->message_id);
    Connection *from = holder_of(reply_context->fd);
    REQUIRE(from != nullptr);
    const Message *message = from->next();
    REQUIRE(message != nullptr);
    REQUIRE(message->id == reply_context->message_id);
    REQUIRE(message->body == std::string_view(data, length));
    REQUIRE(data[length] == '\0');
    from->heard = static_cast<std::size_t>(message - from->peer.sent().complete().data()) + 1;
    require_turns(*from);
    kept_.push_back({reply_context, from, message->id});
    std::uint8_t reaction = 1;
    if (!reactions_.empty()) {
      reaction = reactions_.front();
      reactions_.pop_front();
    }
    in_callback_ = true;
    const gboolean result = react(*from, reaction % 16, reaction / 16);
    in_callback_ = false;
    return result;
  }

  void require_turns(Connection &heard) {
    heard.passed_over = 0;
    for (Connection &connection : connections_) {
      if (&connection == &heard || !connection.is_waiting()) continue;
      REQUIRE(++connection.passed_over <= burst + 2 * connections_.size());
    }
  }

  gboolean react(Connection &from, std::uint8_t reaction, std::uint8_t argument) {
    switch (reaction) {
      case 0:
        answer(kept_.size() - 1, answer_length(argument));
        return TRUE;
      default:
        return TRUE;  // an answer may come later
      case 2:
        close_client(from);
        return TRUE;
      case 3:
        answer(kept_.size() - 1, answer_length(argument));
        close_client(from);
        return TRUE;
      case 4:
        if (slot_[argument % slots] != nullptr) close_client(*slot_[argument % slots]);
        return TRUE;
      case 5:
        for (Connection &connection : connections_) close_client(connection);
        return TRUE;
      case 6:
        for (std::size_t i = 0; i <= argument % messages_per_reaction; ++i) answer_last_and_send_more(from);
        return TRUE;
      case 7:
        if ((argument & 2) == 0) answer_all();
        drop_server();
        answer_all();
        return (argument & 1) != 0 ? TRUE : FALSE;
      case 8:
        serves_ = false;
        return FALSE;
      case 9:
        from.peer.send();
        return TRUE;
      case 10:
        from.peer.hang_up();
        answer(kept_.size() - 1, answer_length(argument));
        return TRUE;
      case 11:
        for (int i = 0; i <= argument; ++i) iterate();
        return TRUE;
    }
  }

  void answer_last_and_send_more(Connection &from) {
    if (!kept_.empty()) answer(kept_.size() - 1, PTZ_SOCKET_BODY_MAX);
    compose(from, PTZ_SOCKET_BODY_MAX);
    from.peer.send();
  }

  static std::uint32_t answer_length(std::uint8_t code) {
    constexpr std::uint32_t lengths[16] = {1,    2,    4,    0,    8,    100,        1000,       2551,
                                           2552, 2552, 2552, 2553, 2560, 0x7fffffff, 0xfffffff7, 0xffffffff};
    return lengths[code % 16];
  }

  void answer(std::size_t index, std::uint32_t length) {
    const Kept kept = kept_[index];
    kept_.erase(kept_.begin() + static_cast<std::ptrdiff_t>(index));
    Connection &to = *kept.from;
    const bool too_long = length > PTZ_SOCKET_BODY_MAX;
    const std::string body = body_of(++composed_, too_long ? 1 : length);
    const std::string frame = ptz_test::frame(kept.message_id, body);
    const bool was_open = to.fd >= 0;
    const std::size_t unread = to.peer.unread();
    const bool has_room = to.has_room_for_answer();
    const bool sent = while_doing(Doing::answering, &to, [&] {
      return ptz_socket_server_send(kept.reply_context, body.data(), length) != FALSE;
    });
    REQUIRE(take_failed_checks() == (too_long ? 1 : 0));
    const bool closed = was_open && to.fd < 0;
    if (!to.peer.is_open()) {
      REQUIRE(!sent);
      return;
    }
    const std::size_t arrived = to.peer.unread() - unread;
    to.answers += frame.substr(0, arrived);
    if (sent) {
      REQUIRE(was_open && !closed && !too_long && length > 0 && arrived == frame.size());
    } else if (closed) {
      REQUIRE(arrived > 0 && arrived < frame.size());
    } else {
      REQUIRE(!has_room || too_long || length == 0);
      REQUIRE(arrived == 0 || (length == 0 && was_open && arrived == frame.size()));
    }
  }

  // Every context is answered while there is a server.
  void answer_all() {
    while (!kept_.empty()) answer(kept_.size() - 1, 3);
  }

  void close_client(Connection &connection) {
    if (server_ == nullptr || connection.fd < 0) return;
    for (GList *link = base()->source->clients; link != nullptr; link = link->next) {
      auto *client = static_cast<PTZSocketServerClient *>(link->data);
      if (client->fd != connection.fd) continue;
      while_doing(Doing::closing, &connection, [&] { ptz_socket_server_close(base(), client); });
      REQUIRE(connection.fd < 0);
      return;
    }
    REQUIRE(!"a client that the server has not forgotten is in its list");
  }

  // A dispatch holds a reference, so a server that its callback drops is finalized when the dispatch ends.
  void drop_server() {
    if (server_ == nullptr) return;
    serves_ = false;
    doing_ = Doing::ending;
    server_.reset();
    if (in_callback_) {
      REQUIRE(watched_server_ != nullptr);
    } else {
      require_end_of_server();
    }
  }

  void require_end_of_server() const {
    REQUIRE(watched_server_ == nullptr);
    for (const Connection &connection : connections_) REQUIRE(connection.fd < 0);
  }

  void go_on_once() {
    iterate();
    if (server_ == nullptr) require_end_of_server();
  }

  void compose(Connection &from, std::size_t length) {
    const std::uint32_t number = ++composed_;
    from.peer.compose(ptz_test::frame(number % 8 != 0 ? number : 0xffffffff - number, body_of(number, length)));
  }

  void settle_and_check() {
    settle(64 + 2 * composed_ + messages_per_reaction * reactions_.size() + 8 * connections_.size());
    if (server_ == nullptr) require_end_of_server();
    if (!serves_) return;
    REQUIRE(unaccepted_.empty());
    for (const Connection &connection : connections_) {
      if (connection.fd < 0) continue;
      REQUIRE(connection.next() == nullptr);
      REQUIRE(!connection.has_ended());
    }
  }

  // Operations.

  void connect(std::uint8_t argument) {
    Connection *&slot = slot_[argument % slots];
    if (connections_.size() == connections_max || server_ == nullptr) return;
    if (slot != nullptr) slot->peer.hang_up();
    ptz_test::Descriptor end = ptz_test::connect_to(path());
    if (!end) return;
    slot = &connections_.emplace_back(std::move(end));
    unaccepted_.push_back(slot);
  }

  [[nodiscard]] Connection *slot(std::uint8_t argument) {
    if (slot_[argument % slots] == nullptr) connect(argument);
    return slot_[argument % slots];
  }

  void compose_frame(std::uint8_t argument) {
    if (Connection *from = slot(argument)) compose(*from, body_length(input_.byte()));
  }

  void compose_claim(std::uint8_t argument) {
    const auto bytes = input_.bytes(4);
    Connection *from = slot(argument);
    if (from == nullptr) return;
    constexpr std::uint32_t lengths[4] = {0, PTZ_SOCKET_FRAME_HEADER_SIZE - 1, PTZ_SOCKET_FRAME_MAX + 1, 0xffffffff};
    std::uint32_t length = lengths[argument / slots];
    if (bytes.size() == sizeof length && argument / slots == 0) std::memcpy(&length, bytes.data(), sizeof length);
    from->peer.compose(ptz_test::frame_claiming(length, ++composed_, bytes));
  }

  void compose_bytes(std::uint8_t argument) {
    const auto bytes = input_.bytes(input_.byte());
    composed_ += static_cast<std::uint32_t>(bytes.size() / PTZ_SOCKET_FRAME_HEADER_SIZE) + 1;
    if (Connection *from = slot(argument)) from->peer.compose(bytes);
  }

  void send_piece(std::uint8_t argument) {
    const std::uint8_t code = input_.byte();
    Connection *from = slot(argument);
    if (from == nullptr) return;
    from->peer.send(piece_length(code));
    for (int i = code / 16; i > 0; --i) go_on_once();
  }

  void send_pieces(std::uint8_t argument) {
    const std::uint8_t code = input_.byte();
    Connection *from = slot(argument);
    if (from == nullptr) return;
    for (int i = code / 16; i >= 0; --i) {
      from->peer.send(piece_length(code));
      go_on_once();
    }
  }

  void send_all(std::uint8_t argument) {
    if (Connection *from = slot(argument)) from->peer.send();
  }

  void send_all_of_all(std::uint8_t) {
    for (Connection &connection : connections_) connection.peer.send();
  }

  void go_on(std::uint8_t argument) {
    for (int i = 0; i <= argument; ++i) go_on_once();
  }

  void go_on_until_idle(std::uint8_t) { settle_and_check(); }

  void receive(std::uint8_t argument) {
    if (Connection *from = slot_[argument % slots]) from->receive();
  }

  void stop(std::uint8_t argument) {
    Connection *from = slot_[argument % slots];
    if (from == nullptr || !from->peer.is_open()) return;
    switch (argument / slots) {
      case 0:
        from->peer.stop_sending();
        break;
      case 1:
        from->peer.stop_receiving();
        break;
      default:
        from->peer.hang_up();
    }
  }

  void add_reaction(std::uint8_t argument) {
    const std::uint8_t reaction = input_.byte();
    for (int i = 0; i <= argument; ++i) reactions_.push_back(reaction);
  }

  void answer_late(std::uint8_t argument) {
    const std::uint8_t code = input_.byte();
    if (!kept_.empty()) answer(code % kept_.size(), answer_length(argument));
  }

  // Little of what the server sends to this client fits until it reads.
  void make_narrow(std::uint8_t argument) {
    Connection *from = slot_[argument % slots];
    const int size = 1;
    if (from == nullptr || from->fd < 0) return;
    setsockopt(from->fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    from->narrow = true;
  }

  void intervene(std::uint8_t argument) {
    switch (argument) {
      case 0:
        answer_all();
        drop_server();
        break;
      case 1:
        fails_to_accept_ = true;
        break;
      case 2:
        answer_all();
        break;
      default:
        if (slot_[argument % slots] != nullptr) close_client(*slot_[argument % slots]);
    }
  }

  static constexpr void (Scene::*operations[16])(std::uint8_t argument) = {
      &Scene::connect,      &Scene::compose_frame,    &Scene::compose_claim, &Scene::compose_bytes,
      &Scene::send_piece,   &Scene::send_pieces,      &Scene::send_all,      &Scene::send_all_of_all,
      &Scene::go_on,        &Scene::go_on_until_idle, &Scene::receive,       &Scene::stop,
      &Scene::add_reaction, &Scene::answer_late,      &Scene::make_narrow,   &Scene::intervene,
  };

  void end(std::uint8_t how) {
    if ((how & 1) == 0) settle_and_check();
    if ((how & 2) == 0) {
      for (Connection &connection : connections_) {
        connection.receive();
        connection.peer.hang_up();
      }
      settle_and_check();
      if (serves_) REQUIRE(base()->source->clients == nullptr);
    }
    answer_all();
    drop_server();
    for (Connection &connection : connections_) {
      connection.receive();
      if (connection.peer.is_open()) REQUIRE(connection.read == connection.answers.size());
    }
    settle(1);
  }
};

Scene *scene = nullptr;

}  // namespace

INTERPOSE(int, accept, (int fd, sockaddr *address, socklen_t *length)) {
  if (scene != nullptr && scene->fails_to_accept()) {
    errno = EMFILE;
    return -1;
  }
  const int accepted = REAL(accept)(fd, address, length);
  return scene != nullptr && accepted >= 0 ? scene->accepted(accepted) : accepted;
}

INTERPOSE(int, close, (int fd)) {
  if (scene != nullptr) scene->closed(fd);
  return REAL(close)(fd);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  start_main_loop();
  const std::size_t descriptors = open_descriptors();
  {
    Scene played(data, size);
    scene = &played;
    played.play();
    scene = nullptr;
  }
  REQUIRE(open_descriptors() == descriptors);
  REQUIRE(take_failed_checks() == 0);
  return 0;
}
