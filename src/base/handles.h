// src/base/handles.h - the one owner of each GLib and POSIX resource.
#pragma once
#include <glib-object.h>
#include <unistd.h>
#include <cerrno>
#include <memory>
#include <utility>
namespace ptz {
template <auto free_function>
struct FreeWith {  // stateless: a handle is no larger than the pointer in it
  template <typename T>
  void operator()(T *pointer) const noexcept {
    free_function(pointer);
  }
};
template <typename T, auto free_function>
using Handle = std::unique_ptr<T, FreeWith<free_function>>;
using Text = Handle<char, g_free>;
using TextList = Handle<char *, g_strfreev>;
using Error = Handle<GError, g_error_free>;  // a new type is one such line
using KeyFile = Handle<GKeyFile, g_key_file_unref>;
template <typename T>
using Object = Handle<T, g_object_unref>;  // adopts the reference it is given
template <typename T>
[[nodiscard]] Object<T> share(T *object) {
  return Object<T>(g_object_ref(object));
}  // adds one

// A failure may come without an error, as where GLib refuses an argument.
[[nodiscard]] inline const char *message_of(const Error &error, const char *without_error = "(NULL)") {
  return error != nullptr ? error->message : without_error;
}

// For a "T **" argument: load(path, out(error)). Filled when the full expression ends: read it one statement later.
template <typename H>
class out {
  H &handle_;
  typename H::pointer raw_ = nullptr;

 public:
  explicit out(H &handle) : handle_(handle) {}
  out(out &&) = delete;  // and with it every copy
  ~out() { handle_.reset(raw_); }
  operator typename H::pointer *() { return &raw_; }
};

class UniqueFd {
  int fd_;

 public:
  explicit UniqueFd(int fd = -1) : fd_(fd) {}
  UniqueFd(UniqueFd &&other) noexcept : fd_(other.release()) {}
  UniqueFd &operator=(UniqueFd &&other) noexcept {
    reset(other.release());
    return *this;
  }
  ~UniqueFd() { reset(); }
  explicit operator bool() const { return fd_ >= 0; }
  [[nodiscard]] int get() const { return fd_; }
  [[nodiscard]] int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    const int old = std::exchange(fd_, fd), saved_errno = errno;
    if (old >= 0 && old != fd) close(old);  // never retried: Linux frees the number even when it answers EINTR
    errno = saved_errno;                    // cleaning up must not change the error being reported
  }
};

class MutexLock {
  GMutex *mutex_;

 public:
  [[nodiscard]] explicit MutexLock(GMutex *mutex) : mutex_(mutex) { g_mutex_lock(mutex_); }  // no nameless locks
  MutexLock(MutexLock &&) = delete;
  ~MutexLock() {
    if (mutex_ != nullptr) unlock();
  }
  void unlock() { g_mutex_unlock(std::exchange(mutex_, nullptr)); }  // early: callbacks run without the lock
};
}  // namespace ptz
