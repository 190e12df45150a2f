// Compiled with -O2, _FORTIFY_SOURCE and -fvisibility=hidden (tests/meson.build): the fortified headers define some of
// the replaced functions inline, and a replacement must be visible to the libraries all the same.
#include "interpose.h"

#include <fcntl.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <barrier>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "handles.h"
#include "temp_dir.h"

namespace {

using ptz_test::TempDir;

std::atomic<int> folders_made = 0, files_opened = 0, commands = 0, reads = 0, writes = 0;

constexpr guint counted_twice = 100;

}  // namespace

INTERPOSE(int, mkdir, (const char *path, mode_t mode)) {
  ++folders_made;
  return REAL(mkdir)(path, mode);
}

#define COUNT_OPENED(name)                                         \
  INTERPOSE(int, name, (const char *path, int flags, ...)) {       \
    va_list arguments;                                             \
    va_start(arguments, flags);                                    \
    const auto mode = static_cast<mode_t>(va_arg(arguments, int)); \
    va_end(arguments);                                             \
    ++files_opened;                                                \
    return REAL(name)(path, flags, mode);                          \
  }
COUNT_OPENED(open)
COUNT_OPENED(open64)

#define COUNT_COMMANDS(name)                          \
  INTERPOSE(int, name, (int fd, int command, ...)) {  \
    va_list arguments;                                \
    va_start(arguments, command);                     \
    void *const argument = va_arg(arguments, void *); \
    va_end(arguments);                                \
    ++commands;                                       \
    return REAL(name)(fd, command, argument);         \
  }
COUNT_COMMANDS(fcntl)
COUNT_COMMANDS(fcntl64)

INTERPOSE(ssize_t, read, (int fd, void *buffer, size_t length)) {
  ++reads;
  return REAL(read)(fd, buffer, length);
}

INTERPOSE(ssize_t, __read_chk, (int fd, void *buffer, size_t length, size_t buffer_size)) {
  ++reads;
  return REAL(__read_chk)(fd, buffer, length, buffer_size);
}

INTERPOSE(ssize_t, write, (int fd, const void *buffer, size_t length)) {
  ++writes;
  return REAL(write)(fd, buffer, length);
}

INTERPOSE(pid_t, getppid, ()) { return REAL(getppid)(); }

INTERPOSE(guint, g_list_length, (GList * list)) { return REAL(g_list_length)(list) + counted_twice; }

INTERPOSE(int, ptz_test_function_that_no_library_has, (int value)) {
  return REAL(ptz_test_function_that_no_library_has)(value);
}

namespace {

mode_t mode_of(const std::string &path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? status.st_mode & 0777U : 0;
}

struct Pipe {
  std::array<int, 2> fds{-1, -1};
  Pipe() { EXPECT_EQ(pipe(fds.data()), 0); }
  Pipe(const Pipe &) = delete;
  ~Pipe() {
    for (const int fd : fds) close(fd);
  }
};

TEST(Interpose, CallFromLibraryReachesReplacementAndRealFunction) {
  const TempDir dir;
  folders_made = 0;
  EXPECT_EQ(g_mkdir_with_parents(dir.file("a").c_str(), 0700), 0);
  EXPECT_EQ(folders_made, 1);
  EXPECT_EQ(mode_of(dir.file("a")), 0700U);
}

TEST(Interpose, FailureOfRealFunctionReachesCallerWithErrno) {
  const TempDir dir;
  errno = 0;
  EXPECT_EQ(mkdir(dir.path().c_str(), 0700), -1);
  EXPECT_EQ(errno, EEXIST);
}

TEST(Interpose, OptionalArgumentOfOpenReachesRealFunction) {
  const TempDir dir;
  const mode_t mask = umask(0);
  files_opened = 0;
  const int direct = open(dir.file("direct").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0640);
  EXPECT_TRUE(g_file_set_contents_full(dir.file("by_library").c_str(), "", 0, G_FILE_SET_CONTENTS_NONE, 0604, nullptr));
  umask(mask);
  close(direct);
  EXPECT_EQ(files_opened, 2);
  EXPECT_EQ(mode_of(dir.file("direct")), 0640U);
  EXPECT_EQ(mode_of(dir.file("by_library")), 0604U);
}

TEST(Interpose, OptionalArgumentOfFcntlReachesRealFunction) {
  constexpr int lowest = 100;
  const Pipe pipe;
  commands = 0;
  const int copy = fcntl(pipe.fds[0], F_DUPFD_CLOEXEC, lowest);
  EXPECT_GE(copy, lowest);
  EXPECT_EQ(fcntl(copy, F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(commands, 2);
  close(copy);
}

TEST(Interpose, FunctionWithFortifiedInlineBodyIsReplaced) {
  const Pipe pipe;
  std::array<char, 4> buffer{};
  volatile std::size_t length = buffer.size();  // unknown to the compiler: __read_chk
  reads = writes = 0;
  EXPECT_EQ(write(pipe.fds[1], "12345678", 8), 8);
  EXPECT_EQ(read(pipe.fds[0], buffer.data(), buffer.size()), 4);
  EXPECT_EQ(std::string(buffer.data(), buffer.size()), "1234");
  EXPECT_EQ(read(pipe.fds[0], buffer.data(), length), 4);
  EXPECT_EQ(std::string(buffer.data(), buffer.size()), "5678");
  EXPECT_EQ(reads, 2);
  EXPECT_EQ(writes, 1);
}

TEST(Interpose, ReplacementOfGlibFunctionMayChangeResultOfRealFunction) {
  const std::unique_ptr<GList, ptz_test::FreeWith<g_list_free>> list(g_list_prepend(nullptr, nullptr));
  EXPECT_EQ(g_list_length(list.get()), counted_twice + 1);
}

TEST(Interpose, ReplacementIsNoexcept) {
  static_assert(noexcept(interposed_read(0, nullptr, 0)));
  static_assert(noexcept(interposed_fcntl(0, 0, nullptr)));
}

TEST(Interpose, FirstCallFromManyThreadsAtOnceReachesRealFunction) {
  constexpr int thread_count = 8;
  const auto expected = static_cast<pid_t>(syscall(SYS_getppid));
  std::barrier start(thread_count);
  std::array<pid_t, thread_count> seen{};
  std::vector<std::thread> threads;
  threads.reserve(thread_count);
  for (pid_t &parent : seen) {
    threads.emplace_back([&] {
      start.arrive_and_wait();
      parent = getppid();
    });
  }
  for (std::thread &thread : threads) thread.join();
  for (const pid_t parent : seen) EXPECT_EQ(parent, expected);
}

// ThreadSanitizer's interceptors see that the write happens before the read. Without them it reports a data race.
TEST(Interpose, ReadOfPipeOrdersThreadsForThreadSanitizer) {
  const Pipe pipe;
  int value = 0;
  std::thread writer([&] {
    value = 1;
    EXPECT_EQ(write(pipe.fds[1], "", 1), 1);
  });
  char byte = 1;
  EXPECT_EQ(read(pipe.fds[0], &byte, 1), 1);
  EXPECT_EQ(value, 1);
  writer.join();
}

TEST(InterposeDeathTest, CallOnToFunctionThatNoLibraryHasAborts) {
  EXPECT_EXIT(interposed_ptz_test_function_that_no_library_has(1), testing::KilledBySignal(SIGABRT),
              "no library has the function ptz_test_function_that_no_library_has");
}

}  // namespace
