#include "kv_records.h"

#include <glib.h>

#include <cerrno>
#include <memory>
#include <mutex>

#include "interpose.h"

namespace {

// As the platform declares it; the tests see the public headers only.
struct KvConfigRecord {
  const gchar *group;
  const gchar *key;
  const gchar *value;
};

struct Reader {
  std::mutex lock;
  std::unique_ptr<std::vector<ptz_test::Record>> fake;
  std::size_t next_record = 0;
  std::function<void()> before_record;
  std::vector<std::string> opened;
  std::size_t closed = 0;
  bool opening = false;  // the real reader closes whatever was open before
};

Reader &reader() {
  static auto &only = *new Reader;
  return only;
}

const gchar *text_or_null(const std::optional<std::string> &text) { return text ? text->c_str() : nullptr; }

}  // namespace

namespace ptz_test {

FakeReader::FakeReader(std::vector<Record> records) {
  const std::lock_guard lock(reader().lock);
  reader().fake = std::make_unique<std::vector<Record>>(std::move(records));
}

FakeReader::~FakeReader() {
  const std::lock_guard lock(reader().lock);
  reader().fake.reset();
}

ReaderLog::ReaderLog(std::function<void()> before_record) {
  const std::lock_guard lock(reader().lock);
  reader().before_record = std::move(before_record);
  reader().opened.clear();
  reader().closed = 0;
}

ReaderLog::~ReaderLog() {
  const std::lock_guard lock(reader().lock);
  reader().before_record = {};
}

std::vector<std::string> ReaderLog::opened() const {
  const std::lock_guard lock(reader().lock);
  return reader().opened;
}

std::size_t ReaderLog::closed() const {
  const std::lock_guard lock(reader().lock);
  return reader().closed;
}

}  // namespace ptz_test

INTERPOSE(gint, kv_config_open, (const gchar *path)) {
  bool faked = false;
  {
    const std::lock_guard lock(reader().lock);
    faked = reader().fake != nullptr;
    reader().next_record = 0;
    reader().opening = true;
  }
  const gint result = faked ? 1 : REAL(kv_config_open)(path);
  const int saved_errno = errno;
  {
    const std::lock_guard lock(reader().lock);
    reader().opening = false;
    if (result != 0) reader().opened.emplace_back(path);
  }
  errno = saved_errno;
  return result;
}

INTERPOSE(const KvConfigRecord *, kv_config_get, ()) {
  static KvConfigRecord current;
  std::function<void()> before_record;
  {
    const std::lock_guard lock(reader().lock);
    before_record = reader().before_record;
  }
  if (before_record) before_record();
  const std::lock_guard lock(reader().lock);
  if (reader().fake == nullptr) return REAL(kv_config_get)();
  if (reader().next_record == reader().fake->size()) return nullptr;
  const auto &record = (*reader().fake)[reader().next_record++];
  current = {text_or_null(record.group), text_or_null(record.key), text_or_null(record.value)};
  return &current;
}

INTERPOSE(void, kv_config_close, ()) {
  const std::lock_guard lock(reader().lock);
  if (!reader().opening) ++reader().closed;
  if (reader().fake == nullptr) REAL(kv_config_close)();
}
