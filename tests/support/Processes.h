#pragma once

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <string>

namespace Support {

/// A forked process, which ends with 0 if `body` returns true. It is killed in the end.
struct Child {
  explicit Child(const auto& body) : pid(::fork()) {
    if (pid < 0 || (pid == 0 && ::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0)) std::abort();
    if (pid == 0) ::_exit(body() ? 0 : 1);
  }
  Child(Child&&) = delete;
  ~Child() {
    Kill();
    ::waitpid(pid, nullptr, 0);
  }
  void Kill() const {
    ::kill(pid, SIGKILL);
    Wait(WEXITED);
  }
  bool Succeeds() const { return Wait(WEXITED) == 0; }
  /// Waits until it has stopped itself, which tells that it has a lock.
  bool Locks() const { return Wait(WEXITED | WSTOPPED) == SIGSTOP; }
  /// Its exit status, or the signal that has ended or stopped it.
  int Wait(int events) const {
    siginfo_t info = {};
    ::waitid(P_PID, static_cast<id_t>(pid), &info, events | WNOWAIT);
    return info.si_status;
  }
  /// Whether it sleeps, which it does only while it waits for a lock.
  bool IsStuck() const {
    std::string number, name, state;
    while (state.empty() || state == "R" || state == "D")
      std::ifstream("/proc/" + std::to_string(pid) + "/stat") >> number >> name >> state;
    return state == "S";
  }

  const pid_t pid;
};

}  // namespace Support
