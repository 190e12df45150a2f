#include "fake_store.h"

#include <glib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iomanip>

namespace {

// As the platform declares it; the tests see the public headers only.
struct StatusStoreParam {
  const gchar *key;
  guint32 size;
  gpointer value;
  guint32 type;
};

ptz_test::FakeStore *installed = nullptr;

ptz_test::FakeStore &store() {
  g_assert(installed != nullptr);
  return *installed;
}

void keep_values(ptz_test::StoreCall &call, StatusStoreParam *const *params) {
  for (; *params != nullptr; ++params) {
    const auto &param = **params;
    call.values.push_back({param.key, param.type, std::string(static_cast<const char *>(param.value), param.size)});
    call.addresses.push_back(param.value);
  }
}

}  // namespace

namespace ptz_test {

void PrintTo(const StoredValue &value, std::ostream *out) {
  *out << value.key << " type " << value.type << ":" << std::hex << std::setfill('0');
  for (const unsigned char byte : value.bytes) *out << ' ' << std::setw(2) << static_cast<int>(byte);
  *out << std::dec << std::setfill(' ');
}

FakeStore::FakeStore() { installed = this; }
FakeStore::~FakeStore() { installed = nullptr; }

void FakeStore::answer(Store call, int result, int error) { answers_.push_back({call, result, error}); }

std::optional<FakeStore::Answer> FakeStore::take_answer(Store call) {
  const auto found =
      std::find_if(answers_.begin(), answers_.end(), [&](const Answer &answer) { return answer.call == call; });
  if (found == answers_.end()) return std::nullopt;
  const auto answer = *found;
  answers_.erase(found);
  return answer;
}

std::string FakeStore::order() const {
  std::string text;
  for (const auto &call : calls) {
    if (!text.empty()) text += ' ';
    text += call.call == Store::create ? "create" : call.call == Store::set ? "set" : "get";
  }
  return text;
}

std::vector<StoreCall> FakeStore::of(Store kind) const {
  std::vector<StoreCall> found;
  std::copy_if(calls.begin(), calls.end(), std::back_inserter(found),
               [&](const StoreCall &call) { return call.call == kind; });
  return found;
}

std::optional<StoredValue> FakeStore::value(const std::string &group, const std::string &key) const {
  const auto found = groups.find(group);
  if (found == groups.end()) return std::nullopt;
  const auto value = found->second.values.find(key);
  return value != found->second.values.end() ? std::optional(value->second) : std::nullopt;
}

}  // namespace ptz_test

using ptz_test::Store;

// A program that defines the platform's functions itself overrides them.
extern "C" {
__attribute__((visibility("default"))) gint status_store_create_group(const gchar *name, guint32 size, gint mode) {
  store().calls.push_back({Store::create, name, mode, size});
  if (const auto answer = store().take_answer(Store::create)) {
    errno = answer->error;
    return answer->result;
  }
  if (store().groups.count(name) != 0) {
    errno = EEXIST;
    return -1;
  }
  store().groups[name] = {size, {}};
  return 0;
}

__attribute__((visibility("default"))) gint status_store_set_group(const gchar *name, StatusStoreParam **params,
                                                                   gint mode) {
  ptz_test::StoreCall call{Store::set, name, mode};
  keep_values(call, params);
  store().calls.push_back(call);
  if (const auto answer = store().take_answer(Store::set)) {
    errno = answer->error;
    return answer->result;
  }
  const auto group = store().groups.find(name);
  if (group == store().groups.end()) {
    errno = ENOENT;
    return -1;
  }
  for (const auto &value : call.values) group->second.values[value.key] = value;
  return 0;
}

__attribute__((visibility("default"))) gint status_store_get_group(const gchar *name, StatusStoreParam **params,
                                                                   gint mode) {
  ptz_test::StoreCall call{Store::get, name, mode};
  keep_values(call, params);
  store().calls.push_back(call);
  if (const auto answer = store().take_answer(Store::get)) {
    errno = answer->error;
    return answer->result;
  }
  const auto group = store().groups.find(name);
  if (group == store().groups.end()) {
    errno = ENOENT;
    return -1;
  }
  int count = 0;
  for (; *params != nullptr; ++params) {
    const auto found = group->second.values.find((*params)->key);
    if (found == group->second.values.end()) continue;
    const auto &value = found->second;
    if (value.type != (*params)->type || value.bytes.size() != (*params)->size) continue;
    std::memcpy((*params)->value, value.bytes.data(), value.bytes.size());
    ++count;
  }
  return count;
}
}
