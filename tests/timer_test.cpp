// SPDX-License-Identifier: MIT

#include "utils/timer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "tests/support/test_util.h"

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;
using zel_test::WaitFor;

// Generous upper bounds: the machines have 2 cores and are shared.
constexpr milliseconds kLateLimit(1000);
constexpr milliseconds kWaitLimit(10000);

int64_t ElapsedMs(Clock::time_point since) {
  return std::chrono::duration_cast<milliseconds>(Clock::now() - since).count();
}

// Records the moments at which a callback was called.
class Firings {
 public:
  // A callback for Timer::Start() that records its calls here.
  std::function<void(uint64_t, void*)> Callback() {
    return [this](uint64_t id, void* user) { Record(id, user); };
  }

  void Record(uint64_t id, void* user) {
    std::lock_guard<std::mutex> lock(mutex_);
    times_.push_back(Clock::now());
    ids_.push_back(id);
    users_.push_back(user);
  }

  std::size_t Count() {
    std::lock_guard<std::mutex> lock(mutex_);
    return times_.size();
  }

  bool WaitForCount(std::size_t count, milliseconds limit = kWaitLimit) {
    return WaitFor([&] { return Count() >= count; }, limit);
  }

  std::vector<Clock::time_point> Times() {
    std::lock_guard<std::mutex> lock(mutex_);
    return times_;
  }

  std::vector<uint64_t> Ids() {
    std::lock_guard<std::mutex> lock(mutex_);
    return ids_;
  }

  std::vector<void*> Users() {
    std::lock_guard<std::mutex> lock(mutex_);
    return users_;
  }

 private:
  std::mutex mutex_;
  std::vector<Clock::time_point> times_;
  std::vector<uint64_t> ids_;
  std::vector<void*> users_;
};

// Waits until `timer` has made at least `passes` more passes, counted by a
// periodic entry of its own that fires once per pass.
void WaitForPasses(zel::Timer& timer, std::size_t passes) {
  Firings ticks;
  const uint64_t id = timer.Start(1, ticks.Callback(), true, nullptr);
  ASSERT_TRUE(ticks.WaitForCount(passes));
  timer.Stop(id);
}

TEST(TimerTest, EpochIsTakenBeforeAnyTimerTime) {
  EXPECT_GT(g_timer_epoch, 0);
  EXPECT_EQ(&zel::g_timer_epoch, &g_timer_epoch);
}

TEST(TimerTest, IdsStartAtOneAndAreNeverReused) {
  zel::Timer timer;
  auto noop = [](uint64_t, void*) {};
  EXPECT_EQ(timer.Start(60000, noop, false, nullptr), 1u);
  EXPECT_EQ(timer.Start(60000, noop, true, nullptr), 2u);
  timer.Stop(1);
  timer.Stop(2);
  EXPECT_EQ(timer.Start(60000, noop, false, nullptr), 3u);
  zel::Timer other;
  EXPECT_EQ(other.Start(60000, noop, false, nullptr), 1u);
}

TEST(TimerTest, CallbackReceivesItsIdAndUserPointer) {
  zel::Timer timer;
  Firings firings;
  int a = 0;
  int b = 0;
  const uint64_t first = timer.Start(5, firings.Callback(), false, &a);
  const uint64_t second = timer.Start(5, firings.Callback(), false, &b);
  ASSERT_TRUE(firings.WaitForCount(2));
  EXPECT_EQ(firings.Ids(), (std::vector<uint64_t>{first, second}));
  EXPECT_EQ(firings.Users(), (std::vector<void*>{&a, &b}));
}

TEST(TimerTest, OneShotFiresOnceAndNotBeforeItsInterval) {
  zel::Timer timer;
  Firings firings;
  Firings later;
  const Clock::time_point start = Clock::now();
  timer.Start(50, firings.Callback(), false, nullptr);
  ASSERT_TRUE(firings.WaitForCount(1));
  const int64_t firedAfter =
      std::chrono::duration_cast<milliseconds>(firings.Times()[0] - start).count();
  EXPECT_GE(firedAfter, 50);
  EXPECT_LE(firedAfter, 50 + kLateLimit.count());
  // A later timer has fired: the one-shot had every chance to fire again.
  timer.Start(150, later.Callback(), false, nullptr);
  ASSERT_TRUE(later.WaitForCount(1));
  EXPECT_EQ(firings.Count(), 1u);
}

TEST(TimerTest, ZeroAndNegativeIntervalsMakeAOneShotDueAtTheNextPass) {
  zel::Timer timer;
  Firings firings;
  timer.Start(0, firings.Callback(), false, nullptr);
  timer.Start(-500, firings.Callback(), false, nullptr);
  ASSERT_TRUE(firings.WaitForCount(2));
  // The negative one is due earlier: it fires first.
  EXPECT_EQ(firings.Ids(), (std::vector<uint64_t>{2, 1}));
  WaitForPasses(timer, 3);
  EXPECT_EQ(firings.Count(), 2u);
}

TEST(TimerTest, PeriodicTimerFiresAtMultiplesOfItsIntervalWithoutDrift) {
  zel::Timer timer;
  Firings firings;
  const Clock::time_point start = Clock::now();
  // Each call takes 60 ms. Rescheduled from the previous due time, the
  // fifth call starts about 500 ms after Start(); counted from the end of
  // each call it would start 240 ms later.
  const uint64_t id = timer.Start(
      100,
      [&firings](uint64_t fired, void* user) {
        firings.Record(fired, user);
        std::this_thread::sleep_for(milliseconds(60));  // a slow callback
      },
      true, nullptr);
  ASSERT_TRUE(firings.WaitForCount(5));
  timer.Stop(id);
  const std::vector<Clock::time_point> times = firings.Times();
  for (std::size_t k = 0; k < 5; ++k) {
    const int64_t at = std::chrono::duration_cast<milliseconds>(times[k] - start).count();
    EXPECT_GE(at, static_cast<int64_t>(100 * (k + 1))) << "call " << k + 1;
  }
  const int64_t fifth = std::chrono::duration_cast<milliseconds>(times[4] - start).count();
  EXPECT_LT(fifth, 500 + 220) << "the period drifted";
}

TEST(TimerTest, MissedPeriodsAreFiredBackToBackInOnePass) {
  zel::Timer timer;
  Firings firings;
  std::atomic<uint64_t> ownId{0};
  const Clock::time_point start = Clock::now();
  // The first call stalls for 650 ms, so the periods due at 400, 600 and
  // 800 ms are all missed. The next pass (at about 860 ms) collects them
  // together; the first of them stops the timer, which cannot hold back the
  // two collected with it, but does prevent the period due at 1000 ms.
  ownId = timer.Start(
      200,
      [&](uint64_t fired, void* user) {
        firings.Record(fired, user);
        const std::size_t count = firings.Count();
        if (count == 1) std::this_thread::sleep_for(milliseconds(650));  // a stall
        if (count == 2) timer.Stop(ownId.load());
      },
      true, nullptr);
  ASSERT_TRUE(firings.WaitForCount(4));
  // At least the three missed periods come in the pass after the stall; a
  // pass that comes later still (a loaded machine) collects more of them.
  // None comes in a later pass: the count stays put.
  const std::size_t collected = firings.Count();
  WaitForPasses(timer, 20);
  EXPECT_GE(collected, 4u);
  EXPECT_EQ(firings.Count(), collected);
  const std::vector<Clock::time_point> times = firings.Times();
  for (std::size_t k = 0; k < times.size(); ++k) {
    const int64_t at = std::chrono::duration_cast<milliseconds>(times[k] - start).count();
    EXPECT_GE(at, static_cast<int64_t>(200 * (k + 1))) << "call " << k + 1;
  }
}

TEST(TimerTest, StopOfAnUnknownOrFinishedIdChangesNothing) {
  zel::Timer timer;
  Firings oneShot;
  Firings periodic;
  const uint64_t shot = timer.Start(1, oneShot.Callback(), false, nullptr);
  timer.Start(20, periodic.Callback(), true, nullptr);
  ASSERT_TRUE(oneShot.WaitForCount(1));
  timer.Stop(shot);   // already fired
  timer.Stop(12345);  // never handed out
  timer.Stop(0);
  const std::size_t before = periodic.Count();
  ASSERT_TRUE(periodic.WaitForCount(before + 3));
  EXPECT_EQ(oneShot.Count(), 1u);
}

TEST(TimerTest, StopFromInsideItsOwnCallbackEndsThePeriodicTimer) {
  zel::Timer timer;
  Firings firings;
  std::atomic<uint64_t> id{0};
  // 500 ms: the thread is never a whole period behind, even on a loaded
  // machine, so no catch-up firing is collected together with the first.
  id = timer.Start(
      500,
      [&](uint64_t fired, void* user) {
        firings.Record(fired, user);
        timer.Stop(id.load());
      },
      true, nullptr);
  ASSERT_TRUE(firings.WaitForCount(1));
  WaitForPasses(timer, 15);
  EXPECT_EQ(firings.Count(), 1u);
}

TEST(TimerTest, StopFromAnotherThreadWhileTheCallbackRunsPreventsLaterCalls) {
  zel::Timer timer;
  Firings firings;
  std::atomic<bool> inside{false};
  std::atomic<bool> release{false};
  // 500 ms: no catch-up firing is collected together with the first one.
  const uint64_t id = timer.Start(
      500,
      [&](uint64_t fired, void* user) {
        firings.Record(fired, user);
        inside = true;
        WaitFor([&] { return release.load(); });
      },
      true, nullptr);
  ASSERT_TRUE(WaitFor([&] { return inside.load(); }));
  std::thread stopper([&timer, id] { timer.Stop(id); });
  stopper.join();  // Stop() does not wait for the running callback
  release = true;
  WaitForPasses(timer, 15);
  EXPECT_EQ(firings.Count(), 1u);
}

TEST(TimerTest, TimersStartedTogetherFireInStartOrder) {
  zel::Timer timer;
  Firings firings;
  std::vector<uint64_t> ids;
  for (int i = 0; i < 100; ++i) ids.push_back(timer.Start(30, firings.Callback(), false, nullptr));
  ASSERT_TRUE(firings.WaitForCount(100));
  EXPECT_EQ(firings.Ids(), ids);
}

TEST(TimerTest, EarlierDueTimesFireFirstWhateverTheStartOrder) {
  zel::Timer timer;
  Firings firings;
  const uint64_t slow = timer.Start(80, firings.Callback(), false, nullptr);
  const uint64_t fast = timer.Start(20, firings.Callback(), false, nullptr);
  const uint64_t middle = timer.Start(50, firings.Callback(), false, nullptr);
  ASSERT_TRUE(firings.WaitForCount(3));
  EXPECT_EQ(firings.Ids(), (std::vector<uint64_t>{fast, middle, slow}));
}

TEST(TimerTest, CallbacksMayStartNewTimers) {
  zel::Timer timer;
  Firings firings;
  timer.Start(
      5,
      [&](uint64_t fired, void* user) {
        firings.Record(fired, user);
        timer.Start(5, firings.Callback(), false, nullptr);
      },
      false, nullptr);
  ASSERT_TRUE(firings.WaitForCount(2));
  EXPECT_EQ(firings.Ids(), (std::vector<uint64_t>{1, 2}));
}

TEST(TimerTest, DestructionDropsPendingEntriesWithinAboutOnePass) {
  Firings firings;
  auto timer = std::make_unique<zel::Timer>();
  timer->Start(200, firings.Callback(), false, nullptr);
  timer->Start(10, firings.Callback(), true, nullptr);
  ASSERT_TRUE(firings.WaitForCount(1));
  const Clock::time_point start = Clock::now();
  timer.reset();
  EXPECT_LE(ElapsedMs(start), kLateLimit.count());
  const std::size_t atDestruction = firings.Count();
  // The 200 ms entry would be due by now; nothing calls anything anymore.
  std::atomic<bool> never{false};
  WaitFor([&never] { return never.load(); }, milliseconds(300));
  EXPECT_EQ(firings.Count(), atDestruction);
  for (uint64_t id : firings.Ids()) EXPECT_EQ(id, 2u);
}

TEST(TimerTest, PeriodicTimerWithZeroIntervalHoldsTheTimerForEver) {
  // WARNING case: the timer thread never leaves its collection step, so the
  // Timer cannot be destroyed (its destructor would wait for ever); it is
  // left to the end of the process.
  static zel::Timer* timer = new zel::Timer;
  Firings firings;
  timer->Start(0, firings.Callback(), true, nullptr);
  // Once the timer thread has taken up the entry (within a pass or two), a
  // Start() from another thread waits for the lock for ever. Each attempt
  // is given a deadline that expires; an attempt made before the thread was
  // caught returns, and the next one is tried, for as long as the overall
  // deadline allows (attempts are cheap, so the count says nothing).
  bool blocked = false;
  const Clock::time_point giveUp = Clock::now() + std::chrono::seconds(30);
  while (!blocked && Clock::now() < giveUp) {
    auto started = std::make_shared<std::atomic<bool>>(false);
    std::thread([started] {
      timer->Start(
          60000, [](uint64_t, void*) {}, false, nullptr);
      started->store(true);
    }).detach();
    blocked = !WaitFor([&started] { return started->load(); }, milliseconds(300));
  }
  EXPECT_TRUE(blocked);
  EXPECT_EQ(firings.Count(), 0u);
}

}  // namespace

namespace {

// Due times saturate: an interval so large that now + interval passes the
// 64-bit range gives a timer that never fires, not one that wraps round
// into the past and fires at once.
TEST(TimerTest, HugeIntervalsNeverFire) {
  zel::Timer timer;
  std::atomic<int> huge{0};
  const auto count = [&huge](uint64_t, void*) { huge.fetch_add(1); };
  timer.Start(std::numeric_limits<int64_t>::max(), count, false, nullptr);
  timer.Start(std::numeric_limits<int64_t>::max(), count, true, nullptr);
  timer.Start(std::numeric_limits<int64_t>::max() - 1, count, false, nullptr);
  // A marker due later than any pass that a wrapped due time would fire in.
  std::atomic<bool> marker{false};
  timer.Start(
      30, [&marker](uint64_t, void*) { marker.store(true); }, false, nullptr);
  ASSERT_TRUE(zel_test::WaitFor([&marker] { return marker.load(); }));
  EXPECT_EQ(huge.load(), 0);
}

}  // namespace
