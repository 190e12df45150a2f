#include "answering_process.h"

#include <glib.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "contender.h"
#include "handles.h"

namespace {

constexpr char answer_flag[] = "--answer";
constexpr int link_of_answerer = 3;

}  // namespace

namespace bench {

void give_up(const char *what) {
  std::fprintf(stderr, "%s: %s\n", what, errno != 0 ? std::strerror(errno) : "no answer, or a wrong one");
  std::exit(2);
}

AnsweringProcess::AnsweringProcess(const char *way, const std::string &socket_path) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) < 0) give_up("socketpair");
  link_ = ends[0];
  // A fresh image instead of a fork: neither GLib's state nor its threads come along.
  const ptz_test::Text program(g_file_read_link("/proc/self/exe", nullptr));
  if (program == nullptr) give_up("/proc/self/exe");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], link_of_answerer);
  const char *arguments[] = {program.get(), answer_flag, way, socket_path.c_str(), nullptr};
  errno = posix_spawn(&process_, program.get(), &actions, nullptr, const_cast<char **>(arguments), environ);
  if (errno != 0) give_up("posix_spawn");
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
}

AnsweringProcess::~AnsweringProcess() {
  close(link_);
  kill(process_, SIGTERM);
  waitpid(process_, nullptr, 0);
}

void AnsweringProcess::wait_until_ready() const {
  char byte;
  if (read(link_, &byte, sizeof byte) != sizeof byte) give_up("the answering process is not there");
}

void announce_ready(int link) {
  const char byte = 0;
  if (write(link, &byte, sizeof byte) != sizeof byte) give_up("nobody waits for this process");
}

std::optional<int> answer_if_asked_to(int argc, char **argv) {
  if (argc != 4 || std::strcmp(argv[1], answer_flag) != 0) return std::nullopt;
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  const std::string way = argv[2];
  if (way == "bare") return answer_on_bare_stream(link_of_answerer);
  if (way == "prescribed") return answer_by_prescribed_calls(link_of_answerer, argv[3]);
  if (way == "command") return answer_on_command_channel(link_of_answerer, argv[3]);
  if (way == "gdbus") return answer_on_gdbus_peer(link_of_answerer);
  return 2;
}

}  // namespace bench
