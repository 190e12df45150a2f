#include "fixtures.h"

#include <mutex>

#include "clock.h"

namespace {

std::mutex messages_lock;
std::vector<ptz_test::GlibLogCapture::Message> captured;

void capture(const gchar *domain, GLogLevelFlags level, const gchar *text, gpointer) {
  const std::lock_guard lock(messages_lock);
  captured.push_back({domain != nullptr ? domain : "", level, text});
}

}  // namespace

namespace ptz_test {

GlibLogCapture::GlibLogCapture() {
  const std::lock_guard lock(messages_lock);
  captured.clear();
  previous_ = g_log_set_default_handler(capture, nullptr);
}

GlibLogCapture::~GlibLogCapture() { g_log_set_default_handler(previous_, nullptr); }

std::vector<GlibLogCapture::Message> GlibLogCapture::messages() const {
  const std::lock_guard lock(messages_lock);
  return captured;
}

std::size_t GlibLogCapture::criticals() const {
  std::size_t count = 0;
  for (const auto &message : messages()) count += (message.level & G_LOG_LEVEL_CRITICAL) != 0 ? 1 : 0;
  return count;
}

std::size_t GlibLogCapture::failed_check(const std::string &function, const std::string &expression) const {
  std::size_t count = 0;
  for (const auto &message : messages()) {
    const bool matches = (message.level & G_LOG_LEVEL_CRITICAL) != 0 &&
                         message.text == function + ": assertion '" + expression + "' failed";
    count += matches ? 1 : 0;
  }
  return count;
}

bool run_until(const std::function<bool()> &condition, int limit_ms) {
  const auto end = real_time_ms() + limit_ms;
  while (!condition()) {
    if (real_time_ms() >= end) return false;
    if (!g_main_context_iteration(nullptr, FALSE)) g_usleep(200);
  }
  return true;
}

void run_pending() {
  for (int rounds = 0; rounds < 10'000 && g_main_context_iteration(nullptr, FALSE); ++rounds) {
  }
}

int iterations_within(int milliseconds) {
  const guint wake_up = g_timeout_add(
      static_cast<guint>(milliseconds), [](gpointer) -> gboolean { return TRUE; }, nullptr);
  const auto end = real_time_ms() + milliseconds;
  int iterations = 0;
  for (; real_time_ms() < end; ++iterations) g_main_context_iteration(nullptr, TRUE);
  g_source_remove(wake_up);
  return iterations;
}

}  // namespace ptz_test
