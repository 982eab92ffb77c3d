#include <gtest/gtest.h>

#include <barrier>
#include <ctime>
#include <list>
#include <set>
#include <thread>

#include "PelmTime.h"
#include "ZrMutex.h"
#include "ZrThread.h"

namespace Zarn {
namespace {

TEST(MutexTest, OnlyReentrantOnesLockTwice) {
  for (const int reentrant : {0, 1}) {
    ZrMutex mutex(reentrant);
    const auto lockElsewhere = [&] {
      bool locked = false;
      std::thread([&] { locked = mutex.TryLock() && (mutex.Unlock(), true); }).join();
      return locked;
    };
    mutex.Lock();
    EXPECT_TRUE(mutex.TryLock() == (reentrant == 1) && !lockElsewhere());
    mutex.Unlock();
    EXPECT_EQ(lockElsewhere(), reentrant == 0);
    if (reentrant == 1) mutex.Unlock();
    EXPECT_TRUE(lockElsewhere());
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
        number = ZrThread::GetCurrentThreadId();
        allHaveOne.arrive_and_wait();
        thread_local const AsksAtTheEnd asks{number};
      });
    threads.clear();
    ASSERT_EQ(std::set(std::begin(numbers), std::end(numbers)),
              (std::set<std::uint32_t>{1, 2, 3, 4, 5, 6, 7, 8, 9}));
  }
}

TEST(TimeTest, CountsDaysSinceTheEpoch) {
  EXPECT_NEAR(PelmTime().GetCurTime().GetTime(), double(std::time(nullptr)) / 86400, 0.5);
}

}  // namespace
}  // namespace Zarn
