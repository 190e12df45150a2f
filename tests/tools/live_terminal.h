// live_terminal.h - ptzctl on a pseudo-terminal: keys go in, and the screen is read. A VT52, because it can do little.
#pragma once
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

namespace ptz_test {

class Terminal {
  pid_t child_ = -1;
  int fd_ = -1;
  std::vector<std::string> screen_;
  std::size_t row_ = 0, column_ = 0, columns_;
  std::string sequence_;

  void put(char byte) {
    if (!sequence_.empty() || byte == '\x1b') return put_escaped(byte);
    if (byte == '\r') {
      column_ = 0;
    } else if (byte == '\n') {
      if (row_ + 1 < screen_.size()) {
        ++row_;
      } else {
        screen_.erase(screen_.begin());
        screen_.emplace_back(columns_, ' ');
      }
    } else if (byte == '\b') {
      if (column_ > 0) --column_;
    } else if (static_cast<unsigned char>(byte) >= ' ' && column_ < columns_) {
      screen_[row_][column_++] = byte;
    }
  }
  void put_escaped(char byte) {
    sequence_ += byte;
    if (sequence_.size() < 2 || (sequence_[1] == 'Y' && sequence_.size() < 4)) return;
    switch (sequence_[1]) {
      case 'Y':
        row_ = std::min<std::size_t>(static_cast<std::size_t>(sequence_[2] - ' '), screen_.size() - 1);
        column_ = static_cast<std::size_t>(static_cast<unsigned char>(sequence_[3]) - ' ');
        break;
      case 'H':
        row_ = column_ = 0;
        break;
      case 'A':
        row_ -= row_ > 0 ? 1 : 0;
        break;
      case 'B':
        row_ += row_ + 1 < screen_.size() ? 1 : 0;
        break;
      case 'C':
        ++column_;
        break;
      case 'D':
        column_ -= column_ > 0 ? 1 : 0;
        break;
      case 'I':  // upwards, with scrolling
        if (row_ > 0) {
          --row_;
        } else {
          screen_.insert(screen_.begin(), std::string(columns_, ' '));
          screen_.pop_back();
        }
        break;
      case 'J':
        for (std::size_t i = row_ + 1; i < screen_.size(); ++i) screen_[i].assign(columns_, ' ');
        [[fallthrough]];
      case 'K':
        if (column_ < columns_) screen_[row_].replace(column_, std::string::npos, columns_ - column_, ' ');
        break;
      default:
        break;
    }
    sequence_.clear();
  }
  // False if nothing more comes.
  bool read_some(int limit_ms) {
    pollfd ready = {fd_, POLLIN, 0};
    if (poll(&ready, 1, limit_ms) <= 0) return false;
    char bytes[4096];
    const ssize_t count = read(fd_, bytes, sizeof bytes);
    for (ssize_t i = 0; i < count; ++i) put(bytes[i]);
    return count > 0;
  }

 public:
  Terminal(const std::vector<std::string> &arguments, unsigned short rows, unsigned short columns)
      : screen_(rows, std::string(columns, ' ')), columns_(columns) {
    std::vector<char *> words = {const_cast<char *>(PTZCTL)};
    for (const auto &argument : arguments) words.push_back(const_cast<char *>(argument.c_str()));
    words.push_back(nullptr);
    const winsize size = {rows, columns, 0, 0};
    child_ = forkpty(&fd_, nullptr, nullptr, &size);
    if (child_ != 0) return;
    setenv("TERM", "vt52", 1);
    execv(PTZCTL, words.data());
    _exit(127);
  }
  Terminal(const Terminal &) = delete;
  ~Terminal() {
    if (child_ > 0) {
      kill(child_, SIGKILL);
      waitpid(child_, nullptr, 0);
    }
    close(fd_);
  }
  [[nodiscard]] std::string text() const {
    std::string all;
    for (const auto &line : screen_) all += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
    return all;
  }
  [[nodiscard]] std::string line(std::size_t row) const { return screen_.at(row); }
  [[nodiscard]] bool has(const std::string &part) const { return text().find(part) != std::string::npos; }
  // Reads until the screen is so; false if it is not within ten seconds.
  bool until(const std::function<bool()> &is_so) {
    for (int i = 0; i < 1000 && !is_so(); ++i) read_some(10);
    return is_so();
  }
  void read_for(int milliseconds) {
    for (int i = 0; i < milliseconds / 10; ++i) read_some(10);
  }
  bool until(const std::string &part) {
    return until([&] { return has(part); });
  }
  void type(const std::string &keys) const {
    EXPECT_EQ(write(fd_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }
  void interrupt() const { kill(child_, SIGINT); }
  void resize(unsigned short rows, unsigned short columns) {
    columns_ = columns;
    screen_.assign(rows, std::string(columns, ' '));
    row_ = column_ = 0;
    const winsize size = {rows, columns, 0, 0};
    EXPECT_EQ(ioctl(fd_, TIOCSWINSZ, &size), 0);
  }
  // Its exit status; -1 if a signal has ended it, or if it does not end.
  int wait() {
    for (int i = 0; i < 1000; ++i) {
      int status = 0;
      if (waitpid(child_, &status, WNOHANG) == child_) {
        child_ = -1;
        EXPECT_FALSE(WIFSIGNALED(status)) << "signal " << WTERMSIG(status);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      }
      if (!read_some(10)) usleep(10'000);  // once it has left the terminal, there is nothing to wait for
    }
    return -1;
  }
};

}  // namespace ptz_test
