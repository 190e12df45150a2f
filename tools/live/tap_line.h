// tap_line.h - what tap prints for a frame, and which frames it shows.
#pragma once
#include <optional>
#include <string>
#include <vector>

#include "exchange_text.h"

namespace ptzctl {

struct TapFilter {
  std::string client;                 // a connection's number, a process id, or a program; empty for all
  std::vector<std::string> commands;  // as the description has them; empty for all
  bool only_errors = false;           // error replies, malformed frames, and replies that could not be sent

  [[nodiscard]] bool takes(const FrameView &frame, const FrameText &text) const;
};

// "14:34:29.123456  #3 mini-daemon[123] → Move  kind=absolute pan=10.00°", in local time, with colours if they are on.
[[nodiscard]] std::string tap_line(const FrameView &frame, const FrameText &text);

}  // namespace ptzctl
