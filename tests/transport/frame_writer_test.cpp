#include "transport/frame_writer.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "peers.h"

using namespace ptz_test;
using ptz::frame::FrameSent;

namespace ptz::frame {

void PrintTo(FrameSent sent, std::ostream *out) {
  switch (sent) {
    case FrameSent::whole:
      *out << "whole";
      break;
    case FrameSent::nothing:
      *out << "nothing";
      break;
    case FrameSent::header_only:
      *out << "header_only";
      break;
    case FrameSent::fragment:
      *out << "fragment";
      break;
  }
}

}  // namespace ptz::frame

namespace {

// A write operation that reports these results, one after the other, and keeps what it was given.
struct Endpoint {
  std::vector<gssize> results;
  std::vector<std::string> pieces = {};
  std::vector<gconstpointer> addresses = {};

  FrameSent send(guint32 id, gconstpointer body, guint32 length) {
    return ptz::frame::write_frame(id, body, length, [this](gconstpointer data, gsize piece_length) {
      addresses.push_back(data);
      pieces.push_back(piece_length > 0 ? std::string(static_cast<const char *>(data), piece_length) : "");
      return pieces.size() <= results.size() ? results[pieces.size() - 1] : gssize{-1};
    });
  }
};

struct Combination {
  const char *description;
  guint32 length;
  std::vector<gssize> results;  // of the write operation; as many as pieces are written
  FrameSent sent;
};

class FrameWriterCombination : public testing::TestWithParam<Combination> {};

constexpr guint32 longest = PTZ_SOCKET_BODY_MAX;

INSTANTIATE_TEST_SUITE_P(
    , FrameWriterCombination,
    testing::Values(Combination{"HeaderWholeBodyWhole", 20, {8, 20}, FrameSent::whole},
                    Combination{"HeaderWholeBodyOfOneByteWhole", 1, {8, 1}, FrameSent::whole},
                    Combination{"HeaderWholeLongestBodyWhole", longest, {8, longest}, FrameSent::whole},
                    Combination{"HeaderWholeBodyFirstByte", 20, {8, 1}, FrameSent::fragment},
                    Combination{"HeaderWholeBodyAllButOneByte", 20, {8, 19}, FrameSent::fragment},
                    Combination{"HeaderWholeLongestBodyAllButOneByte", longest, {8, longest - 1}, FrameSent::fragment},
                    Combination{"HeaderWholeBodyFailed", 20, {8, -1}, FrameSent::fragment},
                    Combination{"HeaderWholeBodyReportedZero", 20, {8, 0}, FrameSent::whole},
                    Combination{"HeaderWholeEmptyBodyReportedZero", 0, {8, 0}, FrameSent::whole},
                    Combination{"HeaderWholeEmptyBodyFailed", 0, {8, -1}, FrameSent::header_only},
                    Combination{"HeaderFirstByte", 20, {1}, FrameSent::fragment},
                    Combination{"HeaderAllButOneByte", 20, {7}, FrameSent::fragment},
                    Combination{"HeaderInPartOfEmptyBody", 0, {4}, FrameSent::fragment},
                    Combination{"HeaderFailed", 20, {-1}, FrameSent::nothing},
                    Combination{"HeaderFailedWithAnotherNegativeNumber", 20, {-5}, FrameSent::nothing},
                    Combination{"HeaderFailedOfEmptyBody", 0, {-1}, FrameSent::nothing},
                    Combination{"EndpointThatIsNotOpenReportsZero", 20, {0, 0}, FrameSent::whole},
                    Combination{"EndpointThatIsNotOpenReportsZeroForEmptyBody", 0, {0, 0}, FrameSent::whole},
                    Combination{"HeaderReportedZeroBodyWhole", 20, {0, 20}, FrameSent::whole},
                    Combination{"HeaderReportedZeroBodyInPart", 20, {0, 5}, FrameSent::fragment},
                    Combination{"HeaderReportedZeroBodyFailed", 20, {0, -1}, FrameSent::fragment},
                    Combination{"HeaderReportedZeroEmptyBodyFailed", 0, {0, -1}, FrameSent::header_only}),
    [](const auto &tested) { return tested.param.description; });

}  // namespace

TEST_P(FrameWriterCombination, GivesResultAndWritesNoPieceAfterAFailure) {
  const auto &[description, length, results, sent] = GetParam();
  const std::string body(length, 'b');
  Endpoint endpoint{results};
  EXPECT_EQ(endpoint.send(7, body.data(), length), sent);
  EXPECT_EQ(endpoint.pieces.size(), results.size());
}

TEST(FrameWriter, FrameIsHeaderThenBodyAsTheCallerHasIt) {
  const std::string body = "body of a frame";
  Endpoint endpoint{{8, static_cast<gssize>(body.size())}};
  EXPECT_EQ(endpoint.send(0x01020304, body.data(), static_cast<guint32>(body.size())), FrameSent::whole);
  ASSERT_EQ(endpoint.pieces.size(), 2u);
  EXPECT_EQ(endpoint.pieces[0] + endpoint.pieces[1], frame(0x01020304, body));
  EXPECT_EQ(endpoint.pieces[0].size(), PTZ_SOCKET_FRAME_HEADER_SIZE);
  EXPECT_EQ(endpoint.addresses[1], body.data());
}

TEST(FrameWriter, EmptyBodyIsWrittenAsAPieceOfLengthZero) {
  Endpoint endpoint{{8, 0}};
  EXPECT_EQ(endpoint.send(7, nullptr, 0), FrameSent::whole);
  EXPECT_EQ(endpoint.pieces, (std::vector<std::string>{frame(7, ""), ""}));
}

TEST(FrameWriter, LongestBodyGivesLongestFrame) {
  const std::string body(longest, 'x');
  Endpoint endpoint{{8, longest}};
  EXPECT_EQ(endpoint.send(7, body.data(), longest), FrameSent::whole);
  EXPECT_EQ(endpoint.pieces[0], frame(7, body).substr(0, 8));
}
