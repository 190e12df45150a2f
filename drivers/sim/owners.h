// owners.h - owners of what GLib and the library hand out. A raw pointer elsewhere in the driver is borrowed.
#pragma once
#include <glib-object.h>

#include <memory>

namespace sim {

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
using TextList = Owned<char *, g_strfreev>;
using Error = Owned<GError, g_error_free>;
using Bytes = Owned<GBytes, g_bytes_unref>;
using Array = Owned<GArray, g_array_unref>;
using PointerArray = Owned<GPtrArray, g_ptr_array_unref>;
using Options = Owned<GOptionContext, g_option_context_free>;
template <typename T>
using Object = Owned<T, g_object_unref>;

}  // namespace sim
