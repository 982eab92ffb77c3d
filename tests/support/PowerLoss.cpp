#include "support/PowerLoss.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <optional>

#include "FileSyscalls.h"

namespace {

namespace fs = std::filesystem;

struct Step {
  enum Kind { kWrite, kLength, kSync, kName, kSyncNames } kind;
  ino_t file = 0;
  off_t offset = 0;
  std::string bytes;     // written
  std::string from, to;  // names; "" for none
};

struct Disk {
  std::map<ino_t, std::string> files;
  std::map<std::string, ino_t> names;
};

Zarn::FileSyscalls g_calls;  // the true ones
std::mutex g_mutex;
Disk g_disk;  // at first
std::vector<Step> g_steps;
std::size_t g_stop;
ino_t g_refused;
std::size_t g_refusedFrom;

ino_t FileOf(int fd) {
  struct stat status = {};
  g_calls.fstat(fd, &status);
  return status.st_ino;
}

// Does a step and records it, unless it fails.
template <typename Do>
auto Perform(Step step, Do action) -> decltype(action()) {
  const std::lock_guard guard(g_mutex);
  const bool refused = step.kind == Step::kWrite && step.file == g_refused && g_refusedFrom-- == 0;
  if (refused) ++g_refusedFrom;
  if (refused || g_steps.size() >= g_stop) {
    errno = EIO;
    return -1;
  }
  const auto result = action();
  if (result >= 0) g_steps.push_back(std::move(step));
  return result;
}

std::string NameOf(const char* path) { return fs::path(path).filename().string(); }

int Rename(int (*call)(const char*, const char*), const char* from, const char* to) {
  return Perform({Step::kName, 0, 0, "", NameOf(from), NameOf(to)}, [&] { return call(from, to); });
}

std::string Joined(const iovec* parts, int count) {
  std::string bytes;
  for (int i = 0; i < count; ++i)
    bytes.append(static_cast<const char*>(parts[i].iov_base), parts[i].iov_len);
  return bytes;
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
    if (!step.from.empty()) {
      const auto found = disk.names.find(step.from);
      if (found == disk.names.end()) return;
      file = found->second;
      disk.names.erase(found);
    }
    if (step.from.empty())
      disk.files[file].clear();  // made anew, perhaps with a number used before
    if (!step.to.empty()) disk.names[step.to] = file;
  }
}

// Those pages of a write that are kept.
void ApplyPages(const Step& write, const std::function<bool()>& keep, Disk& disk) {
  constexpr std::size_t kPageSize = 4096;
  for (std::size_t done = 0, size; done < write.bytes.size(); done += size) {
    const auto at = static_cast<std::size_t>(write.offset) + done;
    size = std::min(kPageSize - at % kPageSize, write.bytes.size() - done);
    if (keep())
      Apply({Step::kWrite, write.file, static_cast<off_t>(at), write.bytes.substr(done, size), "",
             ""},
            disk);
  }
}

}  // namespace

PowerLoss::PowerLoss(std::string folder) : m_folder(std::move(folder)) {
  g_disk = {};
  g_steps.clear();
  GoOn();
  g_refused = 0;
  for (const fs::directory_entry& entry : fs::directory_iterator(m_folder)) {
    struct stat status = {};
    ::stat(entry.path().c_str(), &status);
    std::ifstream file(entry.path(), std::ios::binary);
    g_disk.names[entry.path().filename().string()] = status.st_ino;
    g_disk.files[status.st_ino].assign(std::istreambuf_iterator<char>(file), {});
  }
  Zarn::FileSyscalls& calls = Zarn::GetFileSyscalls();
  g_calls = calls;
  calls.pwrite = [](int fd, const void* buffer, size_t size, off_t position) {
    return Perform({Step::kWrite, FileOf(fd), position,
                    std::string(static_cast<const char*>(buffer), size), "", ""},
                   [&] { return g_calls.pwrite(fd, buffer, size, position); });
  };
  calls.pwritev = [](int fd, const iovec* parts, int count, off_t position) {
    return Perform({Step::kWrite, FileOf(fd), position, Joined(parts, count), "", ""},
                   [&] { return g_calls.pwritev(fd, parts, count, position); });
  };
  calls.ftruncate = [](int fd, off_t length) {
    return Perform({Step::kLength, FileOf(fd), length, "", "", ""},
                   [&] { return g_calls.ftruncate(fd, length); });
  };
  calls.copy_file_range = [](int, off_t*, int, off_t*, size_t, unsigned int) -> ssize_t {
    errno = EXDEV;
    return -1;
  };
  calls.fallocate = [](int, int, off_t, off_t) { return errno = EOPNOTSUPP, -1; };
  calls.mmap = [](void* address, size_t size, int protection, int flags, int fd, off_t position) {
    const bool isStore = (protection & PROT_WRITE) != 0 && fd >= 0;
    return isStore ? MAP_FAILED : g_calls.mmap(address, size, protection, flags, fd, position);
  };
  // The record of a sync is enough: this test is not about the disk of the machine that it runs on.
  calls.fdatasync = [](int fd) {
    return Perform({Step::kSync, FileOf(fd), 0, "", "", ""}, [] { return 0; });
  };
  calls.fsync = [](int fd) {
    struct stat status = {};
    g_calls.fstat(fd, &status);
    const Step::Kind kind = S_ISDIR(status.st_mode) ? Step::kSyncNames : Step::kSync;
    return Perform({kind, status.st_ino, 0, "", "", ""}, [] { return 0; });
  };
  calls.open = [](const char* path, int flags, mode_t mode) {
    if ((flags & O_CREAT) == 0) return g_calls.open(path, flags, mode);
    int fd = -1;
    Perform({Step::kName, 0, 0, "", "", NameOf(path)}, [&] {
      fd = g_calls.open(path, flags, mode);
      return fd;
    });
    if (fd >= 0) g_steps.back().file = FileOf(fd);
    return fd;
  };
  calls.unlink = [](const char* path) {
    return Perform({Step::kName, 0, 0, "", NameOf(path), ""}, [&] { return g_calls.unlink(path); });
  };
  calls.rename = [](const char* from, const char* to) { return Rename(g_calls.rename, from, to); };
  calls.renameNoReplace = [](const char* from, const char* to) {
    return Rename(g_calls.renameNoReplace, from, to);
  };
}

PowerLoss::~PowerLoss() { Zarn::GetFileSyscalls() = g_calls; }

std::size_t PowerLoss::CountSteps() const { return g_steps.size(); }

void PowerLoss::StopAt(std::size_t step) { g_stop = step; }

void PowerLoss::GoOn() { g_stop = SIZE_MAX; }

void PowerLoss::RefuseWrites(const std::string& name, std::size_t n) {
  g_refused = g_disk.names.at(name);
  g_refusedFrom = n;
}

void PowerLoss::Leave(std::size_t step, const std::function<bool()>& keep) {
  Disk disk = g_disk;
  for (std::size_t i = 0; i < step; ++i) {
    bool synced = false;
    for (std::size_t k = i + 1; k < step && !synced; ++k)
      synced = g_steps[i].kind == Step::kName
                   ? g_steps[k].kind == Step::kSyncNames
                   : g_steps[k].kind == Step::kSync && g_steps[k].file == g_steps[i].file;
    if (!synced && g_steps[i].kind == Step::kWrite)
      ApplyPages(g_steps[i], keep, disk);
    else if (synced || keep())
      Apply(g_steps[i], disk);
  }
  for (const fs::directory_entry& entry : fs::directory_iterator(m_folder))
    fs::remove(entry.path());
  for (const auto& [name, file] : disk.names)
    std::ofstream(fs::path(m_folder) / name, std::ios::binary) << disk.files[file];
}
