#include "SyscallFaults.h"

#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <map>

// clang-format off
#define FOR_EACH_CALL(DO)                                                          \
  DO(open) DO(close) DO(pread) DO(pwrite) DO(pwritev) DO(copy_file_range) DO(fstat) DO(stat) \
  DO(lseek) DO(mmap) DO(ftruncate) DO(fallocate) DO(fdatasync) DO(fsync) DO(sync_file_range) DO(fchmod) DO(fchown) DO(mkdir) DO(unlink) \
  DO(link) DO(rename) DO(renameNoReplace) DO(renameExchange)
// clang-format on

namespace {

Zarn::FileSyscalls g_saved;
std::map<std::string_view, std::atomic<std::size_t>> g_counts;  // empty while none is installed
std::atomic<std::size_t> g_total;
std::size_t g_failing;  // the number of the call that fails, in the order of g_total
int g_error;            // 0: none fails
SyscallFaults::Extent g_extent;

std::size_t g_killing;  // the number of the call at which the process dies; 0: none
bool g_killsBefore;

void WriteHalf(int fd, const void* buffer, size_t size, off_t position) {
  g_saved.pwrite(fd, buffer, size / 2, position);
}
void WriteHalf(int fd, const iovec* parts, int, off_t position) {
  g_saved.pwritev(fd, parts, 1, position);
}
void WriteHalf(int source, off_t* from, int target, off_t* to, size_t size, unsigned int) {
  g_saved.copy_file_range(source, from, target, to, size / 2, 0);
}
template <typename... Arguments>
void WriteHalf(Arguments...) {}  // not a write

template <typename... Arguments>
[[noreturn]] void Die(std::string_view name, Arguments... arguments) {
  if (!g_killsBefore && (name.starts_with("pwrite") || name.starts_with("copy")))
    WriteHalf(arguments...);
  ::kill(::getpid(), SIGKILL);
  std::abort();
}

template <typename Call, typename... Arguments>
auto Pass(std::string_view name, Call call, Arguments... arguments) {
  ++g_counts.find(name)->second;
  const std::size_t number = ++g_total;
  if (number == g_killing) Die(name, arguments...);
  const bool later = g_extent == SyscallFaults::kFromThenOn && number > g_failing;
  const bool fails = g_error != 0 && (number == g_failing || later);
  using Result = decltype(call(arguments...));
  const auto failure = (Result)-1;  // of any type: a number, or MAP_FAILED
  const Result result = fails && name != "close" ? failure : call(arguments...);
  if (fails) errno = g_error;
  return fails ? failure : result;
}

#define PLUS_ONE(name) +1
static_assert(sizeof(g_saved) == sizeof(g_saved.open) * (FOR_EACH_CALL(PLUS_ONE)));

}  // namespace

SyscallFaults::SyscallFaults() {
  if (!g_counts.empty()) std::abort();  // the calls would pass here for ever
  g_saved = Zarn::GetFileSyscalls();
  g_total = 0;
  g_error = 0;
  g_killing = 0;
#define INSTALL(name)                                    \
  g_counts[#name] = 0;                                   \
  Zarn::GetFileSyscalls().name = [](auto... arguments) { \
    return Pass(#name, g_saved.name, arguments...);      \
  };
  FOR_EACH_CALL(INSTALL)
}

SyscallFaults::~SyscallFaults() {
  Zarn::GetFileSyscalls() = g_saved;
  g_counts.clear();
}

void SyscallFaults::FailCall(std::size_t n, int error, Extent extent) {
  g_failing = g_total + n;
  g_error = error;
  g_extent = extent;
}

void SyscallFaults::KillAtCall(std::size_t n, bool before) {
  g_killing = g_total + n;
  g_killsBefore = before;
}

bool SyscallFaults::HasFailed() const { return g_error != 0 && g_total >= g_failing; }

std::size_t SyscallFaults::GetCount() const { return g_total; }

std::size_t SyscallFaults::GetCount(std::string_view name) const { return g_counts.at(name); }
