// SPDX-License-Identifier: MIT

#include "utils/worker.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/test_util.h"
#include "utils/platform.h"

namespace {

using std::chrono::milliseconds;
using zel_test::StdoutCapture;
using zel_test::WaitFor;

// How long a test gives a DoSync() that must never return before it
// concludes that it did not.
constexpr milliseconds kNeverReturnsWindow(300);

// Sets a flag when destroyed: shows that a closure (which holds a copy of
// it) was discarded.
struct Sentinel {
  explicit Sentinel(std::shared_ptr<std::atomic<int>> destroyed) : count(std::move(destroyed)) {}
  ~Sentinel() { count->fetch_add(1); }
  std::shared_ptr<std::atomic<int>> count;
};

// Runs `f` in a detached thread and returns a flag that is set once `f`
// has returned. For calls that are expected never to return: the thread is
// left blocked until the process ends.
std::shared_ptr<std::atomic<bool>> RunDetached(std::function<void()> f) {
  auto returned = std::make_shared<std::atomic<bool>>(false);
  std::thread([f = std::move(f), returned] {
    f();
    returned->store(true);
  }).detach();
  return returned;
}

TEST(WorkerTest, WorkerMessageRunsItsClosure) {
  int calls = 0;
  zel::WorkerMessage msg([&calls] { ++calls; });
  EXPECT_EQ(msg.when_, -1);
  msg.Run();
  msg.Run();
  EXPECT_EQ(calls, 2);
}

TEST(WorkerTest, WorkerMessageWithEmptyClosureThrows) {
  zel::WorkerMessage msg{std::function<void()>()};
  EXPECT_THROW(msg.Run(), std::bad_function_call);
}

TEST(WorkerTest, StartTwiceThenStopTwice) {
  zel::Worker worker;
  EXPECT_EQ(worker.Start(), 0);
  EXPECT_EQ(worker.Start(), -1);
  StdoutCapture out;
  EXPECT_EQ(worker.Stop(), 0);
  EXPECT_EQ(worker.Stop(), -1);
  EXPECT_EQ(out.Stop(), "already stoped \n");
}

TEST(WorkerTest, DoAsyncRunsTheClosureOnTheWorkerThread) {
  zel::Worker worker;
  ASSERT_EQ(worker.Start(), 0);
  std::mutex mutex;
  std::thread::id ranOn;
  bool ran = false;
  worker.DoAsync([&] {
    std::lock_guard<std::mutex> lock(mutex);
    ranOn = std::this_thread::get_id();
    ran = true;
  });
  ASSERT_TRUE(WaitFor([&] {
    std::lock_guard<std::mutex> lock(mutex);
    return ran;
  }));
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_NE(ranOn, std::this_thread::get_id());
}

TEST(WorkerTest, DoSyncReturnsOnlyAfterItsClosureRan) {
  zel::Worker worker;
  ASSERT_EQ(worker.Start(), 0);
  std::atomic<bool> syncReturned{false};
  std::atomic<bool> sawReturnBeforeRunning{true};
  // Holds the worker until DoSync() has returned or 300 ms have passed: a
  // DoSync() that returned early would release it at once.
  worker.DoAsync([&] { WaitFor([&] { return syncReturned.load(); }, kNeverReturnsWindow); });
  std::thread::id ranOn;
  worker.DoSync([&] {
    sawReturnBeforeRunning = syncReturned.load();
    ranOn = std::this_thread::get_id();
  });
  syncReturned = true;
  EXPECT_FALSE(sawReturnBeforeRunning.load());
  EXPECT_NE(ranOn, std::this_thread::get_id());
  EXPECT_NE(ranOn, std::thread::id());
}

TEST(WorkerTest, DoAsyncThenDoSyncFromOneThreadRunsTheAsyncClosureFirst) {
  zel::Worker worker;
  ASSERT_EQ(worker.Start(), 0);
  std::vector<std::string> order;  // written on the worker thread only
  worker.DoAsync([&order] { order.push_back("async"); });
  worker.DoSync([&order] { order.push_back("sync"); });
  EXPECT_EQ(order, (std::vector<std::string>{"async", "sync"}));
}

TEST(WorkerTest, DoSyncFromFourThreadsAtOnceEachReturnsAfterItsOwnClosure) {
  zel::Worker worker;
  ASSERT_EQ(worker.Start(), 0);
  constexpr int kThreads = 4;
  std::atomic<bool> ran[kThreads] = {};
  bool ranAtReturn[kThreads] = {};
  zel_test::RunTogether(kThreads, [&](int t) {
    worker.DoSync([&ran, t] { ran[t] = true; });
    ranAtReturn[t] = ran[t].load();
  });
  for (int t = 0; t < kThreads; ++t) EXPECT_TRUE(ranAtReturn[t]) << "thread " << t;
}

TEST(WorkerTest, DoAsyncFromFourThreadsKeepsEachThreadsOrder) {
  zel::Worker worker;
  ASSERT_EQ(worker.Start(), 0);
  constexpr int kThreads = 4;
  constexpr int kClosures = 2000;
  std::vector<std::pair<int, int>> runs;  // written on the worker thread only
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&worker, &runs, t] {
      for (int i = 0; i < kClosures; ++i)
        worker.DoAsync([&runs, t, i] { runs.emplace_back(t, i); });
    });
  }
  for (std::thread& t : threads) t.join();
  // Every closure above was posted before this one.
  worker.DoSync([] {});
  ASSERT_EQ(runs.size(), static_cast<std::size_t>(kThreads * kClosures));
  int next[kThreads] = {};
  for (const auto& [t, i] : runs) {
    ASSERT_EQ(i, next[t]) << "thread " << t;
    ++next[t];
  }
}

TEST(WorkerTest, DoAsyncOnAStoppedWorkerDiscardsTheClosure) {
  zel::Worker worker;
  auto destroyed = std::make_shared<std::atomic<int>>(0);
  std::atomic<bool> ran{false};
  {
    auto sentinel = std::make_shared<Sentinel>(destroyed);
    worker.DoAsync([sentinel, &ran] { ran = true; });
  }
  // Refused and destroyed before DoAsync() returned.
  EXPECT_EQ(destroyed->load(), 1);
  ASSERT_EQ(worker.Start(), 0);
  worker.DoSync([] {});
  EXPECT_FALSE(ran.load());
}

TEST(WorkerTest, DoSyncOnAWorkerNeverStartedNeverReturns) {
  auto worker = std::make_shared<zel::Worker>();
  auto ran = std::make_shared<std::atomic<bool>>(false);
  auto returned = RunDetached([worker, ran] { worker->DoSync([ran] { ran->store(true); }); });
  EXPECT_FALSE(WaitFor([&] { return returned->load(); }, kNeverReturnsWindow));
  EXPECT_FALSE(ran->load());
}

TEST(WorkerTest, DoSyncOnAStoppedWorkerNeverReturns) {
  auto worker = std::make_shared<zel::Worker>();
  ASSERT_EQ(worker->Start(), 0);
  ASSERT_EQ(worker->Stop(), 0);
  auto ran = std::make_shared<std::atomic<bool>>(false);
  auto returned = RunDetached([worker, ran] { worker->DoSync([ran] { ran->store(true); }); });
  EXPECT_FALSE(WaitFor([&] { return returned->load(); }, kNeverReturnsWindow));
  EXPECT_FALSE(ran->load());
}

TEST(WorkerTest, DoSyncFromAClosureOnTheSameWorkerNeverReturns) {
  // The worker thread stays blocked for the rest of the process, so the
  // worker is never destroyed (its destructor would wait for it).
  static zel::Worker* worker = new zel::Worker;
  ASSERT_EQ(worker->Start(), 0);
  auto innerRan = std::make_shared<std::atomic<bool>>(false);
  auto outerEntered = std::make_shared<std::atomic<bool>>(false);
  auto returned = std::make_shared<std::atomic<bool>>(false);
  worker->DoAsync([innerRan, outerEntered, returned] {
    outerEntered->store(true);
    worker->DoSync([innerRan] { innerRan->store(true); });
    returned->store(true);
  });
  ASSERT_TRUE(WaitFor([&] { return outerEntered->load(); }));
  EXPECT_FALSE(WaitFor([&] { return returned->load(); }, kNeverReturnsWindow));
  EXPECT_FALSE(innerRan->load());
}

TEST(WorkerTest, DoSyncNeverReturnsWhenTheWorkerIsStoppedBeforeItsClosureRan) {
  auto worker = std::make_unique<zel::Worker>();
  ASSERT_EQ(worker->Start(), 0);
  std::atomic<bool> holderEntered{false};
  // Keeps the worker busy for a while, so that the DoSync() below queues
  // behind it.
  worker->DoAsync([&holderEntered] {
    holderEntered = true;
    std::atomic<bool> never{false};
    WaitFor([&never] { return never.load(); }, milliseconds(200));
  });
  ASSERT_TRUE(WaitFor([&] { return holderEntered.load(); }));

  auto destroyed = std::make_shared<std::atomic<int>>(0);
  auto sentinel = std::make_shared<Sentinel>(destroyed);
  auto ran = std::make_shared<std::atomic<bool>>(false);
  zel::Worker* raw = worker.get();
  std::function<void()> closure = [sentinel, ran] { ran->store(true); };
  auto returned = RunDetached([raw, closure] { raw->DoSync(closure); });
  // The closure is queued once the worker holds a copy of it: here, the
  // test's, the detached thread's and the worker's.
  ASSERT_TRUE(WaitFor([&] { return sentinel.use_count() >= 4; }));
  sentinel.reset();
  closure = nullptr;

  EXPECT_EQ(worker->Stop(), 0);  // waits for the holder, leaves the rest queued
  EXPECT_FALSE(WaitFor([&] { return returned->load(); }, kNeverReturnsWindow));
  worker.reset();  // destroys the queued closures unrun
  EXPECT_FALSE(ran->load());
  EXPECT_FALSE(returned->load());
}

TEST(WorkerTest, DestroyingARunningWorkerDropsQueuedClosures) {
  auto destroyed = std::make_shared<std::atomic<int>>(0);
  std::atomic<bool> ran{false};
  std::atomic<bool> holderEntered{false};
  std::atomic<bool> destroying{false};
  {
    zel::Worker worker;
    ASSERT_EQ(worker.Start(), 0);
    // The holder keeps the worker busy until the destruction begins, and a
    // little longer, so that the stop comes while it runs however slowly
    // the test's thread gets there.
    worker.DoAsync([&holderEntered, &destroying] {
      holderEntered = true;
      WaitFor([&destroying] { return destroying.load(); });
      std::atomic<bool> never{false};
      WaitFor([&never] { return never.load(); }, milliseconds(100));
    });
    ASSERT_TRUE(WaitFor([&] { return holderEntered.load(); }));
    auto sentinel = std::make_shared<Sentinel>(destroyed);
    worker.DoAsync([sentinel, &ran] { ran = true; });
    sentinel.reset();
    destroying = true;
  }
  EXPECT_FALSE(ran.load());
  EXPECT_EQ(destroyed->load(), 1);
}

TEST(WorkerTest, RestartedWorkerRunsClosuresAgain) {
  zel::Worker worker;
  ASSERT_EQ(worker.Start(), 0);
  int runs = 0;
  worker.DoSync([&runs] { ++runs; });
  ASSERT_EQ(worker.Stop(), 0);
  ASSERT_EQ(worker.Start(), 0);
  worker.DoSync([&runs] { ++runs; });
  EXPECT_EQ(runs, 2);
}

}  // namespace

namespace {

// Closures around a step of the wall clock, which the platform layer's test
// hook makes: the step must neither reorder them nor hold any back.
TEST(WorkerTest, DoSyncWaitsForEarlierClosuresWhenTheWallClockStepsBack) {
  zel::Worker worker;
  ASSERT_EQ(worker.Start(), 0);
  // Hold the worker thread so that the next closure is still queued when
  // the clock steps.
  std::mutex mutex;
  std::condition_variable cond;
  bool entered = false;
  bool released = false;
  worker.DoAsync([&] {
    std::unique_lock<std::mutex> lock(mutex);
    entered = true;
    cond.notify_all();
    cond.wait_for(lock, std::chrono::seconds(10), [&] { return released; });
  });
  {
    std::unique_lock<std::mutex> lock(mutex);
    ASSERT_TRUE(cond.wait_for(lock, std::chrono::seconds(10), [&] { return entered; }));
  }
  std::atomic<bool> earlierRan{false};
  worker.DoAsync([&earlierRan] { earlierRan.store(true); });
  zel_test_hook_set_wall_clock_offset_ms(-60000);
  {
    std::lock_guard<std::mutex> lock(mutex);
    released = true;
    cond.notify_all();
  }
  bool earlierRanFirst = false;
  worker.DoSync([&] { earlierRanFirst = earlierRan.load(); });
  zel_test_hook_set_wall_clock_offset_ms(0);
  EXPECT_TRUE(earlierRanFirst);
  EXPECT_TRUE(earlierRan.load());
  EXPECT_EQ(worker.Stop(), 0);
}

}  // namespace
