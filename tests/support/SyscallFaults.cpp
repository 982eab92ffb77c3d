#include "support/SyscallFaults.h"

#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

// clang-format off
#define FOR_EACH_CALL(DO)                                                                         \
  DO(open) DO(close) DO(pread) DO(pwrite) DO(pwritev) DO(copy_file_range) DO(fstat) DO(fstatfs)   \
  DO(stat) DO(statx) DO(lseek) DO(mmap) DO(madvise) DO(ftruncate) DO(fallocate) DO(fdatasync)     \
  DO(fsync) DO(sync_file_range) DO(lock) DO(fchmod) DO(fchown) DO(getxattr) DO(fgetxattr)         \
  DO(fsetxattr) DO(fremovexattr) DO(mkdir) DO(unlink) DO(link) DO(rename) DO(renameNoReplace)     \
  DO(renameExchange)
// clang-format on

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kPageSize = 4096;

// What fails: calls, or requests for memory. The n-th of each that is counted; 0: none.
struct Choice {
  std::atomic<std::size_t> count, failing;
  bool isForGood;

  void Set(std::size_t n, SyscallFaults::Extent extent) {
    isForGood = extent == SyscallFaults::kFromThenOn;
    failing = n == 0 ? 0 : count + n;
  }
  bool Has(std::size_t number) const {
    return failing != 0 && (number == failing || (isForGood && number > failing));
  }
};

Zarn::FileSyscalls g_saved;
std::atomic<bool> g_installed;
std::atomic<std::size_t> g_total;  // calls
Choice g_calls, g_requests;
int g_error;  // of calls
pthread_t g_thread;
std::size_t g_killing, g_boundary;  // the number of the call at which the process dies

struct Range {
  off_t position = 0;
  std::size_t size = 0;

  // What lies before the n-th page boundary in it; 0 if there is none, and before all.
  std::size_t SizeBefore(std::size_t n) const {
    const std::size_t before = n * kPageSize - static_cast<std::size_t>(position) % kPageSize;
    return n > 0 && before < size ? before : 0;
  }
};

// The bytes that a call moves.
template <typename Bytes>
Range RangeOf(int, Bytes*, std::size_t size, off_t position) {
  return {position, size};
}
template <typename... Others>
Range RangeOf(Others...) {
  return {};
}

// Changes the arguments of a call so that it moves no more than `limit` bytes.
template <typename Bytes>
void Limit(std::size_t limit, int&, Bytes*&, std::size_t& size, off_t&) {
  size = std::min(size, limit);
}
template <typename... Others>
void Limit(std::size_t, Others&...) {}

bool IsRelease(std::string_view, int, int, struct flock* lock) { return lock->l_type == F_UNLCK; }
template <typename... Arguments>
bool IsRelease(std::string_view name, Arguments...) {
  return name == "close";
}

bool IsOneOf(std::string_view name, std::string_view names) {
  return names.find(' ' + std::string(name) + ' ') != names.npos;
}
constexpr std::string_view kTakingRoom = " pwrite copy_file_range fallocate mkdir link ";
constexpr std::string_view kInterrupted =
    " open pread pwrite copy_file_range ftruncate fallocate fdatasync fsync lock ";

// Whether the call is one of those that g_error is for.
bool IsMeant(std::string_view name, const Range& range) {
  if (g_error == EINTR) return IsOneOf(name, kInterrupted);
  if (g_error == ENOSPC) return IsOneOf(name, kTakingRoom);
  return g_error != SyscallFaults::kCutOff || (name == "pwrite" && range.SizeBefore(1) != 0);
}

// How many bytes a call may move. One that is cut off is followed by an error.
std::size_t LimitOf(const Range& range) {
  if (g_error == SyscallFaults::kShort) return (range.size + 1) / 2;
  g_error = EIO;
  ++g_calls.failing;
  return range.SizeBefore(1);
}

// A change of a file or a name.
struct Step {
  enum Kind { kWrite, kLength, kSync, kName, kSyncNames } kind;
  ino_t file = 0;
  off_t offset = 0;
  std::string bytes = {};          // written
  std::string from = {}, to = {};  // names; "" for none
};

struct Disk {
  std::map<ino_t, std::string> files;
  std::map<std::string, ino_t> names;
};

bool g_records;
fs::path g_folder;
Disk g_disk;  // at first
std::vector<Step> g_steps;

struct stat StatusOf(int fd) {
  struct stat status = {};
  ::fstat(fd, &status);
  return status;
}
std::string NameOf(const char* path) { return fs::path(path).filename().string(); }

// What a call that has succeeded has changed.
void Record(std::string_view, ssize_t size, int fd, const void* bytes, std::size_t, off_t at) {
  const std::string all(static_cast<const char*>(bytes), static_cast<std::size_t>(size));
  for (std::size_t done = 0, piece; done < all.size(); done += piece) {
    const off_t position = at + static_cast<off_t>(done);
    piece = kPageSize - static_cast<std::size_t>(position) % kPageSize;
    g_steps.push_back({Step::kWrite, StatusOf(fd).st_ino, position, all.substr(done, piece)});
  }
}
void Record(std::string_view, int, int fd, off_t length) {
  g_steps.push_back({Step::kLength, StatusOf(fd).st_ino, length});
}
void Record(std::string_view name, int, int fd) {
  if (name == "close") return;
  const auto kind = S_ISDIR(StatusOf(fd).st_mode) ? Step::kSyncNames : Step::kSync;
  g_steps.push_back({kind, StatusOf(fd).st_ino});
}
void Record(std::string_view, int fd, const char* path, int flags, mode_t) {
  if ((flags & O_CREAT) == 0) return;
  g_steps.push_back({Step::kName, StatusOf(fd).st_ino, 0, "", "", NameOf(path)});
}
void Record(std::string_view, int, const char* path) {
  g_steps.push_back({Step::kName, 0, 0, "", NameOf(path), ""});
}
void Record(std::string_view name, int, const char* from, const char* to) {
  if (!name.starts_with("rename") || name == "renameExchange") std::abort();  // not known here
  g_steps.push_back({Step::kName, 0, 0, "", NameOf(from), NameOf(to)});
}
template <typename... Others>
void Record(std::string_view, Others...) {}

template <typename Call, typename... Arguments>
auto Pass(std::string_view name, Call call, Arguments... arguments) {
  const std::size_t number = ++g_total;
  const Range range = RangeOf(arguments...);
  if (number == g_killing) {
    const std::size_t size = name == "pwrite" ? range.SizeBefore(g_boundary) : 0;
    if (g_boundary > 0 && size == 0) ::_exit(SyscallFaults::kNoBoundary);
    Limit(size, arguments...);
    if (size > 0) call(arguments...);
    ::kill(::getpid(), SIGKILL);
  }
  const bool isChosen = IsMeant(name, range) && g_calls.Has(++g_calls.count);
  const bool fails = isChosen && g_error > 0;
  if (isChosen && !fails) Limit(LimitOf(range), arguments...);
  using Result = decltype(call(arguments...));
  const auto failure = (Result)-1;  // of any type: a number, or MAP_FAILED
  const Result result = fails && !IsRelease(name, arguments...) ? failure : call(arguments...);
  if (g_records && result != failure) Record(name, result, arguments...);
  if (fails) errno = g_error;
  return fails ? failure : result;
}

bool FailsRequest() {
  if (g_requests.failing == 0 || ::pthread_equal(g_thread, ::pthread_self()) == 0) return false;
  if (!g_requests.Has(++g_requests.count)) return false;
  errno = ENOMEM;
  return true;
}

void Apply(const Step& step, Disk& disk) {
  if (step.kind == Step::kWrite || step.kind == Step::kLength) {
    std::string& file = disk.files[step.file];
    const auto offset = static_cast<std::size_t>(step.offset);
    if (step.kind == Step::kLength || file.size() < offset + step.bytes.size())
      file.resize(offset + step.bytes.size());
    file.replace(offset, step.bytes.size(), step.bytes);
  } else if (step.kind == Step::kName) {
    ino_t file = step.file;
    if (step.from.empty()) {
      disk.files[file].clear();  // made anew, perhaps with a number used before
    } else {
      const auto found = disk.names.find(step.from);
      if (found == disk.names.end()) return;
      file = found->second;
      disk.names.erase(found);
    }
    if (!step.to.empty()) disk.names[step.to] = file;
  }
}

bool IsSynced(std::size_t step, std::size_t end) {
  const auto [kind, file] = std::pair(g_steps[step].kind, g_steps[step].file);
  for (; step < end; ++step) {
    const Step& later = g_steps[step];
    if (kind == Step::kName ? later.kind == Step::kSyncNames
                            : later.kind == Step::kSync && later.file == file)
      return true;
  }
  return false;
}

// As one write. Where memory may run short, it must not ask for any.
ssize_t PassParts(int fd, const iovec* parts, int count, off_t at) {
  if (g_requests.failing != 0) return g_saved.pwritev(fd, parts, count, at);
  std::string bytes;
  for (int i = 0; i < count; ++i)
    bytes.append(static_cast<const char*>(parts[i].iov_base), parts[i].iov_len);
  return Pass("pwrite", g_saved.pwrite, fd, static_cast<const void*>(bytes.data()), bytes.size(),
              at);
}

}  // namespace

SyscallFaults::SyscallFaults() {
  if (g_installed.exchange(true)) std::abort();  // the calls would pass here for ever
  g_saved = Zarn::GetFileSyscalls();
  g_total = 0;
  g_killing = 0;
#define INSTALL(name)                                    \
  Zarn::GetFileSyscalls().name = [](auto... arguments) { \
    return Pass(#name, g_saved.name, arguments...);      \
  };
  FOR_EACH_CALL(INSTALL)
  Zarn::GetFileSyscalls().pwritev = PassParts;
#define PLUS_ONE(name) +1
  static_assert(sizeof g_saved == sizeof g_saved.open * (FOR_EACH_CALL(PLUS_ONE)));
}

SyscallFaults::~SyscallFaults() {
  FailCall(0, 0);
  FailRequest(0);
  Zarn::GetFileSyscalls() = g_saved;
  g_installed = false;
}

void SyscallFaults::FailCall(std::size_t n, int error, Extent extent) {
  g_error = error;
  g_calls.Set(error == 0 ? 0 : n, extent);
}

void SyscallFaults::FailRequest(std::size_t n, Extent extent) {
  g_thread = ::pthread_self();
  g_requests.Set(n, extent);
}

void SyscallFaults::KillAtCall(std::size_t n, std::size_t boundary) {
  g_killing = g_total + n;
  g_boundary = boundary;
}

bool SyscallFaults::HasFailed() const {
  const Choice& choice = g_requests.failing != 0 ? g_requests : g_calls;
  return choice.failing != 0 && choice.count >= choice.failing;
}

std::size_t SyscallFaults::GetCount() const { return g_total; }

PowerLoss::PowerLoss(std::string folder) {
  g_folder = std::move(folder);
  g_disk = {};
  g_steps.clear();
  for (const fs::directory_entry& entry : fs::directory_iterator(g_folder)) {
    struct stat status = {};
    ::stat(entry.path().c_str(), &status);
    std::ifstream file(entry.path(), std::ios::binary);
    g_disk.names[entry.path().filename().string()] = status.st_ino;
    g_disk.files[status.st_ino].assign(std::istreambuf_iterator<char>(file), {});
  }
  Zarn::FileSyscalls& calls = Zarn::GetFileSyscalls();
  calls.copy_file_range = [](auto...) -> ssize_t { return errno = EXDEV, -1; };
  calls.fallocate = [](auto...) { return errno = EOPNOTSUPP, -1; };
  calls.mmap = [](void* address, size_t size, int protection, int flags, int fd, off_t position) {
    const bool isStore = (protection & PROT_WRITE) != 0 && fd >= 0;
    return isStore ? MAP_FAILED : g_saved.mmap(address, size, protection, flags, fd, position);
  };
  g_records = true;
}

PowerLoss::~PowerLoss() { g_records = false; }

std::size_t PowerLoss::CountSteps() const { return g_steps.size(); }

void PowerLoss::Leave(std::size_t step, const std::function<bool()>& keep) {
  Disk disk = g_disk;
  for (std::size_t i = 0; i < step; ++i)
    if (IsSynced(i, step) || keep()) Apply(g_steps[i], disk);
  for (const fs::directory_entry& entry : fs::directory_iterator(g_folder))
    fs::remove(entry.path());
  for (const auto& [name, file] : disk.names)
    std::ofstream(g_folder / name, std::ios::binary) << disk.files[file];
}

#define LIBC [[gnu::visibility("default")]]

extern "C" {

// Where a sanitizer is linked, memory must come from its functions.
[[gnu::weak]] void* __interceptor_malloc(std::size_t size);
[[gnu::weak]] void* __interceptor_realloc(void* old, std::size_t size);
[[gnu::weak]] void* __interceptor_mmap(void*, std::size_t, int, int, int, off_t);
void* __libc_malloc(std::size_t size);
void* __libc_realloc(void* old, std::size_t size);

LIBC void* malloc(std::size_t size) noexcept {
  if (FailsRequest()) return nullptr;
  return __interceptor_malloc != nullptr ? __interceptor_malloc(size) : __libc_malloc(size);
}

LIBC void* realloc(void* old, std::size_t size) noexcept {
  if (FailsRequest()) return nullptr;
  return __interceptor_realloc != nullptr ? __interceptor_realloc(old, size)
                                          : __libc_realloc(old, size);
}

LIBC void* mmap(void* address, std::size_t size, int protection, int flags, int fd,
                off_t offset) noexcept {
  if (FailsRequest()) return MAP_FAILED;
  if (__interceptor_mmap != nullptr)
    return __interceptor_mmap(address, size, protection, flags, fd, offset);
  return ::mmap64(address, size, protection, flags, fd, offset);  // glibc's other name for it
}

}  // extern "C"

[[gnu::noinline]] void* operator new(std::size_t size) {
  void* const memory = std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
