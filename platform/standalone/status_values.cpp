#include "status_values.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "constant_text.h"

namespace ptz::platform {

namespace {

bool is_param(const StatusStoreParam &param) {
  return param.key != nullptr && *param.key != '\0' && param.size != 0 && param.value != nullptr;
}

// Finds the fields of a caller's keys. Comparing texts is half of an update's time, so a field remembers the address of
// a constant text that matched. Callers ask for keys in the order in which they are stored, mostly: each search begins
// behind the one before.
class FieldSearch {
  static constexpr int max_attempts = 4;

  Field *const begin_, *const end_;
  Field *next_;

  static void remember(Field &field, const gchar *key) {
    if (field.attempts++ < max_attempts && ptz::platform::is_constant_text(key)) field.address = key;
    field.attempts = std::min(field.attempts, max_attempts);
  }

  [[gnu::noinline]] const Field *search(const gchar *key) {
    for (auto left = end_ - begin_; left > 0; --left) {
      if (next_ == end_) next_ = begin_;
      Field *field = next_++;
      if (std::strcmp(field->key.data(), key) != 0) continue;
      remember(*field, key);
      return field;
    }
    return nullptr;
  }

 public:
  explicit FieldSearch(std::vector<Field> &fields)
      : begin_(fields.data()), end_(begin_ + fields.size()), next_(begin_) {}

  enum class Match { whole, other, invalid };
  // Sets the field if it has the parameter's key, size and type.
  Match find(const StatusStoreParam &param, const Field *&field) {
    if (next_ != end_ && next_->address == param.key) [[likely]] {
      field = next_++;
      if (param.value == nullptr || param.size == 0) return Match::invalid;
    } else {
      if (!is_param(param)) return Match::invalid;
      field = search(param.key);
    }
    return field != nullptr && field->size == param.size && field->type == param.type ? Match::whole : Match::other;
  }
};
using Match = FieldSearch::Match;

// The usual sizes need no call.
void copy_value(void *to, const void *from, std::uint32_t size) {
  switch (size) {
    case 4:
      std::memcpy(to, from, 4);
      break;
    case 8:
      std::memcpy(to, from, 8);
      break;
    default:
      std::memcpy(to, from, size);
  }
}

// Builds a layout for the values of which some are new or have another size or type. Returns 0, or ENOSPC.
int change_layout(std::uint32_t group_size, State &state, StatusStoreParam *const *params) {
  std::vector<Field> fields = state.layout.fields;
  std::vector<const void *> values;
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
  FieldSearch search(state.layout.fields);
  const Field *field = nullptr;
  for (; *params != nullptr; ++params) {
    const auto &param = **params;
    const auto match = search.find(param, field);
    if (match != Match::whole) [[unlikely]]
      return match == Match::invalid ? EINVAL : EAGAIN;
    copy_value(state.bytes() + field->offset, param.value, param.size);
  }
  return 0;
}

}  // namespace

int read_values(State &state, StatusStoreParam *const *params) {
  FieldSearch search(state.layout.fields);
  const Field *field = nullptr;
  int count = 0;
  for (; *params != nullptr; ++params) {
    const auto &param = **params;
    const auto match = search.find(param, field);
    if (match == Match::invalid) [[unlikely]]
      return -EINVAL;
    if (match != Match::whole) [[unlikely]]
      continue;
    copy_value(param.value, state.bytes() + field->offset, param.size);
    ++count;
  }
  return count;
}

int prepare_values(const Ring &ring, State &state, StatusStoreParam *const *params) {
  if (const int error = ring.read(state); error != 0) return error;
  state.next = *state.sequence + 1;
  state.sequence.reset();  // if this fails half-way, the next call reads the state again
  const int error = write_in_place(state, params);
  if (error != EAGAIN) return error;
  for (auto *const *given = params; *given != nullptr; ++given) {
    if (!is_param(**given)) return EINVAL;
  }
  // Undoes what was written in place.
  if (const int again = ring.read(state); again != 0) return again;
  return change_layout(ring.group_size(), state, params);
}

}  // namespace ptz::platform
