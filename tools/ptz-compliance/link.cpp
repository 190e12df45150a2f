#include "link.h"

#include <poll.h>
#include <ptz_serialize.h>
#include <ptz_socket_frame.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace compliance {

namespace {

int left_ms(gint64 deadline) {
  return static_cast<int>(std::max<gint64>(0, (deadline - g_get_monotonic_time() + 999) / 1000));
}
gint64 deadline_in(int ms) { return g_get_monotonic_time() + gint64{ms} * 1000; }

bool wait_for(int fd, short events, gint64 deadline) {
  pollfd watched = {fd, events, 0};
  int ready = 0;
  do ready = poll(&watched, 1, left_ms(deadline));
  while (ready < 0 && errno == EINTR);
  return ready > 0;
}

guint32 word_at(std::string_view bytes, std::size_t offset) {
  guint32 word = 0;
  std::memcpy(&word, bytes.data() + offset, sizeof(word));
  return word;
}

}  // namespace

std::string header(guint32 length, guint32 id) {
  std::string bytes(PTZ_SOCKET_FRAME_HEADER_SIZE, '\0');
  std::memcpy(bytes.data(), &length, sizeof(length));
  std::memcpy(bytes.data() + sizeof(length), &id, sizeof(id));
  return bytes;
}
std::string frame(guint32 id, std::string_view body) {
  return header(static_cast<guint32>(PTZ_SOCKET_FRAME_HEADER_SIZE + body.size()), id).append(body);
}
std::string frame(guint32 id, const Body &body) { return frame(id, std::string_view(body->data, body->len)); }

bool Link::try_send(std::string_view bytes, int limit_ms) {
  if (probe_->decided()) return false;
  probe_->record(Traffic::sent, client_, bytes);
  const gint64 deadline = deadline_in(limit_ms);
  while (!bytes.empty()) {
    const ssize_t sent = ::send(fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent > 0) {
      bytes.remove_prefix(static_cast<std::size_t>(sent));
    } else if (errno == EAGAIN) {
      if (!wait_for(fd(), POLLOUT, deadline)) return false;
    } else if (errno != EINTR) {
      return true;  // the driver has closed; the wait for a reply reports it
    }
  }
  return true;
}

void Link::send(std::string_view bytes) {
  if (!try_send(bytes, probe_->timeout_ms())) {
    probe_->fail("the driver does not read what client %d sends for %d ms", client_, probe_->timeout_ms());
  }
}

guint32 Link::request(const Body &body) {
  const guint32 id = probe_->new_id();
  probe_->trace().sent(id, std::string_view(body->data, body->len));
  send(frame(id, body));
  return id;
}

void Link::shut_sending() { shutdown(fd(), SHUT_WR); }

std::optional<Frame> Link::receive(int limit_ms) {
  const gint64 deadline = deadline_in(limit_ms);
  while (!probe_->decided()) {
    if (received_.size() >= PTZ_SOCKET_FRAME_HEADER_SIZE) {
      const guint32 length = word_at(received_, 0);
      if (length < PTZ_SOCKET_FRAME_HEADER_SIZE || length > PTZ_SOCKET_FRAME_MAX) {
        probe_->record(Traffic::received, client_, received_);
        probe_->fail("client %d receives a frame with the impossible length %u", client_, length);
        break;
      }
      if (received_.size() >= length) {
        Frame frame = {word_at(received_, sizeof(length)),
                       received_.substr(PTZ_SOCKET_FRAME_HEADER_SIZE, length - PTZ_SOCKET_FRAME_HEADER_SIZE)};
        probe_->record(Traffic::received, client_, received_.substr(0, length));
        received_.erase(0, length);
        probe_->trace().received(frame.id, frame.body);
        return frame;
      }
    }
    if (at_end_ || !wait_for(fd(), POLLIN, deadline)) break;
    std::array<char, 65536> buffer;
    const ssize_t count = recv(fd(), buffer.data(), buffer.size(), 0);
    if (count > 0) received_.append(buffer.data(), static_cast<std::size_t>(count));
    at_end_ = count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR);
  }
  return std::nullopt;
}

Body Link::reply_to(guint32 id) {
  Body body(ptz_serialize_create_array());
  const gint64 deadline = deadline_in(probe_->timeout_ms());
  while (const auto frame = receive(left_ms(deadline))) {
    if (frame->id != id) continue;
    ptz_serialize_blob(body.get(), frame->body.data(), static_cast<guint32>(frame->body.size()));
    return body;
  }
  if (!received_.empty()) probe_->record(Traffic::received, client_, received_);
  if (at_end_) {
    probe_->fail("the driver closes the connection of client %d instead of answering request %u", client_, id);
  } else {
    probe_->fail("client %d has no reply to request %u within %d ms", client_, id, probe_->timeout_ms());
  }
  return body;
}

void Link::drain(int quiet_ms) {
  while (receive(quiet_ms)) {
  }
}

void Link::expect_closed() {
  if (const auto frame = receive(probe_->timeout_ms())) {
    probe_->fail("client %d receives a reply with id %u to what is no request", client_, frame->id);
  }
  probe_->fail_unless(at_end_, "the driver does not close the connection of client %d within %d ms", client_,
                      probe_->timeout_ms());
}

}  // namespace compliance
