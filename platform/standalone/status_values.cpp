#include "status_values.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

namespace ptz::platform {

namespace {

// Callers ask for keys in the order in which they are stored, mostly: each search begins behind the one before.
class FieldSearch {
  const Field *const begin_, *const end_;
  const Field *next_;

  [[gnu::noinline]] const Field *search(const gchar *key) {
    for (auto left = end_ - begin_; left > 0; --left) {
      if (next_ == end_) next_ = begin_;
      const Field *field = next_++;
      if (std::strcmp(field->key.data(), key) == 0) return field;
    }
    return nullptr;
  }

 public:
  explicit FieldSearch(const std::vector<Field> &fields)
      : begin_(fields.data()), end_(begin_ + fields.size()), next_(begin_) {}
  const Field *find(const gchar *key) {
    if (next_ != end_ && std::strcmp(next_->key.data(), key) == 0) return next_++;
    return search(key);
  }
};

bool is_param(const StatusStoreParam &param) {
  return param.key != nullptr && *param.key != '\0' && param.size != 0 && param.value != nullptr;
}

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
  for (; *params != nullptr; ++params) {
    const auto &param = **params;
    if (!is_param(param)) return EINVAL;
    const auto *field = search.find(param.key);
    if (field == nullptr || field->size != param.size || field->type != param.type) return EAGAIN;
    copy_value(state.bytes() + field->offset, param.value, param.size);
  }
  return 0;
}

}  // namespace

int read_values(const State &state, StatusStoreParam *const *params) {
  FieldSearch search(state.layout.fields);
  int count = 0;
  for (; *params != nullptr; ++params) {
    const auto &param = **params;
    if (!is_param(param)) return -EINVAL;
    const auto *field = search.find(param.key);
    if (field == nullptr || field->size != param.size || field->type != param.type) continue;
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
