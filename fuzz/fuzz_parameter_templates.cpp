// Creates dynamic groups from a template of arbitrary bytes in a group of an arbitrary path, with the stand-alone
// parameter service, and holds the tree against a reading of its own. The path and the template have a record separator
// (1E) between them.
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "fuzz_target.h"
#include "platform/param_service.h"
#include "temp_dir.h"
#include "text_files.h"

using namespace ptz_fuzz;

namespace {

constexpr std::size_t longest_path = PARAM_SERVICE_PATH_MAX;
constexpr gint32 unanswered = 12345;

using Settings = std::map<std::string, std::string>;
using Walk = std::unique_ptr<ParamServiceGroupContext, FreeWith<param_service_cleanup_group_context>>;

// What a group holds, by full paths.
struct Contents {
  Settings parameters;
  std::set<std::string> groups;
  bool operator==(const Contents &) const = default;
};

bool is_path(std::string_view text) {
  if (text.empty() || text.size() > longest_path) return false;
  bool after_dot = true;
  for (const char c : text) {
    if (c == '\0' || (c == '.' && after_dot)) return false;
    after_dot = c == '.';
  }
  return !after_dot;
}

std::string without_blanks_around(std::string text) {
  const auto is_blank = [](char c) {
    return c != '\0' && std::string_view(" \t\r\n\v\f").find(c) != std::string_view::npos;
  };
  while (!text.empty() && is_blank(text.back())) text.pop_back();
  std::size_t first = 0;
  while (first < text.size() && is_blank(text[first])) ++first;
  return text.substr(first);
}

// The settings of a template, if it is whole; the last of a name counts.
std::optional<Settings> settings_in(const std::string &text) {
  Settings settings;
  std::string line;
  for (std::size_t i = 0; i <= text.size(); ++i) {
    if (i < text.size() && text[i] != '\n') {
      line += text[i];
      continue;
    }
    const std::string stripped = without_blanks_around(std::exchange(line, {}));
    if (stripped.empty() || stripped[0] == '#') continue;
    const auto equals = stripped.find('=');
    if (equals == std::string::npos || stripped.find('\0') != std::string::npos) return std::nullopt;
    const auto name = without_blanks_around(stripped.substr(0, equals));
    if (!is_path(name)) return std::nullopt;
    settings[name] = without_blanks_around(stripped.substr(equals + 1));
  }
  return settings;
}

// What there is below a group that was made of the settings; nothing where one of the paths would be too long.
std::optional<Contents> contents_of(const std::string &group, const Settings &settings) {
  if (group.size() > longest_path) return std::nullopt;
  Contents contents;
  for (const auto &[name, value] : settings) {
    const std::string path = group + "." + name;
    if (path.size() > longest_path) return std::nullopt;
    contents.parameters[path] = value;
    for (auto dot = path.find('.', group.size() + 1); dot != std::string::npos; dot = path.find('.', dot + 1)) {
      contents.groups.insert(path.substr(0, dot));
    }
  }
  return contents;
}

// One call of the service, with an option block of its own.
template <typename Function>
auto call(gint32 &error, Function function, gint32 number = 0) {
  ParamServiceOptions options;
  param_service_reset_options(&options);
  options.number = number;
  error = unanswered;
  return function(&options, &error);
}

std::optional<std::string> create(const std::string &group, gint32 number, gint32 &error) {
  return owned(call(
      error,
      [&](auto *options, auto *result) {
        return param_service_create_dynamic_group(group.c_str(), "t", options, result);
      },
      number));
}

template <typename Visit>
void walk(const std::string &group, decltype(param_service_get_params) *begin, decltype(param_service_get_param) *next,
          Visit visit) {
  gint32 error = 0;
  const Walk context(call(error, [&](auto *options, auto *result) { return begin(group.c_str(), options, result); }));
  REQUIRE(error == PARAM_SERVICE_OK && context);
  while (true) {
    call(error, [&](auto *options, auto *result) { next(context.get(), options, result); });
    REQUIRE(error == PARAM_SERVICE_OK);
    if (context->at_end) return;
    const std::string path = context->full_name;
    REQUIRE(path.starts_with(group + ".") && path.find('.', group.size() + 1) == std::string::npos);
    REQUIRE(context->name == nullptr || group + "." + context->name == path);
    visit(path);
  }
}

// All that is below a group, as walks show it and reads answer.
void collect(const std::string &group, Contents &contents) {
  walk(group, param_service_get_params, param_service_get_param, [&](const std::string &path) {
    gint32 error = 0;
    const auto value = owned(call(
        error, [&](auto *options, auto *result) { return param_service_get_custom(path.c_str(), options, result); }));
    REQUIRE(error == PARAM_SERVICE_OK && value);
    REQUIRE(contents.parameters.emplace(path, *value).second);
  });
  walk(group, param_service_get_child_groups, param_service_get_child_group, [&](const std::string &path) {
    REQUIRE(contents.groups.insert(path).second);
    collect(path, contents);
  });
}

gint32 remove(const std::string &group) {
  gint32 error = 0;
  call(error, [&](auto *options, auto *result) { param_service_delete_group(group.c_str(), options, result); });
  return error;
}

void require_refused(const std::string &group, gint32 reason) {
  gint32 error = 0;
  REQUIRE(!create(group, 7, error));
  REQUIRE(error == reason);
}

// Creates a group, of the lowest free number where it is negative, and looks at it.
void require_made(const std::string &group, gint32 number, const std::string &path, const Settings &settings) {
  const auto expected = contents_of(path, settings);
  gint32 error = 0;
  const auto created = create(group, number, error);
  if (!expected) {
    REQUIRE(!created && error == PARAM_SERVICE_BAD_PATH);
    return;
  }
  REQUIRE(created == path && error == PARAM_SERVICE_OK);
  Contents contents;
  collect(path, contents);
  REQUIRE(contents == *expected);
  REQUIRE(create(group, number >= 0 ? number : 0, error) == path);
  REQUIRE(error == PARAM_SERVICE_GROUP_EXISTS);
}

// A tree and a folder of templates with one in it, of this process.
struct Platform {
  ptz_test::TempDir folder;
  MemoryFile templ;
  Platform() {
    setenv("PTZ_PLATFORM_STATE_DIR", folder.path().c_str(), 1);
    setenv("PTZ_PLATFORM_TEMPLATE_DIR", folder.path().c_str(), 1);
    REQUIRE(symlink(templ.path(), folder.file("t_grp.conf").c_str()) == 0);
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  static const Platform platform;
  const auto parts = parts_of(data, size, 2);
  const std::string group(parts[0].substr(0, parts[0].find('\0'))), text(parts[1]);
  platform.templ.hold(text);
  const auto settings = settings_in(text);
  if (!is_path(group)) {
    require_refused(group, PARAM_SERVICE_BAD_PATH);
  } else if (!settings) {
    require_refused(group, PARAM_SERVICE_NO_TEMPLATE);
  } else {
    const std::string stem = group + "." + group[group.rfind('.') + 1];
    require_made(group, 1234567, stem + "1234567", *settings);
    require_made(group, -1, stem + "0", *settings);
    const std::string top = group.substr(0, group.find('.'));
    const auto removed = remove(top);
    REQUIRE(removed == PARAM_SERVICE_OK || !contents_of(stem + "0", *settings));
    REQUIRE(remove(top) == PARAM_SERVICE_NO_GROUP);
  }
  REQUIRE(take_log().size() == (is_path(group) && !settings ? 1 : 0));
  return 0;
}
