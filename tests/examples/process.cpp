#include "process.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "fixtures.h"
#include "temp_dir.h"

namespace ptz_test {

namespace {

// Where drivers of other tests, and those of this machine, are not seen.
void use_own_runtime_directory() {
  static const TempDir directory;
  setenv("PTZ_PLATFORM_RUNTIME_DIR", directory.path().c_str(), 0);
}

}  // namespace

Process::Process(const char *program, const std::vector<std::string> &arguments, const std::string &output) {
  std::vector<char *> words = {const_cast<char *>(program)};
  for (const std::string &argument : arguments) words.push_back(const_cast<char *>(argument.c_str()));
  words.push_back(nullptr);
  use_own_runtime_directory();
  pid_ = fork();
  if (pid_ != 0) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const int fd = open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  dup2(fd, STDOUT_FILENO);
  dup2(fd, STDERR_FILENO);
  execv(program, words.data());
  _exit(127);
}

Process::~Process() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

void Process::signal(int number) const { kill(pid_, number); }

int Process::wait() {
  int status = 0;
  if (!run_until([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, 30'000)) return -1;
  pid_ = 0;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string contents(const std::string &file) {
  std::ifstream in(file);
  return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace ptz_test
