#include "support/LibcFaults.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

std::atomic<std::size_t> g_failing;  // the number of the call that fails; 0: none
std::size_t g_count;
pthread_t g_thread;
LibcFaults::Kind g_kind;
int g_error;
bool g_forGood;

bool Fails(LibcFaults::Kind kind, bool mayBeInterrupted = false) {
  if (g_failing == 0 || kind != g_kind || !::pthread_equal(g_thread, ::pthread_self()))
    return false;
  const std::size_t number = ++g_count;
  if (number < g_failing || (number > g_failing && !g_forGood)) return false;
  if (g_error == EINTR && !mayBeInterrupted) return false;
  errno = g_error;
  return true;
}

}  // namespace

LibcFaults::LibcFaults(Kind kind, std::size_t n, int error, bool forGood) {
  g_count = 0;
  g_thread = ::pthread_self();
  g_kind = kind;
  g_error = kind == kMemory ? ENOMEM : error;
  g_forGood = forGood;
  g_failing = n;
}

LibcFaults::~LibcFaults() { g_failing = 0; }

bool LibcFaults::HasFailed() const { return g_count >= g_failing; }

#define LIBC [[gnu::visibility("default")]]

extern "C" {

// Where a sanitizer is linked, memory must come from its functions.
[[gnu::weak]] void* __interceptor_malloc(std::size_t size);
[[gnu::weak]] void* __interceptor_realloc(void* old, std::size_t size);
[[gnu::weak]] void* __interceptor_mmap(void* address, std::size_t size, int protection, int flags,
                                       int fd, off_t offset);
void* __libc_malloc(std::size_t size);
void* __libc_realloc(void* old, std::size_t size);

LIBC void* malloc(std::size_t size) noexcept {
  if (Fails(LibcFaults::kMemory)) return nullptr;
  return __interceptor_malloc != nullptr ? __interceptor_malloc(size) : __libc_malloc(size);
}

LIBC void* realloc(void* old, std::size_t size) noexcept {
  if (Fails(LibcFaults::kMemory)) return nullptr;
  return __interceptor_realloc != nullptr ? __interceptor_realloc(old, size)
                                          : __libc_realloc(old, size);
}

LIBC void* mmap(void* address, std::size_t size, int protection, int flags, int fd,
                off_t offset) noexcept {
  if (Fails(LibcFaults::kMemory)) return MAP_FAILED;
  if (__interceptor_mmap != nullptr)
    return __interceptor_mmap(address, size, protection, flags, fd, offset);
  const long mapped = ::syscall(SYS_mmap, address, size, protection, flags, fd, offset);
  return reinterpret_cast<void*>(mapped);
}

// To give a lock back never fails.
LIBC int fcntl(int fd, int command, ...) {
  va_list list;
  va_start(list, command);
  const auto argument = va_arg(list, std::intptr_t);
  va_end(list);
  const bool isLock = command == F_OFD_SETLK || command == F_OFD_SETLKW || command == F_OFD_GETLK;
  if (isLock && reinterpret_cast<const struct flock*>(argument)->l_type != F_UNLCK &&
      Fails(LibcFaults::kCalls, true))
    return -1;
  return static_cast<int>(::syscall(SYS_fcntl, fd, command, argument));
}

LIBC ssize_t read(int fd, void* buffer, std::size_t size) {
  return Fails(LibcFaults::kCalls, true) ? -1 : ::syscall(SYS_read, fd, buffer, size);
}

LIBC int fstatfs(int fd, struct statfs* status) noexcept {
  return Fails(LibcFaults::kCalls, true) ? -1
                                         : static_cast<int>(::syscall(SYS_fstatfs, fd, status));
}

LIBC int inotify_init1(int flags) noexcept {
  return Fails(LibcFaults::kCalls) ? -1 : static_cast<int>(::syscall(SYS_inotify_init1, flags));
}

LIBC int inotify_add_watch(int fd, const char* path, std::uint32_t mask) noexcept {
  return Fails(LibcFaults::kCalls)
             ? -1
             : static_cast<int>(::syscall(SYS_inotify_add_watch, fd, path, mask));
}

LIBC ssize_t getrandom(void* buffer, std::size_t size, unsigned int flags) {
  return Fails(LibcFaults::kCalls) ? -1 : ::syscall(SYS_getrandom, buffer, size, flags);
}

}  // extern "C"

void* operator new(std::size_t size) {
  void* const memory = std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
