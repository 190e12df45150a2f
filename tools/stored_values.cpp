#include "stored_values.h"

#include <cerrno>
#include <cstdio>

#include "json_text.h"
#include "platform/status_store.h"

namespace ptzctl {

std::string StoredValue::text() const {
  char text[64];
  switch (type) {
    case real:
      std::snprintf(text, sizeof text, "%.2f", static_cast<double>(value.measure));
      break;
    case seconds_and_microseconds:
      std::snprintf(text, sizeof text, "%u.%06u s", value.time.seconds, value.time.fraction);
      break;
    case seconds_and_nanoseconds:
      std::snprintf(text, sizeof text, "%u.%09u s", value.time.seconds, value.time.fraction);
      break;
    default:
      std::snprintf(text, sizeof text, "%d", size == sizeof value.process ? value.process : value.number);
  }
  return text;
}

void StoredValue::add_to(const JsonLine &json) const {
  if (type == real) {
    json.member(key, widened(value.measure));
  } else if (type == integer) {
    json.member(key, gint64{size == sizeof value.process ? value.process : value.number});
  } else {
    json.begin_object(key);
    json.member("seconds", gint64{value.time.seconds});
    json.member(type == seconds_and_microseconds ? "microseconds" : "nanoseconds", gint64{value.time.fraction});
    json.end_object();
  }
}

Reading read_group(const std::string &group, std::vector<StoredValue> &values) {
  std::vector<StatusStoreParam> params;
  for (auto &value : values) params.push_back({value.key, value.size, &value.value, value.type});
  const auto read = [&](auto is_wanted) {
    std::vector<StatusStoreParam *> list;
    for (std::size_t i = 0; i < params.size(); ++i) {
      if (is_wanted(i)) list.push_back(&params[i]);
    }
    list.push_back(nullptr);
    return status_store_get_group(group.c_str(), list.data(), 0);
  };
  gint count = read([](std::size_t) { return true; });
  const bool are_all_found = count == static_cast<gint>(params.size());
  // The store tells how many it has found, and not which.
  for (std::size_t i = 0; i < values.size() && count >= 0; ++i) {
    if (!are_all_found) count = read([&](std::size_t each) { return each == i; });
    values[i].found = are_all_found || count == 1;
  }
  if (count >= 0 && !are_all_found) count = read([&](std::size_t i) { return values[i].found; });
  if (count >= 0) return Reading::done;
  return errno == ENOENT ? Reading::no_group : Reading::failed;
}

int complain_of_reading(const std::string &group, Reading reading) {
  complain("%s cannot be read: %s", group.c_str(), g_strerror(errno));
  return reading == Reading::no_group ? exit_nobody : EXIT_FAILURE;
}

}  // namespace ptzctl
