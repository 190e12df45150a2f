// Thirty misbehaviours of peers, in three sizes: fifteen at a server, fifteen at a command client. Each has a stated
// effect, others are served, and afterwards, with the misbehaving peers still there, nothing computes.
#include <ptz_socket_client_command.h>
#include <sys/un.h>

#include <cstring>

#include "fixtures.h"
#include "handles.h"
#include "processes.h"

namespace {

using namespace load;
using ptz_test::frame;
using ptz_test::frame_claiming;

constexpr std::size_t sizes[] = {0, 300, PTZ_SOCKET_BODY_MAX};
constexpr double share_max = 0.01;

void send_with_descriptor(int fd, std::string bytes) {
  char control[CMSG_SPACE(sizeof(int))] = {};
  iovec part = {bytes.data(), bytes.size()};
  msghdr message = {};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  cmsghdr *header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(header), &fd, sizeof fd);
  (void)sendmsg(fd, &message, MSG_NOSIGNAL);
}

void send_bytes(int fd, const std::string &bytes) {
  for (const char byte : bytes) (void)ptz_test::send_all(fd, {&byte, 1});
}

// --- at a server -------------------------------------------------------------------------------------------------

enum class Effect { closed, open, answered, answered_twice };

struct AtServer {
  const char *name;
  Effect effect;
  void (*act)(int fd, const std::string &body);
};

const AtServer at_server[] = {
    {"connects and is silent", Effect::open, [](int, const std::string &) {}},
    {"half a length", Effect::open, [](int fd, const std::string &) { ptz_test::send_all(fd, "\x10"); }},
    {"a header without its body", Effect::open,
     [](int fd, const std::string &body) {
       ptz_test::send_all(fd, frame_claiming(static_cast<guint32>(std::max<std::size_t>(body.size(), 8) + 8), 1, ""));
     }},
    {"length 0", Effect::closed,
     [](int fd, const std::string &body) { ptz_test::send_all(fd, frame_claiming(0, 1, body)); }},
    {"length 7", Effect::closed,
     [](int fd, const std::string &body) { ptz_test::send_all(fd, frame_claiming(7, 1, body)); }},
    {"length 2561", Effect::closed,
     [](int fd, const std::string &body) { ptz_test::send_all(fd, frame_claiming(2561, 1, body)); }},
    {"the largest length", Effect::closed,
     [](int fd, const std::string &body) { ptz_test::send_all(fd, frame_claiming(G_MAXUINT32, 1, body)); }},
    {"a frame byte by byte", Effect::answered, [](int fd, const std::string &body) { send_bytes(fd, frame(1, body)); }},
    {"two frames in one piece", Effect::answered_twice,
     [](int fd, const std::string &body) { ptz_test::send_all(fd, frame(1, body) + frame(2, body)); }},
    {"one frame id twice", Effect::answered_twice,
     [](int fd, const std::string &body) { ptz_test::send_all(fd, frame(1, body) + frame(1, body)); }},
    {"a half-close after a frame", Effect::answered,
     [](int fd, const std::string &body) {
       ptz_test::send_all(fd, frame(1, body));
       shutdown(fd, SHUT_WR);
     }},
    {"a half-close within a frame", Effect::open,
     [](int fd, const std::string &body) {
       ptz_test::send_all(fd, frame(1, body).substr(0, body.size() + 7));
       shutdown(fd, SHUT_WR);
     }},
    {"stops to receive", Effect::closed,
     [](int fd, const std::string &body) {
       shutdown(fd, SHUT_RD);
       ptz_test::send_all(fd, frame(1, body));
       shutdown(fd, SHUT_WR);
     }},
    {"sends a descriptor", Effect::answered,
     [](int fd, const std::string &body) { send_with_descriptor(fd, frame(1, body)); }},
    {"rubbish after a frame", Effect::closed,
     [](int fd, const std::string &body) {
       ptz_test::send_all(fd, frame(1, body) + std::string(body.size() + 8, '\xff'));
     }},
};

bool is_closed(int fd) {
  pollfd watched = {fd, POLLIN | POLLRDHUP, 0};
  if (poll(&watched, 1, 0) <= 0) return false;
  char byte;
  return (watched.revents & POLLHUP) != 0 || recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

// What came, until it is what was expected, or for a moment.
bool has_effect(int fd, Effect effect, std::size_t body_size, bool answers) {
  const std::size_t reply = answers ? 8 + body_size : 0;
  std::string received;
  const auto complete = [&] {
    received += ptz_test::receive_waiting(fd);
    switch (effect) {
      case Effect::closed:
        return is_closed(fd);
      case Effect::open:
        return false;
      case Effect::answered:
        return received.size() == reply;
      case Effect::answered_twice:
        return received.size() == 2 * reply;
    }
    return false;
  };
  if (effect != Effect::open) return load::wait_for(complete, 2000);
  return !load::wait_for(complete, 20) && received.empty() && !is_closed(fd);
}

long try_at_server(const std::string &path, const Process &server, long &tried, double &share) {
  long wrong = 0;
  Client other(path);
  std::vector<Descriptor> held;
  for (const AtServer &each : at_server) {
    for (const std::size_t size : sizes) {
      const std::string body(size, 'm');
      held.push_back(ptz_test::connect_to(path));
      const int fd = held.back().get();
      each.act(fd, body);
      // A frame without a body is read, and delivered to no callback.
      const bool is_delivered = size > 0;
      const Effect effect = !is_delivered && (each.effect == Effect::answered || each.effect == Effect::answered_twice)
                                ? Effect::open
                                : each.effect;
      const bool right = has_effect(fd, effect, size, is_delivered), served = other.ask("other") >= 0;
      ++tried;
      if (right && served) continue;
      ++wrong;
      torture::note("at a server, %s, %zu bytes: %s", each.name, size,
                    right ? "others are not served" : "other effect");
    }
  }
  const double before_s = server.processor_s();
  sleep_ms(2000);
  share = std::max(share, (server.processor_s() - before_s) / 2);
  return wrong;
}

// --- at a command client -----------------------------------------------------------------------------------------

struct Request {
  int replies = 0;
  std::string body;
};

void receive(gpointer context, gpointer data, guint32 length) {
  auto *request = static_cast<Request *>(context);
  ++request->replies;
  if (data != nullptr) request->body.assign(static_cast<const char *>(data), length);
}

struct AtClient {
  const char *name;
  int replies;  // that the callback of the one request gets, from what the peer does
  void (*act)(int fd, guint32 id, const std::string &body);
};

const AtClient at_client[] = {
    {"never answers", 0, [](int, guint32, const std::string &) {}},
    {"closes", 0, [](int fd, guint32, const std::string &) { shutdown(fd, SHUT_RDWR); }},
    // contract: a hang-up ends the watch before anything is read.
    {"answers, then closes", 0,
     [](int fd, guint32 id, const std::string &body) {
       ptz_test::send_all(fd, frame(id, body));
       shutdown(fd, SHUT_RDWR);
     }},
    {"half-closes", 0, [](int fd, guint32, const std::string &) { shutdown(fd, SHUT_WR); }},
    {"half a header", 0,
     [](int fd, guint32 id, const std::string &) { ptz_test::send_all(fd, frame(id, "").substr(0, 5)); }},
    {"half a body, then closes", 0,
     [](int fd, guint32 id, const std::string &body) {
       ptz_test::send_all(fd, frame(id, body).substr(0, body.size() + 7));
       shutdown(fd, SHUT_RDWR);
     }},
    {"another id", 0,
     [](int fd, guint32 id, const std::string &body) { ptz_test::send_all(fd, frame(id + 77, body)); }},
    {"the reply twice", 1,
     [](int fd, guint32 id, const std::string &body) { ptz_test::send_all(fd, frame(id, body) + frame(id, body)); }},
    {"a thousand replies of others", 1,
     [](int fd, guint32 id, const std::string &body) {
       for (guint32 i = 0; i < 1000; ++i) {
         if (send(fd, frame(id + 99 + i, body).data(), body.size() + 8, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
           ptz_test::run_pending();
         }
       }
       ptz_test::run_pending();
       ptz_test::send_all(fd, frame(id, body));
     }},
    {"length 0", 0,
     [](int fd, guint32 id, const std::string &body) { ptz_test::send_all(fd, frame_claiming(0, id, body)); }},
    {"length 2561", 0,
     [](int fd, guint32 id, const std::string &body) { ptz_test::send_all(fd, frame_claiming(2561, id, body)); }},
    {"the largest length", 0,
     [](int fd, guint32 id, const std::string &body) {
       ptz_test::send_all(fd, frame_claiming(G_MAXUINT32, id, body));
     }},
    {"the reply byte by byte", 1,
     [](int fd, guint32 id, const std::string &body) {
       for (const char byte : frame(id, body)) {
         ptz_test::send_all(fd, {&byte, 1});
         g_main_context_iteration(nullptr, FALSE);  // single bytes fill the socket soon
       }
     }},
    {"sends a descriptor", 1,
     [](int fd, guint32 id, const std::string &body) { send_with_descriptor(fd, frame(id, body)); }},
    {"rubbish after the reply", 1,
     [](int fd, guint32 id, const std::string &body) {
       ptz_test::send_all(fd, frame(id, body) + std::string(body.size() + 8, '\xff'));
     }},
};

using OwnClient = ptz_test::Object<PTZSocketClientCommand>;

OwnClient new_client(const char *path, int fd) {
  OwnClient client(ptz_socket_client_command_new(path, fd, SOCK_STREAM));
  ptz_socket_client_register_callback(PTZ_SOCKET_CLIENT(client.get()), receive, nullptr);
  return client;
}

bool answers(const OwnClient &client) {
  Request request;
  ptz_socket_client_command_async_send(client.get(), "other", 5, &request);
  return ptz_test::run_until([&] { return request.replies == 1; }, 2000) && request.body == "other";
}

double processor_s() {
  timespec now = {};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

long try_at_client(const std::string &path, long &tried, double &share) {
  long wrong = 0;
  const OwnClient other = new_client(path.c_str(), -1);
  std::vector<ptz_test::Pair> pairs;
  std::vector<OwnClient> clients;
  std::vector<std::unique_ptr<Request>> requests;  // as long as the clients: those that get no reply stay pending
  for (const AtClient &each : at_client) {
    for (const std::size_t size : sizes) {
      const std::string body(size, 'm');
      pairs.emplace_back();
      clients.push_back(new_client(nullptr, pairs.back().ours.get()));
      requests.push_back(std::make_unique<Request>());
      Request &request = *requests.back();
      ptz_socket_client_command_async_send(clients.back().get(), "request", 7, &request);
      const int fd = pairs.back().theirs.get();
      const auto sent = ptz_test::receive_frame(fd);
      if (sent) each.act(fd, sent->id, body);
      (void)ptz_test::run_until([&] { return request.replies > each.replies; }, 20);
      const bool right = sent && request.replies == each.replies && (each.replies == 0 || request.body == body);
      const bool served = answers(other);
      ++tried;
      if (right && served) continue;
      ++wrong;
      torture::note("at a client, %s, %zu bytes: %s", each.name, size,
                    right ? "others are not served" : "another number of replies");
    }
  }
  const double before_s = processor_s();
  (void)ptz_test::iterations_within(2000);
  share = std::max(share, (processor_s() - before_s) / 2);
  return wrong;
}

}  // namespace

int main(int argc, char **argv) {
  const long rounds = torture::amount(argc, argv, "rounds", 1);
  const ptz_test::TempDir dir;
  const std::string path = dir.file("server");
  const Process server([&] { return serve_echo(path); });
  if (!load::wait_for([&] { return Client(path).ask("first") >= 0; }, 5000)) return torture::finish(false, "no server");
  long tried = 0, wrong = 0;
  double share = 0;
  for (long i = 0; i < rounds; ++i) {
    wrong += try_at_server(path, server, tried, share);
    wrong += try_at_client(path, tried, share);
  }
  return torture::finish(wrong == 0 && share <= share_max,
                         "%ld misbehaviours, %ld with another effect; %.2f %% of a core", tried, wrong, share * 100);
}
