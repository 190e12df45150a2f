// played_driver.h - plays the driver's part of a recording to a daemon.
#pragma once
#include <sys/types.h>

#include <csignal>
#include <list>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "conversation.h"
#include "framed_socket.h"

namespace ptzctl {

// Which recorded exchange answers a request.
class RecordedAnswers {
  const Conversation &conversation_;
  const bool is_in_order_;
  std::vector<bool> used_;
  std::vector<guint32> clients_;  // in the order of their first requests

  [[nodiscard]] const Exchange *next_of(std::size_t connection);
  [[nodiscard]] const Exchange *equal_to(std::span<const guint8> body);

 public:
  RecordedAnswers(const Conversation &conversation, bool is_in_order);
  // In order: the next exchange of the client that the connection (from 0) plays, whatever its request. Otherwise the
  // next unused exchange of any client with the same request; the last one repeats. Null if there is none.
  [[nodiscard]] const Exchange *answer_to(std::span<const guint8> body, std::size_t connection);
  [[nodiscard]] std::size_t unused() const;
};

struct PlaySettings {
  std::string path;
  bool is_in_order = false, is_fast = false;
};

class PlayedDriver {
  struct Connection {
    FramedSocket socket;
    std::size_t number;  // from 0
  };
  struct DueReply {
    gint64 due_us;
    std::size_t connection;
    std::vector<guint8> frame;
  };

  const PlaySettings settings_;
  RecordedAnswers answers_;
  tools::UniqueFd listener_;
  dev_t device_ = 0;
  ino_t inode_ = 0;  // of the socket's file; 0 if there is none
  std::list<Connection> connections_;
  std::vector<DueReply> due_;
  std::size_t accepted_ = 0, requests_ = 0, unknown_ = 0, differing_ = 0;
  bool is_over_ = false;

  void accept_connection();
  void answer(const Connection &connection, const std::vector<guint8> &frame);
  void send_due();
  void serve_once(const sigset_t &mask);
  void tell_of(const RecordedFrame &request, const std::string &problem) const;
  void drop_closed();
  [[nodiscard]] bool is_due(std::size_t connection) const;
  [[nodiscard]] timespec wait_time() const;

 public:
  PlayedDriver(const Conversation &conversation, PlaySettings settings)
      : settings_(std::move(settings)), answers_(conversation, settings_.is_in_order) {}
  ~PlayedDriver();  // removes the socket
  PlayedDriver(const PlayedDriver &) = delete;
  // Makes the socket; replaces one that no process listens on. False if it cannot; the user was told.
  [[nodiscard]] bool listen();
  // Returns after SIGINT or SIGTERM, or when all was answered and the last connection has ended.
  void run();
  [[nodiscard]] std::size_t requests() const { return requests_; }
  [[nodiscard]] std::size_t unknown() const { return unknown_; }
  [[nodiscard]] std::size_t differing() const { return differing_; }
  [[nodiscard]] std::size_t unused() const { return answers_.unused(); }
};

}  // namespace ptzctl
