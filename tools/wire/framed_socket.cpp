#include "framed_socket.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "recording.h"

namespace ptzctl {

namespace {

constexpr std::size_t most_unsent_bytes = std::size_t{1} << 20;

bool would_block() { return errno == EAGAIN || errno == EINTR; }

}  // namespace

short FramedSocket::events() const {
  const bool is_read = !is_at_end_ && unsent_.size() < most_unsent_bytes;
  return static_cast<short>((is_read ? POLLIN : 0) | (unsent_.empty() ? 0 : POLLOUT));
}

void FramedSocket::close_because(const std::string &reason) {
  end_ = reason;
  fd_ = tools::UniqueFd();
}

void FramedSocket::flush() {
  while (is_open() && !unsent_.empty()) {
    const ssize_t count = ::send(fd_.get(), unsent_.data(), unsent_.size(), MSG_NOSIGNAL);
    if (count >= 0) {
      unsent_.erase(unsent_.begin(), unsent_.begin() + count);
    } else if (would_block()) {
      return;
    } else {
      // What the peer sent before it closed can still be read: receive() meets the end.
      unsent_.clear();
    }
  }
}

void FramedSocket::send(std::span<const guint8> bytes) {
  unsent_.insert(unsent_.end(), bytes.begin(), bytes.end());
  flush();
}

bool FramedSocket::take_frame(std::vector<std::vector<guint8>> &frames) {
  if (received_.size() < frame_header_size) return false;
  guint32 length = 0;
  std::memcpy(&length, received_.data(), sizeof length);
  if (length < frame_header_size || length > most_frame_bytes) {
    close_because("a malformed frame of length " + std::to_string(length));
    return false;
  }
  if (received_.size() < length) return false;
  frames.emplace_back(received_.begin(), received_.begin() + length);
  received_.erase(received_.begin(), received_.begin() + length);
  return true;
}

std::vector<std::vector<guint8>> FramedSocket::receive() {
  std::vector<std::vector<guint8>> frames;
  guint8 bytes[16 * most_frame_bytes];
  const ssize_t count = recv(fd_.get(), bytes, sizeof bytes, 0);
  if (count > 0) {
    received_.insert(received_.end(), bytes, bytes + count);
    while (is_open() && take_frame(frames)) continue;
  } else if (count == 0 && stays_half_open_) {
    is_at_end_ = true;
  } else if (count == 0) {
    close_because("end of file");
  } else if (!would_block()) {
    close_because(g_strerror(errno));
  }
  return frames;
}

std::vector<std::vector<guint8>> FramedSocket::handle(short returned_events) {
  if ((returned_events & POLLOUT) != 0) flush();
  if ((returned_events & (POLLIN | POLLHUP | POLLERR)) == 0) return {};
  auto frames = is_at_end_ ? std::vector<std::vector<guint8>>() : receive();
  // Closed in both directions: poll() reports that without end.
  if (is_at_end_ && (returned_events & (POLLHUP | POLLERR)) != 0) close_because("end of file");
  return frames;
}

}  // namespace ptzctl
