// tools/handles.h - the one owner of each GLib and POSIX resource that the tools hold.
#pragma once
#include <glib-object.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <utility>

namespace tools {

template <auto free_function>
struct FreeWith {
  template <typename T>
  void operator()(T *pointer) const noexcept {
    free_function(pointer);
  }
};
template <typename T, auto free_function>
using Handle = std::unique_ptr<T, FreeWith<free_function>>;

using Text = Handle<char, g_free>;
using TextList = Handle<char *, g_strfreev>;
using Error = Handle<GError, g_error_free>;
using Body = Handle<GArray, g_array_unref>;  // of a message, see ptz_serialize.h
using Bytes = Handle<GBytes, g_bytes_unref>;
using Variant = Handle<GVariant, g_variant_unref>;
using Loop = Handle<GMainLoop, g_main_loop_unref>;
template <typename T>
using Object = Handle<T, g_object_unref>;

// For a "T **" argument: load(path, out(error)). Filled when the full expression ends: read it one statement later.
template <typename H>
class out {
  H &handle_;
  typename H::pointer raw_ = nullptr;

 public:
  explicit out(H &handle) : handle_(handle) {}
  out(out &&) = delete;
  ~out() { handle_.reset(raw_); }
  operator typename H::pointer *() { return &raw_; }
};

// A failure may come without an error, for example if GLib refuses an argument.
[[nodiscard]] inline const char *message_of(const Error &error, const char *without_error) {
  return error != nullptr ? error->message : without_error;
}

class UniqueFd {
  int fd_;

 public:
  explicit UniqueFd(int fd = -1) : fd_(fd) {}
  UniqueFd(UniqueFd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd &operator=(UniqueFd &&other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~UniqueFd() {
    const int saved_errno = errno;
    if (fd_ >= 0) close(fd_);
    errno = saved_errno;
  }
  explicit operator bool() const { return fd_ >= 0; }
  [[nodiscard]] int get() const { return fd_; }
};

}  // namespace tools
