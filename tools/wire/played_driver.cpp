#include "played_driver.h"

#include <poll.h>
#include <ptz_kit_body.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "subcommand.h"

namespace ptzctl {

namespace {

constexpr int backlog = 16;
constexpr guint32 code_unsupported = 2;
constexpr char unknown_text[] = "the recording has no such request";
constexpr std::size_t most_complaints = 20;

volatile sig_atomic_t was_signalled = 0;
void on_signal(int) { was_signalled = 1; }

// Blocks the signals that end the program, but for the time in ppoll(), which takes the mask that is returned.
sigset_t prepare_signals() {
  struct sigaction action = {};
  action.sa_handler = on_signal;
  sigset_t ending, before;
  sigemptyset(&ending);
  for (const int number : {SIGINT, SIGTERM}) {
    sigaction(number, &action, nullptr);
    sigaddset(&ending, number);
  }
  sigprocmask(SIG_BLOCK, &ending, &before);
  for (const int number : {SIGINT, SIGTERM}) sigdelset(&before, number);
  return before;
}

bool is_same(std::span<const guint8> one, std::span<const guint8> other) { return std::ranges::equal(one, other); }

bool is_same_command(std::span<const guint8> one, std::span<const guint8> other) {
  gint32 first = 0, second = 0;
  return ptz_kit_body_get_command(one.data(), one.size(), &first) != FALSE &&
         ptz_kit_body_get_command(other.data(), other.size(), &second) != FALSE && first == second;
}

std::vector<guint8> error_frame(guint32 message_id, const char *text) {
  GVariantDict fields;
  g_variant_dict_init(&fields, nullptr);
  g_variant_dict_insert(&fields, "command", "s", "error");
  g_variant_dict_insert(&fields, "code", "u", code_unsupported);
  g_variant_dict_insert(&fields, "text", "s", text);
  const tools::Bytes body(ptz_kit_body_from_variant(PTZ_KIT_BODY_REPLY, g_variant_dict_end(&fields), nullptr));
  gsize size = 0;
  const auto *const bytes = static_cast<const guint8 *>(g_bytes_get_data(body.get(), &size));
  return frame_of(message_id, {bytes, size});
}

// 0 if a process listens, ECONNREFUSED if none does. Any other errno leaves that open.
int probe(const sockaddr_un &address) {
  const tools::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd || connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    return errno == EAGAIN ? 0 : errno;
  }
  return 0;
}

// False if the path holds something that must stay.
bool make_room(const sockaddr_un &address) {
  struct stat file = {};
  if (lstat(address.sun_path, &file) != 0) return true;
  if (!S_ISSOCK(file.st_mode)) {
    complain("%s exists and is no socket", address.sun_path);
    return false;
  }
  const int result = probe(address);
  if (result == 0) {
    complain("a driver listens at %s", address.sun_path);
    return false;
  }
  if (result != ECONNREFUSED) {
    complain("%s stays, since it may be in use: %s", address.sun_path, g_strerror(result));
    return false;
  }
  if (unlink(address.sun_path) == 0 || errno == ENOENT) return true;
  complain("cannot remove %s: %s", address.sun_path, g_strerror(errno));
  return false;
}

}  // namespace

RecordedAnswers::RecordedAnswers(const Conversation &conversation, bool is_in_order)
    : conversation_(conversation), is_in_order_(is_in_order), used_(conversation.exchanges().size()) {
  for (const Exchange &each : conversation.exchanges()) {
    if (std::ranges::find(clients_, each.request->client) == clients_.end()) clients_.push_back(each.request->client);
  }
}

const Exchange *RecordedAnswers::next_of(std::size_t connection) {
  if (connection >= clients_.size()) return nullptr;
  const auto &exchanges = conversation_.exchanges();
  for (std::size_t i = 0; i < exchanges.size(); ++i) {
    if (used_[i] || exchanges[i].request->client != clients_[connection]) continue;
    used_[i] = true;
    return &exchanges[i];
  }
  return nullptr;
}

const Exchange *RecordedAnswers::equal_to(std::span<const guint8> body) {
  const Exchange *last = nullptr;
  const auto &exchanges = conversation_.exchanges();
  for (std::size_t i = 0; i < exchanges.size(); ++i) {
    if (!exchanges[i].request->is_well_framed() || !is_same(exchanges[i].request->body(), body)) continue;
    last = &exchanges[i];
    if (used_[i]) continue;
    used_[i] = true;
    break;
  }
  return last;
}

const Exchange *RecordedAnswers::answer_to(std::span<const guint8> body, std::size_t connection) {
  return is_in_order_ ? next_of(connection) : equal_to(body);
}

std::size_t RecordedAnswers::unused() const { return static_cast<std::size_t>(std::ranges::count(used_, false)); }

bool PlayedDriver::listen() {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  settings_.path.copy(address.sun_path, sizeof address.sun_path - 1);  // the options make sure that it fits
  if (!make_room(address)) return false;
  tools::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  struct stat file = {};
  const bool is_bound = fd && bind(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
  if (is_bound && lstat(address.sun_path, &file) == 0) {
    device_ = file.st_dev;
    inode_ = file.st_ino;
  }
  if (!is_bound || ::listen(fd.get(), backlog) != 0) {
    complain("cannot listen at %s: %s", settings_.path.c_str(), g_strerror(errno));
    return false;
  }
  listener_ = std::move(fd);
  return true;
}

PlayedDriver::~PlayedDriver() {
  struct stat file = {};
  const bool is_own =
      inode_ != 0 && lstat(settings_.path.c_str(), &file) == 0 && file.st_dev == device_ && file.st_ino == inode_;
  if (is_own) unlink(settings_.path.c_str());
}

void PlayedDriver::accept_connection() {
  tools::UniqueFd fd(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (fd) connections_.push_back({FramedSocket::half_open(std::move(fd)), accepted_++});
}

void PlayedDriver::tell_of(const RecordedFrame &request, const std::string &problem) const {
  const std::size_t told = unknown_ + differing_;
  if (told <= most_complaints) complain("request %zu, %s: %s", requests_, title_of(request).c_str(), problem.c_str());
  if (told == most_complaints) complain("further requests like this are counted only");
}

void PlayedDriver::answer(const Connection &connection, const std::vector<guint8> &frame) {
  RecordedFrame request;
  request.bytes = frame;
  ++requests_;
  const Exchange *const exchange = answers_.answer_to(request.body(), connection.number);
  const gint64 now_us = g_get_monotonic_time();
  if (exchange == nullptr) {
    ++unknown_;
    tell_of(request, unknown_text);
    due_.push_back({now_us, connection.number, error_frame(request.message_id(), unknown_text)});
    return;
  }
  const RecordedFrame &recorded = *exchange->request;
  if (!is_same(recorded.body(), request.body())) {
    ++differing_;
    const bool is_command_same = is_same_command(recorded.body(), request.body());
    tell_of(request, "frame " + std::to_string(recorded.number) + " has " + title_of(recorded) +
                         (is_command_same ? " with other fields" : ""));
    if (!is_command_same) {
      due_.push_back(
          {now_us, connection.number, error_frame(request.message_id(), "the recording has another request")});
      return;
    }
  }
  if (exchange->reply == nullptr) return;
  const gint64 latency_us = (exchange->reply->time_ns - recorded.time_ns) / 1000;
  const gint64 due_us = settings_.is_fast ? now_us : now_us + std::max<gint64>(latency_us, 0);
  due_.push_back({due_us, connection.number, frame_of(request.message_id(), exchange->reply->body())});
}

void PlayedDriver::send_due() {
  const gint64 now_us = g_get_monotonic_time();
  const auto send_if_due = [&](const DueReply &reply) {
    if (reply.due_us > now_us) return false;
    for (Connection &each : connections_) {
      if (each.number == reply.connection) each.socket.send(reply.frame);
    }
    return true;
  };
  std::erase_if(due_, send_if_due);
}

timespec PlayedDriver::wait_time() const {
  gint64 us = 3600 * gint64{1'000'000};
  for (const DueReply &each : due_) us = std::min(us, std::max<gint64>(each.due_us - g_get_monotonic_time(), 0));
  return {static_cast<time_t>(us / 1'000'000), static_cast<long>(us % 1'000'000 * 1000)};
}

bool PlayedDriver::is_due(std::size_t connection) const {
  return std::ranges::find(due_, connection, &DueReply::connection) != due_.end();
}

void PlayedDriver::drop_closed() {
  const auto closed = [this](const Connection &each) {
    return !each.socket.is_open() || (each.socket.is_finished() && !is_due(each.number));
  };
  std::erase_if(connections_, closed);
  if (accepted_ > 0 && connections_.empty() && answers_.unused() == 0) is_over_ = true;
}

void PlayedDriver::serve_once(const sigset_t &mask) {
  std::vector<pollfd> fds = {{listener_.get(), POLLIN, 0}};
  for (const Connection &each : connections_) fds.push_back({each.socket.fd(), each.socket.events(), 0});
  const timespec wait = wait_time();
  if (ppoll(fds.data(), fds.size(), &wait, &mask) < 0) return;
  std::size_t index = 1;
  for (Connection &each : connections_) {
    for (const auto &frame : each.socket.handle(fds[index++].revents)) answer(each, frame);
  }
  if ((fds[0].revents & POLLIN) != 0) accept_connection();
  send_due();
  drop_closed();
}

void PlayedDriver::run() {
  const sigset_t mask = prepare_signals();
  while (!is_over_ && was_signalled == 0) serve_once(mask);
}

}  // namespace ptzctl
