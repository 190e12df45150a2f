// owned.h - owners of what GLib and the library hand out. A raw pointer elsewhere in the examples is borrowed.
#pragma once
#include <glib-object.h>
#include <unistd.h>

#include <memory>
#include <utility>

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
using Body = Owned<GArray, g_array_unref>;  // a message body, see ptz_serialize.h
using Options = Owned<GOptionContext, g_option_context_free>;
using Loop = Owned<GMainLoop, g_main_loop_unref>;
template <typename T>
using Object = Owned<T, g_object_unref>;

class Descriptor {
  int fd_;

 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  Descriptor(Descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  ~Descriptor() {
    if (fd_ >= 0) close(fd_);
  }
  explicit operator bool() const { return fd_ >= 0; }
  [[nodiscard]] int get() const { return fd_; }
};

}  // namespace example
