// Reads and writes a parameter of an arbitrary path with an arbitrary value, and holds numbers against sscanf's. A path
// and a value have a record separator (1E) between them.
#include <ptz_tessel.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>

#include "fuzz_target.h"
#include "text_files.h"

using namespace ptz_fuzz;

namespace {

// What the service was asked for last, and what it answers.
struct {
  std::string path, value, written;
  gint32 error;
} service;

// "%%" stands for "%", and nothing else for anything but itself.
std::string formatted(const std::string &path) {
  std::string result;
  for (std::size_t i = 0; i < path.size(); ++i) {
    if (path.compare(i, 2, "%%") == 0) ++i;
    result.push_back(path[i]);
  }
  return result;
}

std::optional<gint32> number_in(const std::string &text) {
  int ignored = 0;
  char more[2];
  if (std::sscanf(text.c_str(), "%d%1s", &ignored, more) != 1) return std::nullopt;
  errno = 0;
  const long long number = std::strtoll(text.c_str(), nullptr, 10);
  if (errno != 0 || number < std::numeric_limits<gint32>::min() || number > std::numeric_limits<gint32>::max()) {
    return std::nullopt;
  }
  return static_cast<gint32>(number);
}

void read(const std::string &path, const std::string &value) {
  const auto text = owned(ptz_tessel_get(path.c_str()));
  REQUIRE(service.path == formatted(path).substr(0, 127));
  REQUIRE(text.has_value() && g_utf8_validate(text->c_str(), -1, nullptr));
  const bool is_utf8 = g_utf8_validate(value.c_str(), -1, nullptr) != FALSE;
  REQUIRE(*text == (is_utf8 ? value : latin1_as_utf8(value)));

  constexpr gint32 untouched = 7777;
  gint32 number = untouched;
  const bool is_number = ptz_tessel_get_int(&number, "%s", path.c_str()) != FALSE;
  const auto expected = path.empty() ? std::nullopt : number_in(*text);
  REQUIRE(is_number == expected.has_value());
  REQUIRE(number == expected.value_or(untouched));
  REQUIRE(take_log().size() == (is_number || path.empty() ? 0 : 1));

  gboolean flag = untouched;
  REQUIRE((ptz_tessel_get_bool(&flag, "%s", path.c_str()) != FALSE) == !path.empty());
  REQUIRE(path.empty() || flag == (value == "true" || value == "yes" ? TRUE : FALSE));
}

void write(const std::string &path, const std::string &value) {
  REQUIRE(ptz_tessel_set(path.c_str(), value.c_str(), FALSE, FALSE, FALSE, 0) == 0);
  REQUIRE(service.written == formatted(path) + "=" + value);
  service.error = -6;
  const bool fits = path.size() + std::string("root.PTZ..x1").size() <= 127;
  const bool deleted = ptz_tessel_delete_sub_group(path.c_str(), 1, 0) != FALSE;
  REQUIRE(path.empty() ? !deleted : deleted == fits);
  REQUIRE(ptz_tessel_set(path.c_str(), "other", FALSE, FALSE, FALSE, 0) == 0);  // it cannot be read back
  service.error = 0;
}

}  // namespace

extern "C" {
__attribute__((visibility("default"))) gchar *param_service_get_custom(const gchar *path, gpointer, gint32 *error) {
  service.path = path;
  *error = service.error;
  return g_strdup(service.value.c_str());
}
__attribute__((visibility("default"))) void param_service_set_custom(const gchar *path, const gchar *value, gpointer,
                                                                     gint32 *error) {
  service.written = std::string(path) + "=" + value;
  *error = service.error;
}
__attribute__((visibility("default"))) void param_service_delete_group(const gchar *, gpointer, gint32 *error) {
  *error = service.error;
}
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  const auto parts = parts_of(data, size, 2);
  const std::string path(parts[0].substr(0, parts[0].find('\0'))), value(parts[1].substr(0, parts[1].find('\0')));
  service.value = value;
  read(path, value);
  write(path, value);
  return 0;
}
