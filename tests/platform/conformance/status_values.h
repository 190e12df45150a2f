// tests/platform/conformance/status_values.h - short ways to ask the status store.
#pragma once
#include <cerrno>
#include <string>
#include <vector>

#include "platform/status_store.h"

namespace conformance {

constexpr gint read_mode = 0, write_mode = 2;  // as the library passes them

// A number of a group, under a key.
struct Number {
  std::string key;
  gint32 value = 0;
  guint32 type = 1;
  bool operator==(const Number &) const = default;
};
using Numbers = std::vector<Number>;
inline void PrintTo(const Number &number, std::ostream *out) { *out << number.key << "=" << number.value; }

// The results of the functions below: what the store returned, or its error number, negative.
template <typename Call>
int with_params(Numbers &numbers, Call call) {
  std::vector<StatusStoreParam> params;
  for (auto &number : numbers) params.push_back({number.key.c_str(), sizeof number.value, &number.value, number.type});
  std::vector<StatusStoreParam *> list;
  for (auto &param : params) list.push_back(&param);
  list.push_back(nullptr);
  errno = 0;
  const gint result = call(list.data());
  return result >= 0 ? result : -errno;
}

inline int create_status(const std::string &name, guint32 size) {
  errno = 0;
  const gint result = status_store_create_group(name.c_str(), size, read_mode);
  return result >= 0 ? 0 : -errno;
}

inline int set_status(const std::string &name, Numbers numbers) {
  const int result = with_params(
      numbers, [&](StatusStoreParam **list) { return status_store_set_group(name.c_str(), list, write_mode); });
  return result >= 0 ? 0 : result;
}

inline int get_status(const std::string &name, Numbers &numbers) {
  return with_params(numbers,
                     [&](StatusStoreParam **list) { return status_store_get_group(name.c_str(), list, read_mode); });
}

}  // namespace conformance
