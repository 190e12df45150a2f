// handles.h - owners of what GLib and the system hand out. A raw pointer or an int elsewhere is borrowed.
#pragma once
#include <glib-object.h>
#include <unistd.h>

#include <memory>
#include <utility>

namespace visca {

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
using Error = Owned<GError, g_error_free>;
using PointerArray = Owned<GPtrArray, g_ptr_array_unref>;
template <typename T>
using Object = Owned<T, g_object_unref>;

// For a "GError **" argument: read it one statement later.
class out {
  Error &error_;
  GError *raw_ = nullptr;

 public:
  explicit out(Error &error) : error_(error) {}
  out(out &&) = delete;
  ~out() { error_.reset(raw_); }
  operator GError **() { return &raw_; }
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
    if (fd_ >= 0) close(fd_);
  }
  explicit operator bool() const { return fd_ >= 0; }
  [[nodiscard]] int get() const { return fd_; }
};

// A source of the default main context, removed with its owner.
class Watch {
  guint id_ = 0;

 public:
  Watch() = default;
  Watch(const Watch &) = delete;
  ~Watch() { stop(); }
  [[nodiscard]] bool runs() const { return id_ != 0; }
  void keep(guint id) {
    stop();
    id_ = id;
  }
  void stop() {
    if (id_ != 0) g_source_remove(std::exchange(id_, 0));
  }
  // The source's function returns G_SOURCE_REMOVE.
  void ended() { id_ = 0; }
};

}  // namespace visca
