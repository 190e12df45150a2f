// src/params/path_as_format.h - a path that a caller gives in place of a format, without arguments.
#pragma once
#include <glib.h>
#include <cstring>
#include <string>

namespace ptz {

// contract: "%%" in the path stands for "%". Any other conversion stands for itself: it would read an argument that was
// not given. To be passed on as two arguments: f(x.format(), x.text()). A finished path is not passed through here but
// formatted with "%s".
class PathAsFormat {
  const gchar *path_;
  std::string resolved_;

 public:
  explicit PathAsFormat(const gchar *path) : path_(path) {
    if (path == nullptr || std::strchr(path, '%') == nullptr) return;
    for (const gchar *c = path; *c != '\0'; ++c) {
      resolved_.push_back(*c);
      if (c[0] == '%' && c[1] == '%') ++c;
    }
    path_ = resolved_.c_str();
  }
  PathAsFormat(PathAsFormat &&) = delete;
  [[nodiscard]] const gchar *format() const { return path_ != nullptr ? "%s" : nullptr; }
  [[nodiscard]] const gchar *text() const { return path_; }
};

}  // namespace ptz
