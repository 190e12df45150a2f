// owned.h - owners of what GLib and the kit hand out. A raw pointer elsewhere in this program is borrowed.
#pragma once
#include <glib-object.h>

#include <memory>

namespace example {

template <auto release>
struct ReleaseWith {
  template <typename T>
  void operator()(T *pointer) const noexcept {
    release(pointer);
  }
};
template <typename T, auto release>
using Owned = std::unique_ptr<T, ReleaseWith<release>>;

using Text = Owned<char, g_free>;
using Bytes = Owned<GBytes, g_bytes_unref>;
template <typename T>
using Object = Owned<T, g_object_unref>;

// An error that a call may set.
class Problem {
  GError *error_ = nullptr;

 public:
  Problem() = default;
  Problem(const Problem &) = delete;
  ~Problem() { g_clear_error(&error_); }
  // For the "GError **" of a call; forgets the error of the call before.
  GError **out() {
    g_clear_error(&error_);
    return &error_;
  }
  [[nodiscard]] const GError *get() const { return error_; }
  [[nodiscard]] bool is(GQuark domain, gint code) const { return g_error_matches(error_, domain, code) != FALSE; }
};

}  // namespace example
