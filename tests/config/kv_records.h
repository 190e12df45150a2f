// tests/config/kv_records.h - the platform's key-value reader, as a test wants it: watched, or replaced.
#pragma once
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace ptz_test {

struct Record {
  std::optional<std::string> group;
  std::optional<std::string> key;
  std::optional<std::string> value;
};

// While it lives, every file that is opened holds these records. The real reader is not asked.
class FakeReader {
 public:
  explicit FakeReader(std::vector<Record> records);
  FakeReader(const FakeReader &) = delete;
  ~FakeReader();
};

// While it lives, counts what the reader, the real one or a fake, is asked to do; the hook runs before each record.
class ReaderLog {
 public:
  explicit ReaderLog(std::function<void()> before_record = {});
  ReaderLog(const ReaderLog &) = delete;
  ~ReaderLog();
  [[nodiscard]] std::vector<std::string> opened() const;  // successfully
  [[nodiscard]] std::size_t closed() const;
};

}  // namespace ptz_test
