// replay.h - sends the requests of a recording to a driver, and compares the replies.
//
// The frames are gone through in the order of the recording. A request is sent at its time, or at once in a fast
// replay, after the replies that were recorded before it have come. Each recorded client has a connection of its own,
// from its first request to its last frame. If a reply says that the head still moves and the recorded one that it was
// at rest, the request is sent again until the head rests. A request without a recorded reply must stay without one for
// as long as the recording shows, and for at most a time-out; if the recording ends within a second of it, it proves
// nothing.
#pragma once
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "conversation.h"
#include "framed_socket.h"
#include "reply_comparison.h"

namespace ptzctl {

struct ReplaySettings {
  std::string path;
  guint timeout_ms = 10'000;
  bool is_fast = false;
};

// The user is told of each.
struct ReplayedDifference {
  const RecordedFrame *frame;  // the recorded reply, or the request if there is none
  std::string title;           // of the command
  Difference difference;       // its field is empty and `recorded` is the whole text if it is about more than a field
};

struct ReplayFigures {
  std::size_t requests = 0, replies = 0, compared = 0;
};

class Replay {
  struct Client {
    FramedSocket socket;
    std::map<guint32, std::deque<std::size_t>> pending;  // exchanges by message id
    std::multiset<guint32> given_up;                     // message ids whose replies came too late
    const RecordedFrame *last_request = nullptr;
  };
  struct Outcome {
    gint64 sent_us = 0;
    bool is_sent = false, is_lost = false, has_reply = false;
    std::vector<guint8> reply;  // its body
  };

  const Conversation &conversation_;
  const ReplyComparison &comparison_;
  const ReplaySettings settings_;
  std::map<guint32, Client> clients_;
  std::vector<Outcome> outcomes_;
  std::vector<ReplayedDifference> differences_;
  ReplayFigures figures_;
  gint64 start_us_ = 0, start_ns_ = 0;
  int timeouts_in_a_row_ = 0;
  guint32 next_id_ = 0xF0000000;  // of requests that are sent again
  std::string problem_;           // why it cannot go on

  [[nodiscard]] bool connect_client(Client &client);
  void send(const Step &step);
  void await(const Step &step);
  void await_rest(const Step &step);
  void compare(const Step &step);
  void await_silence();
  void report_unexpected_replies();
  void close_if_done(const RecordedFrame &frame);
  void take(Client &client, const std::vector<guint8> &frame);
  void lose(Client &client);
  void report(const RecordedFrame &frame, const std::string &text);
  template <typename Condition>
  bool pump_until(Condition is_met, gint64 deadline_us);
  void poll_once(gint64 deadline_us);
  [[nodiscard]] const Exchange &exchange_of(const Step &step) const { return conversation_.exchanges()[step.exchange]; }
  [[nodiscard]] gint64 timeout_us() const { return gint64{settings_.timeout_ms} * 1000; }

 public:
  Replay(const Conversation &conversation, const ReplyComparison &comparison, ReplaySettings settings);
  // False if the driver cannot be asked, or not any more.
  [[nodiscard]] bool run();
  [[nodiscard]] const std::string &problem() const { return problem_; }
  [[nodiscard]] const std::vector<ReplayedDifference> &differences() const { return differences_; }
  [[nodiscard]] const ReplayFigures &figures() const { return figures_; }
};

}  // namespace ptzctl
