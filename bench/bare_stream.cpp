// The floor: the same two writes each way as a frame takes, and blocking reads, with nothing around them.
#include <unistd.h>

#include <array>

#include "answering_process.h"
#include "contender.h"

namespace bench {
namespace {

struct Header {
  std::uint32_t length;
  std::uint32_t id;
};

bool read_whole(int fd, void *data, std::size_t length) {
  auto *bytes = static_cast<std::uint8_t *>(data);
  while (length > 0) {
    const ssize_t count = read(fd, bytes, length);
    if (count <= 0) return false;
    bytes += count;
    length -= static_cast<std::size_t>(count);
  }
  return true;
}

class Stream {
  int fd_;
  std::array<std::uint8_t, body_max> body_;

 public:
  explicit Stream(int fd) : fd_(fd) {}
  bool send(std::uint32_t id, Bytes body) {
    const Header header = {static_cast<std::uint32_t>(sizeof header + body.size()), id};
    return write(fd_, &header, sizeof header) == sizeof header &&
           write(fd_, body.data(), body.size()) == static_cast<ssize_t>(body.size());
  }
  // The body is valid until the next call; it is empty at the end of the stream.
  Bytes receive(std::uint32_t &id) {
    Header header;
    if (!read_whole(fd_, &header, sizeof header)) return {};
    const std::size_t length = header.length - sizeof header;
    if (length > body_.size() || !read_whole(fd_, body_.data(), length)) return {};
    id = header.id;
    return Bytes(body_).first(length);
  }
};

class BareStream final : public Caller {
  AnsweringProcess process_{"bare"};
  Stream stream_{process_.link()};
  std::uint32_t next_id_ = 0;

 public:
  Bytes ask(Bytes body) override {
    std::uint32_t id = 0;
    if (!stream_.send(next_id_, body)) return {};
    const Bytes answer = stream_.receive(id);
    return id == next_id_++ ? answer : Bytes();
  }
};

}  // namespace

std::unique_ptr<Caller> bare_stream() { return std::make_unique<BareStream>(); }

int answer_on_bare_stream(int link) {
  Stream stream(link);
  std::uint32_t id = 0;
  for (Bytes body; !(body = stream.receive(id)).empty();) {
    if (!stream.send(id, body)) break;
  }
  return 0;
}

}  // namespace bench
