// kit/handles.h - the one owner of each GLib and POSIX resource that the kit holds.
#pragma once
#include <glib-object.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <utility>

namespace ptz_kit {

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
using KeyFile = Handle<GKeyFile, g_key_file_unref>;
using Array = Handle<GArray, g_array_unref>;
using PointerArray = Handle<GPtrArray, g_ptr_array_unref>;
using Bytes = Handle<GBytes, g_bytes_unref>;
using Context = Handle<GMainContext, g_main_context_unref>;
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

// A source of the default main context, removed with its owner.
class Timer {
  guint id_ = 0;

 public:
  Timer() = default;
  Timer(const Timer &) = delete;
  ~Timer() { stop(); }
  [[nodiscard]] bool runs() const { return id_ != 0; }
  void start(guint interval_ms, GSourceFunc function, gpointer user_data) {
    stop();
    id_ = g_timeout_add(interval_ms, function, user_data);
  }
  void stop() {
    if (id_ != 0) g_source_remove(id_);
    id_ = 0;
  }
  // The function returns G_SOURCE_REMOVE.
  void ended() { id_ = 0; }
};

// A reference to an object with ref() and unref(). std::shared_ptr does the same with several times the code.
template <typename T>
class Shared {
  T *object_;

 public:
  explicit Shared(T *adopted = nullptr) : object_(adopted) {}
  Shared(const Shared &other) : object_(other.object_) {
    if (object_ != nullptr) object_->ref();
  }
  Shared(Shared &&other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  Shared &operator=(Shared other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }
  ~Shared() {
    if (object_ != nullptr) object_->unref();
  }
  [[nodiscard]] T *get() const { return object_; }
  T *operator->() const { return object_; }
  T &operator*() const { return *object_; }
  bool operator==(const Shared &other) const { return object_ == other.object_; }
  explicit operator bool() const { return object_ != nullptr; }
};

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

class MutexLock {
  GMutex *mutex_;

 public:
  [[nodiscard]] explicit MutexLock(GMutex *mutex) : mutex_(mutex) { g_mutex_lock(mutex_); }
  MutexLock(MutexLock &&) = delete;
  ~MutexLock() { g_mutex_unlock(mutex_); }
};

}  // namespace ptz_kit
