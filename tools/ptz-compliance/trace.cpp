#include "trace.h"

namespace compliance {

namespace {

std::span<const guint8> bytes_of(std::string_view body) {
  return {reinterpret_cast<const guint8 *>(body.data()), body.size()};
}

}  // namespace

void Trace::sent(guint32 id, std::string_view body) {
  const gint64 now = g_get_monotonic_time();
  unanswered_[id] = now;
  motion_.add_request(now, id, bytes_of(body));
}

void Trace::received(guint32 id, std::string_view body) {
  const gint64 now = g_get_monotonic_time();
  const auto request = unanswered_.find(id);
  if (request == unanswered_.end()) return;
  latencies_us_.push_back(static_cast<double>(now - request->second));
  unanswered_.erase(request);
  motion_.add_reply(now, id, bytes_of(body));
}

}  // namespace compliance
