// faults/faulty_server.h - a server of the command channel, with one fault. It does without the library's server, which
// would not let it be so wrong.
#pragma once
#include <sys/stat.h>

#include <list>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "faulty_answers.h"
#include "faulty_status.h"

namespace sim {

// One thread, which sleeps in poll() until a client sends something or the next update of the status is due.
class FaultyServer {
  struct Client {
    int fd;
    unsigned number;
    std::string in = {};
    bool at_end = false;    // to be closed
    bool has_gone = false;  // because it has closed itself
    unsigned reads_of_frame = 0;
    bool has_header = false;  // that of the frame with which `in` begins was looked at
    Asker asker = {};
    gint64 since_us = g_get_monotonic_time();
    bool greeted = false;
    unsigned names_in_a_row = 0;
    gulong pace_us = 0;  // a pause before each request
    std::set<guint32> ids = {};
  };

  const std::string path_;
  struct stat bound_ = {};  // the socket at the path
  int listener_ = -1;
  int signals_ = -1;
  std::list<Client> clients_;
  unsigned accepted_ = 0;
  unsigned short_visits_ = 0;               // connections in a row that made one request
  std::map<guint32, unsigned> last_by_id_;  // the number of the client that used this id last
  std::string left_over_;
  FaultyAnswers answers_;
  std::optional<FaultyStatus> status_;
  gint64 published_us_ = 0;

  // faulty_server.cpp
  [[nodiscard]] gint64 next_update_us() const;
  [[nodiscard]] int idle_ms() const;
  void publish();
  void accept_client();
  [[nodiscard]] bool serve_in_turn();
  void forget_the_gone();
  [[nodiscard]] bool ends_on_signal();
  void remove_socket() const;

  // faulty_frames.cpp
  void take(Client &client);
  // Whether the client keeps its connection. May lose a part of the piece.
  static bool survives(Client &client, std::string &piece);
  static void lose_a_part(Client &client, std::string &piece);
  static bool forgives(Client &client, guint32 length);
  // False if there is no frame to serve.
  bool serve_one(Client &client);
  void serve_frame(Client &client, guint32 id, const Body &request);
  [[nodiscard]] bool held_up(const Client &client, guint32 id) const;
  void dawdle(Client &client, const Body &request) const;
  void reply(Client &client, guint32 id, const Body &body);
  void greet(Client &client);

 public:
  FaultyServer(std::string path, FaultyAnswers answers) : path_(std::move(path)), answers_(std::move(answers)) {}
  FaultyServer(const FaultyServer &) = delete;
  void publish_as(guint instance) { status_.emplace(instance, answers_.head()); }
  // False with errno if the socket cannot be opened.
  [[nodiscard]] bool open();
  // The exit status of the program.
  [[nodiscard]] int run();
};

}  // namespace sim
