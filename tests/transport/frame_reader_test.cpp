#include "transport/frame_reader.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "assembly.h"
#include "faults.h"
#include "peers.h"

using namespace ptz_test;
using Received = ptz::frame::Reception::Outcome;

namespace {

// How much of the frame is there when the stream ends or a read fails.
struct Step {
  const char *description;
  std::size_t before;     // bytes received by earlier calls
  std::size_t available;  // bytes received by the call that fails
  int good_reads;         // of that call, before the one that fails
  bool in_header;
};

const std::string whole_frame = frame(7, "body of a frame");

struct Reader {
  Pair pair;
  Assembly assembly;
  int fd = pair.ours.get();

  Reader() = default;
  explicit Reader(const Step &step) {
    peer_sends(whole_frame.substr(0, step.before));
    if (step.before > 0) {
      EXPECT_EQ(receive().count, step.before);
    }
    peer_sends(whole_frame.substr(step.before, step.available));
  }
  void peer_sends(std::string_view bytes) { EXPECT_TRUE(send_all(pair.theirs.get(), bytes)); }
  void peer_half_closes() { shutdown(pair.theirs.get(), SHUT_WR); }
  [[nodiscard]] ptz::frame::Reception receive() { return ptz::frame::receive_frame(assembly.assembler, fd); }
};

// Lets each read take at most one byte.
Interposer one_byte_reads(int fd) {
  return Interposer([fd](Attempt &attempt) -> std::optional<Outcome> {
    if (attempt.call == Call::read && attempt.fd == fd && attempt.argument > 1) attempt.argument = 1;
    return std::nullopt;
  });
}

std::vector<std::int64_t> lengths_of(const std::vector<Attempt> &reads) {
  std::vector<std::int64_t> lengths;
  for (const auto &read : reads) lengths.push_back(read.argument);
  return lengths;
}

}  // namespace

TEST(FrameReader, WholeFrameIsReadWithTwoReads) {
  Reader reader;
  reader.peer_sends(whole_frame + frame(8, "next"));
  const CallLog log;
  const auto reception = reader.receive();
  EXPECT_EQ(reception.outcome, Received::complete);
  EXPECT_EQ(reception.count, whole_frame.size());
  EXPECT_FALSE(reception.in_header);
  EXPECT_EQ(reader.assembly.received(), whole_frame);
  EXPECT_EQ(lengths_of(log.attempts(Call::read, reader.fd)),
            (std::vector<std::int64_t>{4, static_cast<std::int64_t>(whole_frame.size()) - 4}));
}

TEST(FrameReader, NextFrameStaysInTheStream) {
  Reader reader;
  reader.peer_sends(whole_frame + frame(8, "next"));
  EXPECT_EQ(reader.receive().outcome, Received::complete);
  EXPECT_EQ(receive_waiting(reader.fd), frame(8, "next"));
}

TEST(FrameReader, ShortestFrameIsReadWithTwoReads) {
  Reader reader;
  reader.peer_sends(frame(7, ""));
  const CallLog log;
  EXPECT_EQ(reader.receive().outcome, Received::complete);
  EXPECT_EQ(lengths_of(log.attempts(Call::read, reader.fd)), (std::vector<std::int64_t>{4, 4}));
}

TEST(FrameReader, FrameByteByByteTakesAtMostTwoReadsPerCall) {
  Reader reader;
  reader.peer_sends(whole_frame);
  const auto short_reads = one_byte_reads(reader.fd);
  for (std::size_t total = 0; total < whole_frame.size();) {
    const CallLog log;
    const auto reception = reader.receive();
    // The call that reads the last byte of the length reads on.
    const std::size_t reads = total == 3 ? 2 : 1;
    EXPECT_EQ(log.count(Call::read, reader.fd), reads) << total;
    EXPECT_EQ(reception.count, reads) << total;
    EXPECT_EQ(reception.in_header, total < 3) << total;
    total += reads;
    EXPECT_EQ(reception.outcome, total == whole_frame.size() ? Received::complete : Received::incomplete) << total;
  }
  EXPECT_EQ(reader.assembly.received(), whole_frame);
}

TEST(FrameReader, KnownLengthIsContinuedWithOneRead) {
  Reader reader;
  ASSERT_EQ(reader.assembly.assembler.resume(bytes_of(whole_frame).first(6)),
            ptz::frame::FrameAssembler::Progress::incomplete);
  reader.peer_sends(std::string_view(whole_frame).substr(6));
  const CallLog log;
  const auto reception = reader.receive();
  EXPECT_EQ(reception.outcome, Received::complete);
  EXPECT_EQ(reception.count, whole_frame.size() - 6);
  EXPECT_FALSE(reception.in_header);
  EXPECT_EQ(log.count(Call::read, reader.fd), 1u);
}

TEST(FrameReader, MalformedLengthLeavesWhatFollowsUnread) {
  Reader reader;
  reader.peer_sends(frame_claiming(2561, 7, "rest"));
  const auto reception = reader.receive();
  EXPECT_EQ(reception.outcome, Received::malformed);
  EXPECT_EQ(reception.count, 4u);
  EXPECT_TRUE(reception.in_header);
  EXPECT_EQ(receive_waiting(reader.fd).size(), 8u);
}

TEST(FrameReader, ClosedDescriptorFailsWithEbadf) {
  Reader reader;
  errno = 0;
  const auto reception = ptz::frame::receive_frame(reader.assembly.assembler, -1);
  EXPECT_EQ(reception.outcome, Received::failed);
  EXPECT_EQ(errno, EBADF);
}

class FrameReaderStep : public testing::TestWithParam<Step> {
 protected:
  const Step &step = GetParam();

  void expect_rest_completes(Reader &reader) {
    EXPECT_EQ(reader.assembly.received(), whole_frame.substr(0, step.before + step.available));
    reader.peer_sends(whole_frame.substr(step.before + step.available));
    EXPECT_EQ(reader.receive().outcome, Received::complete);
    EXPECT_EQ(reader.assembly.received(), whole_frame);
  }
};
INSTANTIATE_TEST_SUITE_P(, FrameReaderStep,
                         testing::Values(Step{"BeforeTheFrame", 0, 0, 0, true}, Step{"InTheLength", 2, 0, 0, true},
                                         Step{"AfterTheLength", 0, 4, 1, false}, Step{"InTheHeader", 6, 0, 0, false},
                                         Step{"AfterTheSurplusOfASplitLength", 3, 4, 1, false},
                                         Step{"BeforeTheBody", 8, 0, 0, false}, Step{"InTheBody", 15, 0, 0, false}),
                         [](const auto &tested) { return tested.param.description; });

TEST_P(FrameReaderStep, NothingToReadFailsWithEagainAndKeepsTheBytes) {
  Reader reader(step);
  errno = 0;
  const auto reception = reader.receive();
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(reception.outcome, Received::failed);
  EXPECT_EQ(reception.count, step.available);
  EXPECT_EQ(reception.in_header, step.in_header);
  expect_rest_completes(reader);
}

TEST_P(FrameReaderStep, ReadErrorKeepsErrnoAndTheBytes) {
  for (const int error : {EIO, EINTR, ECONNRESET}) {
    Reader reader(step);
    {
      const Fault fault(Call::read, error, {.fd = reader.fd, .times = 1, .skip = step.good_reads});
      errno = 0;
      const auto reception = reader.receive();
      EXPECT_EQ(errno, error);
      EXPECT_EQ(fault.hits(), 1);
      EXPECT_EQ(reception.outcome, Received::failed);
      EXPECT_EQ(reception.count, step.available);
      EXPECT_EQ(reception.in_header, step.in_header);
    }
    expect_rest_completes(reader);
  }
}

TEST_P(FrameReaderStep, EndOfStreamKeepsTheBytes) {
  Reader reader(step);
  reader.peer_half_closes();
  const auto reception = reader.receive();
  EXPECT_EQ(reception.outcome, Received::end_of_stream);
  EXPECT_EQ(reception.count, step.available);
  EXPECT_EQ(reception.in_header, step.in_header);
  EXPECT_EQ(reader.assembly.received(), whole_frame.substr(0, step.before + step.available));
  EXPECT_EQ(reader.receive().outcome, Received::end_of_stream);
}

RC_GTEST_PROP(FrameReaderLaw, AnyShortReadsAndErrorsGiveTheSameFrames, ()) {
  const auto bodies = *rc::gen::container<std::vector<std::string>>(
      rc::gen::resize(40, rc::gen::container<std::string>(rc::gen::arbitrary<char>())));
  const auto limits = *rc::gen::nonEmpty(rc::gen::container<std::vector<int>>(rc::gen::inRange(0, 9)));  // 0: EAGAIN
  RC_PRE(std::any_of(limits.begin(), limits.end(), [](int limit) { return limit > 0; }));
  Reader reader;
  std::string stream;
  for (std::size_t i = 0; i < bodies.size(); ++i) stream += frame(static_cast<std::uint32_t>(i), bodies[i]);
  RC_ASSERT(send_all(reader.pair.theirs.get(), stream));
  reader.peer_half_closes();

  std::size_t reads = 0;
  const Interposer interposer([&](Attempt &attempt) -> std::optional<Outcome> {
    if (attempt.call != Call::read || attempt.fd != reader.fd) return std::nullopt;
    const int limit = limits[reads++ % limits.size()];
    if (limit == 0) return Outcome{-1, EAGAIN};
    attempt.argument = std::min<std::int64_t>(attempt.argument, limit);
    return std::nullopt;
  });
  std::vector<std::string> received;
  std::size_t count = 0;
  while (true) {
    const std::size_t reads_before = reads;
    const auto reception = reader.receive();
    RC_ASSERT(reads - reads_before <= 2);
    count += reception.count;
    if (reception.outcome == Received::end_of_stream) break;
    RC_ASSERT(reception.outcome != Received::malformed);
    if (reception.outcome != Received::complete) continue;
    RC_ASSERT(reader.assembly.assembler.message_id() == received.size());
    received.push_back(reader.assembly.body());
    reader.assembly.assembler.reset();
  }
  RC_ASSERT(received == bodies);
  RC_ASSERT(count == stream.size());
}
