#include "transport/server_connection.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "assembly.h"
#include "peers.h"

using namespace ptz_test;
using ptz::ServerConnection;
using ptz::SharedAssembler;
using Progress = ptz::frame::FrameAssembler::Progress;

namespace {

using Connection = std::unique_ptr<ServerConnection, decltype(&ServerConnection::destroy)>;

Connection new_connection(gint fd = 5, guint32 serial = 1) {
  return {ServerConnection::create(fd, serial), ServerConnection::destroy};
}

// A shared assembler as a command server has one. The fields are the server's public ones.
struct Shared {
  Assembly fields;
  std::optional<SharedAssembler> assembler{std::in_place, fields.assembler};

  // In the connection's turn: the bytes, of at most one frame.
  Progress receive(ServerConnection *connection, std::string_view bytes) {
    (void)assembler->turn_to(connection);
    Progress progress = Progress::incomplete;
    while (!bytes.empty() && progress == Progress::incomplete) progress = fields.put_wanted(bytes);
    return progress;
  }
  [[nodiscard]] std::string received_by(ServerConnection *connection) {
    return Assembly::text_of(assembler->turn_to(connection).received());
  }
};

}  // namespace

TEST(ServerConnection, CreatedConnectionIsOpenAndHoldsNothing) {
  const auto connection = new_connection(5, 77);
  EXPECT_EQ(connection->client.fd, 5);
  EXPECT_EQ(connection->client.tag, nullptr);
  EXPECT_EQ(connection->serial, 77u);
  EXPECT_EQ(connection->input, ServerConnection::Input::open);
  EXPECT_FALSE(connection->received);
  EXPECT_EQ(connection->served_in, 0u);
  EXPECT_EQ(connection->assembler, nullptr);
  EXPECT_EQ(connection->partial, nullptr);
  EXPECT_EQ(connection->partial_fill, 0u);
}

TEST(ServerConnection, OfAListEntryIsTheConnection) {
  const auto connection = new_connection();
  EXPECT_EQ(ServerConnection::of(&connection->client), connection.get());
}

TEST(ServerConnection, DestroyOfHolderEmptiesTheSharedAssembler) {
  Shared shared;
  auto connection = new_connection();
  (void)shared.receive(connection.get(), frame(1, "cut short").substr(0, 10));
  connection.reset();
  EXPECT_EQ(shared.fields.fill, 0u);
  EXPECT_EQ(shared.fields.expected, PTZ_SOCKET_FRAME_UNKNOWN);
}

TEST(ServerConnection, DestroyOfAnotherConnectionKeepsTheHoldersPartialFrame) {
  Shared shared;
  auto gone = new_connection(), holder = new_connection();
  (void)shared.receive(gone.get(), frame(1, "of the one that goes").substr(0, 10));
  (void)shared.receive(holder.get(), frame(2, "of the one that stays").substr(0, 12));
  gone.reset();
  EXPECT_EQ(shared.received_by(holder.get()), frame(2, "of the one that stays").substr(0, 12));
}

// The address sanitizer reports what is not freed.
TEST(ServerConnection, DestroyFreesThePartialFrameThatWasPutAside) {
  Shared shared;
  auto gone = new_connection();
  const auto other = new_connection();
  (void)shared.receive(gone.get(), frame(1, "cut short").substr(0, 10));
  (void)shared.assembler->turn_to(other.get());
  ASSERT_NE(gone->partial, nullptr);
  gone.reset();
  EXPECT_TRUE(shared.received_by(other.get()).empty());
}

TEST(SharedAssembler, TurnToTheHolderKeepsItsPartialFrame) {
  Shared shared;
  const auto connection = new_connection();
  const std::string part = frame(1, "body").substr(0, 9);
  (void)shared.receive(connection.get(), part);
  EXPECT_EQ(connection->assembler, &*shared.assembler);
  EXPECT_EQ(shared.received_by(connection.get()), part);
  EXPECT_EQ(connection->partial, nullptr);  // nothing was copied
}

TEST(SharedAssembler, TurnToAnotherConnectionPutsThePartialFrameAside) {
  Shared shared;
  const auto first = new_connection(), second = new_connection();
  const std::string part = frame(1, "body").substr(0, 9);
  (void)shared.receive(first.get(), part);
  EXPECT_EQ(shared.received_by(second.get()), "");
  EXPECT_EQ(first->assembler, nullptr);
  EXPECT_EQ(second->assembler, &*shared.assembler);
  EXPECT_EQ(Assembly::text_of({first->partial, first->partial_fill}), part);
  EXPECT_EQ(shared.received_by(first.get()), part);
  EXPECT_EQ(shared.fields.expected, 12u);
}

TEST(SharedAssembler, ConnectionThatReceivedNothingNeedsNoMemoryOfItsOwn) {
  Shared shared;
  const auto first = new_connection(), second = new_connection();
  (void)shared.assembler->turn_to(first.get());
  (void)shared.assembler->turn_to(second.get());
  EXPECT_EQ(first->partial, nullptr);
  EXPECT_EQ(first->partial_fill, 0u);
}

TEST(SharedAssembler, PartialFrameIsTakenBackOnce) {
  Shared shared;
  const auto first = new_connection(), second = new_connection();
  const std::string whole = frame(1, "body");
  (void)shared.receive(first.get(), whole.substr(0, 9));
  (void)shared.assembler->turn_to(second.get());
  EXPECT_EQ(shared.receive(first.get(), whole.substr(9)), Progress::complete);
  shared.fields.assembler.reset();
  (void)shared.assembler->turn_to(second.get());
  EXPECT_EQ(shared.received_by(first.get()), "");
}

TEST(SharedAssembler, LongestPartialFrameIsPutAsideAndTakenBack) {
  Shared shared;
  const auto first = new_connection(), second = new_connection();
  const std::string whole = frame(1, std::string(PTZ_SOCKET_BODY_MAX, 'x'));
  const std::string part = whole.substr(0, whole.size() - 1);
  (void)shared.receive(first.get(), part);
  (void)shared.receive(second.get(), frame(2, "y").substr(0, 3));
  EXPECT_EQ(shared.receive(first.get(), whole.substr(part.size())), Progress::complete);
  EXPECT_EQ(shared.fields.received(), whole);
}

TEST(SharedAssembler, PartialFrameOfNoConnectionLastsUntilAConnectionsTurn) {
  Shared shared;
  const auto connection = new_connection();
  const std::string part = frame(1, "of a foreign descriptor").substr(0, 9);
  (void)shared.receive(nullptr, part);
  EXPECT_EQ(shared.received_by(nullptr), part);
  EXPECT_EQ(shared.received_by(connection.get()), "");
  EXPECT_EQ(shared.received_by(nullptr), "");
}

TEST(SharedAssembler, TurnToNoConnectionPutsTheHoldersPartialFrameAside) {
  Shared shared;
  const auto connection = new_connection();
  const std::string part = frame(1, "body").substr(0, 9);
  (void)shared.receive(connection.get(), part);
  EXPECT_EQ(shared.received_by(nullptr), "");
  EXPECT_EQ(connection->assembler, nullptr);
  (void)shared.receive(nullptr, frame(2, "of a foreign descriptor").substr(0, 9));
  EXPECT_EQ(shared.received_by(connection.get()), part);
}

TEST(SharedAssembler, ForgetOfAnotherConnectionKeepsTheHoldersPartialFrame) {
  Shared shared;
  const auto other = new_connection(), holder = new_connection();
  const std::string part = frame(1, "body").substr(0, 9);
  (void)shared.receive(holder.get(), part);
  shared.assembler->forget(other.get());
  EXPECT_EQ(shared.received_by(holder.get()), part);
}

TEST(SharedAssembler, EndOfAssemblerLetsItsHolderBeDestroyedLater) {
  Shared shared;
  const auto holder = new_connection();
  (void)shared.receive(holder.get(), frame(1, "body").substr(0, 9));
  shared.assembler.reset();
  EXPECT_EQ(holder->assembler, nullptr);
}

// Pieces of the streams of several connections, in any order. A connection that goes leaves a cut frame behind, and
// another begins in its place.
RC_GTEST_PROP(SharedAssemblerLaw, FramesOfConnectionsThatInterleaveAndGoNeverMix, ()) {
  constexpr std::size_t places = 4;
  const auto steps = *rc::gen::container<std::vector<std::pair<std::size_t, std::size_t>>>(
      rc::gen::pair(rc::gen::inRange<std::size_t>(0, places), rc::gen::inRange<std::size_t>(0, 40)));
  Shared shared;
  struct Place {
    Connection connection = new_connection();
    std::string rest = {};
    std::uint32_t sent = 0;
  };
  std::vector<Place> all(places);
  const auto body_of = [](std::size_t place, std::uint32_t number) {
    return std::string(number * 7 % 30, static_cast<char>('a' + place)) + std::to_string(number);
  };
  for (const auto &[place, bytes] : steps) {
    auto &[connection, rest, sent] = all[place];
    if (bytes == 0) {
      connection = new_connection();  // before the other is destroyed, so that it has an address of its own
      rest.clear();
      continue;
    }
    if (rest.empty()) {
      ++sent;
      rest = frame(sent, body_of(place, sent));
    }
    const auto progress = shared.receive(connection.get(), rest.substr(0, bytes));
    rest.erase(0, std::min(bytes, rest.size()));
    RC_ASSERT(progress == (rest.empty() ? Progress::complete : Progress::incomplete));
    if (progress != Progress::complete) continue;
    RC_ASSERT(shared.fields.assembler.message_id() == sent);
    RC_ASSERT(shared.fields.body() == body_of(place, sent));
    shared.fields.assembler.reset();
  }
}
