#pragma once

#include <sys/stat.h>

#include <cerrno>

#include "support/SyscallFaults.h"

/// For compaction_test, until it needs these two no more.
class StoppablePowerLoss : public PowerLoss {
 public:
  explicit StoppablePowerLoss(const std::string& folder) : PowerLoss(folder), m_folder(folder) {
    s_power = this;
    s_stop = s_refused = SIZE_MAX;
    s_under = Zarn::GetFileSyscalls();
    Zarn::FileSyscalls& calls = Zarn::GetFileSyscalls();
#define STOP(name)                                                                               \
  calls.name = [](auto... arguments) -> decltype(s_under.name(arguments...)) {                   \
    if (s_power->CountSteps() >= s_stop || Refuses(#name, arguments...)) return errno = EIO, -1; \
    return s_under.name(arguments...);                                                           \
  };
    STOP(pwrite)
    STOP(pwritev)
    STOP(ftruncate) STOP(fdatasync) STOP(fsync) STOP(unlink) STOP(rename) STOP(renameNoReplace)
#undef STOP
  }
  void StopAt(std::size_t step) { s_stop = step; }
  void GoOn() { s_stop = SIZE_MAX; }
  void RefuseWrites(const std::string& name, std::size_t n) {
    struct stat status = {};
    ::stat((m_folder + "/" + name).c_str(), &status);
    s_file = status.st_ino;
    s_refused = n;
  }

 private:
  template <typename... Others>
  static bool Refuses(const char* name, int fd, Others...) {
    struct stat status = {};
    ::fstat(fd, &status);
    if (name[1] != 'w' || status.st_ino != s_file || s_refused == SIZE_MAX) return false;
    return s_refused == 0 || s_refused-- == 0;
  }
  template <typename... Others>
  static bool Refuses(const char*, const char*, Others...) {
    return false;
  }
  static inline StoppablePowerLoss* s_power;
  static inline std::size_t s_stop, s_refused;
  static inline ino_t s_file;
  static inline Zarn::FileSyscalls s_under;
  const std::string m_folder;
};
#define PowerLoss StoppablePowerLoss
