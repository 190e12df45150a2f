// subject.h - the driver that is checked: a running one, or a command that is started as often as it takes.
#pragma once
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "handles.h"

namespace compliance {

class Subject {
  std::string path_;
  std::vector<std::string> command_;
  tools::UniqueFd output_;  // without a log: what a command has printed of late
  std::string log_;
  int start_timeout_ms_;
  pid_t pid_ = 0;
  bool path_is_ours_ = false;  // the command was started, so whatever is at the path comes from it

 public:
  // Without a command, the driver that listens on the path. What a command prints goes to the log, if there is one.
  Subject(std::string path, std::vector<std::string> command, std::string log, int start_timeout_ms);
  Subject(const Subject &) = delete;
  ~Subject();

  [[nodiscard]] const std::string &path() const { return path_; }
  [[nodiscard]] const std::vector<std::string> &command() const { return command_; }
  [[nodiscard]] bool was_started() const { return path_is_ours_; }
  [[nodiscard]] bool started_by_us() const { return !command_.empty(); }

  // Starts the command, if there is one, and waits until the socket accepts connections. The reason if it does not.
  std::optional<std::string> start();
  // The last line that a command has printed, as it may be printed again; empty if there is none.
  [[nodiscard]] std::string last_line() const;
  void forget_output() const;
  // Ends the command the hard way.
  void kill();
  // Kills it and removes its socket, so that nothing is left of it. A driver that was not started stays as it is.
  void clear_away();

  void signal(int number) const;
  // The wait status of a command that ends within this time.
  std::optional<int> wait(int limit_ms);
  [[nodiscard]] bool runs() const { return pid_ > 0; }
  // How a command that was not ended by these calls has ended; nothing while it runs.
  [[nodiscard]] std::optional<std::string> died(int limit_ms);
  // The process that listens, which need not be the one that was started.
  [[nodiscard]] static pid_t listener(int connected_fd);

  // A non-blocking connection; none if no process listens.
  [[nodiscard]] tools::UniqueFd connect() const;
};

// "ended with status 3", "was ended by signal 6 (Aborted)"
std::string describe_end(int wait_status);

}  // namespace compliance
