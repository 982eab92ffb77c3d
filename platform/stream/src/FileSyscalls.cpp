#include "FileSyscalls.h"

#include <sys/mman.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdio>

namespace Zarn {
namespace {

FileSyscalls g_syscalls = {
    [](const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); },
    ::close,
    ::pread,
    ::pwrite,
    ::pwritev,
    ::copy_file_range,
    ::fstat,
    ::fstatfs,
    ::stat,
    ::statx,
    ::lseek,
    ::mmap,
    ::madvise,
    ::ftruncate,
    ::fallocate,
    ::fdatasync,
    ::fsync,
    ::sync_file_range,
    [](int fd, int command, struct flock* lock) { return ::fcntl(fd, command, lock); },
    ::fchmod,
    ::fchown,
    ::getxattr,
    ::fgetxattr,
    ::fsetxattr,
    ::fremovexattr,
    ::mkdir,
    ::unlink,
    ::link,
    ::rename,
    [](const char* from, const char* to) {
      return ::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE);
    },
    [](const char* from, const char* to) {
      return ::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_EXCHANGE);
    },
};

}  // namespace

FileSyscalls& GetFileSyscalls() { return g_syscalls; }

}  // namespace Zarn
