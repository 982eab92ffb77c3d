#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>

namespace Bench {

/// A benchmark of operations that fail is worth nothing: ends the program.
inline void Check(bool ok) {
  if (ok) return;
  std::fprintf(stderr, "benchmark: an operation failed\n");
  std::abort();
}

/// A folder of this process's own below TMPDIR, as long as the object lives.
class WorkFolder {
 public:
  explicit WorkFolder(const std::string& name)
      : m_path(std::filesystem::temp_directory_path() / (name + "-" + std::to_string(::getpid()))) {
    std::filesystem::create_directories(m_path);
  }
  ~WorkFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  WorkFolder(const WorkFolder&) = delete;
  WorkFolder& operator=(const WorkFolder&) = delete;

  const std::filesystem::path& GetPath() const { return m_path; }

 private:
  std::filesystem::path m_path;
};

/// Writes back what is dirty on that file system, so that nothing is while others are measured.
inline void Settle(const std::filesystem::path& folder) {
  const int file = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  Check(file >= 0 && ::syncfs(file) == 0 && ::close(file) == 0);
}

/// What follows an option on the command line.
inline std::string FindOption(int argc, char** argv, const std::string& option,
                              const std::string& otherwise) {
  for (int i = 1; i + 1 < argc; ++i)
    if (argv[i] == option) return argv[i + 1];
  return otherwise;
}

template <typename Action>
double Seconds(Action action) {
  const auto start = std::chrono::steady_clock::now();
  action();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// Of the processor, by all threads: the time of work that waits for nobody, without that during
/// which a busy machine did something else.
template <typename Action>
double CpuSeconds(Action action) {
  const auto now = [] {
    timespec time = {};
    Check(::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time) == 0);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
  };
  const double start = now();
  action();
  return now() - start;
}

}  // namespace Bench
