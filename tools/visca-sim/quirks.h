// quirks.h - the ways in which the simulated camera may be wrong or odd, as cameras in the field are.
#pragma once
#include <string>
#include <string_view>

namespace visca_sim {

enum class Quirk : unsigned {
  sequence_one,      // replies always have the sequence number 1
  sequence_zero,     // replies always have the sequence number 0
  sequence_small,    // numbers above 255 are abnormal
  sequence_ignored,  // a repeated message is executed again
  no_reset,          // RESET has no answer
  error_in_reply,    // ERROR comes as a control reply
  bare_replies,      // replies have no header
  no_ack,            // completions come without an ACK
  no_ack_home,       // home has neither ACK nor completion
  complete_twice,    // every completion comes twice
  complete_empty,    // a completion of the empty socket follows every ACK
  lost_completion,   // the completion of a motion never comes, and its socket stays in use for a while
  keeps_replaced,    // a motion that is replaced keeps its socket until it is cancelled
  late_answers,      // inquiries are answered after 250 ms
  no_answers,        // inquiries of positions are not answered
  no_position,       // inquiries of positions are syntax errors
  joined,            // replies are collected for 5 ms and sent as one datagram or segment
  split,             // the second half of a reply comes 30 ms later, on streams
  other_address,     // replies come from another port, and from camera 2
  network_change,    // a network change message comes every 500 ms
  noise,             // three random bytes precede every reply on streams
  endless,           // a message of 5000 bytes precedes the first reply on streams
  cut_off,           // every fifth reply ends in its middle
  no_zoom_position,  // the inquiry of the zoom position is a syntax error
  no_inquiries,      // no inquiry is answered
  no_focus,          // the inquiries of the focus are syntax errors
  five_nibbles,      // positions of pan have five nibbles
  count
};

class Quirks {
  unsigned bits_ = 0;

 public:
  [[nodiscard]] bool has(Quirk quirk) const { return (bits_ & 1U << static_cast<unsigned>(quirk)) != 0; }
  // False if there is no quirk of this name.
  bool add(std::string_view name);
  // A line with name and explanation for each.
  [[nodiscard]] static std::string list();
};

}  // namespace visca_sim
