// broken-driver --socket PATH [--instance N] [--fault NAME] - a driver that is right but for one fault, which is named
// as the check of ptz-compliance that is to find it. It serves its socket by itself: the library would not let it be so
// wrong.
//
// A fault shows only in what its own check does, and some need odd conditions to keep to that.
#include <linux/sockios.h>
#include <poll.h>
#include <ptz_serialize.h>
#include <ptz_socket_frame.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <map>
#include <set>
#include <vector>

#include "broken_status.h"

namespace {

using namespace broken;

constexpr std::size_t header_size = PTZ_SOCKET_FRAME_HEADER_SIZE;
constexpr gulong slow_us = 60'000;
constexpr gulong pace_us = 20'000;
constexpr gint64 patience_us = 50'000;
constexpr int half_close_ms = 4;

struct Client {
  int fd;
  unsigned number;
  std::string in = {};
  bool at_end = false;    // to be closed
  bool has_gone = false;  // because it has closed itself
  unsigned reads_of_frame = 0;
  bool has_header = false;  // that of the frame with which `in` begins was looked at
  Asker asker = {};
  gint64 since_us = g_get_monotonic_time();
  bool greeted = false;
  unsigned names_in_a_row = 0;
  gulong pace_us = 0;  // a pause before each request
  std::set<guint32> ids = {};
};

guint32 word(std::string_view bytes, std::size_t offset) {
  guint32 value = 0;
  std::memcpy(&value, bytes.data() + offset, sizeof(value));
  return value;
}
guint32 length_of(std::string_view frame) { return word(frame, 0); }
guint32 id_of(std::string_view frame) { return word(frame, sizeof(guint32)); }
bool possible(guint32 length) { return length >= header_size && length <= PTZ_SOCKET_FRAME_MAX; }

struct Contents {
  unsigned whole_frames = 0;
  std::size_t rest = 0;
};
Contents look_into(std::string_view bytes) {
  Contents contents;
  while (bytes.size() >= header_size && possible(length_of(bytes)) && bytes.size() >= length_of(bytes)) {
    bytes.remove_prefix(length_of(bytes));
    ++contents.whole_frames;
  }
  contents.rest = bytes.size();
  return contents;
}

class Server {
  const std::string path_;
  int listener_ = -1;
  int signals_ = -1;
  std::list<Client> clients_;
  unsigned accepted_ = 0;
  unsigned short_visits_ = 0;               // connections in a row that made one request
  std::map<guint32, unsigned> last_by_id_;  // the number of the client that used this id last
  std::string left_over_;
  Answers answers_;
  std::optional<Status> status_;
  gint64 published_us_ = 0;

  void publish();
  void accept_client();
  void take(Client &client);
  static bool survives(Client &client, std::string &piece);
  static bool forgives(Client &client, guint32 length);
  bool serve_one(Client &client);
  [[nodiscard]] bool held_up(const Client &client, guint32 id) const;
  void dawdle(Client &client, const Body &request) const;
  void reply(Client &client, guint32 id, const Body &body);
  void greet(Client &client);
  void forget_the_gone();
  bool ends_on_signal();

 public:
  explicit Server(std::string path) : path_(std::move(path)) {}
  void publish_as(guint instance) { status_.emplace(instance, answers_.head()); }
  bool open();
  int run();
};

bool Server::open() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path_.c_str(), sizeof(address.sun_path) - 1);
  if (!fault("process.restart-same-socket")) unlink(path_.c_str());
  listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0) return false;
  chmod(path_.c_str(), fault("socket.permissions") ? 0600 : 0666);
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigprocmask(SIG_BLOCK, &set, nullptr);
  signals_ = signalfd(-1, &set, SFD_CLOEXEC);
  return listen(listener_, 128) == 0;
}

void Server::accept_client() {
  const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0) return;
  if (fault("clients.many") && clients_.size() >= 32) {
    close(fd);
    return;
  }
  clients_.push_back({fd, ++accepted_});
  clients_.back().asker.number = accepted_;
  clients_.back().in.swap(left_over_);
}

// Pieces of which frames are lost. False for one that costs the client its connection.
bool Server::survives(Client &client, std::string &piece) {
  const bool first = client.in.empty();
  const Contents contents = look_into(piece);
  if (fault("framing.byte-by-byte") && client.reads_of_frame > header_size) return false;
  if (!first) return true;
  if (fault("framing.split-header") && piece.size() > 1 && piece.size() < header_size) return false;
  // With its ids from 0 on the library's client, too, may come in such pieces.
  if (fault("framing.header-and-body-apart") && piece.size() == header_size && length_of(piece) > header_size &&
      id_of(piece) != 0) {
    return false;
  }
  if (fault("framing.split-body") && piece.size() == header_size + 2 && contents.rest > 0) return false;
  if (fault("framing.merged-and-split") && contents.whole_frames == 1) piece.resize(piece.size() - contents.rest);
  if (fault("framing.merged-requests") && contents.whole_frames == 2 && length_of(piece) > header_size)
    piece.resize(piece.size() / 2);
  if (fault("replies.pipelined") && contents.whole_frames == 32) piece.resize(piece.size() / 32 * 31);
  if (fault("latency.pipelined") && contents.whole_frames == 64) client.pace_us = pace_us;
  if (fault("clients.flood-does-not-starve-others") && contents.whole_frames == 128) client.pace_us = pace_us;
  return true;
}

void Server::take(Client &client) {
  char buffer[65536];
  const ssize_t count = recv(client.fd, buffer, sizeof(buffer), MSG_DONTWAIT);
  if (count < 0 && errno == EAGAIN) return;
  if (count <= 0) {
    client.at_end = client.has_gone = true;
    return;
  }
  std::string piece(buffer, static_cast<std::size_t>(count));
  ++client.reads_of_frame;
  client.at_end = !survives(client, piece);
  if (!client.at_end) client.in += piece;
  if (fault("clients.half-closed-is-answered") && client.asker.requests == 0) {
    pollfd watched = {client.fd, POLLRDHUP, 0};
    client.at_end = poll(&watched, 1, half_close_ms) > 0;
  }
  if (client.at_end) client.in.clear();
}

// A frame of a length that cannot be. False for one that costs the client its connection.
bool Server::forgives(Client &client, guint32 length) {
  if (fault("framing.nothing-behind-a-bad-length") && client.in.size() > header_size) {
    client.in.erase(0, header_size);
    return true;
  }
  const bool ignored = length == PTZ_SOCKET_FRAME_UNKNOWN ? fault("framing.length-of-all-ones")
                       : length < header_size             ? fault("framing.undersized-length")
                                                          : fault("framing.oversized-length");
  client.in.clear();
  return ignored;
}

// Kept waiting by a client that has sent half a frame.
bool Server::held_up(const Client &client, guint32 id) const {
  if (!fault("clients.half-frame-does-not-delay-others")) return false;
  for (const Client &other : clients_) {
    if (&other == &client || !other.has_header || other.at_end) continue;
    if (other.in.size() >= header_size && id_of(other.in) != id) return true;
  }
  return false;
}

void Server::dawdle(Client &client, const Body &request) const {
  if (client.pace_us > 0) g_usleep(client.pace_us);
  if (fault("latency.connect") && client.asker.requests == 1 && short_visits_ >= 2) g_usleep(slow_us);
  client.names_in_a_row = command_of(request) == PTZ_COMMAND_GET_DRIVER_NAME ? client.names_in_a_row + 1 : 0;
  int unread = 0;
  if (fault("latency.sequential") && client.names_in_a_row > 6 && client.in.empty() &&
      ioctl(client.fd, SIOCOUTQ, &unread) == 0 && unread == 0) {
    g_usleep(slow_us);
  }
}

// False when there is no frame to serve.
bool Server::serve_one(Client &client) {
  if (client.in.size() < header_size) return false;
  const guint32 length = length_of(client.in);
  if (!possible(length) || (fault("framing.largest-frame") && length > 2048) ||
      (fault("framing.empty-body") && length == header_size)) {
    client.at_end = !forgives(client, length);
    return true;
  }
  const guint32 id = id_of(client.in);
  if (!std::exchange(client.has_header, true)) last_by_id_[id] = client.number;
  if (client.in.size() < length || held_up(client, id)) return false;

  const Body request(ptz_serialize_create_array());
  ptz_serialize_blob(request.get(), client.in.data() + header_size, static_cast<guint32>(length - header_size));
  client.in.erase(0, length);
  client.has_header = false;
  client.reads_of_frame = 0;
  if (length == header_size) return true;
  if (fault("replies.repeated-id") && !client.ids.insert(id).second) return true;
  if (fault("replies.first-request-of-a-daemon") && id == 0) return true;
  if (++client.asker.requests == 1) client.asker.first_command = command_of(request);
  dawdle(client, request);
  if (const auto body = answers_.answer(client.asker, request)) {
    reply(client, id, *body);
    if (fault("replies.one-each") && command_of(request) == PTZ_COMMAND_QUERY_LIMIT_RANGES) reply(client, id, *body);
  }
  return true;
}

void Server::reply(Client &client, guint32 id, const Body &body) {
  const Client *to = &client;
  if (fault("clients.same-id-in-two-clients")) {
    for (const Client &other : clients_) {
      if (other.number == last_by_id_[id]) to = &other;
    }
  }
  if (fault("replies.id-is-copied")) id &= 0xffff;
  const guint32 header[] = {static_cast<guint32>(header_size + body->len), id};
  std::string bytes(reinterpret_cast<const char *>(header), sizeof(header));
  bytes.append(body->data, body->len);
  const int flags =
      (fault("clients.never-reads") ? 0 : MSG_DONTWAIT) | (fault("clients.disconnect-before-reply") ? 0 : MSG_NOSIGNAL);
  static_cast<void>(send(to->fd, bytes.data(), bytes.size(), flags));
}

// What no client has asked for.
void Server::greet(Client &client) {
  if (client.greeted || client.asker.requests > 0 || !client.in.empty()) return;
  if (g_get_monotonic_time() - client.since_us < patience_us) return;
  client.greeted = true;
  reply(client, 0xabcdef, make_body(PTZ_COMMAND_GET_DRIVER_NAME));
}

void Server::forget_the_gone() {
  for (auto client = clients_.begin(); client != clients_.end();) {
    if (!client->at_end) {
      ++client;
      continue;
    }
    if (fault("clients.disconnect-in-mid-frame")) left_over_ = client->in;
    short_visits_ = client->asker.requests == 1 ? short_visits_ + 1 : 0;
    if (!fault("clients.descriptors-are-released") || !client->has_gone) close(client->fd);
    client = clients_.erase(client);
  }
}

void Server::publish() {
  const gint64 period_us = fault("status.update-rate") ? 200'000 : 40'000;
  if (!status_ || g_get_monotonic_time() - published_us_ < period_us) return;
  published_us_ = g_get_monotonic_time();
  const bool going_to_preset = answers_.going_to_preset();  // looks where the head is now, too
  status_->publish(answers_.head(), going_to_preset);
}

bool Server::ends_on_signal() {
  signalfd_siginfo information{};
  if (read(signals_, &information, sizeof(information)) < 0) return false;
  const bool moving = answers_.moving();
  const bool in_use =
      std::ranges::any_of(clients_, [](const Client &client) { return client.asker.requests > 0 && !client.at_end; });
  return !(fault("process.sigterm") && !in_use && !moving) && !(fault("process.sigterm-with-clients") && in_use) &&
         !(fault("process.sigterm-while-moving") && moving);
}

int Server::run() {
  const int wait_ms = fault("process.idle") ? 0 : fault("replies.unsolicited") || status_ ? 10 : -1;
  bool more = false;
  while (true) {
    std::vector<pollfd> watched = {{listener_, POLLIN, 0}, {signals_, POLLIN, 0}};
    for (const Client &client : clients_) watched.push_back({client.fd, POLLIN, 0});
    poll(watched.data(), watched.size(), more ? 0 : wait_ms);
    publish();

    auto events = watched.begin() + 2;
    for (Client &client : clients_) {
      if (!client.at_end && events->revents != 0) take(client);
      ++events;
    }
    // One request of each client in turn; those of a client that paces itself are served without a look at others.
    more = false;
    for (Client &client : clients_) {
      bool served = serve_one(client);
      while (served && client.pace_us > 0) served = serve_one(client);
      more = more || served;
      if (fault("replies.unsolicited")) greet(client);
    }
    if (!more) forget_the_gone();
    if (watched[0].revents != 0) accept_client();
    if (watched[1].revents != 0 && ends_on_signal()) break;
  }
  if (!fault("process.sigterm-removes-socket")) unlink(path_.c_str());
  return fault("process.sigterm-status") ? EXIT_FAILURE : EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char **argv) {
  std::string path;
  guint instance = 0;
  for (int index = 1; index + 1 < argc; index += 2) {
    const std::string_view option = argv[index];
    if (option == "--socket") path = argv[index + 1];
    if (option == "--fault") fault_name = argv[index + 1];
    if (option == "--instance") instance = static_cast<guint>(std::atoi(argv[index + 1]));
  }
  Server server(path);
  if (instance > 0) server.publish_as(instance);
  if (!server.open()) {
    std::perror("broken-driver");
    return EXIT_FAILURE;
  }
  return server.run();
}
