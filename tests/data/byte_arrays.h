// tests/data/byte_arrays.h - byte arrays to write to, and byte arrays to read from that end exactly where they say.
#pragma once
#include <glib.h>

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>

#include "handles.h"
#include "ptz_serialize.h"

namespace ptz_test {

using Array = std::unique_ptr<GArray, FreeWith<g_array_unref>>;
using List = std::unique_ptr<GList, FreeWith<g_list_free>>;
using Table = std::unique_ptr<GHashTable, FreeWith<g_hash_table_unref>>;
using Memory = std::unique_ptr<void, FreeWith<g_free>>;

inline Array new_array() { return Array(ptz_serialize_create_array()); }

inline std::string bytes_of(const Array &array) { return {array->data, array->len}; }

// For reading only. Its bytes fill a heap block of their own: an address sanitizer sees the first one read too many.
class ExactArray {
  std::unique_ptr<char[]> block_;
  GArray array_;

 public:
  explicit ExactArray(std::string_view bytes)
      : block_(new char[bytes.size()]), array_{block_.get(), static_cast<guint>(bytes.size())} {
    std::copy(bytes.begin(), bytes.end(), block_.get());
  }
  ExactArray(ExactArray &&) = delete;
  [[nodiscard]] GArray *get() { return &array_; }
};

}  // namespace ptz_test
