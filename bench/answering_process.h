// answering_process.h - the other process of a measurement: this program, started again to answer.
#pragma once
#include <sys/types.h>

#include <optional>
#include <string>

namespace bench {

class AnsweringProcess {
  pid_t process_ = -1;
  int link_ = -1;

 public:
  explicit AnsweringProcess(const char *way, const std::string &socket_path = "");
  AnsweringProcess(AnsweringProcess &&) = delete;
  ~AnsweringProcess();
  [[nodiscard]] int link() const { return link_; }
  // For a way that has to listen first.
  void wait_until_ready() const;
};

// From here on this thread stays on one core, and every answering process that it starts on another. False if this
// process may use only one core.
[[nodiscard]] bool stay_apart();

void announce_ready(int link);

// The exit status where this process was started to answer: call it before anything else in main().
[[nodiscard]] std::optional<int> answer_if_asked_to(int argc, char **argv);

[[noreturn]] void give_up(const char *what);

}  // namespace bench
