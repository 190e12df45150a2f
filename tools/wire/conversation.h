// conversation.h - the requests of a recording with their replies.
#pragma once
#include <map>
#include <optional>
#include <vector>

#include "recording.h"

namespace ptzctl {

struct Exchange {
  const RecordedFrame *request = nullptr;
  const RecordedFrame *reply = nullptr;
  // Of a request without a reply: for how long the recording shows that there was none. Nothing if frames were lost.
  std::optional<gint64> silence_ns = std::nullopt;
};

// One frame of the recording, in its order, and the exchange to which it belongs.
struct Step {
  const RecordedFrame *frame;
  std::size_t exchange;
};

class Conversation {
  std::vector<Exchange> exchanges_;
  std::vector<Step> steps_;
  std::map<guint32, const RecordedFrame *> last_frames_;
  std::size_t replies_without_request_ = 0, lost_ = 0;

  void note_silence(const std::vector<RecordedFrame> &frames);

 public:
  // The frames are borrowed. With a client, of this one only.
  Conversation(const std::vector<RecordedFrame> &frames, std::optional<guint32> client);
  [[nodiscard]] const std::vector<Exchange> &exchanges() const { return exchanges_; }
  [[nodiscard]] const std::vector<Step> &steps() const { return steps_; }
  [[nodiscard]] bool is_last_of_its_client(const RecordedFrame &frame) const {
    return last_frames_.at(frame.client) == &frame;
  }
  // Their requests are older than the recording, or were lost.
  [[nodiscard]] std::size_t replies_without_request() const { return replies_without_request_; }
  [[nodiscard]] std::size_t lost() const { return lost_; }
};

// "Query position"; "command 999" if there is no such command.
[[nodiscard]] std::string title_of(const RecordedFrame &request);

}  // namespace ptzctl
