// A whole tree that is put in the place of the present one.
#include <unistd.h>
#include <cerrno>
#include <cstdio>

#include "base/check.h"
#include "param_tree.h"

namespace ptz::platform {

// The rename is the moment of the change: a process that is killed before it leaves the old tree, and one that is
// killed after it leaves a file that the next process recognises as a replacement.
StoreResult ParamTree::replace_by(const std::string &image, std::string &reason) {
  Patience patience;
  struct stat folder = {};
  while (true) {
    {
      const MutexLock lock(&lock_);
      const auto result = begin_replacement(folder);
      if (result == StoreResult::ok) break;
      if (result != StoreResult::busy || patience.is_over()) {
        reason = cause_;
        return result;
      }
    }
    patience.pause();
  }
  bool replaced = false;
  const StoreResult written = put_in_place(image, folder, replaced);
  const int error = errno;
  const MutexLock lock(&lock_);
  StoreResult result = replaced ? finish_replacement() : StoreResult::ok;
  if (written != StoreResult::ok && result == StoreResult::ok) {
    const char *what = replaced ? "is restored, but may not survive a power failure" : "cannot be written";
    result = fail(written, system_reason(what, error));
  }
  if (result != StoreResult::ok) reason = cause_;
  release_lock();
  flushing_ = false;
  return result;
}

// After ok, this thread holds the tree's lock and `flushing_` is set.
StoreResult ParamTree::begin_replacement(struct stat &folder) {
  if (const auto connected = connect(false); connected != StoreResult::ok) return connected;
  if (const auto taken = take_lock(); taken != StoreResult::ok) return taken;
  if (stat(folder_of(file_name_).c_str(), &folder) != 0) {
    release_lock();
    return fail(StoreResult::failed, system_reason("cannot be written", errno));
  }
  flushing_ = true;
  return StoreResult::ok;
}

// lock_ not held; the tree's lock is. Reads go on with the former file and its log, which have no names any more. The
// name of the new file is durable before the log is removed, and the removal before the record accepts the file. After
// a failure, errno is set.
StoreResult ParamTree::remove_former_log() const {
  const std::string folder = folder_of(file_name_);
  const bool named = flush_folder(folder);
  const int error = errno;
  if (remove_log(file_name_) && flush_folder(folder) && named) return StoreResult::ok;
  if (!named) errno = error;
  return StoreResult::failed;
}

// lock_ not held; the tree's lock is. After a failure, errno is set.
StoreResult ParamTree::put_in_place(const std::string &image, const struct stat &folder, bool &replaced) const {
  std::string temporary;
  const UniqueFd fd(open_temporary(file_name_, folder, temporary));
  if (fd && write_whole(fd.get(), image) && fsync(fd.get()) == 0) {
    replaced = rename(temporary.c_str(), file_name_.c_str()) == 0;
  }
  if (replaced) return remove_former_log();
  const int error = errno;
  if (fd) unlink(temporary.c_str());
  errno = error;
  if (error == ENOSPC || error == EDQUOT) return StoreResult::full;
  return error == EACCES || error == EPERM || error == EROFS ? StoreResult::read_only : StoreResult::failed;
}

StoreResult ParamTree::finish_replacement() {
  disconnect();
  const auto generation = side_->load().generation;
  if (!remove_log(file_name_)) {
    return fail(StoreResult::failed, system_reason("the log of the former file cannot be removed", errno));
  }
  record_database(Record::flushed, generation + 1);
  suspect_ = false;
  return StoreResult::ok;
}

}  // namespace ptz::platform
