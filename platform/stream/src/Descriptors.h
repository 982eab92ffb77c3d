#pragma once

#include <pthread.h>

#include <cerrno>
#include <new>

#include "FileSyscalls.h"
#include "HxThreadSafety.h"

namespace Zarn {

/// Repeats a system call while a signal interrupts it.
template <typename Call>
auto Uninterrupted(Call call) {
  decltype(call()) result;
  do
    result = call();
  while (result < 0 && errno == EINTR);
  return result;
}

/// Descriptors 0 to 2 belong to the standard streams: a program that has closed one of them may
/// still print there, and must not print into a container. Moves such a descriptor; -1 if that
/// fails, and then it is closed.
inline int AboveStandardStreams(int fd) {
  constexpr int kFirstFree = 3;
  if (fd < 0 || fd >= kFirstFree) return fd;
  const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, kFirstFree);
  GetFileSyscalls().close(fd);
  return moved;
}

/// Makes the one Registry of the process, which has a mutex `m_mutex`, hold that mutex while a
/// thread forks, and makes the child call its DropInChild(). So a child drops each descriptor that
/// the registry knows, if the registry's mutex is held wherever one is opened or closed. One
/// function takes the mutex and another one releases it, which clang cannot follow.
template <typename Registry>
void HandleForkOf() {
  const int result = ::pthread_atfork([]() HX_NOT_CHECKED { Registry::Get().m_mutex.Lock(); },
                                      []() HX_NOT_CHECKED { Registry::Get().m_mutex.Unlock(); },
                                      []() HX_NOT_CHECKED {
                                        Registry::Get().DropInChild();
                                        Registry::Get().m_mutex.Unlock();
                                      });
  if (result != 0) throw std::bad_alloc();  // its only reason
}

}  // namespace Zarn
