// Several clients at once, and clients that misbehave: none may cost another anything.
#include <dirent.h>
#include <ptz_socket_frame.h>
#include <sys/ioctl.h>

#include <set>
#include <utility>

#include "requests.h"

namespace compliance {

namespace {

constexpr gulong settle_us = 5'000;
constexpr int quiet_ms = 40;
constexpr std::size_t header_and_a_byte = PTZ_SOCKET_FRAME_HEADER_SIZE + 1;
constexpr int many_clients = 64;
constexpr int comings_and_goings = 20;
constexpr int unanswered_requests = 400;  // so many that the client has gone before the last is answered
constexpr int flood_requests = 128;
constexpr int most_unread_requests = 4'000;
constexpr int rounds_without_progress = 20;  // a driver that answers another client so often has seen all its input

void half_frame(Probe &probe) {
  Link slow = probe.connect();
  const guint32 id = probe.new_id();
  const std::string request = frame(id, harmless_request());
  slow.send(request.substr(0, header_and_a_byte));
  g_usleep(settle_us);
  Link other = probe.connect();
  other.ask(harmless_request());
  slow.send(request.substr(header_and_a_byte));
  slow.reply_to(id);
}

int unread_bytes(const Link &link) {
  int bytes = 0;
  return ioctl(link.fd(), FIONREAD, &bytes) == 0 ? bytes : 0;
}

// Fills the socket in both directions, and asks as another client in between. It ends when neither direction takes
// more, although the driver goes on answering the other client: it discards replies, or reads no more requests. A
// driver that blocks on its reply does not answer the other. No step depends on how fast the driver is.
void never_reads(Probe &probe) {
  Link deaf = probe.connect();
  Link other = probe.connect();
  int sent = 0;
  int unread = 0;
  for (int idle_rounds = 0; idle_rounds < rounds_without_progress && !probe.decided(); ++idle_rounds) {
    const int sent_before = sent;
    while (sent < most_unread_requests && deaf.try_send(frame(probe.new_id(), harmless_request()), 0)) ++sent;
    other.ask(make_body(PTZ_COMMAND_GET_CAPABILITIES));
    const int unread_before = std::exchange(unread, unread_bytes(deaf));
    if (sent > sent_before || unread > unread_before) idle_rounds = 0;
  }
  deaf.drain(quiet_ms);  // a driver that writes to a client that has gone is the subject of another check
  probe.note("%d requests sent, no reply read", sent);
}

void disconnect_in_mid_frame(Probe &probe) {
  {
    Link gone = probe.connect();
    gone.send(frame(probe.new_id(), unknown_request(200)).substr(0, 100));
    g_usleep(settle_us);
  }
  g_usleep(settle_us);
  Link next = probe.connect();
  next.ask(harmless_request());
}

void disconnect_before_reply(Probe &probe) {
  for (int round = 0; round < 5; ++round) {
    Link gone = probe.connect();
    std::string requests;
    for (int count = 0; count < unanswered_requests; ++count) requests += frame(probe.new_id(), harmless_request());
    gone.send(requests);
  }
  Link next = probe.connect();
  next.ask(harmless_request());
}

void half_closed(Probe &probe) {
  Link link = probe.connect();
  const guint32 id = link.request(harmless_request());
  link.shut_sending();
  link.reply_to(id);
}

void many(Probe &probe) {
  std::vector<Link> links;
  std::vector<guint32> ids;
  for (int count = 0; count < many_clients; ++count) links.push_back(probe.connect());
  for (Link &link : links) ids.push_back(link.request(harmless_request()));
  for (std::size_t index = 0; index < links.size(); ++index) links[index].reply_to(ids[index]);
}

void same_id(Probe &probe) {
  Link first = probe.connect();
  Link second = probe.connect();
  const guint32 id = probe.new_id();
  const std::string request = frame(id, harmless_request());
  first.send(request.substr(0, header_and_a_byte));
  g_usleep(settle_us);
  second.send(request);
  second.reply_to(id);
  first.send(request.substr(header_and_a_byte));
  first.reply_to(id);
}

void flood(Probe &probe) {
  Link flooding = probe.connect();
  std::string requests;
  for (int count = 0; count < flood_requests; ++count) requests += frame(probe.new_id(), harmless_request());
  flooding.send(requests);
  Link other = probe.connect();
  other.ask(harmless_request());
  flooding.drain(quiet_ms);
}

// How many descriptors the driver has open; 0 if that cannot be seen.
int open_descriptors(pid_t process) {
  const std::string folder = "/proc/" + std::to_string(process) + "/fd";
  const Handle<DIR, closedir> entries(opendir(folder.c_str()));
  int count = 0;
  while (entries && readdir(entries.get()) != nullptr) ++count;
  return count;
}

void descriptors(Probe &probe) {
  Link link = probe.connect();
  link.ask(harmless_request());
  const pid_t process = Subject::listener(link.fd());
  const int before = open_descriptors(process);
  if (before == 0) return probe.not_applicable("", "the driver's descriptors cannot be seen by this user");
  for (int round = 0; round < comings_and_goings; ++round) probe.connect().ask(harmless_request());
  int after = 0;
  const gint64 deadline = g_get_monotonic_time() + gint64{probe.timeout_ms()} * 1000;
  do {
    link.ask(harmless_request());
    after = open_descriptors(process);
  } while (after > before && g_get_monotonic_time() < deadline && !probe.decided());
  probe.fail_unless(after <= before, "%d descriptors stay open after %d clients came and went", after - before,
                    comings_and_goings);
}

constexpr Check rows[] = {
    {"clients.half-frame-does-not-delay-others", "half a frame of one client does not keep others waiting", half_frame},
    {"clients.never-reads", "a client that never reads its replies does not keep others waiting", never_reads},
    {"clients.disconnect-in-mid-frame", "half a frame of a client that has gone is not mixed into another's",
     disconnect_in_mid_frame},
    {"clients.disconnect-before-reply", "a client that goes before its reply does not end the driver",
     disconnect_before_reply},
    {"clients.half-closed-is-answered", "a client that has finished sending still gets its reply", half_closed},
    {"clients.many", "64 clients at once are all answered", many},
    {"clients.same-id-in-two-clients", "two clients that use the same message id each get their own reply", same_id},
    {"clients.flood-does-not-starve-others", "a client with many requests in a row does not keep others waiting",
     flood},
    {"clients.descriptors-are-released", "the descriptors of clients that have gone are closed", descriptors},
};

}  // namespace

const Checks client_checks(rows);

}  // namespace compliance
