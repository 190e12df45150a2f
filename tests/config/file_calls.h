// tests/config/file_calls.h - what the library reaches files and child processes with: a test may lead a path to a file
// of its own, let a call fail, and see or replace the commands that are given to the shell.
//
// Calls are seen from every thread of the test program, whether the library or GLib makes them.
#pragma once
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace ptz_test {

// While it lives, whoever opens, examines or asks for one path reaches another: for files at places that only the
// superuser may fill.
class Redirect {
  std::string from_;

 public:
  Redirect(std::string from, std::string to);
  Redirect(const Redirect &) = delete;
  ~Redirect();
};

enum class Failing {
  open,         // every way to open a file, with this error
  fsync,        // with this error
  start,        // popen, with this error
  wait,         // pclose, which ends the child process all the same, with this error
  grow,         // GLib's reallocation that may fail
  convert,      // g_convert, with an error of its own
  convert_mute  // g_convert, without any error
};

// The message of the error that a failing g_convert sets.
constexpr std::string_view conversion_message = "no such %s table";

// While it lives, lets calls fail: those that concern one path, or all; always, or after a number that succeed.
class FileFault {
  std::size_t number_;

 public:
  struct Limits {
    std::string path = "";
    int skip = 0;
  };
  FileFault(Failing what, int error, Limits limits);
  explicit FileFault(Failing what, int error = 0) : FileFault(what, error, Limits{}) {}
  FileFault(const FileFault &) = delete;
  ~FileFault();
  [[nodiscard]] int hits() const;
};

// While it lives, and until it lets go, whoever opens the path waits.
class Hold {
  struct State;
  std::shared_ptr<State> state_;
  std::string path_;

 public:
  explicit Hold(std::string path);
  Hold(const Hold &) = delete;
  ~Hold();
  void wait_until_reached() const;
  void let_go() const;
};

// While it lives, keeps the commands that are started with popen; what the handler returns is run in their place.
class Commands {
 public:
  struct Command {
    std::string text;
    std::string mode;
    bool operator==(const Command &) const = default;
  };
  using Handler = std::function<std::string(const std::string &command)>;
  explicit Commands(Handler handler = {});
  Commands(const Commands &) = delete;
  ~Commands();
  [[nodiscard]] std::vector<Command> started() const;
};

void write_file(const std::string &path, std::string_view bytes);
[[nodiscard]] std::string read_file(const std::string &path);
[[nodiscard]] std::size_t open_descriptors();

}  // namespace ptz_test
