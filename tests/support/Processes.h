#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vector>

namespace Support {

/// Forks processes that end with 0 if `body` returns 0; those that hang are ended by the alarm.
template <typename Body>
std::vector<pid_t> Fork(unsigned int count, Body body) {
  std::vector<pid_t> children(count);
  for (unsigned int i = 0; i < count; ++i) {
    children[i] = ::fork();
    if (children[i] != 0) continue;
    ::alarm(120);
    ::_exit(body(i) == 0 ? 0 : 1);
  }
  return children;
}

inline void ExpectEnd(const std::vector<pid_t>& children, int expected) {
  for (const pid_t child : children) {
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, expected);
  }
}

}  // namespace Support
