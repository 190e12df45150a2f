#include "conversation.h"

#include <ptz_enum_types.h>
#include <ptz_kit_body.h>

#include <algorithm>
#include <deque>
#include <utility>

#include "vocabulary.h"

namespace ptzctl {

Conversation::Conversation(const std::vector<RecordedFrame> &frames, std::optional<guint32> client) {
  // A client may use a message id again: its replies come in the order of the requests.
  std::map<std::pair<guint32, guint32>, std::deque<std::size_t>> pending;
  for (const RecordedFrame &frame : frames) {
    lost_ += frame.lost;
    if (client && frame.client != *client) continue;
    if (!frame.is_reply) {
      if (frame.is_well_framed()) pending[{frame.client, frame.message_id()}].push_back(exchanges_.size());
      steps_.push_back({&frame, exchanges_.size()});
      exchanges_.push_back({&frame});
    } else if (auto &waiting = pending[{frame.client, frame.message_id()}]; !waiting.empty()) {
      exchanges_[waiting.front()].reply = &frame;
      steps_.push_back({&frame, waiting.front()});
      waiting.pop_front();
    } else {
      ++replies_without_request_;
      continue;
    }
    last_frames_[frame.client] = &frame;
  }
  note_silence(frames);
}

void Conversation::note_silence(const std::vector<RecordedFrame> &frames) {
  const auto lossy = std::find_if(frames.rbegin(), frames.rend(), [](const auto &frame) { return frame.lost > 0; });
  const guint32 last_lossy = lossy != frames.rend() ? lossy->number : 0;
  for (Exchange &each : exchanges_) {
    if (each.reply != nullptr || each.request->number < last_lossy) continue;
    each.silence_ns = std::max<gint64>(frames.back().time_ns - each.request->time_ns, 0);
  }
}

std::string title_of(const RecordedFrame &request) {
  const auto body = request.body();
  gint32 command = 0;
  if (!ptz_kit_body_get_command(body.data(), body.size(), &command)) {
    return "a body of " + std::to_string(body.size()) + " bytes";
  }
  const GEnumValue *const value = enum_value(PTZ_TYPE_COMMAND, command);
  return value != nullptr ? value->value_name : "command " + std::to_string(command);
}

}  // namespace ptzctl
