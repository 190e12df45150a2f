#include "subject.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>

#include "plain_text.h"

namespace compliance {

namespace {
constexpr int look_again_us = 2'000;
}

std::string describe_end(int wait_status) {
  if (WIFSIGNALED(wait_status)) {
    const int number = WTERMSIG(wait_status);
    return "was ended by signal " + std::to_string(number) + " (" + strsignal(number) + ")";
  }
  return "ended with status " + std::to_string(WEXITSTATUS(wait_status));
}

Subject::Subject(std::string path, std::vector<std::string> command, std::string log, int start_timeout_ms)
    : path_(std::move(path)),
      command_(std::move(command)),
      output_(log.empty() ? memfd_create("output", MFD_CLOEXEC) : -1),
      log_(output_       ? "/proc/self/fd/" + std::to_string(output_.get())
           : log.empty() ? "/dev/null"
                         : std::move(log)),
      start_timeout_ms_(start_timeout_ms) {}

Subject::~Subject() { clear_away(); }

std::optional<std::string> Subject::start() {
  if (started_by_us()) {
    if (connect()) return "another driver listens on " + path_;
    std::vector<char *> words;
    for (std::string &word : command_) words.push_back(word.data());
    words.push_back(nullptr);
    const int log = open(log_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (log < 0) return "cannot write " + log_ + ": " + g_strerror(errno);
    const tools::UniqueFd owner(log);
    GError *error = nullptr;
    const auto set_up = [](gpointer) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      ::signal(SIGPIPE, SIG_DFL);  // as a service manager would start it, not as this tool has it
    };
    if (g_spawn_async_with_fds(nullptr, words.data(), nullptr,
                               GSpawnFlags(G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD), set_up, nullptr, &pid_, -1,
                               log, log, &error) == FALSE) {
      pid_ = 0;
      std::string reason = error->message;
      g_error_free(error);
      return reason;
    }
    path_is_ours_ = true;
  }
  const gint64 deadline = g_get_monotonic_time() + gint64{start_timeout_ms_} * 1000;
  while (!connect()) {
    if (const auto end = died(0)) {
      const std::string line = last_line();
      return "the driver " + *end + " before it listened on " + path_ + (line.empty() ? "" : "; it said: " + line);
    }
    if (!started_by_us()) return "nobody listens on " + path_;
    if (g_get_monotonic_time() >= deadline) {
      return "the driver does not listen on " + path_ + " within " + std::to_string(start_timeout_ms_) + " ms";
    }
    g_usleep(look_again_us);
  }
  return std::nullopt;
}

void Subject::forget_output() const {
  if (output_ && ftruncate(output_.get(), 0) != 0) return;  // it is kept
}

std::string Subject::last_line() const {
  std::array<char, 2000> bytes;
  const tools::UniqueFd log(open(log_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (!log || fstat(log.get(), &status) != 0 || !S_ISREG(status.st_mode)) return "";
  const off_t begin = std::max<off_t>(0, status.st_size - static_cast<off_t>(bytes.size()));
  const ssize_t count = pread(log.get(), bytes.data(), bytes.size(), begin);
  std::string text(bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(0, count)));
  text.erase(text.find_last_not_of(" \n") + 1);
  return tools::plain_text(text.substr(text.rfind('\n') + 1));
}

void Subject::kill() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  pid_ = 0;
}

void Subject::clear_away() {
  kill();
  if (path_is_ours_) unlink(path_.c_str());
}

void Subject::signal(int number) const {
  if (pid_ > 0) ::kill(pid_, number);
}

std::optional<int> Subject::wait(int limit_ms) {
  const gint64 deadline = g_get_monotonic_time() + gint64{limit_ms} * 1000;
  int status = 0;
  while (pid_ > 0 && waitpid(pid_, &status, WNOHANG) == 0) {
    if (g_get_monotonic_time() >= deadline) return std::nullopt;
    g_usleep(look_again_us);
  }
  pid_ = 0;
  return status;
}

std::optional<std::string> Subject::died(int limit_ms) {
  if (!runs()) return std::nullopt;
  const auto status = wait(limit_ms);
  return status ? std::optional(describe_end(*status)) : std::nullopt;
}

pid_t Subject::listener(int connected_fd) {
  ucred peer{};
  socklen_t size = sizeof(peer);
  return getsockopt(connected_fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 ? peer.pid : 0;
}

tools::UniqueFd Subject::connect() const {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path_.size() >= sizeof(address.sun_path)) return tools::UniqueFd();
  std::memcpy(address.sun_path, path_.data(), path_.size());
  tools::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd || ::connect(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0) {
    return tools::UniqueFd();
  }
  return fd;
}

}  // namespace compliance
