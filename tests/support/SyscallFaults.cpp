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

Zarn::FileSyscalls g_saved;
std::atomic<bool> g_installed;
std::atomic<std::size_t> g_total;  // calls
std::atomic<int> g_error;
std::atomic<std::size_t> g_count, g_failing;  // of what g_error is for; 0: none fails
bool g_isForGood;
pthread_t g_thread;                 // whose requests for memory count
std::size_t g_killing, g_boundary;  // the number of the call at which the process dies

// What a killed write has done: what lies before a page boundary.
void DoPart(int fd, const void* bytes, std::size_t size, off_t position) {
  const std::size_t before =
      g_boundary * kPageSize - static_cast<std::size_t>(position) % kPageSize;
  if (g_boundary > 0 && before >= size) ::_exit(SyscallFaults::kNoBoundary);
  if (g_boundary > 0) g_saved.pwrite(fd, bytes, before, position);
}
template <typename... Others>
void DoPart(Others...) {
  if (g_boundary > 0) ::_exit(SyscallFaults::kNoBoundary);
}

template <typename Bytes>
void Halve(int&, Bytes*&, std::size_t& size, off_t&) {
  size = (size + 1) / 2;
}
template <typename... Others>
void Halve(Others&...) {}

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

enum Fate { kPasses, kIsHalved, kFails };

// Of a call, or a request for memory, if it is one of those that g_error is for.
Fate DrawFate(std::string_view name) {
  const bool isMeant = g_error == EINTR    ? IsOneOf(name, kInterrupted)
                       : g_error == ENOSPC ? IsOneOf(name, kTakingRoom)
                                           : (g_error == ENOMEM) == (name == "request");
  if (g_failing == 0 || !isMeant) return kPasses;
  const std::size_t number = ++g_count;
  if (g_error == SyscallFaults::kCutShort && number == g_failing + 1) return kFails;
  const bool isChosen = number == g_failing || (g_isForGood && number > g_failing);
  return !isChosen ? kPasses : g_error < 0 ? kIsHalved : kFails;
}

struct Disk {
  std::map<ino_t, std::string> files;
  std::map<std::string, ino_t> names;
};

// A change of a file (0: of names), or without one a sync of all that came before.
struct Step {
  ino_t file;
  std::function<void(Disk&)> change;
};

bool g_records;
fs::path g_folder;
Disk g_disk;  // at first
std::vector<Step> g_steps;

ino_t FileOf(int fd) {
  struct stat status = {};
  ::fstat(fd, &status);
  return S_ISDIR(status.st_mode) ? 0 : status.st_ino;
}
std::string NameOf(const char* path) { return fs::path(path).filename().string(); }

// What a call that has succeeded has changed.
void Record(std::string_view, ssize_t size, int fd, const void* bytes, std::size_t, off_t at) {
  const std::string all(static_cast<const char*>(bytes), static_cast<std::size_t>(size));
  for (std::size_t done = 0, length; done < all.size(); done += length) {
    const std::size_t position = static_cast<std::size_t>(at) + done;
    length = kPageSize - position % kPageSize;
    const auto change = [file = FileOf(fd), position,
                         piece = all.substr(done, length)](Disk& disk) {
      std::string& content = disk.files[file];
      content.resize(std::max(content.size(), position + piece.size()));
      content.replace(position, piece.size(), piece);
    };
    g_steps.push_back({FileOf(fd), change});
  }
}
void Record(std::string_view, int, int fd, off_t length) {
  const auto size = static_cast<std::size_t>(length);
  g_steps.push_back(
      {FileOf(fd), [=, file = FileOf(fd)](Disk& disk) { disk.files[file].resize(size); }});
}
void Record(std::string_view name, int, int fd) {
  if (name != "close") g_steps.push_back({FileOf(fd), nullptr});
}
void Record(std::string_view, int fd, const char* path, int flags, mode_t) {
  if ((flags & O_CREAT) == 0) return;
  g_steps.push_back({0, [name = NameOf(path), file = FileOf(fd)](Disk& disk) {
                       disk.names[name] = file;
                       disk.files[file].clear();  // perhaps a number used before
                     }});
}
void Record(std::string_view, int, const char* path) {
  g_steps.push_back({0, [name = NameOf(path)](Disk& disk) { disk.names.erase(name); }});
}
void Record(std::string_view name, int, const char* old, const char* path) {
  if (!name.starts_with("rename") || name == "renameExchange") std::abort();  // not known here
  g_steps.push_back({0, [from = NameOf(old), to = NameOf(path)](Disk& disk) {
                       const auto moved = disk.names.extract(from);
                       if (!moved.empty()) disk.names[to] = moved.mapped();
                     }});
}
template <typename... Others>
void Record(std::string_view, Others...) {}

template <typename Call, typename... Arguments>
auto Pass(std::string_view name, Call call, Arguments... arguments) {
  const std::size_t number = ++g_total;
  if (number == g_killing) {
    DoPart(arguments...);
    ::kill(::getpid(), SIGKILL);
  }
  const Fate fate = DrawFate(name);
  const bool fails = fate == kFails;
  if (fate == kIsHalved) Halve(arguments...);
  using Result = decltype(call(arguments...));
  const auto failure = (Result)-1;  // of any type: a number, or MAP_FAILED
  const Result result = fails && !IsRelease(name, arguments...) ? failure : call(arguments...);
  if (g_records && result != failure) Record(name, result, arguments...);
  if (fails) errno = g_error > 0 ? g_error.load() : EFBIG;
  return fails ? failure : result;
}

bool FailsRequest() {
  if (g_error != ENOMEM || ::pthread_equal(g_thread, ::pthread_self()) == 0) return false;
  if (DrawFate("request") == kPasses) return false;
  errno = ENOMEM;
  return true;
}

bool IsSynced(std::size_t step, std::size_t end) {
  const auto isItsSync = [&](const Step& later) {
    return later.change == nullptr && later.file == g_steps[step].file;
  };
  const auto steps = g_steps.begin();
  return std::any_of(steps + static_cast<std::ptrdiff_t>(step),
                     steps + static_cast<std::ptrdiff_t>(end), isItsSync);
}

// The files that are in the folder now count as synced.
void BeginRecords(const std::string& folder) {
  g_folder = folder;
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

// As one write. Where memory may run short, it must not ask for any.
ssize_t PassParts(int fd, const iovec* parts, int count, off_t at) {
  if (g_error == ENOMEM) return g_saved.pwritev(fd, parts, count, at);
  std::string bytes;
  for (int i = 0; i < count; ++i)
    bytes.append(static_cast<const char*>(parts[i].iov_base), parts[i].iov_len);
  return Pass("pwrite", g_saved.pwrite, fd, static_cast<const void*>(bytes.data()), bytes.size(),
              at);
}

}  // namespace

SyscallFaults::SyscallFaults(const std::string& recorded) {
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
  if (!recorded.empty()) BeginRecords(recorded);
}

SyscallFaults::~SyscallFaults() {
  FailCall(0, 0);
  g_records = false;
  Zarn::GetFileSyscalls() = g_saved;
  g_installed = false;
}

void SyscallFaults::FailCall(std::size_t n, int error, Extent extent) {
  g_error = error;
  g_thread = ::pthread_self();
  g_isForGood = extent == kFromThenOn;
  g_count = 0;
  g_failing = error == 0 ? 0 : n;
}

void SyscallFaults::KillAtCall(std::size_t n, std::size_t boundary) {
  g_killing = g_total + n;
  g_boundary = boundary;
}

bool SyscallFaults::HasFailed() const { return g_failing != 0 && g_count >= g_failing; }

std::size_t SyscallFaults::GetCount() const { return g_total; }

std::size_t SyscallFaults::CountSteps() const { return g_steps.size(); }

void SyscallFaults::Leave(std::size_t step, const std::function<bool()>& keep) {
  Disk disk = g_disk;
  for (std::size_t i = 0; i < step; ++i)
    if (g_steps[i].change != nullptr && (keep() || IsSynced(i, step))) g_steps[i].change(disk);
  for (const fs::directory_entry& entry : fs::directory_iterator(g_folder))
    fs::remove(entry.path());
  for (const auto& [name, file] : disk.names)
    std::ofstream(g_folder / name, std::ios::binary) << disk.files[file];
}

#define LIBC [[gnu::visibility("default")]]

extern "C" {

// Where a sanitizer is linked, memory must come from its functions.
[[gnu::weak]] void* __interceptor_malloc(std::size_t size);
[[gnu::weak]] void* __interceptor_calloc(std::size_t count, std::size_t size);
[[gnu::weak]] void* __interceptor_realloc(void* old, std::size_t size);
[[gnu::weak]] void* __interceptor_mmap(void*, std::size_t, int, int, int, off_t);
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* old, std::size_t size);

LIBC void* malloc(std::size_t size) noexcept {
  if (FailsRequest()) return nullptr;
  return __interceptor_malloc != nullptr ? __interceptor_malloc(size) : __libc_malloc(size);
}

LIBC void* calloc(std::size_t count, std::size_t size) noexcept {
  if (FailsRequest()) return nullptr;
  return __interceptor_calloc != nullptr ? __interceptor_calloc(count, size)
                                         : __libc_calloc(count, size);
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
