#include "schedule/mutex.h"

#include <gtest/gtest.h>

#include <mutex>
#include <thread>

namespace {

TEST(Mutex, TryingFailsOnlyWhileSomebodyHoldsIt) {
  TMutex mutex;
  EXPECT_TRUE(mutex.trylock());
  std::thread([&] { EXPECT_FALSE(mutex.trylock()); }).join();
  mutex.unlock();
  std::thread([&] {
    EXPECT_TRUE(mutex.trylock());
    mutex.unlock();
  }).join();
}

TEST(Mutex, OneThreadAtATimeIsInside) {
  TMutex mutex;
  long count = 0;
  constexpr long kRounds = 20000;
  const auto work = [&] {
    for (long i = 0; i < kRounds; ++i) {
      std::lock_guard<TMutex> guard(mutex);
      ++count;
    }
  };
  std::thread other(work);
  work();
  other.join();
  EXPECT_EQ(count, 2 * kRounds);
}

}  // namespace
