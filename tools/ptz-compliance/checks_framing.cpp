// Frames that arrive in pieces, several at once, or with lengths that cannot be.
#include <ptz_socket_frame.h>

#include <set>

#include "requests.h"

namespace compliance {

namespace {

constexpr gulong between_pieces_us = 5'000;  // long enough for a driver that waits for input to have read the piece
constexpr int rounds = 3;                    // as the driver may have been busy, and have read both pieces at once
constexpr int unanswered_ms = 50;            // what has no answer by then is taken for having none

struct Whole {
  guint32 id;
  std::string bytes;
};
Whole whole_request(Probe &probe) {
  const guint32 id = probe.new_id();
  return {id, frame(id, harmless_request())};
}

// A request in pieces that end at these offsets, and the reply to it.
void send_in_pieces(Link &link, std::initializer_list<std::size_t> ends) {
  const Whole request = whole_request(link.probe());
  std::size_t begin = 0;
  for (const std::size_t end : ends) {
    link.send(std::string_view(request.bytes).substr(begin, end - begin));
    g_usleep(between_pieces_us);
    begin = end;
  }
  link.send(std::string_view(request.bytes).substr(begin));
  link.reply_to(request.id);
}

void split_header(Probe &probe) {
  Link link = probe.connect();
  for (const std::size_t end : {3, 4, 6}) send_in_pieces(link, {end});
}

void header_and_body_apart(Probe &probe) {
  Link link = probe.connect();
  for (int count = 0; count < rounds; ++count) send_in_pieces(link, {PTZ_SOCKET_FRAME_HEADER_SIZE});
}

void split_body(Probe &probe) {
  Link link = probe.connect();
  for (int count = 0; count < rounds; ++count) send_in_pieces(link, {PTZ_SOCKET_FRAME_HEADER_SIZE + 2});
}

void byte_by_byte(Probe &probe) {
  Link link = probe.connect();
  const Whole request = whole_request(probe);
  for (const char byte : request.bytes) {
    link.send({&byte, 1});
    g_usleep(between_pieces_us);
  }
  link.reply_to(request.id);
}

void merged_requests(Probe &probe) {
  Link link = probe.connect();
  const Whole first = whole_request(probe);
  const Whole second = whole_request(probe);
  link.send(first.bytes + second.bytes);
  // In either order: that is what the ids are for. reply_to() would drop the other.
  for (std::set<guint32> missing = {first.id, second.id}; !missing.empty() && !probe.decided();) {
    const auto frame = link.receive(probe.timeout_ms());
    if (!frame) return probe.fail("%zu of two requests in one write have no reply", missing.size());
    missing.erase(frame->id);
  }
}

void merged_and_split(Probe &probe) {
  Link link = probe.connect();
  const Whole first = whole_request(probe);
  const Whole second = whole_request(probe);
  constexpr std::size_t end = PTZ_SOCKET_FRAME_HEADER_SIZE + 2;
  link.send(first.bytes + second.bytes.substr(0, end));
  link.reply_to(first.id);
  link.send(second.bytes.substr(end));
  link.reply_to(second.id);
}

void largest_frame(Probe &probe) {
  Link link = probe.connect();
  link.ask(unknown_request(PTZ_SOCKET_BODY_MAX));
}

void empty_body(Probe &probe) {
  Link link = probe.connect();
  link.send(frame(probe.new_id(), std::string_view()));
  link.ask(harmless_request());
}

void expect_closed_after_length(Probe &probe, guint32 length) {
  Link link = probe.connect();
  link.send(header(length, probe.new_id()));
  link.expect_closed();
}

void oversized_length(Probe &probe) {
  for (const guint32 length : {PTZ_SOCKET_FRAME_MAX + 1, 0x7fffffffU, 0xfffffffeU}) {
    expect_closed_after_length(probe, length);
  }
}

void length_of_all_ones(Probe &probe) { expect_closed_after_length(probe, PTZ_SOCKET_FRAME_UNKNOWN); }

void undersized_length(Probe &probe) {
  for (guint32 length = 0; length < PTZ_SOCKET_FRAME_HEADER_SIZE; ++length) expect_closed_after_length(probe, length);
}

void nothing_behind_a_bad_length(Probe &probe) {
  Link link = probe.connect();
  const Whole request = whole_request(probe);
  link.send(header(PTZ_SOCKET_FRAME_MAX + 1, probe.new_id()) + request.bytes);
  const auto frame = link.receive(unanswered_ms);
  probe.fail_unless(!frame, "bytes behind an impossible length are taken for a request");
}

constexpr Check rows[] = {
    {"framing.split-header", "a header that comes in two pieces is put together", split_header},
    {"framing.header-and-body-apart", "a header and a body that come apart are put together", header_and_body_apart},
    {"framing.split-body", "a body that comes in two pieces is put together", split_body},
    {"framing.byte-by-byte", "a frame that comes byte by byte is put together", byte_by_byte},
    {"framing.merged-requests", "two requests in one write are both answered", merged_requests},
    {"framing.merged-and-split", "one and a half requests in one write, then the other half, are both answered",
     merged_and_split},
    {"framing.largest-frame", "a frame of 2560 bytes is answered", largest_frame},
    {"framing.empty-body", "a frame without a body leaves the connection usable", empty_body},
    {"framing.oversized-length", "a length above 2560 closes the connection, unanswered", oversized_length},
    {"framing.length-of-all-ones", "the length 0xffffffff closes the connection, unanswered", length_of_all_ones},
    {"framing.undersized-length", "a length below 8 closes the connection, unanswered", undersized_length},
    {"framing.nothing-behind-a-bad-length", "what follows an impossible length is not taken for a request",
     nothing_behind_a_bad_length},
};

}  // namespace

const Checks framing_checks(rows);

}  // namespace compliance
