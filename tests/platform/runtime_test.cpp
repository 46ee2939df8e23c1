#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <thread>
#include <type_traits>

#include "tern/rtl/random.h"
#include "tern/rtl/semaphore.h"
#include "tern/rtl/timestamp.h"

namespace {

using tern::rtl::Semaphore;
using tern::rtl::Timestamp;

TEST(Timestamp, IsAnEightByteValue) {
  static_assert(sizeof(Timestamp) == 8);
  static_assert(std::is_trivially_copyable_v<Timestamp>);
  EXPECT_EQ(Timestamp().Microseconds(), 0);
  Timestamp const t(-1234567890123456);
  Timestamp copy = t;
  EXPECT_EQ(copy.Microseconds(), -1234567890123456);
  EXPECT_TRUE(copy == t);
  EXPECT_FALSE(copy != t);
  copy = Timestamp(5);
  EXPECT_TRUE(copy != t);
  EXPECT_TRUE(t < copy);
  EXPECT_FALSE(copy < t);
  EXPECT_FALSE(copy < copy);
}

TEST(Timestamp, NowCountsMicrosecondsSinceTheEpoch) {
  constexpr std::int64_t k2020 = 1577836800LL * 1000000;  // 2020-01-01T00:00:00Z
  constexpr std::int64_t k2200 = 7258118400LL * 1000000;  // 2200-01-01T00:00:00Z
  auto const now = Timestamp::Now().Microseconds();
  EXPECT_GT(now, k2020);
  EXPECT_LT(now, k2200);  // seconds or nanoseconds would fall outside
}

TEST(Semaphore, PostReleasesAWaitingThread) {
  Semaphore semaphore;
  std::atomic<int> stage{0};
  int seenAfterWait = -1;
  std::thread waiter([&] {
    semaphore.Wait();
    seenAfterWait = stage.load();
  });
  stage = 1;
  semaphore.Post();
  waiter.join();
  EXPECT_EQ(seenAfterWait, 1);
}

// Neither semaphore blocks: a lost post would hang the test until CTest's timeout.
TEST(Semaphore, CountAccumulates) {
  Semaphore posted;
  posted.Post();
  posted.Post();
  Semaphore preset(2);
  int returned = 0;
  for (auto* semaphore : {&posted, &posted, &preset, &preset}) {
    semaphore->Wait();
    ++returned;
  }
  EXPECT_EQ(returned, 4);
}

TEST(TernRandomGenerate, FillsTheWholeBuffer) {
  std::array<std::uint8_t, 32> first{}, second{};
  EXPECT_EQ(tern::rtl::TernRandomGenerate(first.data(), first.size()), 0);
  EXPECT_EQ(tern::rtl::TernRandomGenerate(second.data(), second.size()), 0);
  EXPECT_NE(first, second);
  EXPECT_NE(first, decltype(first){});
  EXPECT_EQ(tern::rtl::TernRandomGenerate(nullptr, 0), 0);
}

}  // namespace
