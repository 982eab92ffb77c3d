#include <gtest/gtest.h>

#include <barrier>
#include <ctime>
#include <set>
#include <thread>
#include <vector>

#include "PelmTime.h"
#include "ZrMutex.h"
#include "ZrThread.h"

namespace Zarn {
namespace {

bool IsFree(ZrMutex& mutex) {
  bool locked = false;
  std::thread([&] {
    locked = mutex.TryLock();
    if (locked) mutex.Unlock();
  }).join();
  return locked;
}

TEST(MutexTest, OnlyReentrantOnesLockTwice) {
  for (const int reentrant : {0, 1}) {
    ZrMutex mutex(reentrant);
    mutex.Lock();
    EXPECT_EQ(mutex.TryLock(), reentrant == 1);
    EXPECT_FALSE(IsFree(mutex));
    mutex.Unlock();
    EXPECT_EQ(IsFree(mutex), reentrant == 0);
    if (reentrant == 1) mutex.Unlock();
    EXPECT_TRUE(IsFree(mutex));
  }
}

// Spoils the number of a thread that has another one when its objects are destroyed.
struct AsksAtTheEnd {
  std::uint32_t& number;
  ~AsksAtTheEnd() { number *= number == ZrThread::GetCurrentThreadId(); }
};

TEST(ThreadTest, NumbersAreUniqueAmongLiveThreadsAndUsedAgain) {
  constexpr std::uint32_t kAtOnce = 8;
  const std::uint32_t own = ZrThread::GetCurrentThreadId();
  for (int round = 0; round < 625; ++round) {  // 5,000 threads in all
    std::uint32_t numbers[kAtOnce];
    std::barrier allHaveOne(kAtOnce);
    std::vector<std::thread> threads;
    for (std::uint32_t& number : numbers) {
      threads.emplace_back([&] {
        number = ZrThread::GetCurrentThreadId();
        allHaveOne.arrive_and_wait();
        thread_local const AsksAtTheEnd asks{number};
      });
    }
    for (std::thread& thread : threads)
      thread.join();
    std::set<std::uint32_t> inUse(numbers, numbers + kAtOnce);
    inUse.insert(own);
    ASSERT_EQ(inUse.size(), kAtOnce + 1) << round;
    ASSERT_TRUE(*inUse.begin() == 1 && *inUse.rbegin() == kAtOnce + 1) << round;
  }
}

TEST(TimeTest, CountsDaysSinceTheEpoch) {
  EXPECT_NEAR(PelmTime().GetCurTime().GetTime(), double(std::time(nullptr)) / 86400, 0.5);
}

}  // namespace
}  // namespace Zarn
