// What a request and a reply cost in allocations and system calls, counted: the channel carries every movement of a
// camera, on a small processor.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <ostream>
#include <string>
#include <vector>

#include "command_ends.h"
#include "faults.h"
#include "interpose.h"
#include "peers.h"
#include "select_hook.h"

// A sanitizer has an allocator of its own, which must not be replaced.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ALLOCATIONS_ARE_COUNTED false
#else
#define ALLOCATIONS_ARE_COUNTED true
#endif

using namespace ptz_test;

namespace {

// Of this thread only: the peers of a test have threads of their own.
thread_local bool counting = false;
thread_local int allocations = 0;
thread_local int releases = 0;
thread_local int other_calls = 0;

[[maybe_unused]] void count_allocation() { allocations += counting ? 1 : 0; }
[[maybe_unused]] void count_release(void *block) { releases += counting && block != nullptr ? 1 : 0; }
void count_other_call() { other_calls += counting ? 1 : 0; }

struct Allocations {
  int made = 0;
  int released = 0;
  bool operator==(const Allocations &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Allocations &counted) {
  return out << counted.made << " made, " << counted.released << " released";
}

template <typename Function>
Allocations allocations_of(Function function) {
  allocations = releases = 0;
  counting = true;
  function();
  counting = false;
  return {allocations, releases};
}

// System calls on one descriptor, and those of kinds that have no place here on any.
struct Calls {
  int reads = 0, writes = 0, polls = 0, selects = 0, others = 0;
  bool operator==(const Calls &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Calls &calls) {
  return out << calls.reads << " reads, " << calls.writes << " writes, " << calls.polls << " polls, " << calls.selects
             << " selects, " << calls.others << " others";
}

template <typename Function>
Calls calls_of(int fd, Function function) {
  Calls calls;
  const Interposer interposer([&](Attempt &attempt) -> std::optional<Outcome> {
    if (!counting) return std::nullopt;
    if (attempt.call == Call::read && attempt.fd == fd) ++calls.reads;
    if (attempt.call == Call::write && attempt.fd == fd) ++calls.writes;
    if (attempt.call == Call::poll && attempt.fd == fd) ++calls.polls;
    if (attempt.call != Call::read && attempt.call != Call::write && attempt.call != Call::poll) ++calls.others;
    return std::nullopt;
  });
  const SelectHook select_hook([&](long) -> std::optional<int> {
    calls.selects += counting ? 1 : 0;
    return std::nullopt;
  });
  other_calls = 0;
  counting = true;
  function();
  counting = false;
  calls.others += other_calls;
  return calls;
}

Calls operator*(int times, const Calls &calls) {
  return {times * calls.reads, times * calls.writes, times * calls.polls, times * calls.selects, times * calls.others};
}

constexpr int repetitions = 15;  // fit into a socket that nobody reads meanwhile

template <typename Function>
void repeat(Function function) {
  for (int i = 0; i < repetitions; ++i) function();
}

class CommandPathCost : public testing::Test {
 protected:
  Pair pair;
  int peer = pair.theirs.get();
  std::vector<Answer> answers{4 * repetitions};
  std::size_t sent = 0;
  CommandClient client{pair.ours.get()};
  const std::string body = body_of(64);

  void send() { client.send(body, &answers[sent++]); }
  void take_frames() { (void)receive_waiting(peer); }
  // A peer that answers so many requests, each reply in one piece.
  auto answering(int requests) {
    return in_thread([this, requests] {
      for (int i = 0; i < requests; ++i) {
        const auto request = receive_frame(peer);
        if (request) send_all(peer, frame(request->id, request->body));
      }
    });
  }
};

// What switching the watch off and on again costs inside GLib, which is not ours to save.
Allocations allocations_of_the_watch(CommandClient &client) {
  return allocations_of([&] {
    repeat([&] {
      ptz_socket_client_remove_poll(client.base());
      ptz_socket_client_add_poll(client.base());
    });
  });
}

TEST_F(CommandPathCost, ASynchronousRequestCallsTheSystemForItsFramesAndOneWait) {
  auto peers = answering(repetitions + 1);
  std::vector<char> reply(PTZ_SOCKET_BODY_MAX);
  guint32 length = 0;
  const auto request = [&] {
    EXPECT_TRUE(ptz_socket_client_command_sync_send(client.get(), body.data(), static_cast<guint32>(body.size()),
                                                    reply.data(), &length));
  };
  request();
  // Nothing to drain; then header and body of each frame.
  EXPECT_EQ(calls_of(client.fd(), [&] { repeat(request); }),
            repetitions * (Calls{.reads = 1 + 2, .writes = 2, .polls = 2, .selects = 1, .others = 0}));
  peers.wait();
}

TEST_F(CommandPathCost, ASynchronousRequestAllocatesNothing) {
  if (!ALLOCATIONS_ARE_COUNTED) GTEST_SKIP() << "the sanitizer's allocator stays in place";
  auto peers = answering(repetitions + 1);
  std::vector<char> reply(PTZ_SOCKET_BODY_MAX);
  guint32 length = 0;
  const auto request = [&] {
    EXPECT_TRUE(ptz_socket_client_command_sync_send(client.get(), body.data(), static_cast<guint32>(body.size()),
                                                    reply.data(), &length));
  };
  request();
  allocations_of_the_watch(client);
  EXPECT_EQ(allocations_of([&] { repeat(request); }), allocations_of_the_watch(client));
  peers.wait();
}

TEST_F(CommandPathCost, AnAsynchronousRequestCallsTheSystemForItsFrame) {
  send();
  EXPECT_EQ(calls_of(client.fd(), [this] { repeat([this] { send(); }); }),
            repetitions * (Calls{.reads = 1, .writes = 2, .polls = 2, .selects = 0, .others = 0}));
}

TEST_F(CommandPathCost, ARequestWithoutAContextCallsTheSystemForItsFrame) {
  EXPECT_EQ(calls_of(client.fd(), [this] { repeat([this] { client.send(body, nullptr); }); }),
            repetitions * (Calls{.reads = 1, .writes = 2, .polls = 2, .selects = 0, .others = 0}));
}

TEST_F(CommandPathCost, AnAsynchronousRequestAllocatesItsEntryOnly) {
  if (!ALLOCATIONS_ARE_COUNTED) GTEST_SKIP() << "the sanitizer's allocator stays in place";
  struct Entry {
    gpointer context;
    guint32 message_id;
    timespec deadline;
  };
  // What an entry and its link cost depends on GLib's slices: nothing but now and then, or an allocation each.
  const auto entry_cost = [] {
    GList *list = nullptr;
    std::vector<Entry *> entries(repetitions);
    const auto cost = allocations_of([&] {
      for (Entry *&entry : entries) {
        entry = g_slice_new(Entry);
        list = g_list_prepend(list, entry);
      }
    });
    for (Entry *entry : entries) g_slice_free(Entry, entry);
    g_list_free(list);
    return cost;
  };
  entry_cost();
  send();
  repeat([this] { send(); });
  take_frames();
  for (std::uint32_t id = 0; id < repetitions + 1; ++id) send_all(peer, frame(id, "answer"));
  ASSERT_TRUE(run_until([this] { return client.pending_count() == 0; }));
  send();
  const auto expected = entry_cost();
  const auto cost = allocations_of([this] { repeat([this] { send(); }); });
  EXPECT_LE(cost.made, expected.made);
  EXPECT_EQ(cost.released, 0);
}

TEST_F(CommandPathCost, ARequestWithoutAContextAllocatesNothing) {
  if (!ALLOCATIONS_ARE_COUNTED) GTEST_SKIP() << "the sanitizer's allocator stays in place";
  client.send(body, nullptr);
  EXPECT_EQ(allocations_of([this] { repeat([this] { client.send(body, nullptr); }); }), Allocations{});
}

TEST_F(CommandPathCost, AReplyIsReadInTwoPiecesAndNothingElse) {
  repeat([this] { send(); });
  take_frames();
  std::uint32_t id = 0;
  const auto calls = [&] {
    send_all(peer, frame(id++, "answer"));
    return calls_of(client.fd(), [] { iterate(); });
  };
  repeat([&] { EXPECT_EQ(calls(), (Calls{.reads = 2})); });
  EXPECT_EQ(client.pending_count(), 0u);
}

TEST_F(CommandPathCost, AReplyAllocatesNothing) {
  if (!ALLOCATIONS_ARE_COUNTED) GTEST_SKIP() << "the sanitizer's allocator stays in place";
  repeat([this] { send(); });
  take_frames();
  for (Answer &answer : answers) answer.body.reserve(64);
  for (std::uint32_t id = 0; id < repetitions; ++id) {
    send_all(peer, frame(id, "answer"));
    const auto cost = allocations_of([] { iterate(); });
    EXPECT_LE(cost.made, id > 0 ? 0 : 10) << id;
  }
  EXPECT_EQ(client.pending_count(), 0u);
}

TEST_F(CommandPathCost, ARequestToAServerAllocatesItsReplyContext) {
  if (!ALLOCATIONS_ARE_COUNTED) GTEST_SKIP() << "the sanitizer's allocator stays in place";
  const TempDir dir;
  const Object<PTZSocketServerCommand> server(ptz_socket_server_command_new(dir.file("server").c_str(), SOCK_STREAM));
  ptz_socket_server_register_callback(
      PTZ_SOCKET_SERVER(server.get()),
      [](gpointer, gpointer context, gpointer data, guint32 length) -> gboolean {
        return ptz_socket_server_send(context, data, length);
      },
      nullptr);
  const Descriptor asking = connect_to(dir.file("server")), bystander = connect_to(dir.file("server"));
  run_pending();
  const auto request = [&] {
    send_all(asking.get(), frame(1, body));
    const auto cost = allocations_of([] { iterate(); });
    EXPECT_EQ(receive_waiting(asking.get()), frame(1, body));
    return cost;
  };
  request();
  repeat([&] { EXPECT_EQ(request(), (Allocations{.made = 1, .released = 1})); });
}

TEST_F(CommandPathCost, ARequestToAServerCallsTheSystemForTheTwoFrames) {
  const TempDir dir;
  CommandServer server(dir.file("server"));
  server.echo();
  const Descriptor asking = connect_to(dir.file("server"));
  run_pending();
  const int accepted = server.client(0)->fd;
  const Descriptor bystander = connect_to(dir.file("server"));
  run_pending();
  repeat([&] {
    send_all(asking.get(), frame(1, body));
    EXPECT_EQ(calls_of(accepted, [] { iterate(); }), (Calls{.reads = 2, .writes = 2}));
  });
  EXPECT_EQ(server.messages.size(), static_cast<std::size_t>(repetitions));
}

}  // namespace

#define COUNTED(result, name, parameters, arguments) \
  INTERPOSE(result, name, parameters) {              \
    count_other_call();                              \
    return REAL(name) arguments;                     \
  }

COUNTED(ssize_t, recv, (int fd, void *buffer, size_t length, int flags), (fd, buffer, length, flags))
COUNTED(ssize_t, send, (int fd, const void *buffer, size_t length, int flags), (fd, buffer, length, flags))
COUNTED(ssize_t, recvmsg, (int fd, msghdr *message, int flags), (fd, message, flags))
COUNTED(ssize_t, sendmsg, (int fd, const msghdr *message, int flags), (fd, message, flags))
COUNTED(ssize_t, readv, (int fd, const iovec *pieces, int count), (fd, pieces, count))
COUNTED(ssize_t, writev, (int fd, const iovec *pieces, int count), (fd, pieces, count))
COUNTED(int, getsockopt, (int fd, int level, int name, void *value, socklen_t *length),
        (fd, level, name, value, length))
COUNTED(int, usleep, (useconds_t microseconds), (microseconds))
COUNTED(int, nanosleep, (const timespec *time, timespec *left), (time, left))

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

extern "C" {

void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void *__libc_memalign(size_t alignment, size_t size);
void __libc_free(void *block);

void *malloc(size_t size) noexcept {
  count_allocation();
  return __libc_malloc(size);
}

void *calloc(size_t count, size_t size) noexcept {
  count_allocation();
  return __libc_calloc(count, size);
}

void *realloc(void *block, size_t size) noexcept {
  count_allocation();
  count_release(block);
  return __libc_realloc(block, size);
}

void *memalign(size_t alignment, size_t size) noexcept {
  count_allocation();
  return __libc_memalign(alignment, size);
}

void *aligned_alloc(size_t alignment, size_t size) noexcept {
  count_allocation();
  return __libc_memalign(alignment, size);
}

int posix_memalign(void **block, size_t alignment, size_t size) noexcept {
  count_allocation();
  *block = __libc_memalign(alignment, size);
  return *block != nullptr ? 0 : ENOMEM;
}

void free(void *block) noexcept {
  count_release(block);
  __libc_free(block);
}

}  // extern "C"

#endif
