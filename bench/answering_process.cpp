#include "answering_process.h"

#include <glib.h>
#include <sched.h>
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

struct CorePair {
  int asking, answering;
};
std::optional<CorePair> cores_apart;

void stay_on(int core) {
  cpu_set_t cores;
  CPU_ZERO(&cores);
  CPU_SET(core, &cores);
  if (sched_setaffinity(0, sizeof cores, &cores) < 0) bench::give_up("sched_setaffinity");
}

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
  if (cores_apart) stay_on(cores_apart->answering);  // inherited by the process
  const char *arguments[] = {program.get(), answer_flag, way, socket_path.c_str(), nullptr};
  errno = posix_spawn(&process_, program.get(), &actions, nullptr, const_cast<char **>(arguments), environ);
  if (errno != 0) give_up("posix_spawn");
  if (cores_apart) stay_on(cores_apart->asking);
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

bool stay_apart() {
  cpu_set_t cores;
  if (sched_getaffinity(0, sizeof cores, &cores) < 0 || CPU_COUNT(&cores) < 2) return false;
  const auto first_from = [&cores](int core) {
    while (!CPU_ISSET(core, &cores)) ++core;
    return core;
  };
  const int asking = first_from(0);
  cores_apart = {asking, first_from(asking + 1)};
  stay_on(asking);
  return true;
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
