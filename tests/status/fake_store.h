// tests/status/fake_store.h - a status store in the test program's memory, which keeps what it was called with and may
// be told what to answer.
#pragma once
#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace ptz_test {

enum class Store { create, set, get };

// A value as it was handed over.
struct StoredValue {
  std::string key;
  std::uint32_t type;
  std::string bytes;
  bool operator==(const StoredValue &) const = default;
};
void PrintTo(const StoredValue &value, std::ostream *out);

template <typename T>
StoredValue stored(std::string key, std::uint32_t type, T value) {
  return {std::move(key), type, std::string(reinterpret_cast<const char *>(&value), sizeof value)};
}

struct StoreCall {
  Store call;
  std::string name;
  int mode;
  std::uint32_t size = 0;                // of create
  std::vector<StoredValue> values = {};  // of set, and before a get
  std::vector<void *> addresses = {};    // of the values
};

// The store that the library calls while this lives; without one the calls abort.
class FakeStore {
 public:
  struct Group {
    std::uint32_t size;
    std::map<std::string, StoredValue> values;
  };
  FakeStore();
  FakeStore(const FakeStore &) = delete;
  ~FakeStore();

  std::vector<StoreCall> calls;
  std::map<std::string, Group> groups;

  // The next call of a kind returns this, and does nothing.
  void answer(Store call, int result, int error = 0);
  // "create set get": the kinds of calls in their order.
  [[nodiscard]] std::string order() const;
  [[nodiscard]] std::vector<StoreCall> of(Store call) const;
  [[nodiscard]] std::optional<StoredValue> value(const std::string &group, const std::string &key) const;
  template <typename T>
  [[nodiscard]] std::optional<T> number(const std::string &group, const std::string &key) const {
    const auto found = value(group, key);
    if (!found || found->bytes.size() != sizeof(T)) return std::nullopt;
    T result{};
    found->bytes.copy(reinterpret_cast<char *>(&result), sizeof result);
    return result;
  }

  struct Answer {
    Store call;
    int result;
    int error;
  };
  std::optional<Answer> take_answer(Store call);

 private:
  std::vector<Answer> answers_;
};

}  // namespace ptz_test
