// FrameAssembler alone: a stream of bytes that is cut into pieces anywhere. Whatever the cuts, the assembler must
// deliver exactly the frames that a parser of the whole stream finds, stop at the first malformed length, and ask for
// no byte beyond the buffer or the frame. A partial frame that is saved and resumed must change nothing.
//
//   input     the number of cuts (1 byte, modulo 16), the cuts, at most 8 elements of the stream
//   cut       low six bits: the length of a piece (see `piece_length`), high two bits: what happens after it (see
//             `AfterPiece`); what is left after the last cut is one piece
//   element   low two bits: which (see Stream::append_element), high six bits: its argument; some take further bytes
//
// An execution takes a few microseconds: nothing is allocated, the number of reads has a limit, a short input makes
// long frames, and only the class itself takes coverage.
#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <span>
#include <string_view>

#include "fuzz_target.h"
#include "input.h"
#include "transport/frame_assembler.h"

using ptz::frame::FrameAssembler;
using ptz_fuzz::Input;

// Called by the address sanitizer. libFuzzer copies each input to a block of its own, which should cost little.
extern "C" const char *__asan_default_options() { return "quarantine_size_mb=1:malloc_context_size=2"; }

namespace {

using Progress = FrameAssembler::Progress;

// The functions of the class that take coverage. Inlined into the code below, they would take none.
[[gnu::noinline]] std::span<guint8> wanted_by(const FrameAssembler &assembler) { return assembler.wanted(); }
[[gnu::noinline]] Progress take(FrameAssembler &assembler, gsize count) { return assembler.take(count); }
[[gnu::noinline]] Progress resume(FrameAssembler &assembler, std::span<const guint8> partial_frame) {
  return assembler.resume(partial_frame);
}

}  // namespace

#ifdef __clang__
#pragma clang attribute push(__attribute__((no_sanitize("coverage"))), apply_to = function)
#endif

namespace {

// The frame format, written down without the library's constants.
constexpr std::size_t length_size = 4;
constexpr std::size_t header_size = 8;
constexpr std::size_t frame_max = 2560;

constexpr std::size_t cuts_max = 16;
constexpr std::size_t elements_max = 8;
constexpr std::size_t stream_max = 3 * frame_max;

enum class AfterPiece : std::uint8_t { go_on, take_nothing, resume, resume_after_another_frame };

std::size_t piece_length(std::uint8_t code) {
  constexpr std::size_t lengths[16] = {60,   96,   100,  248,  252,  255,  256,  1000,
                                       2552, 2555, 2556, 2557, 2559, 2560, 2561, stream_max};
  return code % 64 < 48 ? code % 64 : lengths[code % 16];
}

class Stream {
  static inline std::array<char, stream_max> bytes_;
  std::size_t length_ = 0;

 public:
  explicit Stream(Input &input) {
    for (std::size_t i = 0; i < elements_max && !input.empty(); ++i) append_element(input);
  }
  [[nodiscard]] std::string_view bytes() const { return {bytes_.data(), length_}; }

 private:
  void append(std::string_view more) { length_ += more.copy(bytes_.data() + length_, stream_max - length_); }
  void append(std::uint32_t word) { append({reinterpret_cast<const char *>(&word), sizeof word}); }
  void append_frame(std::size_t length);
  void append_element(Input &input);
};

// The id and the body depend on the position in the stream, so that no two frames are equal.
void Stream::append_frame(std::size_t length) {
  static constexpr auto noise = [] {
    std::array<char, stream_max + frame_max> bytes = {};
    std::uint32_t state = 1;
    for (char &byte : bytes) byte = static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
    return bytes;
  }();
  const std::size_t position = length_;
  append(static_cast<std::uint32_t>(length));
  append(static_cast<std::uint32_t>(position * 0x9e3779b1));
  append({noise.data() + position, length - header_size});
}

void Stream::append_element(Input &input) {
  constexpr std::size_t lengths[16] = {8, 9, 10, 11, 12, 13, 16, 17, 255, 256, 264, 1024, 2556, 2557, 2559, 2560};
  constexpr std::uint32_t malformed[8] = {0, 1, 7, 2561, 2564, 0x80000008, 0xffffff00, 0xffffffff};
  const std::uint8_t code = input.byte();
  const std::size_t argument = code / 4;
  switch (code % 4) {
    case 0:
      append_frame(lengths[argument % 16]);
      break;
    case 1:
      append_frame(header_size + (argument * 256 + input.byte()) % (frame_max - header_size + 1));
      break;
    case 2:
      append(malformed[argument % 8]);
      break;
    case 3:
      append(input.bytes(argument + 1));
      break;
  }
}

// The beginning of a stream.
struct Head {
  enum { partial, frame, malformed } what;
  std::size_t length;  // that the header claims; 0 if the stream is too short to tell
};

Head head_of(std::string_view stream) {
  std::uint32_t length = 0;
  if (stream.size() < length_size) return {Head::partial, 0};
  std::memcpy(&length, stream.data(), length_size);
  if (length < header_size || length > frame_max) return {Head::malformed, length};
  return {stream.size() < length ? Head::partial : Head::frame, length};
}

// Reads a stream as receive_frame() reads a descriptor.
class Reader {
  // Not on the stack: the address sanitizer has to mark the red zones only once.
  static inline std::array<guint8, frame_max> buffer_;
  static inline std::array<guint8, frame_max> saved_;

  std::string_view stream_;  // from the beginning of the frame that is being assembled
  guint32 fill_ = 0;
  guint32 expected_ = PTZ_SOCKET_FRAME_UNKNOWN;
  FrameAssembler assembler_ = {buffer_.data(), &fill_, &expected_};
  bool ended_ = false;  // by a malformed length

 public:
  explicit Reader(std::string_view stream) : stream_(stream) { std::memset(buffer_.data(), 0xee, header_size); }

  void read_piece(std::size_t length);
  void do_after_piece(AfterPiece action);
  void read_rest();

 private:
  [[nodiscard]] std::size_t unread() const { return stream_.size() - fill_; }
  std::size_t read(std::size_t most);
  void save_and_resume(bool after_another_frame);
  void check_wanted(std::span<guint8> wanted) const;
  void check_received() const;
  void check_end_of_frame(Progress progress) const;
};

void Reader::read_piece(std::size_t length) {
  for (length = std::min(length, unread()); length > 0 && !ended_;) length -= read(length);
}

// Stands for one call of read(2) and its caller. Returns the count.
std::size_t Reader::read(std::size_t most) {
  const auto wanted = wanted_by(assembler_);
  check_wanted(wanted);
  const std::size_t count = std::min(wanted.size(), most);
  std::memcpy(wanted.data(), stream_.data() + fill_, count);
  const std::size_t received = fill_ + count;
  const Progress progress = take(assembler_, count);
  REQUIRE(fill_ == received);
  if (progress == Progress::incomplete) return count;
  check_received();
  check_end_of_frame(progress);
  ended_ = progress == Progress::malformed;
  stream_.remove_prefix(fill_);
  assembler_.reset();
  return count;
}

// The frame is incomplete.
void Reader::check_wanted(std::span<guint8> wanted) const {
  REQUIRE(fill_ < frame_max && wanted.data() == buffer_.data() + fill_);
  REQUIRE(assembler_.awaits_length() == (fill_ < length_size));
  if (fill_ < length_size) {
    REQUIRE(wanted.size() == length_size);
    return;
  }
  const Head head = head_of(stream_);
  REQUIRE(head.what != Head::malformed && assembler_.length() == head.length);
  REQUIRE(fill_ < head.length && wanted.size() == head.length - fill_);
}

void Reader::check_received() const {
  const auto received = assembler_.received();
  REQUIRE(received.data() == buffer_.data() && received.size() == fill_);
  REQUIRE(fill_ <= stream_.size() && std::memcmp(received.data(), stream_.data(), fill_) == 0);
}

void Reader::check_end_of_frame(Progress progress) const {
  const Head head = head_of(stream_);
  REQUIRE(assembler_.length() == head.length);
  REQUIRE(!assembler_.awaits_length() && wanted_by(assembler_).empty());
  if (head.what == Head::malformed) {
    REQUIRE(progress == Progress::malformed);
    return;
  }
  REQUIRE(head.what == Head::frame && progress == Progress::complete && fill_ == head.length);
  guint32 id = 0;
  std::memcpy(&id, stream_.data() + length_size, sizeof id);
  const auto body = assembler_.body();
  REQUIRE(assembler_.message_id() == id);
  REQUIRE(body.data() == buffer_.data() + header_size && body.size() == head.length - header_size);
}

void Reader::do_after_piece(AfterPiece action) {
  if (ended_) return;
  switch (action) {
    case AfterPiece::go_on:
      break;
    case AfterPiece::take_nothing:
      REQUIRE(take(assembler_, 0) == Progress::incomplete);
      break;
    case AfterPiece::resume:
      save_and_resume(false);
      break;
    case AfterPiece::resume_after_another_frame:
      save_and_resume(true);
      break;
  }
}

void Reader::save_and_resume(bool after_another_frame) {
  const auto partial = assembler_.received();
  const auto saved = std::span(saved_).first(partial.size());
  std::copy(partial.begin(), partial.end(), saved.begin());
  assembler_.reset();
  REQUIRE(assembler_.received().empty() && assembler_.awaits_length());
  if (after_another_frame) {
    std::fill_n(buffer_.begin(), std::max(saved.size(), header_size), guint8{0xdd});
    const guint32 length = frame_max;
    std::memcpy(wanted_by(assembler_).data(), &length, sizeof length);
    REQUIRE(take(assembler_, sizeof length) == Progress::incomplete);
    REQUIRE(take(assembler_, wanted_by(assembler_).size() - 1) == Progress::incomplete);
  }
  REQUIRE(resume(assembler_, saved) == Progress::incomplete);
  REQUIRE(fill_ == saved.size());
  check_received();
}

void Reader::read_rest() {
  read_piece(unread());
  if (ended_) return;
  REQUIRE(head_of(stream_).what == Head::partial);
  check_wanted(wanted_by(assembler_));
  check_received();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  Input input(data, size);
  const std::string_view cuts = input.bytes(1).empty() ? "" : input.bytes(data[0] % cuts_max);
  Reader reader(Stream(input).bytes());
  for (const char cut : cuts) {
    const auto code = static_cast<std::uint8_t>(cut);
    reader.read_piece(piece_length(code));
    reader.do_after_piece(static_cast<AfterPiece>(code / 64));
  }
  reader.read_rest();
  return 0;
}

#ifdef __clang__
#pragma clang attribute pop
#endif
