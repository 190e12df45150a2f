// kit/link/handshake.h - what a link asks a driver before the first request of the daemon.
#pragma once
#include "link/call.h"

namespace ptz_kit {

struct DriverFacts {
  Text name;
  guint move = 0;
  guint extra = 0;
  guint protocol_version = 0;  // 0 before the first handshake
};

// The requests are sent all at once. A driver may refuse any of them: one that knows no property "protocol-version" has
// version 1, and one that does not tell its name or capabilities has none.
class Handshake {
 public:
  static constexpr std::size_t count = 3;

  // Forgets all answers.
  void begin(gint64 deadline_us);
  void end() { running_ = false; }
  [[nodiscard]] bool running() const { return running_; }
  [[nodiscard]] gint64 deadline_us() const { return deadline_us_; }
  [[nodiscard]] Call &question(std::size_t index) { return questions_[index]; }
  [[nodiscard]] bool answered() const;
  // False with an error if an answer is neither the reply that it should be nor an error reply.
  [[nodiscard]] bool read(DriverFacts &facts, GError **error) const;

 private:
  struct Question final : Call {
    Bytes reply;
    void take(std::span<const guint8> its_reply) override {
      reply.reset(g_bytes_new(its_reply.data(), its_reply.size()));
    }
    void settled() override {}
  };
  bool running_ = false;
  gint64 deadline_us_ = 0;
  Question questions_[count];
};

}  // namespace ptz_kit
