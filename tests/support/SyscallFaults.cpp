#include "SyscallFaults.h"

#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <string_view>
#include <utility>

// clang-format off
#define FOR_EACH_CALL(DO)                                                          \
  DO(open) DO(close) DO(pread) DO(pwrite) DO(pwritev) DO(copy_file_range) DO(fstat) DO(fstatfs) DO(stat) DO(statx) \
  DO(lseek) DO(mmap) DO(madvise) DO(ftruncate) DO(fallocate) DO(fdatasync) DO(fsync) DO(sync_file_range) DO(lock) DO(fchmod) DO(fchown) \
  DO(getxattr) DO(fgetxattr) DO(fsetxattr) DO(fremovexattr) DO(mkdir) DO(unlink) \
  DO(link) DO(rename) DO(renameNoReplace) DO(renameExchange)
// clang-format on

namespace {

constexpr std::size_t kPageSize = 4096;

Zarn::FileSyscalls g_saved;
bool g_installed;
std::atomic<std::size_t> g_total;
std::size_t g_failing;  // the number of the call that fails, in the order of g_total
int g_error;            // 0: none fails
SyscallFaults::Extent g_extent;

std::size_t g_killing;  // the number of the call at which the process dies; 0: none
std::size_t g_killingBoundary;

std::mutex g_mutex;
std::vector<std::size_t> g_boundaries;  // of each call

struct Range {
  off_t position = 0;
  std::size_t size = 0;

  std::size_t CountBoundaries() const {
    const auto start = static_cast<std::size_t>(position);
    return size == 0 ? 0 : (start + size - 1) / kPageSize - start / kPageSize;
  }
  std::size_t SizeBefore(std::size_t boundary) const {
    const auto start = static_cast<std::size_t>(position);
    return (start / kPageSize + boundary) * kPageSize - start;
  }
};

// The bytes that a call moves.
template <typename Bytes>
Range RangeOf(int, Bytes*, std::size_t size, off_t position) {
  return {position, size};
}
Range RangeOf(int, const iovec* parts, int count, off_t position) {
  Range range = {position, 0};
  for (int i = 0; i < count; ++i)
    range.size += parts[i].iov_len;
  return range;
}
Range RangeOf(int, off_t*, int, off_t* to, std::size_t size, unsigned int) { return {*to, size}; }
template <typename... Arguments>
Range RangeOf(Arguments...) {
  return {};
}

// Makes a call that moves no more than `limit` bytes.
template <typename Call, typename Bytes>
ssize_t Limited(std::size_t limit, Call call, int fd, Bytes* bytes, std::size_t size,
                off_t position) {
  return call(fd, bytes, std::min(size, limit), position);
}
template <typename Call>
ssize_t Limited(std::size_t limit, Call call, int fd, const iovec* parts, int count,
                off_t position) {
  std::vector<iovec> some;
  for (int i = 0; i < count && limit > 0; ++i) {
    some.push_back({parts[i].iov_base, std::min(parts[i].iov_len, limit)});
    limit -= some.back().iov_len;
  }
  return call(fd, some.data(), static_cast<int>(some.size()), position);
}
template <typename Call>
ssize_t Limited(std::size_t limit, Call call, int source, off_t* from, int target, off_t* to,
                std::size_t size, unsigned int flags) {
  return call(source, from, target, to, std::min(size, limit), flags);
}
template <typename Call, typename... Arguments>
auto Limited(std::size_t, Call call, Arguments... arguments) {
  return call(arguments...);
}

// What gives something up does so even when it reports a failure.
bool IsRelease(std::string_view, int, int, struct flock* lock) { return lock->l_type == F_UNLCK; }
template <typename... Arguments>
bool IsRelease(std::string_view name, Arguments...) {
  return name == "close";
}

bool IsWrite(std::string_view name) {
  return name.starts_with("pwrite") || name.starts_with("copy");
}

bool MayBeInterrupted(std::string_view name) {
  return IsWrite(name) || name == "open" || name == "pread" || name == "ftruncate" ||
         name == "fallocate" || name == "fdatasync" || name == "fsync";
}

bool TakesRoom(std::string_view name) {
  return IsWrite(name) || name == "fallocate" || name == "mkdir" || name == "link";
}

bool IsChosen(std::size_t number) {
  return number == g_failing || (g_extent == SyscallFaults::kFromThenOn && number > g_failing);
}

// Whether the call of this number fails by g_error, an error number.
bool Fails(std::string_view name, std::size_t number) {
  return g_error > 0 && IsChosen(number) && (g_error != EINTR || MayBeInterrupted(name)) &&
         (g_error != ENOSPC || TakesRoom(name));
}

// How many bytes the call of this number may move. A write that is cut off goes on with an error.
std::size_t LimitOf(bool isWrite, std::size_t number, const Range& range) {
  if (g_error == SyscallFaults::kShort && IsChosen(number)) return (range.size + 1) / 2;
  if (g_error != SyscallFaults::kCutOff || number != g_failing || !isWrite ||
      range.CountBoundaries() == 0)
    return SIZE_MAX;
  ++g_failing;
  g_error = EIO;
  return range.SizeBefore(1);
}

template <typename Call, typename... Arguments>
auto Pass(std::string_view name, Call call, Arguments... arguments) {
  const std::size_t number = ++g_total;
  const Range range = RangeOf(arguments...);
  {
    const std::lock_guard guard(g_mutex);
    g_boundaries.push_back(IsWrite(name) ? range.CountBoundaries() : 0);
  }
  if (number == g_killing) {
    if (g_killingBoundary > 0) Limited(range.SizeBefore(g_killingBoundary), call, arguments...);
    ::kill(::getpid(), SIGKILL);
  }
  const bool fails = Fails(name, number);
  const std::size_t limit = fails ? 0 : LimitOf(IsWrite(name), number, range);
  using Result = decltype(call(arguments...));
  const auto failure = (Result)-1;  // of any type: a number, or MAP_FAILED
  const Result result =
      fails && !IsRelease(name, arguments...) ? failure : Limited(limit, call, arguments...);
  if (fails) errno = g_error;
  return fails ? failure : result;
}

#define PLUS_ONE(name) +1
static_assert(sizeof(g_saved) == sizeof(g_saved.open) * (FOR_EACH_CALL(PLUS_ONE)));

}  // namespace

SyscallFaults::SyscallFaults() {
  if (std::exchange(g_installed, true)) std::abort();  // the calls would pass here for ever
  g_saved = Zarn::GetFileSyscalls();
  g_total = 0;
  g_error = 0;
  g_killing = 0;
  g_boundaries.clear();
#define INSTALL(name)                                    \
  Zarn::GetFileSyscalls().name = [](auto... arguments) { \
    return Pass(#name, g_saved.name, arguments...);      \
  };
  FOR_EACH_CALL(INSTALL)
}

SyscallFaults::~SyscallFaults() {
  Zarn::GetFileSyscalls() = g_saved;
  g_installed = false;
}

void SyscallFaults::FailCall(std::size_t n, int error, Extent extent) {
  g_failing = g_total + n;
  g_error = error;
  g_extent = extent;
}

void SyscallFaults::KillAtCall(std::size_t n, std::size_t boundary) {
  g_killing = g_total + n;
  g_killingBoundary = boundary;
}

bool SyscallFaults::HasFailed() const { return g_error != 0 && g_total >= g_failing; }

std::size_t SyscallFaults::GetCount() const { return g_total; }

std::vector<std::size_t> SyscallFaults::GetBoundaries() const {
  const std::lock_guard guard(g_mutex);
  return g_boundaries;
}
