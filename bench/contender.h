// contender.h - the ways of asking another process that are measured side by side, each with the same body both ways.
#pragma once
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace bench {

using Bytes = std::span<const std::uint8_t>;

constexpr std::size_t body_max = 2552;

class Caller {
 public:
  virtual ~Caller() = default;
  // Asks once and waits. The answer is valid until the next call, and empty where there was none.
  [[nodiscard]] virtual Bytes ask(Bytes body) = 0;
};

// Keeps a number of requests under way at once, all in the thread of the default main context.
class PipelinedCaller {
  Bytes body_;
  unsigned to_send_ = 0, to_come_ = 0;
  bool failed_ = false;

  void send_next();

 public:
  virtual ~PipelinedCaller() = default;
  // False where a request could not be sent, or an answer was not the body again.
  [[nodiscard]] bool ask_all(Bytes body, unsigned requests, unsigned outstanding);

 protected:
  [[nodiscard]] virtual bool send(Bytes body) = 0;
  void answered(Bytes answer);
};

// Each of these starts a process of its own that answers with the body it was sent.
std::unique_ptr<Caller> bare_stream();
std::unique_ptr<Caller> prescribed_calls();
// The process that answers has so many other clients, which say nothing.
std::unique_ptr<Caller> command_channel(unsigned idle_clients = 0);
std::unique_ptr<Caller> gdbus_peer();
std::unique_ptr<PipelinedCaller> pipelined_command_channel();
std::unique_ptr<PipelinedCaller> pipelined_gdbus_peer();

// What runs in those processes. The link is a stream socket to the process that asks.
int answer_on_bare_stream(int link);
int answer_by_prescribed_calls(int link, const char *socket_path);
int answer_on_command_channel(int link, const char *socket_path);
int answer_on_gdbus_peer(int link);

}  // namespace bench
