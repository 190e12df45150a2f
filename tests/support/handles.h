// tests/support/handles.h - owners of what the library hands out.
#pragma once
#include <glib-object.h>

#include <memory>

namespace ptz_test {

template <auto free_function>
struct FreeWith {
  template <typename T>
  void operator()(T *pointer) const {
    free_function(pointer);
  }
};

template <typename T>
using Object = std::unique_ptr<T, FreeWith<g_object_unref>>;  // adopts the reference it is given
using Source = std::unique_ptr<GSource, FreeWith<g_source_unref>>;
using Context = std::unique_ptr<GMainContext, FreeWith<g_main_context_unref>>;
using Text = std::unique_ptr<char, FreeWith<g_free>>;

}  // namespace ptz_test
