// kit/driver/handles.h - the one owner of each GLib resource that the driver's side of the kit holds.
#pragma once
#include <glib-object.h>

#include <memory>

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

}  // namespace ptz_kit
