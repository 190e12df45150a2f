#include "select_hook.h"

#include <sys/select.h>

#include <mutex>

#include "interpose.h"

namespace {

std::mutex handler_lock;
ptz_test::SelectHook::Handler handler;

}  // namespace

namespace ptz_test {

SelectHook::SelectHook(Handler new_handler) {
  const std::lock_guard lock(handler_lock);
  handler = std::move(new_handler);
}

SelectHook::~SelectHook() {
  const std::lock_guard lock(handler_lock);
  handler = nullptr;
}

}  // namespace ptz_test

INTERPOSE(int, select, (int count, fd_set *readable, fd_set *writable, fd_set *exceptional, timeval *timeout)) {
  ptz_test::SelectHook::Handler asked;
  {
    const std::lock_guard lock(handler_lock);
    asked = handler;
  }
  if (asked && timeout != nullptr) {
    if (const auto outcome = asked(timeout->tv_sec * 1000 + timeout->tv_usec / 1000)) return *outcome;
  }
  return REAL(select)(count, readable, writable, exceptional, timeout);
}
