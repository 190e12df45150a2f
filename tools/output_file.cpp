#include "output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "handles.h"
#include "plain_text.h"

namespace tools {

namespace {

std::string problem_of(const std::string &path, const char *reason) {
  return plain_text(path) + " cannot be written: " + reason;
}
std::string exists(const std::string &path) { return plain_text(path) + " exists; --force replaces it"; }

bool write_whole(int fd, const std::string &text) {
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t count = write(fd, text.data() + done, text.size() - done);
    if (count < 0 && errno != EINTR) return false;
    if (count > 0) done += static_cast<std::size_t>(count);
  }
  return fsync(fd) == 0;
}

}  // namespace

std::string problem_with_output(const std::string &path, Existing existing) {
  struct stat status = {};
  if (lstat(path.c_str(), &status) == 0) {
    if (!S_ISREG(status.st_mode)) return problem_of(path, "it is no regular file");
    if (existing == Existing::keep) return exists(path);
  } else if (errno != ENOENT) {
    return problem_of(path, g_strerror(errno));
  }
  const Text folder(g_path_get_dirname(path.c_str()));
  return access(folder.get(), W_OK | X_OK) == 0 ? "" : problem_of(path, g_strerror(errno));
}

std::string write_output(const std::string &path, const std::string &text, Existing existing, mode_t mode) {
  if (auto problem = problem_with_output(path, existing); !problem.empty()) return problem;
  std::string temporary = path + ".XXXXXX";
  const UniqueFd fd(g_mkstemp_full(temporary.data(), O_WRONLY | O_CLOEXEC, static_cast<int>(mode)));
  if (!fd) return problem_of(path, g_strerror(errno));
  // A link fails if another process has made the file meanwhile; a rename would replace it.
  const bool is_done =
      write_whole(fd.get(), text) && (existing == Existing::keep ? link(temporary.c_str(), path.c_str()) == 0
                                                                 : rename(temporary.c_str(), path.c_str()) == 0);
  const int error = errno;
  unlink(temporary.c_str());
  if (is_done) return "";
  return error == EEXIST ? exists(path) : problem_of(path, g_strerror(error));
}

}  // namespace tools
