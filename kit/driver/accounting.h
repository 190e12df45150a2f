// kit/driver/accounting.h - what a driver has counted, in all and for each client.
//
// Identity of a client. The base tells neither when a client connects nor when it goes, and the kernel uses descriptor
// numbers again. So each request asks for the cookie of its socket, a number that the kernel never uses twice. It
// replaces the SO_PEERCRED of earlier versions, which only the first request of a connection asks for; so a request
// needs one system call for its origin, as before. A kernel without cookies has the inode number of the socket instead.
//
// Lifetime. The table holds one record for each descriptor number. A record leaves it when another client has the
// number, or when a look at all connections (begin_look() to end_look()) did not meet it. The table is thus no longer
// than the highest descriptor number of a client. A record that has left it and has pending requests is freed with the
// last of them. Its identity is freed with the last frame of it that is kept.
//
// Cost. A request and its reply need no allocation; the first request of a connection does, and reads the path of the
// client's program.
//
// Main context.
#pragma once
#include <sys/types.h>

#include <string>
#include <vector>

#include "handles.h"
#include "monitor/histogram.h"

namespace ptz_kit {

inline constexpr gint64 ns_per_us = 1000;
[[nodiscard]] gint64 monotonic_ns();

// The client's end of a connection.
class Identity {
  guint references_ = 1;

 public:
  const guint32 number;
  const pid_t pid;      // 0 if unknown
  const guint32 uid;    // G_MAXUINT32 if unknown
  std::string program;  // its path, or its name if this process may not read the path

  Identity(guint32 client_number, int fd);
  Identity(const Identity &) = delete;
  void ref() { ++references_; }
  void unref() {
    if (--references_ == 0) delete this;
  }

 private:
  struct Peer {
    pid_t pid;
    guint32 uid;
  };
  static Peer peer_of(int fd);
  Identity(guint32 client_number, const Peer &peer);
  ~Identity() = default;
};

struct Counters {
  guint64 requests = 0;
  guint64 errors = 0;
  guint64 bytes_received = 0;
  guint64 bytes_sent = 0;
  guint64 unsent_replies = 0;
  guint64 timeouts = 0;
  guint32 pending = 0;
  Histogram latency;
};

struct Client {
  Shared<Identity> identity;
  guint64 cookie;
  gint64 since_ns;
  gint64 last_request_ns = 0;
  gint32 last_command = 0;
  guint32 look = 0;  // that met it last
  bool gone = false;
  Counters counters = {};
};

struct ReplyFacts {
  gsize frame_length;
  gint64 latency_ns;
  bool is_error, timed_out, sent;
};

class Accounting {
  std::vector<Client *> table_;  // by descriptor number
  Counters total_;
  guint32 last_number_ = 0;
  guint32 look_ = 0;

  void release(Client *&client);

 public:
  // False, which benchmarks set, counts nothing.
  static bool enabled;

  Accounting() = default;
  Accounting(const Accounting &) = delete;
  ~Accounting() { reset(); }
  void reset();

  // The client that has the descriptor; the pointer is valid until the next call, or while a request is pending. Null
  // if the descriptor is not a socket.
  [[nodiscard]] Client *client_at(int fd, gint64 now_ns);
  void request_arrived(Client &client, gint32 command, gsize frame_length, gint64 now_ns);
  // Frees the client if it has gone and this was its last pending request.
  void request_answered(Client &client, const ReplyFacts &reply);

  // All connections are looked at in between, with client_at(). Those that were not met have gone.
  void begin_look() { ++look_; }
  void end_look();

  [[nodiscard]] const Counters &total() const { return total_; }
  [[nodiscard]] guint client_count() const;
  // The client with the lowest descriptor number from this one on, or null.
  [[nodiscard]] const Client *next_client(std::size_t &fd) const;
};

}  // namespace ptz_kit
