#include "quirks.h"

#include <iterator>

namespace visca_sim {

namespace {

struct Row {
  const char *name, *doc;
};
constexpr Row rows[] = {
    {"sequence-one", "replies always have the sequence number 1"},
    {"sequence-zero", "replies always have the sequence number 0"},
    {"sequence-small", "sequence numbers above 255 are abnormal"},
    {"sequence-ignored", "a repeated message is executed again"},
    {"no-reset", "RESET has no answer"},
    {"error-in-reply", "ERROR comes as a control reply"},
    {"bare-replies", "replies have no header"},
    {"no-ack", "completions come without an ACK"},
    {"no-ack-home", "home has neither ACK nor completion"},
    {"complete-twice", "every completion comes twice"},
    {"complete-empty", "a completion of the empty socket follows every ACK"},
    {"lost-completion", "the completion of a motion is not sent"},
    {"keeps-replaced", "a motion that is replaced keeps its socket until it is cancelled"},
    {"late-answers", "inquiries are answered after 250 ms"},
    {"no-answers", "inquiries of positions are not answered"},
    {"no-position", "inquiries of positions are syntax errors"},
    {"joined", "replies are collected for 5 ms and sent together"},
    {"split", "the second half of a reply comes 30 ms later, on streams"},
    {"other-address", "replies come from another port, and from camera 2"},
    {"network-change", "a network change message comes every 500 ms"},
    {"noise", "three random bytes precede every reply, on streams"},
    {"endless", "5000 bytes without a terminator precede the first reply, on streams"},
    {"cut-off", "every fifth reply ends in its middle"},
    {"no-zoom-position", "the inquiry of the zoom position is a syntax error"},
    {"no-inquiries", "no inquiry is answered"},
    {"no-focus", "the inquiries of the focus are syntax errors"},
    {"five-nibbles", "positions of pan have five nibbles"},
};
static_assert(std::size(rows) == static_cast<std::size_t>(Quirk::count));

}  // namespace

bool Quirks::add(std::string_view name) {
  for (unsigned index = 0; index < std::size(rows); ++index) {
    if (name != rows[index].name) continue;
    bits_ |= 1U << index;
    return true;
  }
  return false;
}

std::string Quirks::list() {
  std::string text;
  for (const Row &row : rows) text += std::string(row.name) + "  " + row.doc + "\n";
  return text;
}

}  // namespace visca_sim
