#include "transport/frame_assembler.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "assembly.h"
#include "peers.h"

using namespace ptz_test;
using Progress = ptz::frame::FrameAssembler::Progress;

namespace {

using Message = std::pair<std::uint32_t, std::string>;  // id and body

std::string stream_of(const std::vector<Message> &messages) {
  std::string stream;
  for (const auto &[id, body] : messages) stream += frame(id, body);
  return stream;
}

// Puts all bytes in, one piece after the other, and resets after every complete frame.
std::vector<Message> assemble(Assembly &assembly, std::string_view bytes) {
  std::vector<Message> messages;
  while (!bytes.empty() && !assembly.assembler.wanted().empty()) {
    const auto progress = assembly.put_wanted(bytes);
    if (progress == Progress::malformed) break;
    if (progress == Progress::incomplete) continue;
    messages.emplace_back(assembly.assembler.message_id(), assembly.body());
    assembly.assembler.reset();
  }
  return messages;
}

rc::Gen<std::string> any_body() {
  const auto length = rc::gen::weightedOneOf<std::size_t>(
      {{6, rc::gen::inRange<std::size_t>(0, 40)},
       {1, rc::gen::element<std::size_t>(0, 1, PTZ_SOCKET_BODY_MAX - 1, PTZ_SOCKET_BODY_MAX)}});
  return rc::gen::mapcat(
      length, [](std::size_t bytes) { return rc::gen::container<std::string>(bytes, rc::gen::arbitrary<char>()); });
}

rc::Gen<std::vector<Message>> any_messages() {
  return rc::gen::container<std::vector<Message>>(rc::gen::pair(rc::gen::arbitrary<std::uint32_t>(), any_body()));
}

rc::Gen<std::uint32_t> any_impossible_length() {
  return rc::gen::oneOf(rc::gen::inRange<std::uint32_t>(0, PTZ_SOCKET_FRAME_HEADER_SIZE),
                        rc::gen::element<std::uint32_t>(PTZ_SOCKET_FRAME_MAX + 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFE,
                                                        PTZ_SOCKET_FRAME_UNKNOWN),
                        rc::gen::suchThat<std::uint32_t>([](auto length) { return length > PTZ_SOCKET_FRAME_MAX; }));
}

}  // namespace

TEST(FrameAssembler, NewAssemblerWantsTheFourBytesOfTheLength) {
  const Assembly assembly;
  EXPECT_TRUE(assembly.assembler.awaits_length());
  EXPECT_EQ(assembly.assembler.wanted().data(), assembly.buffer.get());
  EXPECT_EQ(assembly.assembler.wanted().size(), 4u);
  EXPECT_TRUE(assembly.assembler.received().empty());
}

TEST(FrameAssembler, TakeOfSplitHeaderStaysIncomplete) {
  Assembly assembly;
  const std::string header = frame(7, "body").substr(0, 8);
  for (std::size_t count = 1; count < header.size(); ++count) {
    std::string_view bytes(&header[count - 1], 1);
    EXPECT_EQ(assembly.put_wanted(bytes), Progress::incomplete) << count;
    EXPECT_EQ(assembly.assembler.awaits_length(), count < 4) << count;
    EXPECT_EQ(assembly.received(), header.substr(0, count));
  }
}

TEST(FrameAssembler, WantedWithPartOfTheLengthIsStillFourBytes) {
  Assembly assembly;
  const std::string shortest = frame(7, "");
  std::string_view bytes = shortest;
  auto first = bytes.substr(0, 3);
  EXPECT_EQ(assembly.put_wanted(first), Progress::incomplete);
  EXPECT_EQ(assembly.assembler.wanted().data(), assembly.buffer.get() + 3);
  EXPECT_EQ(assembly.assembler.wanted().size(), 4u);
  bytes.remove_prefix(3);
  EXPECT_EQ(assembly.put_wanted(bytes), Progress::incomplete);
  EXPECT_EQ(assembly.assembler.wanted().size(), 1u);
  EXPECT_EQ(assembly.put_wanted(bytes), Progress::complete);
  EXPECT_EQ(assembly.received(), shortest);
}

TEST(FrameAssembler, WantedWithKnownLengthIsTheRestOfTheFrame) {
  Assembly assembly;
  const std::string whole = frame(7, std::string(100, 'x'));
  std::string_view bytes = whole;
  (void)assembly.put_wanted(bytes);
  EXPECT_EQ(assembly.assembler.wanted().size(), 104u);
  auto some = bytes.substr(0, 50);
  (void)assembly.put_wanted(some);
  EXPECT_EQ(assembly.assembler.wanted().data(), assembly.buffer.get() + 54);
  EXPECT_EQ(assembly.assembler.wanted().size(), 54u);
}

TEST(FrameAssembler, TakeOfLastByteCompletesFrame) {
  Assembly assembly;
  const std::string whole = frame(0x01020304, "body");
  std::string_view bytes = whole;
  EXPECT_EQ(assembly.put_wanted(bytes), Progress::incomplete);
  EXPECT_EQ(assembly.put_wanted(bytes), Progress::complete);
  EXPECT_EQ(assembly.assembler.length(), 12u);
  EXPECT_EQ(assembly.assembler.message_id(), 0x01020304u);
  EXPECT_EQ(assembly.body(), "body");
  EXPECT_EQ(assembly.received(), whole);
}

TEST(FrameAssembler, CompleteFrameWantsNothingUntilReset) {
  Assembly assembly;
  ASSERT_EQ(assembly.assembler.resume(bytes_of(frame(7, "body"))), Progress::complete);
  EXPECT_TRUE(assembly.assembler.wanted().empty());
  assembly.assembler.reset();
  EXPECT_TRUE(assembly.assembler.awaits_length());
  EXPECT_TRUE(assembly.assembler.received().empty());
  EXPECT_EQ(assembly.assembler.wanted().size(), 4u);
}

TEST(FrameAssembler, CompleteShortestFrameHasEmptyBody) {
  Assembly assembly;
  ASSERT_EQ(assembly.assembler.resume(bytes_of(frame(7, ""))), Progress::complete);
  EXPECT_EQ(assembly.assembler.length(), PTZ_SOCKET_FRAME_HEADER_SIZE);
  EXPECT_TRUE(assembly.assembler.body().empty());
}

TEST(FrameAssembler, CompleteLongestFrameFillsTheBuffer) {
  Assembly assembly;
  const std::string body(PTZ_SOCKET_BODY_MAX, 'x');
  EXPECT_EQ(assemble(assembly, frame(7, body)), (std::vector<Message>{{7, body}}));
}

TEST(FrameAssembler, LengthsBesideTheLimitsAreMalformed) {
  for (const std::uint32_t length : {0u, 1u, 7u, 2561u, 0x80000000u, 0xFFFFFFFEu, 0xFFFFFFFFu}) {
    Assembly assembly;
    const std::string claimed = frame_claiming(length, 1, "");
    std::string_view bytes = claimed;
    EXPECT_EQ(assembly.put_wanted(bytes), Progress::malformed) << length;
    EXPECT_EQ(assembly.assembler.length(), length);
    EXPECT_TRUE(assembly.assembler.wanted().empty()) << length;
  }
}

TEST(FrameAssembler, ResetAfterMalformedLengthBeginsAFrame) {
  Assembly assembly;
  const std::string claimed = frame_claiming(3, 1, "");
  std::string_view bytes = claimed;
  ASSERT_EQ(assembly.put_wanted(bytes), Progress::malformed);
  assembly.assembler.reset();
  EXPECT_EQ(assemble(assembly, frame(5, "good")), (std::vector<Message>{{5, "good"}}));
}

TEST(FrameAssembler, ResumeOfEveryPrefixContinuesTheFrame) {
  const std::string whole = frame(9, "a body that is cut everywhere");
  for (std::size_t length = 0; length <= whole.size(); ++length) {
    Assembly assembly;
    (void)assembly.assembler.resume(bytes_of(frame(1, "what another connection left")));
    const auto progress = assembly.assembler.resume(bytes_of(whole).first(length));
    EXPECT_EQ(progress, length == whole.size() ? Progress::complete : Progress::incomplete) << length;
    EXPECT_EQ(assembly.received(), whole.substr(0, length));
    if (progress == Progress::complete) continue;
    const std::vector<Message> rest = assemble(assembly, std::string_view(whole).substr(length));
    EXPECT_EQ(rest, (std::vector<Message>{{9, "a body that is cut everywhere"}})) << length;
  }
}

TEST(FrameAssembler, ResumeOfMalformedLengthIsMalformed) {
  Assembly assembly;
  EXPECT_EQ(assembly.assembler.resume(bytes_of(frame_claiming(2561, 1, ""))), Progress::malformed);
}

TEST(FrameAssembler, ResumeOfMoreThanTheBufferIsCutToTheBuffer) {
  Assembly assembly;
  const std::string longest = frame(7, std::string(PTZ_SOCKET_BODY_MAX, 'x'));
  EXPECT_EQ(assembly.assembler.resume(bytes_of(longest + "more")), Progress::complete);
  EXPECT_EQ(assembly.received(), longest);
}

RC_GTEST_PROP(FrameAssemblerLaw, AnySplitOfAnyStreamGivesTheSameFrames, ()) {
  const auto messages = *any_messages();
  const std::string stream = stream_of(messages);
  auto cuts = *rc::gen::container<std::vector<std::size_t>>(rc::gen::inRange<std::size_t>(0, stream.size() + 1));
  cuts.push_back(stream.size());
  std::sort(cuts.begin(), cuts.end());
  Assembly assembly;
  std::vector<Message> assembled;
  std::size_t start = 0;
  for (const std::size_t end : cuts) {
    for (auto &message : assemble(assembly, std::string_view(stream).substr(start, end - start))) {
      assembled.push_back(std::move(message));
    }
    start = end;
  }
  RC_ASSERT(assembled == messages);
  RC_ASSERT(assembly.assembler.received().empty());
}

RC_GTEST_PROP(FrameAssemblerLaw, ResumeInAnotherAssemblerAtAnyCutGivesTheSameFrames, ()) {
  const auto messages = *any_messages();
  const std::string stream = stream_of(messages);
  const auto cut = *rc::gen::inRange<std::size_t>(0, stream.size() + 1);
  Assembly before, after;
  auto assembled = assemble(before, std::string_view(stream).substr(0, cut));
  RC_ASSERT(after.assembler.resume(before.assembler.received()) == Progress::incomplete);
  for (auto &message : assemble(after, std::string_view(stream).substr(cut))) assembled.push_back(std::move(message));
  RC_ASSERT(assembled == messages);
}

// The fields are public: a program may have written anything into them.
RC_GTEST_PROP(FrameAssemblerLaw, WantedNeverReachesBeyondBufferOrFrame, ()) {
  Assembly assembly;
  assembly.fill = *rc::gen::oneOf(rc::gen::inRange<guint32>(0, 12), rc::gen::inRange<guint32>(2540, 2570),
                                  rc::gen::inRange<guint32>(0, 2570), rc::gen::arbitrary<guint32>());
  assembly.expected =
      *rc::gen::oneOf(rc::gen::just<guint32>(PTZ_SOCKET_FRAME_UNKNOWN), rc::gen::inRange<guint32>(0, 12),
                      rc::gen::inRange<guint32>(2540, 2570), rc::gen::arbitrary<guint32>());
  const auto wanted = assembly.assembler.wanted();
  if (wanted.empty()) return;
  const auto end = static_cast<guint32>(assembly.fill + wanted.size());
  RC_ASSERT(wanted.data() == assembly.buffer.get() + assembly.fill);
  RC_ASSERT(end <= PTZ_SOCKET_FRAME_MAX);
  if (assembly.assembler.awaits_length()) {
    RC_ASSERT(end < PTZ_SOCKET_FRAME_HEADER_SIZE);  // the shortest frame ends there
  } else {
    RC_ASSERT(end == assembly.expected);
  }
}

RC_GTEST_PROP(FrameAssemblerLaw, LengthOutsideTheLimitsIsMalformedAfterAnyGoodFrames, ()) {
  const auto messages = *any_messages();
  const auto length = *any_impossible_length();
  Assembly assembly;
  const std::string claimed = frame_claiming(length, 1, "");
  RC_ASSERT(assemble(assembly, stream_of(messages)) == messages);
  for (std::size_t i = 0; i < 3; ++i) {
    std::string_view byte(&claimed[i], 1);
    RC_ASSERT(assembly.put_wanted(byte) == Progress::incomplete);
  }
  std::string_view last(&claimed[3], 1);
  RC_ASSERT(assembly.put_wanted(last) == Progress::malformed);
  RC_ASSERT(assembly.assembler.length() == length);
  RC_ASSERT(assembly.assembler.wanted().empty());
}
