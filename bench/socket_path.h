// socket_path.h - a path for one socket, in a new folder of its own. Both are removed in the end.
#pragma once
#include <glib.h>
#include <unistd.h>

#include <string>

#include "answering_process.h"
#include "handles.h"

namespace bench {

class SocketPath {
  ptz_test::Text folder_{g_dir_make_tmp("ptz-bench-XXXXXX", nullptr)};
  std::string path_;

 public:
  SocketPath() {
    if (folder_ == nullptr) give_up("no folder for the socket");
    path_ = std::string(folder_.get()) + "/driver";
  }
  SocketPath(SocketPath &&) = delete;
  ~SocketPath() {
    unlink(path_.c_str());
    rmdir(folder_.get());
  }
  [[nodiscard]] const std::string &text() const { return path_; }
};

}  // namespace bench
