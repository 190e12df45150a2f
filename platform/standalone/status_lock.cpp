#include "status_lock.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <ctime>

#include "base/clock.h"

namespace ptz::platform {

namespace {

constexpr std::int64_t patience_ns = 100'000'000;
constexpr int max_spins = 64;
constexpr long max_sleep_ns = 400'000, step_aside_ns = 500'000;
constexpr Word max_token = (Word{1} << 62) - 1;
constexpr int max_token_attempts = 16;

void relax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

// Need not be secret: the lock on the token's byte makes it unique among live processes.
Word random_token() {
  Word token = 0;
  if (getrandom(&token, sizeof token, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof token)) {
    token = static_cast<Word>(clock_now_ns()) * 0x9E3779B97F4A7C15 ^ reinterpret_cast<std::uintptr_t>(&token);
  }
  return std::max(token & max_token, Word{1});
}

struct flock byte_lock(short type, Word token) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = static_cast<off_t>(token);
  lock.l_len = 1;
  return lock;
}
static_assert(sizeof(off_t) == 8);

int take_byte(int fd, Word token) {
  struct flock lock = byte_lock(F_WRLCK, token);
  return fcntl(fd, F_OFD_SETLK, &lock) == 0 ? 0 : errno;
}

bool replace(Word &owner, Word &expected, Word token) {
  return std::atomic_ref<Word>(owner).compare_exchange_strong(expected, token, std::memory_order_acq_rel);
}

}  // namespace

bool WriterPatience::sleep(long duration_ns) {
  const auto now_ns = clock_now_ns();
  if (is_spinning()) deadline_ns_ = now_ns + patience_ns;
  if (now_ns >= deadline_ns_) return false;
  const timespec pause = {0, static_cast<long>(std::min<std::int64_t>(duration_ns, deadline_ns_ - now_ns))};
  nanosleep(&pause, nullptr);
  return true;
}

bool WriterPatience::wait() {
  if (spins_ < max_spins) {
    ++spins_;
    relax();
    return true;
  }
  const bool has_slept = sleep(sleep_ns_);
  sleep_ns_ = std::min(sleep_ns_ * 2, max_sleep_ns);
  return has_slept;
}

void WriterPatience::step_aside() {
  spins_ = max_spins;
  sleep(step_aside_ns);
}

int WriterLock::enrol(UniqueFd fd) {
  struct stat status = {};
  if (fstat(fd.get(), &status) != 0) return errno;
  for (int attempt = 0; attempt < max_token_attempts; ++attempt) {
    const Word token = random_token();
    const int error = take_byte(fd.get(), token);
    if (error == EAGAIN || error == EACCES) continue;  // another process has this token
    if (error != 0) return error;
    fd_ = std::move(fd);
    token_ = token;
    device_ = status.st_dev;
    inode_ = status.st_ino;
    return 0;
  }
  return EBUSY;
}

void WriterLock::withdraw() {
  if (is_enrolled() && has_own_file()) fd_.reset();
  static_cast<void>(fd_.release());
  token_ = 0;
}

bool WriterLock::has_own_file() const {
  struct stat status = {};
  return fstat(fd_.get(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_;
}

bool WriterLock::is_intact(const SharedLock &shared) const {
  return is_enrolled() && load(shared.owner) != token_ && has_own_file() && take_byte(fd_.get(), token_) == 0;
}

bool WriterLock::is_dead(Word token) const {
  if (token > max_token) return true;
  // The token of this process would look dead. The word may hold it in a child that was made without fork handlers.
  if (token == token_ || !has_own_file()) return false;
  struct flock lock = byte_lock(F_RDLCK, token);
  return fcntl(fd_.get(), F_OFD_GETLK, &lock) == 0 && lock.l_type == F_UNLCK;
}

int WriterLock::lock(SharedLock &shared, WriterPatience &patience) const {
  if (!is_enrolled()) return ESTALE;
  const auto try_take = [&] {
    Word seen = 0;
    if (replace(shared.owner, seen, token_)) return true;
    return seen != 0 && !patience.is_spinning() && is_dead(seen) && replace(shared.owner, seen, token_);
  };
  return patience.take(shared.wanted, try_take) ? 0 : EBUSY;
}

void WriterLock::unlock(SharedLock &shared) const {
  Word expected = token_;  // not stored blindly: the lock may have been lost
  replace(shared.owner, expected, 0);
}

}  // namespace ptz::platform
