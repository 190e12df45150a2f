// tests/transport/select_hook.h - select(2), which a test may answer itself.
#pragma once
#include <functional>
#include <optional>

namespace ptz_test {

// While it lives, the handler is asked on every select of the test program: a value stands for the call (with errno
// as the handler leaves it), nothing lets it go on.
class SelectHook {
 public:
  using Handler = std::function<std::optional<int>(long timeout_ms)>;
  explicit SelectHook(Handler handler);
  SelectHook(const SelectHook &) = delete;
  ~SelectHook();
};

}  // namespace ptz_test
