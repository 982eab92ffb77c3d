#include "ZrThread.h"

#include <pthread.h>

#include <atomic>

namespace Zarn {
namespace {

// One bit per number in use, as many as a Linux kernel allows threads (4,194,304). A bitmap of
// atomics needs neither a lock nor memory from the heap, so a number can be had and given back at
// any moment of a process's life: in a forked child, and while the process is ending.
constexpr std::uint32_t kWordCount = 65536;
constexpr std::uint32_t kBitsPerWord = 64;
std::atomic<std::uint64_t> g_used[kWordCount];

thread_local std::uint32_t t_id = 0;

std::uint32_t TakeSmallestFreeNumber() {
  for (std::uint32_t word = 0; word < kWordCount; ++word) {
    std::uint64_t used = g_used[word].load(std::memory_order_relaxed);
    while (used != ~std::uint64_t{0}) {
      const auto bit = static_cast<std::uint32_t>(__builtin_ctzll(~used));
      if (g_used[word].compare_exchange_weak(used, used | std::uint64_t{1} << bit,
                                             std::memory_order_acquire))
        return word * kBitsPerWord + bit + 1;
    }
  }
  return kWordCount * kBitsPerWord + 1;  // more threads than the kernel can have
}

extern "C" void GiveNumberBack(void* number) {
  const auto index = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(number)) - 1;
  t_id = 0;
  if (index < kWordCount * kBitsPerWord)
    g_used[index / kBitsPerWord].fetch_and(~(std::uint64_t{1} << index % kBitsPerWord),
                                           std::memory_order_release);
}

// A thread-specific key rather than a thread_local object: its destructor runs after those of all
// thread_local objects, which may still ask for the number.
pthread_key_t MakeKey() {
  pthread_key_t key;
  pthread_key_create(&key, GiveNumberBack);
  return key;
}

}  // namespace

std::uint32_t ZrThread::GetCurrentThreadId() {
  if (t_id == 0) {
    static const pthread_key_t key = MakeKey();
    t_id = TakeSmallestFreeNumber();
    pthread_setspecific(key, reinterpret_cast<void*>(std::uintptr_t{t_id}));
  }
  return t_id;
}

}  // namespace Zarn
