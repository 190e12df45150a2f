#include "trap.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "clock.h"

namespace nth_call {

namespace {

constexpr std::size_t calls_max = 96;  // of the table

// Trapped for the virtual time, or to know the descriptors of main loops.
constexpr long others[] = {SYS_clock_nanosleep, SYS_nanosleep};

constexpr int peer_moment_ms = 150, loop_moment_ms = 2;
constexpr int interruptions = 20;
constexpr long moment_ns = 20'000;
constexpr std::size_t known_descriptors = 4096;

Fault fault;
std::atomic<bool> armed = false;
std::atomic<int> matches = 0, failures = 0;
std::atomic<std::uint32_t> made[calls_max], all_made;
std::atomic<bool> is_eventfd[known_descriptors];
__attribute__((tls_model("initial-exec"))) thread_local int peers_here = 0;

}  // namespace

// The one place that the filter lets all calls through.
extern "C" long nth_call_kernel(long number, long a, long b, long c, long d, long e, long f);
extern "C" const char nth_call_kernel_end[];

#if defined(__x86_64__)
#define ARCHITECTURE AUDIT_ARCH_X86_64
asm(R"(
.text
.globl nth_call_kernel
.type nth_call_kernel, @function
nth_call_kernel:
  mov %rdi, %rax
  mov %rsi, %rdi
  mov %rdx, %rsi
  mov %rcx, %rdx
  mov %r8, %r10
  mov %r9, %r8
  mov 8(%rsp), %r9
  syscall
  ret
.globl nth_call_kernel_end
nth_call_kernel_end:
.size nth_call_kernel, . - nth_call_kernel
)");
#elif defined(__aarch64__)
#define ARCHITECTURE AUDIT_ARCH_AARCH64
asm(R"(
.text
.globl nth_call_kernel
.type nth_call_kernel, %function
nth_call_kernel:
  mov x8, x0
  mov x0, x1
  mov x1, x2
  mov x2, x3
  mov x3, x4
  mov x4, x5
  mov x5, x6
  svc 0
  ret
.globl nth_call_kernel_end
nth_call_kernel_end:
.size nth_call_kernel, . - nth_call_kernel
)");
#endif

#ifdef ARCHITECTURE

namespace {

struct Registers {
  long number, a, b, c, d, e, f;
};

Registers registers_of(const ucontext_t *context) {
#if defined(__x86_64__)
  const auto &r = context->uc_mcontext.gregs;
  return {r[REG_RAX], r[REG_RDI], r[REG_RSI], r[REG_RDX], r[REG_R10], r[REG_R8], r[REG_R9]};
#else
  const auto &r = context->uc_mcontext.regs;
  return {static_cast<long>(r[8]), static_cast<long>(r[0]), static_cast<long>(r[1]), static_cast<long>(r[2]),
          static_cast<long>(r[3]), static_cast<long>(r[4]), static_cast<long>(r[5])};
#endif
}

void set_result(ucontext_t *context, long result) {
#if defined(__x86_64__)
  context->uc_mcontext.gregs[REG_RAX] = result;
#else
  context->uc_mcontext.regs[0] = static_cast<unsigned long>(result);
#endif
}

long kernel(const Registers &r) { return nth_call_kernel(r.number, r.a, r.b, r.c, r.d, r.e, r.f); }

std::size_t place_of(long number) {
  std::size_t place = 0;
  const auto calls = fallible_calls();
  while (place < calls.size() && calls[place].number != number) ++place;
  return place;
}

bool is_main_loops(long fd) { return fd >= 0 && fd < static_cast<long>(known_descriptors) && is_eventfd[fd]; }

bool is_poll(long number) {
#ifdef SYS_poll
  if (number == SYS_poll) return true;
#endif
  return number == SYS_ppoll;
}

bool is_lock(long command) {
  return command == F_SETLK || command == F_SETLKW || command == F_OFD_SETLK || command == F_OFD_SETLKW;
}

// The main loop's own waits and wake-ups are GLib's matter. Memory that is not a file's is malloc's.
bool is_fallible(const Registers &r) {
  switch (r.number) {
    case SYS_read:
    case SYS_write:
      return !is_main_loops(r.a) && r.a > 2;
    case SYS_close:
      return !is_main_loops(r.a);
    case SYS_mmap:
      return static_cast<int>(r.e) >= 0;
    // A lock can always be given back.
    case SYS_fcntl:
      return !is_lock(r.b) || reinterpret_cast<const struct flock *>(r.c)->l_type != F_UNLCK;
    default:
      return !is_poll(r.number) || (r.b == 1 && !is_main_loops(reinterpret_cast<const pollfd *>(r.a)->fd));
  }
}

long sleep_a_moment(long nanoseconds) {
  timespec moment = {0, std::min(nanoseconds, moment_ns)};
  nth_call_kernel(SYS_nanosleep, reinterpret_cast<long>(&moment), 0, 0, 0, 0, 0);
  ptz_test::advance_clock(std::max(nanoseconds / 1'000'000, 1L));
  return 0;
}

// A peer, which is a thread, gets longer to answer than a timer of the main loop to become due.
long wait_a_moment(Registers r) {
  const bool is_loop = is_poll(r.number) && r.b > 0 && is_main_loops(reinterpret_cast<const pollfd *>(r.a)->fd);
  const int moment_ms = is_loop ? loop_moment_ms : peer_moment_ms;
  timespec moment = {0, moment_ms * 1'000'000};
  long wanted_ms = -1;
#ifdef SYS_poll
  if (r.number == SYS_poll) {
    wanted_ms = r.c;
    if (wanted_ms > moment_ms) r.c = moment_ms;
  }
#endif
  if (r.number == SYS_ppoll || r.number == SYS_pselect6) {
    long &time = r.number == SYS_ppoll ? r.c : r.e;
    if (time != 0) {
      const auto *wanted = reinterpret_cast<const timespec *>(time);
      wanted_ms = wanted->tv_sec * 1000 + wanted->tv_nsec / 1'000'000;
    }
    if (wanted_ms > moment_ms) time = reinterpret_cast<long>(&moment);
  }
  const long result = kernel(r);
  if (result == 0 && wanted_ms > moment_ms) ptz_test::advance_clock(wanted_ms - moment_ms + 1);
  return result;
}

long carry_out(const Registers &r) {
  switch (r.number) {
    case SYS_nanosleep:
    case SYS_clock_nanosleep: {
      const auto *time = reinterpret_cast<const timespec *>(r.number == SYS_nanosleep ? r.a : r.c);
      if (r.number == SYS_clock_nanosleep && r.b != 0) return kernel(r);  // until a moment
      return sleep_a_moment(time->tv_sec * 1'000'000'000 + time->tv_nsec);
    }
    case SYS_eventfd2: {
      const long fd = kernel(r);
      if (fd >= 0 && fd < static_cast<long>(known_descriptors)) is_eventfd[fd] = true;
      return fd;
    }
    case SYS_close:
      if (is_main_loops(r.a)) is_eventfd[r.a] = false;
      return kernel(r);
    default:
      return is_poll(r.number) || r.number == SYS_pselect6 ? wait_a_moment(r) : kernel(r);
  }
}

bool fails_now(const Registers &r) {
  if (!armed || r.number != fault.call) return false;
  // Permission is asked for by path only.
  if (r.number == SYS_newfstatat && (r.d & AT_EMPTY_PATH) != 0 && fault.error == EACCES) return false;
  const int match = ++matches;
  // Signals do not come for ever: what is interrupted may be repeated without a limit.
  const int last = !fault.onwards ? fault.nth : fault.error == EINTR ? fault.nth + interruptions : INT_MAX;
  return match >= fault.nth && match <= last;
}

// Linux frees the number of a descriptor even if close(2) fails.
long fail(Registers r) {
  ++failures;
  if (r.number == SYS_close) carry_out(r);
  if (fault.error != short_transfer) return -fault.error;
  if (r.c > 1) r.c = 1;
  return kernel(r);
}

void on_trap(int, siginfo_t *, void *data) {
  auto *context = static_cast<ucontext_t *>(data);
  const Registers r = registers_of(context);
  if (peers_here > 0 || !is_fallible(r)) {
    set_result(context, peers_here > 0 ? kernel(r) : carry_out(r));
    return;
  }
  if (armed) {
    const std::size_t place = place_of(r.number);
    if (place < calls_max) ++made[place];
    ++all_made;
  }
  set_result(context, fails_now(r) ? fail(r) : carry_out(r));
}

sock_filter statement(std::uint16_t code, std::uint32_t k) { return {code, 0, 0, k}; }

sock_filter jump(std::uint16_t condition, std::uint32_t k, std::uint8_t if_true, std::uint8_t if_false) {
  return {static_cast<std::uint16_t>(BPF_JMP | condition | BPF_K), if_true, if_false, k};
}

std::vector<sock_filter> filter() {
  const auto begin = reinterpret_cast<std::uint64_t>(&nth_call_kernel);
  const auto end = reinterpret_cast<std::uint64_t>(nth_call_kernel_end);
  const auto load = [](std::size_t offset) {
    return statement(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(offset));
  };
  constexpr auto ip = offsetof(seccomp_data, instruction_pointer);
  std::vector<sock_filter> program = {
      load(offsetof(seccomp_data, arch)),
      jump(BPF_JEQ, ARCHITECTURE, 1, 0),
      statement(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      // Little-endian: the high word is the second.
      load(ip + 4),
      jump(BPF_JEQ, static_cast<std::uint32_t>(begin >> 32), 0, 4),
      load(ip),
      jump(BPF_JGE, static_cast<std::uint32_t>(begin), 0, 2),
      jump(BPF_JGT, static_cast<std::uint32_t>(end), 1, 0),
      statement(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      load(offsetof(seccomp_data, nr)),
  };
  const auto add = [&](long number) {
    program.push_back(jump(BPF_JEQ, static_cast<std::uint32_t>(number), 0, 1));
    program.push_back(statement(BPF_RET | BPF_K, SECCOMP_RET_TRAP));
  };
  for (const FallibleCall &call : fallible_calls()) add(call.number);
  for (const long number : others) add(number);
  program.push_back(statement(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  return program;
}

void find_main_loops() {
  DIR *folder = opendir("/proc/self/fd");
  if (folder == nullptr) return;
  while (const dirent *entry = readdir(folder)) {
    char target[64];
    const ssize_t length = readlinkat(dirfd(folder), entry->d_name, target, sizeof target);
    const bool is_one =
        length > 0 && std::string(target, static_cast<std::size_t>(length)).find("[eventfd]") != std::string::npos;
    const int fd = std::atoi(entry->d_name);
    if (fd < static_cast<int>(known_descriptors)) is_eventfd[fd] = is_one;
  }
  closedir(folder);
}

}  // namespace

bool install_trap() {
  find_main_loops();
  struct sigaction action = {};
  action.sa_sigaction = on_trap;
  action.sa_flags = SA_SIGINFO | SA_NODEFER;
  sigaction(SIGSYS, &action, nullptr);
  auto program = filter();
  const sock_fprog code = {static_cast<unsigned short>(program.size()), program.data()};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &code) == 0;
}

#else

bool install_trap() { return false; }

#endif

void arm(const Fault &next) {
  fault = next;
  matches = failures = 0;
  for (auto &count : made) count = 0;
  all_made = 0;
  armed = true;
}

int disarm() {
  armed = false;
  return failures;
}

std::uint32_t calls_made(std::size_t place) { return made[place]; }

std::uint32_t all_calls_made() { return all_made; }

bool is_peer() { return peers_here > 0; }

AsPeer::AsPeer() { ++peers_here; }

AsPeer::~AsPeer() { --peers_here; }

}  // namespace nth_call
