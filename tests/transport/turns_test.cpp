#include "transport/turns.h"

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <string>

using ptz::Turns;

namespace {

constexpr int burst = 16;

// Clients A, B, C and so on, in list order, and what a server's dispatch does with them.
class Serving : public testing::Test {
  std::array<PTZSocketServerClient, 5> records_ = {};

 protected:
  GList *clients = nullptr;
  Turns turns;

  ~Serving() override { g_list_free(clients); }
  void add_clients(int count) {
    for (int i = count - 1; i >= 0; --i) clients = g_list_prepend(clients, &records_[static_cast<std::size_t>(i)]);
  }
  [[nodiscard]] GList *link(char name) const {
    return g_list_find(clients, &records_[static_cast<std::size_t>(name - 'A')]);
  }
  [[nodiscard]] char name_of(const GList *link) const {
    if (link == nullptr) return '-';
    return static_cast<char>('A' + (static_cast<PTZSocketServerClient *>(link->data) - records_.data()));
  }
  void close(char name) {
    turns.forget(link(name));
    clients = g_list_delete_link(clients, link(name));
  }
  [[nodiscard]] char first() { return name_of(turns.take_first_client(clients)); }

  void serve(char name, bool client_waits, bool listener_waits = false) {
    turns.message_delivered(link(name), client_waits, listener_waits);
  }
  // Messages of the first client, while something else waits.
  void serve_burst(char name, bool client_waits = true, bool listener_waits = false, int messages = burst) {
    for (int i = 0; i < messages; ++i) serve(name, client_waits, listener_waits);
  }
  // Dispatches in which every client has a message: who is served, and '+' for a connection that is accepted.
  std::string dispatch(int times, bool listener_waits = false) {
    std::string served;
    for (int i = 0; i < times; ++i) {
      if (turns.take_listener_turn() && listener_waits) {
        served += '+';
        continue;
      }
      GList *link = turns.take_first_client(clients);
      served += name_of(link);
      turns.message_delivered(link, clients->next != nullptr, listener_waits);
    }
    return served;
  }
};

using TurnsOfClients = Serving;
using TurnsOfListener = Serving;
using TurnsForget = Serving;

}  // namespace

TEST_F(TurnsOfClients, FirstOfEmptyListIsNull) { EXPECT_EQ(turns.take_first_client(nullptr), nullptr); }

TEST_F(TurnsOfClients, FirstOfNewTurnsIsHeadOfList) {
  add_clients(3);
  EXPECT_EQ(turns.take_first_client(clients), clients);
}

TEST_F(TurnsOfClients, BurstIsServedInListOrder) {
  add_clients(3);
  EXPECT_EQ(dispatch(burst), std::string(burst, 'A'));
}

TEST_F(TurnsOfClients, FifteenMessagesThatKeepAClientWaitingChangeNoOrder) {
  add_clients(2);
  serve_burst('A', true, false, burst - 1);
  EXPECT_EQ(first(), 'A');
}

TEST_F(TurnsOfClients, SixteenthMessageThatKeepsAClientWaitingPassesTheTurnOn) {
  add_clients(2);
  serve_burst('A');
  EXPECT_EQ(first(), 'B');
}

TEST_F(TurnsOfClients, ClientsTakeTurnsAfterABurst) {
  add_clients(3);
  EXPECT_EQ(dispatch(burst + 8), std::string(burst, 'A') + "BCABCABC");
}

TEST_F(TurnsOfClients, TurnBehindTheLastClientIsTheHeads) {
  add_clients(3);
  serve_burst('C');
  EXPECT_EQ(first(), 'A');
}

TEST_F(TurnsOfClients, TurnIsTakenOnce) {
  add_clients(2);
  serve_burst('A');
  EXPECT_EQ(first(), 'B');
  EXPECT_EQ(first(), 'A');
}

TEST_F(TurnsOfClients, MessageWithNothingWaitingEndsTheTurnsAndTheBurst) {
  add_clients(2);
  serve_burst('A');
  serve('B', false);
  EXPECT_EQ(first(), 'A');
  serve_burst('A', true, false, burst - 1);
  EXPECT_EQ(first(), 'A');
  serve('A', true);
  EXPECT_EQ(first(), 'B');
}

TEST_F(TurnsOfClients, DispatchWithoutMessageEndsTheBurst) {
  add_clients(2);
  serve_burst('A', true, false, burst - 1);
  turns.nothing_delivered(false);
  serve('A', true);
  EXPECT_EQ(first(), 'A');
}

TEST_F(TurnsOfClients, DispatchWithoutMessageKeepsTheBurstIfTheListenerWaits) {
  add_clients(2);
  serve_burst('A', true, true, burst - 1);
  turns.nothing_delivered(true);
  serve('A', true, true);
  EXPECT_EQ(first(), 'B');
}

TEST_F(TurnsOfClients, LoneClientIsServedWithoutPause) {
  add_clients(1);
  EXPECT_EQ(dispatch(3 * burst), std::string(3 * burst, 'A'));
}

TEST_F(TurnsOfClients, ClientThatIsAddedAtTheHeadDoesNotTakeTheTurnOfTheNext) {
  add_clients(2);
  serve_burst('A');
  PTZSocketServerClient newest = {};
  clients = g_list_prepend(clients, &newest);
  EXPECT_EQ(first(), 'B');
}

TEST_F(TurnsOfListener, NewTurnsHaveNone) { EXPECT_FALSE(turns.take_listener_turn()); }

TEST_F(TurnsOfListener, ComesAfterSixteenMessagesThatKeptItWaiting) {
  add_clients(1);
  serve_burst('A', false, true, burst - 1);
  EXPECT_FALSE(turns.take_listener_turn());
  serve('A', false, true);
  EXPECT_TRUE(turns.take_listener_turn());
  EXPECT_FALSE(turns.take_listener_turn());
}

TEST_F(TurnsOfListener, DoesNotComeIfOnlyClientsWait) {
  add_clients(2);
  serve_burst('A');
  EXPECT_FALSE(turns.take_listener_turn());
}

TEST_F(TurnsOfListener, CountsMessagesThatKeptAClientWaitingToo) {
  add_clients(2);
  serve_burst('A', true, false, burst - 1);
  serve('A', false, true);
  EXPECT_TRUE(turns.take_listener_turn());
}

TEST_F(TurnsOfListener, KeepsTheTurnOfTheNextClient) {
  add_clients(2);
  serve_burst('A', true, true);
  EXPECT_TRUE(turns.take_listener_turn());
  EXPECT_EQ(first(), 'B');
}

TEST_F(TurnsOfListener, AlternatesWithClientsThatFlood) {
  add_clients(2);
  EXPECT_EQ(dispatch(burst + 6, true), std::string(burst, 'A') + "+B+A+B");
}

TEST_F(TurnsForget, NextClientPassesItsTurnToTheOneBehindIt) {
  add_clients(3);
  serve_burst('A');
  close('B');
  EXPECT_EQ(first(), 'C');
}

TEST_F(TurnsForget, LastClientPassesItsTurnToTheHead) {
  add_clients(3);
  serve_burst('B');
  close('C');
  EXPECT_EQ(first(), 'A');
}

TEST_F(TurnsForget, SeveralNextClientsInARowPassTheTurnOn) {
  add_clients(5);
  serve_burst('A');
  close('B');
  close('C');
  close('D');
  EXPECT_EQ(first(), 'E');
}

TEST_F(TurnsForget, AnotherClientKeepsTheTurnOfTheNext) {
  add_clients(4);
  serve_burst('B');
  close('A');
  close('D');
  EXPECT_EQ(first(), 'C');
}

TEST_F(TurnsForget, OnlyClientLeavesAnEmptyList) {
  add_clients(1);
  serve_burst('A', true);
  close('A');
  EXPECT_EQ(turns.take_first_client(clients), nullptr);
}
