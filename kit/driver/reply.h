// kit/driver/reply.h - what the driver knows of a PTZKitReply, beside its public functions.
#pragma once
#include <ptz_kit_body.h>
#include <ptz_kit_reply.h>
#include <sys/types.h>

#include <span>

namespace ptz_kit {

// Sends what a reply is answered with. Main context.
class ReplyTarget {
 public:
  virtual void deliver(PTZKitReply *reply, std::span<const guint8> body) = 0;

 protected:
  ~ReplyTarget() = default;
};

struct Client;

struct Request {
  gint32 command;
  gpointer context;  // of the server, which its send frees; null for a request that no client waits for
  pid_t pid;
  gint64 uid;
  guint32 serial;
  Client *client = nullptr;  // counts the request; null if none does
  gint64 arrived_ns = 0;     // on the monotonic clock
};

// The target outlives the reply or calls expire() first. Returns a new reference.
[[nodiscard]] PTZKitReply *make_reply(ReplyTarget &target, const Request &request);
[[nodiscard]] const Request &request_of(PTZKitReply *reply);
[[nodiscard]] bool is_deferred(PTZKitReply *reply);

// Answers with the reply message of the command. Critical warning if the reply is to another command.
void answer(PTZKitReply *reply, gint32 command, gconstpointer message);

// Answers with error 7 and logs the reason, unless the request is answered.
void fail(PTZKitReply *reply, const char *reason);

// Answers with error 7, unless the answer is delivered. Later answers have no effect.
void expire(PTZKitReply *reply, const char *text);

// When the driver expires a deferred reply, on the monotonic clock; G_MAXINT64 if never, which it is at first.
void set_due(PTZKitReply *reply, gint64 due_us);
[[nodiscard]] gint64 due_of(PTZKitReply *reply);

}  // namespace ptz_kit
