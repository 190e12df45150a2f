// terminal.h - what the daemon shows a person: steps, results, and a line that changes while the head moves.
#pragma once
#include <ptz_kit.h>

#include <string>

namespace example {

std::string in_degrees(gint32 hundredths);
std::string in_magnification(gint32 hundredths);
std::string in_unit(PTZKitAxis axis, gint32 value);
// Positions of all axes, in the order of PTZKitAxis.
std::string describe(const gint32 *position);
std::string in_columns(const gint32 *position);  // as describe(), as wide for every position
bool is_idle(const PTZKitQueryPositionReply &reply);
// The bytes of a sign say nothing about its width: printf's field widths would be wrong for the degree sign.
std::string right_aligned(const std::string &text, glong width);

// Colours and the changing line are for terminals; elsewhere every line stays and is plain.
class Terminal {
  const bool interactive_;
  bool live_ = false;

  void end_live();
  void print(const char *colour, const char *prefix, const std::string &text);

 public:
  Terminal();
  void heading(const std::string &text);
  void line(const std::string &text);
  void good(const std::string &text);
  void bad(const std::string &text);
  // Replaces the live line that was shown last, if nothing was printed since.
  void live(const std::string &text);
  [[nodiscard]] bool interactive() const { return interactive_; }
};

}  // namespace example
