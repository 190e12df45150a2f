// tests/torture/nth_call/ends.h - what the scenarios of the transport share.
#pragma once
#include <glib.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <string>
#include <thread>

#include "engine.h"
#include "fixtures.h"
#include "handles.h"
#include "peers.h"

namespace nth_call {

using ptz_test::Descriptor;
using ptz_test::Object;

// A plain body that a peer can compare.
inline const std::string request_body(300, 'q');

inline void iterate(int times = 12) {
  for (int i = 0; i < times; ++i) g_main_context_iteration(nullptr, FALSE);
}

// Whether the main loop runs around without anything to do, in a second of virtual time.
inline bool main_loop_spins() {
  bool over = false;
  g_timeout_add(
      1000,
      [](gpointer data) -> gboolean {
        *static_cast<bool *>(data) = true;
        return G_SOURCE_REMOVE;
      },
      &over);
  int iterations = 0;
  while (!over && iterations < 500) {
    g_main_context_iteration(nullptr, TRUE);
    ++iterations;
  }
  while (!over) g_main_context_iteration(nullptr, TRUE);
  return iterations > 300;
}

// Exactly one frame with this id and body, while the main loop runs.
inline bool receives_frame(int fd, std::uint32_t id, const std::string &body) {
  std::string received;
  const std::string wanted = ptz_test::frame(id, body);
  (void)ptz_test::run_until(
      [&] {
        received += ptz_test::receive_waiting(fd);
        return received.size() >= wanted.size() || ptz_test::is_at_end(fd);
      },
      2000);
  return received == wanted;
}

inline bool was_closed(int fd) {
  char byte = 0;
  const auto got = recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  return got == 0 || (got < 0 && errno == ECONNRESET);
}

}  // namespace nth_call
