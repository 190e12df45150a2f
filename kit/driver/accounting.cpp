#include "driver/accounting.h"

#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <ctime>

#include "driver/format.h"
#include "monitor/packet.h"

namespace ptz_kit {
namespace {

// Of a socket that the kernel has given no cookie: the number of its inode. 0 if the descriptor is no socket.
guint64 inode_of(int fd) {
  struct stat status;
  return fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode) ? status.st_ino : 0;
}

guint64 cookie_of(int fd) {
  guint64 cookie = 0;
  socklen_t size = sizeof cookie;
  return getsockopt(fd, SOL_SOCKET, SO_COOKIE, &cookie, &size) == 0 ? cookie : inode_of(fd);
}

// A process of another user hides the path of its program, but not its name.
std::string program_of(pid_t pid) {
  if (pid <= 0) return {};
  const Text path(g_file_read_link(format("/proc/%d/exe", pid).c_str(), nullptr));
  if (path != nullptr) return std::string(path.get()).substr(0, longest_text);
  Text name;
  gsize length = 0;
  if (g_file_get_contents(format("/proc/%d/comm", pid).c_str(), out(name), &length, nullptr) == FALSE) return {};
  return g_strchomp(name.get());
}

constexpr std::size_t table_limit = 1U << 20;  // the kernel's own limit of descriptors, unless it was raised

void count_reply(Counters &counters, const ReplyFacts &reply) {
  --counters.pending;
  counters.errors += reply.is_error ? 1 : 0;
  counters.timeouts += reply.timed_out ? 1 : 0;
  counters.unsent_replies += reply.sent ? 0 : 1;
  counters.bytes_sent += reply.sent ? reply.frame_length : 0;
  counters.latency.add(static_cast<guint64>(std::max(reply.latency_ns, gint64{0}) / ns_per_us));
}

}  // namespace

gint64 monotonic_ns() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return gint64{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

Identity::Peer Identity::peer_of(int fd) {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return {0, G_MAXUINT32};
  return {peer.pid, peer.uid};
}

Identity::Identity(guint32 client_number, const Peer &peer)
    : number(client_number), pid(peer.pid), uid(peer.uid), program(program_of(peer.pid)) {}
Identity::Identity(guint32 client_number, int fd) : Identity(client_number, peer_of(fd)) {}

bool Accounting::enabled = true;

void Accounting::reset() {
  for (Client *&client : table_) release(client);
  table_.clear();
  total_ = {};
  last_number_ = 0;
}

// The record of a client that has gone. Its pending requests keep it.
void Accounting::release(Client *&client) {
  if (client == nullptr) return;
  client->gone = true;
  if (client->counters.pending == 0) delete client;
  client = nullptr;
}

Client *Accounting::client_at(int fd, gint64 now_ns) {
  const guint64 cookie = cookie_of(fd);
  const auto index = static_cast<std::size_t>(fd);
  if (index < table_.size() && table_[index] != nullptr && table_[index]->cookie == cookie) {
    table_[index]->look = look_;
    return table_[index];
  }
  if (cookie == 0 || index >= table_limit) return nullptr;
  if (index >= table_.size()) table_.resize(index + 1);
  release(table_[index]);
  table_[index] = new Client{Shared(new Identity(++last_number_, fd)), cookie, now_ns};
  table_[index]->look = look_;
  return table_[index];
}

void Accounting::request_arrived(Client &client, gint32 command, gsize frame_length, gint64 now_ns) {
  client.last_command = command;
  client.last_request_ns = now_ns;
  for (Counters *counters : {&client.counters, &total_}) {
    ++counters->requests;
    ++counters->pending;
    counters->bytes_received += frame_length;
  }
}

void Accounting::request_answered(Client &client, const ReplyFacts &reply) {
  count_reply(total_, reply);
  count_reply(client.counters, reply);
  if (client.gone && client.counters.pending == 0) delete &client;
}

void Accounting::end_look() {
  for (Client *&client : table_) {
    if (client != nullptr && client->look != look_) release(client);
  }
}

guint Accounting::client_count() const {
  return static_cast<guint>(std::ranges::count_if(table_, [](const Client *client) { return client != nullptr; }));
}

const Client *Accounting::next_client(std::size_t &fd) const {
  while (fd < table_.size() && table_[fd] == nullptr) ++fd;
  return fd < table_.size() ? table_[fd] : nullptr;
}

}  // namespace ptz_kit
