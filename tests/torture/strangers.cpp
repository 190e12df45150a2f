// Other users at the folders of the services, with the modes that the packages give them (2770, group of the members).
// A stranger is refused everything. A member may use the services; the table in SECURITY.md says what else.
//
//   strangers
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <filesystem>

#include "param_workload.h"
#include "status_group.h"
#include "torture.h"

namespace {

using namespace torture;

constexpr uid_t user = 65534;
constexpr gid_t members = 54321, no_group = 54322;

struct Result {
  int allowed, refused;
  char names[1000];
};

void note_result(Result &result, bool allowed, const char *name) {
  ++(allowed ? result.allowed : result.refused);
  if (allowed) std::strncat(std::strncat(result.names, " ", sizeof result.names - 2), name, 100);
}

bool may_open(const std::string &path, int flags) {
  const int fd = open(path.c_str(), flags | O_CLOEXEC);
  if (fd >= 0) close(fd);
  return fd >= 0;
}

bool may_connect(const std::string &path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool connected = connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
  close(fd);
  return connected;
}

bool may_list(const std::string &path) {
  DIR *folder = opendir(path.c_str());
  if (folder != nullptr) closedir(folder);
  return folder != nullptr;
}

int try_all(const std::string &run, const std::string &state, gid_t group, Result &result) {
  if (setgroups(1, &group) != 0 || setgid(group) != 0 || setresuid(user, user, user) != 0) return skipped;
  Related values;
  std::string value;
  note_result(result, values.read("G") == related_values, "status-read");
  note_result(result, values.write("G", 2) == 0, "status-write");
  note_result(result, status_store_create_group("Mine", 100, 0) == 0, "status-create");
  note_result(result, get("root.A.B", value) == 0, "parameter-read");
  note_result(result, set("root.A.B", "2") == 0, "parameter-write");
  note_result(result, sync_tree() == 0, "parameter-sync");
  note_result(result, may_connect(run + "/driver.socket"), "connect");
  note_result(result, may_list(run) || may_list(state), "list");
  note_result(result, may_open(run + "/G.status", O_RDONLY), "status-open");
  note_result(result, may_open(state + "/params.db", O_RDONLY), "database-open");
  note_result(result, may_open(state + "/params.db", O_RDWR), "database-open-for-writing");
  note_result(result, truncate((run + "/G.status").c_str(), 10) == 0, "status-truncate");
  note_result(result, unlink((run + "/G.status").c_str()) == 0, "status-unlink");
  note_result(result, unlink((state + "/params.db-lock").c_str()) == 0, "lock-unlink");
  return 0;
}

int listen_at(const std::string &path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 || listen(fd, 8) != 0) std::abort();
  chmod(path.c_str(), 0660);
  chown(path.c_str(), 0, members) == 0 ? void() : std::abort();
  return fd;
}

}  // namespace

int main(int, char **) {
  if (geteuid() != 0) {
    std::printf("only root can become another user\n");
    return skipped;
  }
  begin_log();
  const TreeFolder tree;
  const StatusFolder status;
  const std::string run = status.dir.path(), state = tree.file("state");
  chmod(std::filesystem::path(state).parent_path().c_str(), 0755);
  for (const auto &folder : {run, state}) {
    if (chown(folder.c_str(), 0, members) != 0 || chmod(folder.c_str(), 02770) != 0) return skipped;
  }
  wait_for(start([] {
    status_store_create_group("G", 2048, 0);
    Related().write("G", 1);
    set("root.A.B", "1");
    return sync_tree();
  }));
  const int socket = listen_at(run + "/driver.socket");
  auto &stranger = *shared<Result>(), &member = *shared<Result>();
  const int first = wait_for(start([&] { return try_all(run, state, no_group, stranger); }));
  const int second = wait_for(start([&] { return try_all(run, state, members, member); }));
  close(socket);
  std::printf("stranger may:%s\nmember may:%s\n", stranger.names, member.names);
  return finish(first == 0 && second == 0 && stranger.allowed == 0 && member.refused == 0,
                "a stranger is refused %d of %d; a member may do %d of %d", stranger.refused,
                stranger.refused + stranger.allowed, member.allowed, member.refused + member.allowed);
}
