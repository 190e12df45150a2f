// tests/kit/link/answering_driver.h - a driver in a thread of its own, for calls that block the test.
#pragma once
#include <atomic>
#include <functional>
#include <thread>

#include "link_test.h"

namespace kit_link_test {

// Greets its one client, then hands each request to the function, with the descriptor to answer on, until either end
// hangs up.
class AnsweringDriver {
 public:
  using Answer = std::function<void(int fd, const Frame &request)>;

  AnsweringDriver(const std::string &path, Answer answer)
      : listener_(path), thread_([this, answer = std::move(answer)] { run(answer); }) {}
  AnsweringDriver(AnsweringDriver &&) = delete;
  ~AnsweringDriver() {
    hang_up();
    thread_.join();
  }
  void hang_up() {
    if (const int fd = client_; fd >= 0) shutdown(fd, SHUT_RDWR);
  }

  static void reply(int fd, const Frame &request, const std::string &body) {
    ptz_test::send_all(fd, ptz_test::frame(request.id, body));
  }

 private:
  void run(const Answer &answer) {
    const Descriptor fd = listener_.accept();
    client_ = fd.get();
    const Greeting greeting;
    int requests = 0;
    while (const std::optional<Frame> request = ptz_test::receive_frame(fd.get())) {
      if (++requests <= 3) {
        reply(fd.get(), *request, greeting.answer(request->body));
      } else {
        answer(fd.get(), *request);
      }
    }
    client_ = -1;
  }

  const Listener listener_;
  std::atomic<int> client_ = -1;
  std::thread thread_;
};

}  // namespace kit_link_test
