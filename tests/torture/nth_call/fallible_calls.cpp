// The calls that can fail, with the errors that are plausible for each.
#include <sys/syscall.h>

#include <cerrno>

#include "trap.h"

namespace nth_call {

namespace {

constexpr FallibleCall calls[] = {
    {SYS_read, "read", {EINTR, EAGAIN, EIO, ECONNRESET, ENOMEM, short_transfer}},
    {SYS_pread64, "pread64", {EINTR, EIO, short_transfer}},
    {SYS_write, "write", {EINTR, EAGAIN, EPIPE, ECONNRESET, ENOBUFS, ENOSPC, EIO, short_transfer}},
    {SYS_pwrite64, "pwrite64", {EINTR, ENOSPC, EIO, short_transfer}},
    {SYS_recvfrom, "recvfrom", {EINTR, EAGAIN, ECONNRESET, ENOMEM}},
    {SYS_recvmsg, "recvmsg", {EINTR, EAGAIN, ECONNRESET, ENOMEM}},
    {SYS_sendto, "sendto", {EINTR, EAGAIN, EPIPE, ECONNRESET, ENOBUFS, ENOMEM}},
    {SYS_sendmsg, "sendmsg", {EINTR, EAGAIN, EPIPE, ECONNRESET, ENOBUFS, ENOMEM}},
    {SYS_openat, "openat", {EINTR, EMFILE, ENFILE, ENOMEM, EACCES, ENOSPC, EIO}},
    {SYS_close, "close", {EINTR, EIO}},
    {SYS_socket, "socket", {EMFILE, ENFILE, ENOBUFS, ENOMEM, EACCES}},
    {SYS_bind, "bind", {EADDRINUSE, EACCES, ENOMEM, ENOSPC, EROFS}},
    {SYS_listen, "listen", {EADDRINUSE, EINVAL}},
    {SYS_connect, "connect", {EINTR, EAGAIN, ECONNREFUSED, EACCES, ENOMEM, ENOENT}},
    {SYS_accept, "accept", {EINTR, EAGAIN, ECONNABORTED, EMFILE, ENFILE, ENOBUFS, ENOMEM}},
    {SYS_accept4, "accept4", {EINTR, EAGAIN, ECONNABORTED, EMFILE, ENFILE, ENOBUFS, ENOMEM}},
    {SYS_fcntl, "fcntl", {EINTR, EAGAIN, ENOLCK}},
    {SYS_ioctl, "ioctl", {EINTR, ENOTTY}},
    {SYS_flock, "flock", {EINTR, EAGAIN, ENOLCK}},
    {SYS_ppoll, "ppoll", {EINTR, ENOMEM}},
    {SYS_pselect6, "pselect6", {EINTR, ENOMEM, EBADF}},
#ifdef SYS_poll
    {SYS_poll, "poll", {EINTR, ENOMEM}},
    {SYS_open, "open", {EINTR, EMFILE, ENFILE, ENOMEM, EACCES, ENOSPC, EIO}},
    {SYS_stat, "stat", {ENOMEM, EACCES, EIO}},
    {SYS_lstat, "lstat", {ENOMEM, EACCES, EIO}},
    {SYS_access, "access", {ENOMEM, EACCES, EIO}},
    {SYS_unlink, "unlink", {EACCES, EBUSY, EIO, EROFS}},
    {SYS_rename, "rename", {EACCES, ENOSPC, EIO, EROFS}},
    {SYS_link, "link", {EACCES, ENOSPC, EIO, EMLINK}},
    {SYS_mkdir, "mkdir", {EACCES, ENOSPC, EIO, EROFS}},
    {SYS_chmod, "chmod", {EPERM, EIO, EROFS}},
    {SYS_readlink, "readlink", {ENOMEM, EACCES, EIO}},
#endif
    {SYS_fstat, "fstat", {ENOMEM, EIO}},
    {SYS_newfstatat, "newfstatat", {ENOMEM, EACCES, EIO}},
    {SYS_statx, "statx", {ENOMEM, EACCES, EIO}},
    {SYS_faccessat, "faccessat", {ENOMEM, EACCES, EIO}},
    {SYS_unlinkat, "unlinkat", {EACCES, EBUSY, EIO}},
    {SYS_renameat, "renameat", {EACCES, ENOSPC, EIO}},
    {SYS_linkat, "linkat", {EACCES, ENOSPC, EIO, EMLINK}},
    {SYS_mkdirat, "mkdirat", {EACCES, ENOSPC, EIO}},
    {SYS_fchmod, "fchmod", {EPERM, EIO}},
    {SYS_fchmodat, "fchmodat", {EPERM, EIO}},
    {SYS_fchown, "fchown", {EPERM, EIO}},
    {SYS_ftruncate, "ftruncate", {EINTR, ENOSPC, EIO}},
    {SYS_fallocate, "fallocate", {EINTR, ENOSPC, EIO, EOPNOTSUPP}},
    {SYS_fsync, "fsync", {EINTR, EIO, ENOSPC}},
    {SYS_fdatasync, "fdatasync", {EINTR, EIO, ENOSPC}},
    {SYS_mmap, "mmap", {ENOMEM, ENODEV, EACCES}},
    {SYS_getdents64, "getdents64", {ENOMEM, EIO}},
    {SYS_readlinkat, "readlinkat", {ENOMEM, EACCES}},
    {SYS_getsockopt, "getsockopt", {ENOBUFS, ENOMEM}},
    {SYS_setsockopt, "setsockopt", {ENOBUFS, ENOMEM}},
    {SYS_shutdown, "shutdown", {ENOTCONN}},
    {SYS_inotify_init1, "inotify_init1", {EMFILE, ENFILE, ENOMEM}},
    {SYS_inotify_add_watch, "inotify_add_watch", {ENOSPC, ENOMEM, EACCES}},
    {SYS_prlimit64, "prlimit64", {EPERM, EINVAL}},
    {SYS_fstatfs, "fstatfs", {EIO, ENOMEM}},
    {SYS_utimensat, "utimensat", {EACCES, EIO}},
    {SYS_eventfd2, "eventfd2", {EMFILE, ENFILE, ENOMEM}},
    {SYS_kill, "kill", {EPERM, ESRCH}},
#ifdef SYS_pidfd_open
    {SYS_pidfd_open, "pidfd_open", {EMFILE, ENOMEM, ENOSYS}},
#endif
};

}  // namespace

std::span<const FallibleCall> fallible_calls() { return calls; }

}  // namespace nth_call
