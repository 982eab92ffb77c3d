#pragma once

#include <sys/wait.h>
#include <unistd.h>

namespace Support {

/// The wait status of a forked process that ends with what `body` answers; if it hangs, the alarm
/// ends it.
template <typename Body>
int RunForked(Body body) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(120);
    ::_exit(static_cast<int>(body()));
  }
  int status = -1;
  ::waitpid(child, &status, 0);
  return status;
}

}  // namespace Support
