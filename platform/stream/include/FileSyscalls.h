#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <sys/vfs.h>

#include "HxPlatformExport.h"

namespace Zarn {

/// The system calls by which the file classes reach the file system, each with the contract of the
/// call it is named after. A test replaces entries to count calls or to make the n-th one fail; it
/// does so while no other thread uses a file.
struct FileSyscalls {
  int (*open)(const char* path, int flags, mode_t mode);
  int (*close)(int fd);
  ssize_t (*pread)(int fd, void* buffer, size_t size, off_t position);
  ssize_t (*pwrite)(int fd, const void* buffer, size_t size, off_t position);
  ssize_t (*pwritev)(int fd, const iovec* parts, int count, off_t position);
  ssize_t (*copy_file_range)(int source, off_t* from, int target, off_t* to, size_t size,
                             unsigned int flags);
  int (*fstat)(int fd, struct stat* status);
  int (*fstatfs)(int fd, struct statfs* status);
  int (*stat)(const char* path, struct stat* status);
  int (*statx)(int folder, const char* path, int flags, unsigned int mask, struct statx* status);
  off_t (*lseek)(int fd, off_t position, int whence);
  void* (*mmap)(void* address, size_t size, int protection, int flags, int fd, off_t position);
  int (*madvise)(void* address, size_t size, int advice);
  int (*ftruncate)(int fd, off_t length);
  int (*fallocate)(int fd, int mode, off_t position, off_t length);
  int (*fdatasync)(int fd);
  int (*fsync)(int fd);
  int (*sync_file_range)(int fd, off_t position, off_t length, unsigned int flags);
  /// fcntl with the commands for locks of open file descriptions.
  int (*lock)(int fd, int command, struct flock* lock);
  int (*fchmod)(int fd, mode_t mode);
  int (*fchown)(int fd, uid_t user, gid_t group);
  ssize_t (*getxattr)(const char* path, const char* name, void* value, size_t size);
  ssize_t (*fgetxattr)(int fd, const char* name, void* value, size_t size);
  int (*fsetxattr)(int fd, const char* name, const void* value, size_t size, int flags);
  int (*fremovexattr)(int fd, const char* name);
  int (*mkdir)(const char* path, mode_t mode);
  int (*unlink)(const char* path);
  int (*link)(const char* from, const char* to);
  int (*rename)(const char* from, const char* to);
  /// renameat2 with RENAME_NOREPLACE, relative to the working directory.
  int (*renameNoReplace)(const char* from, const char* to);
  /// The same with RENAME_EXCHANGE.
  int (*renameExchange)(const char* from, const char* to);
};

/// The table in use: at first the kernel's own calls.
HX_PLATFORM_API FileSyscalls& GetFileSyscalls();

}  // namespace Zarn
