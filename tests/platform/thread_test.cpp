#include <gtest/gtest.h>

#include <barrier>
#include <list>
#include <set>
#include <thread>

#include "ZrMutex.h"
#include "ZrThread.h"

namespace Zarn {
namespace {

TEST(MutexTest, OnlyReentrantOnesLockTwice) {
  for (const int reentrant : {0, 1}) {
    ZrMutex mutex(reentrant);
    mutex.Lock();
    EXPECT_EQ(mutex.TryLock(), reentrant == 1);
    for (int depth = reentrant; depth >= 0; --depth) {
      std::jthread([&] { EXPECT_FALSE(mutex.TryLock()); }).join();
      mutex.Unlock();
    }
    std::jthread([&] { EXPECT_TRUE(mutex.TryLock() && (mutex.Unlock(), true)); }).join();
  }
}

// Spoils the number of a thread that has another one when its objects are destroyed.
struct AsksAtTheEnd {
  std::uint32_t& number;
  ~AsksAtTheEnd() { number *= number == ZrThread::GetCurrentThreadId(); }
};

TEST(ThreadTest, NumbersAreUniqueAmongLiveThreadsAndUsedAgain) {
  for (int round = 0; round < 625; ++round) {
    std::uint32_t numbers[] = {ZrThread::GetCurrentThreadId(), 0, 0, 0, 0, 0, 0, 0, 0};
    std::barrier allHaveOne(8);
    std::list<std::jthread> threads;
    for (int i = 1; i <= 8; ++i)
      threads.emplace_back([&number = numbers[i], &allHaveOne] {
        thread_local const AsksAtTheEnd asks{number = ZrThread::GetCurrentThreadId()};
        allHaveOne.arrive_and_wait();
      });
    threads.clear();
    ASSERT_EQ(std::set(numbers, numbers + 9), (std::set{1U, 2U, 3U, 4U, 5U, 6U, 7U, 8U, 9U}));
  }
}

}  // namespace
}  // namespace Zarn
