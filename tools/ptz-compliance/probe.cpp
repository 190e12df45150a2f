#include <cstdarg>

#include "check.h"
#include "link.h"

namespace compliance {

namespace {
constexpr std::size_t kept_entries = 8;
constexpr std::size_t kept_bytes = 64;
}  // namespace

void Probe::decide(std::optional<Result> verdict, const char *format, va_list arguments) {
  if (decided()) return;
  const Text text(g_strdup_vprintf(format, arguments));
  remark_ = text.get();
  verdict_ = verdict;
}

void Probe::fail(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  decide(Result::failed, format, arguments);
  va_end(arguments);
}

void Probe::fail_unless(bool condition, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  if (!condition) decide(Result::failed, format, arguments);
  va_end(arguments);
}

void Probe::not_applicable(const std::string &answer, const char *reason, ...) {
  if (!decided()) answer_ = answer;
  va_list arguments;
  va_start(arguments, reason);
  decide(Result::not_applicable, reason, arguments);
  va_end(arguments);
}

void Probe::note(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  decide(std::nullopt, format, arguments);
  va_end(arguments);
}

void Probe::overrule(const std::string &reason) {
  remark_ = result() == Result::failed ? remark_ + "; " + reason : reason;
  verdict_ = Result::failed;
  answer_.clear();
}

Link Probe::connect() {
  ++clients_;
  UniqueFd fd = decided() ? UniqueFd() : subject_.connect();
  if (!fd) fail("client %d cannot connect to %s", clients_, subject_.path().c_str());
  return Link(*this, std::move(fd), clients_);
}

void Probe::record(Traffic::Direction direction, int client, std::string_view bytes) {
  if (traffic_.size() == kept_entries) traffic_.pop_front();
  traffic_.push_back({direction, client, bytes.size(), std::string(bytes.substr(0, kept_bytes))});
}

}  // namespace compliance
