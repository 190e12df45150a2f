#include "status_values.h"

#include <cerrno>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "constant_text.h"

namespace ptz::platform {

namespace {

bool is_param(const StatusStoreParam &param) {
  return param.key != nullptr && *param.key != '\0' && param.size != 0 && param.value != nullptr;
}

// A field remembers the address of a caller's constant text that equals its key, because comparing texts is half of an
// update's time.
void remember(Field &field, const gchar *key) {
  constexpr int max_attempts = 4;
  if (field.attempts == max_attempts) return;
  ++field.attempts;
  if (is_constant_text(key)) field.address = key;
}

// Searches from `next` on, round to the fields before it. Returns the index of the field, or the number of fields.
std::size_t search(std::span<Field> fields, std::size_t next, const gchar *key) {
  for (std::size_t left = fields.size(); left > 0; --left) {
    if (next == fields.size()) next = 0;
    if (std::strcmp(fields[next].key.data(), key) == 0) {
      remember(fields[next], key);
      return next;
    }
    ++next;
  }
  return fields.size();
}

// The usual sizes need no call.
void copy_value(void *to, const void *from, std::uint32_t size) {
  if (size == 8) [[likely]] {
    std::memcpy(to, from, 8);
  } else if (size == 4) [[likely]] {
    std::memcpy(to, from, 4);
  } else {
    std::memcpy(to, from, size);
  }
}

// Calls `copy(param, field)` for each parameter that the state has with the same size and type, until it calls
// `other()` for another one and gets false. Callers name their keys in the order in which they are stored, mostly:
// each search begins behind the one before. Moves `params` on. Returns 0, or EINVAL for a parameter without key, size
// or value.
template <typename Copy, typename Other>
int for_each_param(State &state, StatusStoreParam *const *&params, Copy copy, Other other) {
  const auto fields = state.layout.all();
  Field *const begin = fields.data(), *const end = begin + fields.size();
  Field *next = begin;  // the field that ends them has no address
  for (; *params != nullptr; ++params) {
    const auto &param = **params;
    if (next->address != param.key) [[unlikely]] {
      if (!is_param(param)) return EINVAL;
      Field *const found = begin + search(fields, static_cast<std::size_t>(next - begin), param.key);
      if (found == end) {
        if (!other()) return 0;
        continue;
      }
      next = found;
    }
    const Field &field = *next++;
    if (field.size != param.size || field.type != param.type || param.value == nullptr) [[unlikely]] {
      if (!is_param(param)) return EINVAL;
      if (!other()) return 0;
      continue;
    }
    copy(param, field);
  }
  return 0;
}

// Builds a layout for the values of which some are new or have another size or type. Returns 0, or ENOSPC.
int change_layout(std::uint32_t group_size, State &state, StatusStoreParam *const *params) {
  const auto known = state.layout.all();
  std::vector<Field> fields(known.begin(), known.end());
  std::vector<const void *> values;
  values.reserve(fields.size());
  for (const auto &field : fields) values.push_back(state.bytes() + field.offset);
  for (; *params != nullptr; ++params) {
    const Field given = {(*params)->key, (*params)->type, 0, (*params)->size};
    std::size_t i = 0;
    while (i < fields.size() && fields[i].key != given.key) ++i;
    if (i == fields.size()) {
      fields.push_back(given);
      values.push_back((*params)->value);
    } else {
      fields[i].type = given.type;
      fields[i].size = given.size;
      values[i] = (*params)->value;
    }
  }
  std::uint64_t total = 0;
  for (const auto &field : fields) total += field.key.size() + 1 + std::uint64_t{field.size};
  if (total > group_size) return ENOSPC;

  std::string bytes;
  for (std::size_t i = 0; i < fields.size(); ++i) bytes.append(static_cast<const char *>(values[i]), fields[i].size);
  state.sequence.reset();
  build_directory(state.layout, fields);
  bytes.copy(state.bytes(), bytes.size());
  return 0;
}

// Writes the values if the state has room for all of them. Returns 0; EAGAIN if the layout has to change; or the error.
int write_in_place(State &state, StatusStoreParam *const *params) {
  char *const bytes = state.bytes();
  bool fits = true;
  const int error = for_each_param(
      state, params,
      [bytes](const StatusStoreParam &param, const Field &field) {
        copy_value(bytes + field.offset, param.value, param.size);
      },
      [&fits] { return fits = false; });
  return error == 0 && !fits ? EAGAIN : error;
}

}  // namespace

int read_values(State &state, StatusStoreParam *const *params) {
  const char *const bytes = state.bytes();
  int others = 0;
  const auto *end = params;
  const int error = for_each_param(
      state, end,
      [bytes](const StatusStoreParam &param, const Field &field) {
        copy_value(param.value, bytes + field.offset, param.size);
      },
      [&others] { return ++others != 0; });
  return error == 0 ? static_cast<int>(end - params) - others : -error;
}

int prepare_values(const Ring &ring, State &state, StatusStoreParam *const *params) {
  if (const int error = ring.read_for_update(state); error != 0) return error;
  state.sequence.reset();  // if this fails half-way, the next call reads the state again
  const int error = write_in_place(state, params);
  if (error != EAGAIN) return error;
  for (auto *const *given = params; *given != nullptr; ++given) {
    if (!is_param(**given)) return EINVAL;
  }
  // Undoes what was written in place.
  if (const int again = ring.read_for_update(state); again != 0) return again;
  return change_layout(ring.group_size(), state, params);
}

}  // namespace ptz::platform
