#include "faulty_server.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <vector>

namespace sim {

namespace {

constexpr gint64 period_us = 40'000;
constexpr gint64 long_period_us = 200'000;
constexpr int look_around_ms = 10;
constexpr std::size_t most_clients = 32;
constexpr int backlog = 128;

// Only a socket that no process serves any more is removed. False with errno if there is anything else.
bool remove_left_over(const sockaddr_un &address) {
  struct stat file {};
  if (lstat(address.sun_path, &file) != 0) return errno == ENOENT;
  if (!S_ISSOCK(file.st_mode)) {
    errno = EEXIST;
    return false;
  }
  const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const bool served = connect(probe, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0;
  const int reason = served || errno == EAGAIN ? EADDRINUSE : errno;
  close(probe);
  errno = reason;
  return reason == ECONNREFUSED && unlink(address.sun_path) == 0;
}

}  // namespace

bool FaultyServer::open() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path_.size() >= sizeof address.sun_path) {
    errno = ENAMETOOLONG;
    return false;
  }
  path_.copy(address.sun_path, sizeof address.sun_path - 1);
  if (!fault("process.restart-same-socket") && !remove_left_over(address)) return false;
  listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0) return false;
  lstat(path_.c_str(), &bound_);
  chmod(path_.c_str(), fault("socket.permissions") ? 0600 : 0666);
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigprocmask(SIG_BLOCK, &set, nullptr);
  signals_ = signalfd(-1, &set, SFD_CLOEXEC);
  return listen(listener_, backlog) == 0;
}

void FaultyServer::accept_client() {
  const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0) return;
  if (fault("clients.many") && clients_.size() >= most_clients) {
    close(fd);
    return;
  }
  clients_.push_back({fd, ++accepted_});
  clients_.back().asker.number = accepted_;
  clients_.back().in.swap(left_over_);
}

void FaultyServer::forget_the_gone() {
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

gint64 FaultyServer::next_update_us() const {
  return published_us_ + (fault("status.update-rate") ? long_period_us : period_us);
}

void FaultyServer::publish() {
  const gint64 now_us = g_get_monotonic_time();
  if (!status_ || now_us < next_update_us()) return;
  published_us_ = now_us;
  const bool going_to_preset = answers_.going_to_preset();  // advances the head, too
  status_->publish(answers_.head(), going_to_preset);
}

bool FaultyServer::ends_on_signal() {
  signalfd_siginfo information{};
  if (read(signals_, &information, sizeof(information)) < 0) return false;
  const bool moving = answers_.moving();
  const bool in_use =
      std::ranges::any_of(clients_, [](const Client &client) { return client.asker.requests > 0 && !client.at_end; });
  return !(fault("process.sigterm") && !in_use && !moving) && !(fault("process.sigterm-with-clients") && in_use) &&
         !(fault("process.sigterm-while-moving") && moving);
}

// One request of each client in turn; those of a client that paces itself are served without a look at others. Whether
// there may be more.
bool FaultyServer::serve_in_turn() {
  bool more = false;
  for (Client &client : clients_) {
    bool served = serve_one(client);
    while (served && client.pace_us > 0) served = serve_one(client);
    more = more || served;
    if (fault("replies.unsolicited")) greet(client);
  }
  return more;
}

// How long there is nothing to do, unless a client sends something.
int FaultyServer::idle_ms() const {
  constexpr gint64 us_per_ms = 1000;
  if (fault("process.idle")) return 0;
  if (fault("replies.unsolicited")) return look_around_ms;
  if (!status_) return -1;
  const gint64 left_us = next_update_us() - g_get_monotonic_time();
  return left_us > 0 ? static_cast<int>(left_us / us_per_ms + 1) : 0;
}

// Unless the path is another's by now.
void FaultyServer::remove_socket() const {
  struct stat file {};
  if (lstat(path_.c_str(), &file) == 0 && file.st_dev == bound_.st_dev && file.st_ino == bound_.st_ino) {
    unlink(path_.c_str());
  }
}

int FaultyServer::run() {
  bool more = false;
  while (true) {
    std::vector<pollfd> watched = {{listener_, POLLIN, 0}, {signals_, POLLIN, 0}};
    for (const Client &client : clients_) watched.push_back({client.fd, POLLIN, 0});
    poll(watched.data(), watched.size(), more ? 0 : idle_ms());
    publish();
    auto events = watched.begin() + 2;
    for (Client &client : clients_) {
      if (!client.at_end && events->revents != 0) take(client);
      ++events;
    }
    more = serve_in_turn();
    if (!more) forget_the_gone();
    if (watched[0].revents != 0) accept_client();
    if (watched[1].revents != 0 && ends_on_signal()) break;
  }
  if (!fault("process.sigterm-removes-socket")) remove_socket();
  return fault("process.sigterm-status") ? EXIT_FAILURE : EXIT_SUCCESS;
}

}  // namespace sim
