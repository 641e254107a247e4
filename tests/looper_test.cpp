// SPDX-License-Identifier: MIT

// The Looper's life cycle: messages on their own, starting and stopping,
// posting to a stopped looper, stopping from inside a message, destruction
// and restart.
#include "utils/looper.h"

#include <gtest/gtest.h>
#if !defined(ZEL_TEST_ON_WINDOWS)
#include <pthread.h>
#endif
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <limits>
#include <memory>
#include <mutex>
#include <numeric>
#include <regex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/looper_test_util.h"
#include "tests/support/test_util.h"
#include "utils/logger.h"
#include "utils/platform.h"

namespace {

using std::chrono::milliseconds;
// The helpers of tests/support/looper_test_util.h.
using namespace zel_test::looper;  // NOLINT(build/namespaces)

// ---------------------------------------------------------------------------
// Messages on their own.

TEST(LooperTest, NewMessageHasNoDueTime) {
  zel::Message plain;
  EXPECT_EQ(plain.when_, -1);

  zel::HandlerMessage<int> handler(std::make_unique<int>(7), [](int*) {});
  EXPECT_EQ(handler.when_, -1);

  zel::Callback<void (*)()> task{nullptr, &NoOpTask};
  zel::InerTaskMessage inner(task);
  EXPECT_EQ(inner.when_, -1);
}

TEST(LooperTest, HandlerMessageRunPassesPayload) {
  auto payload = std::make_unique<int>(42);
  int* const payloadPtr = payload.get();
  int calls = 0;
  int* seen = nullptr;
  int seenValue = 0;
  zel::HandlerMessage<int> msg(std::move(payload), [&](int* data) {
    ++calls;
    seen = data;
    seenValue = *data;
  });

  msg.Run();

  EXPECT_EQ(calls, 1);
  EXPECT_EQ(seen, payloadPtr);
  EXPECT_EQ(seenValue, 42);
  EXPECT_EQ(msg.data_.get(), payloadPtr);  // ownership stays with the message
}

TEST(LooperTest, HandlerMessageRunsOnLoopThread) {
  Signal handled;
  std::string seenText;
  std::thread::id seenThread;
  const std::thread::id testThread = std::this_thread::get_id();
  zel::Looper looper;
  ASSERT_EQ(looper.Start(), 0);

  auto msg = std::make_unique<zel::HandlerMessage<std::string>>(
      std::make_unique<std::string>("payload text"), [&](std::string* text) {
        seenText = *text;
        seenThread = std::this_thread::get_id();
        handled.Notify();
      });
  ASSERT_EQ(looper.PostMessageAAA(std::move(msg)), 0);

  ASSERT_TRUE(handled.WaitFor());
  EXPECT_EQ(seenText, "payload text");
  EXPECT_NE(seenThread, testThread);
  EXPECT_EQ(looper.Stop(), 0);
}

TEST(LooperTest, HandlerMessageWithEmptyHandlerThrows) {
  struct Row {
    const char* name;
    std::function<void(int*)> handler;
  };
  const Row rows[] = {
      {"null handler", nullptr},
      {"default-constructed handler", std::function<void(int*)>()},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    zel::HandlerMessage<int> msg(std::make_unique<int>(1), row.handler);
    EXPECT_THROW(msg.Run(), std::bad_function_call);
  }
}

// Writes `name` to `log` when destroyed: a Journal of the order in which
// the parts of a HandlerMessage are destroyed.
class DestructionProbe {
 public:
  DestructionProbe(Journal* log, std::string name) : log_(log), name_(std::move(name)) {}
  ~DestructionProbe() { log_->Add(name_); }
  DestructionProbe(const DestructionProbe&) = delete;
  DestructionProbe& operator=(const DestructionProbe&) = delete;

 private:
  Journal* log_;
  std::string name_;
};

// A HandlerMessage whose payload and handler both report their destruction.
// The handler holds the only reference to its probe.
std::unique_ptr<zel::HandlerMessage<DestructionProbe>> NewProbedHandlerMessage(
    Journal* log, std::atomic<int>* runs) {
  auto handlerProbe = std::make_shared<DestructionProbe>(log, "handler");
  return std::make_unique<zel::HandlerMessage<DestructionProbe>>(
      std::make_unique<DestructionProbe>(log, "payload"),
      [probe = std::move(handlerProbe), runs](DestructionProbe* payload) {
        if (payload != nullptr && probe != nullptr) runs->fetch_add(1);
      });
}

TEST(LooperTest, HandlerMessageDestroysHandlerBeforePayload) {
  const std::vector<std::string> expected = {"handler", "payload"};
  {
    SCOPED_TRACE("destroyed by its owner");
    Journal log;
    std::atomic<int> runs{0};
    auto msg = NewProbedHandlerMessage(&log, &runs);
    msg->Run();
    EXPECT_EQ(runs.load(), 1);
    EXPECT_TRUE(log.Events().empty());
    msg.reset();
    EXPECT_EQ(log.Events(), expected);
  }
  {
    SCOPED_TRACE("destroyed by the looper after running");
    Journal log;
    std::atomic<int> runs{0};
    zel::Looper looper;
    ASSERT_EQ(looper.Start(), 0);
    ASSERT_EQ(looper.PostMessageAAA(NewProbedHandlerMessage(&log, &runs)), 0);
    ASSERT_TRUE(zel_test::WaitFor([&] { return log.Events().size() == 2; }, kWaitLimit));
    EXPECT_EQ(runs.load(), 1);
    EXPECT_EQ(log.Events(), expected);
    EXPECT_EQ(looper.Stop(), 0);
  }
}

TEST(LooperTest, InerTaskMessageRunCallsFuncWithArg) {
  TaskProbe probe;
  TaskProbe other;
  zel::Callback<void (*)()> task{&probe, &FirstTask};
  zel::InerTaskMessage msg(task);

  // The message holds a copy: changing the caller's callback changes nothing.
  task.arg = &other;
  task.func = &SecondTask;
  EXPECT_EQ(msg.task_.arg, static_cast<void*>(&probe));
  EXPECT_TRUE(msg.task_.func == &FirstTask);

  msg.Run();
  EXPECT_EQ(probe.viaFirst.load(), 1);
  EXPECT_EQ(probe.viaSecond.load(), 0);
  EXPECT_EQ(other.viaFirst.load(), 0);
  EXPECT_EQ(other.viaSecond.load(), 0);
}

// ---------------------------------------------------------------------------
// Starting and stopping.

TEST(LooperTest, IsStopedFollowsStartAndStop) {
  zel::Looper looper;
  EXPECT_TRUE(looper.IsStoped());

  struct Step {
    const char* name;
    std::function<int()> action;
    int result;
    bool stopped;
  };
  const Step steps[] = {
      {"first start", [&] { return looper.Start(); }, 0, false},
      {"first stop", [&] { return looper.Stop(); }, 0, true},
      {"second start", [&] { return looper.Start(); }, 0, false},
      {"second stop", [&] { return looper.Stop(); }, 0, true},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.name);
    EXPECT_EQ(step.action(), step.result);
    EXPECT_EQ(looper.IsStoped(), step.stopped);
  }
}

TEST(LooperTest, StartTwiceReturnsZeroThenMinusOne) {
  Journal journal;
  zel::Looper looper;
  EXPECT_EQ(looper.Start(), 0);
  EXPECT_EQ(looper.Start(), -1);
  EXPECT_FALSE(looper.IsStoped());

  // The refused Start left the first loop thread working.
  ASSERT_EQ(looper.PostMessageAAA(NewTestMessage(&journal, "A")), 0);
  ASSERT_TRUE(journal.WaitForEvent("destroy A"));
  EXPECT_EQ(journal.Count("run A"), 1);
  EXPECT_EQ(looper.Stop(), 0);
  EXPECT_TRUE(looper.IsStoped());
}

TEST(LooperTest, StopTwiceReturnsZeroThenMinusOneAndPrintsOnce) {
  zel::Looper looper;
  ASSERT_EQ(looper.Start(), 0);

  int first = 99;
  int second = 99;
  std::string printed;
  {
    zel_test::StdoutCapture capture;
    std::thread stopper([&] {
      first = looper.Stop();
      second = looper.Stop();
    });
    stopper.join();
    printed = capture.Stop();
  }

  EXPECT_EQ(first, 0);
  EXPECT_EQ(second, -1);
  EXPECT_EQ(printed, "already stoped \n");
  EXPECT_EQ(zel_test::CountOccurrences(printed, "already stoped \n"), 1);
  EXPECT_TRUE(looper.IsStoped());
}

TEST(LooperTest, StopOnNeverStartedLooperReturnsMinusOne) {
  zel::Looper looper;
  int result = 99;
  std::string printed;
  {
    zel_test::StdoutCapture capture;
    result = looper.Stop();
    printed = capture.Stop();
  }
  EXPECT_EQ(result, -1);
  EXPECT_EQ(printed, "already stoped \n");
  EXPECT_TRUE(looper.IsStoped());
}

// ---------------------------------------------------------------------------
// Posting to a stopped looper.

TEST(LooperTest, PostToStoppedLooperIsRefusedAndDestroysMessage) {
  enum class Post { kMessage, kDelayZero, kDelayFifty };
  struct Row {
    const char* name;
    bool ranBefore;      // started, ran a message and stopped before the post
    bool fromNewThread;  // posted from a thread that never touched the looper
    Post post;
  };
  const Row rows[] = {
      {"never started, PostMessageAAA", false, false, Post::kMessage},
      {"never started, PostDelayMessage 0", false, false, Post::kDelayZero},
      {"never started, PostDelayMessage 50", false, true, Post::kDelayFifty},
      {"stopped, PostMessageAAA", true, false, Post::kMessage},
      {"stopped, PostMessageAAA from a new thread", true, true, Post::kMessage},
      {"stopped, PostDelayMessage 0", true, false, Post::kDelayZero},
      {"stopped, PostDelayMessage 50 from a new thread", true, true, Post::kDelayFifty},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Journal journal;
    zel::Looper looper;
    if (row.ranBefore) {
      ASSERT_EQ(looper.Start(), 0);
      ASSERT_EQ(looper.PostMessageAAA(NewTestMessage(&journal, "warm-up")), 0);
      ASSERT_TRUE(journal.WaitForEvent("destroy warm-up"));
      ASSERT_EQ(looper.Stop(), 0);
    }

    int result = 99;
    bool destroyedOnReturn = false;
    auto post = [&] {
      auto msg = NewTestMessage(&journal, "refused");
      switch (row.post) {
        case Post::kMessage:
          result = looper.PostMessageAAA(std::move(msg));
          break;
        case Post::kDelayZero:
          result = looper.PostDelayMessage(std::move(msg), 0);
          break;
        case Post::kDelayFifty:
          result = looper.PostDelayMessage(std::move(msg), 50);
          break;
      }
      destroyedOnReturn = journal.Count("destroy refused") == 1;
    };
    if (row.fromNewThread) {
      std::thread poster(post);
      poster.join();
    } else {
      post();
    }

    EXPECT_EQ(result, -1);
    EXPECT_TRUE(destroyedOnReturn);
    EXPECT_EQ(journal.Count("run refused"), 0);
  }
}

TEST(LooperTest, PostTaskToStoppedLooperReturnsZeroAndTaskNeverRuns) {
  struct Row {
    const char* name;
    bool ranBefore;
    bool delayed;
    int64_t delay;
  };
  // Only delays that make the task due before the sentinel posted later:
  // a task that had been queued would then run first.
  const Row rows[] = {
      {"never started, PostTask", false, false, 0},
      {"never started, PostDelayTask 0", false, true, 0},
      {"never started, PostDelayTask -10", false, true, -10},
      {"stopped, PostTask", true, false, 0},
      {"stopped, PostDelayTask 0", true, true, 0},
      {"stopped, PostDelayTask -10", true, true, -10},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    TaskProbe warmUp;
    TaskProbe refused;
    TaskProbe sentinel;
    zel::Looper looper;
    if (row.ranBefore) {
      zel::Callback<void (*)()> warmUpTask{&warmUp, &FirstTask};
      ASSERT_EQ(looper.Start(), 0);
      ASSERT_EQ(looper.PostTask(warmUpTask), 0);
      ASSERT_TRUE(warmUp.ran.WaitFor());
      ASSERT_EQ(looper.Stop(), 0);
    }

    zel::Callback<void (*)()> task{&refused, &FirstTask};
    const int result = row.delayed ? looper.PostDelayTask(task, row.delay) : looper.PostTask(task);
    EXPECT_EQ(result, 0);

    // Run the looper until a task posted afterwards has run: a task that had
    // been kept would have run before it.
    ASSERT_EQ(looper.Start(), 0);
    zel::Callback<void (*)()> sentinelTask{&sentinel, &FirstTask};
    ASSERT_EQ(looper.PostTask(sentinelTask), 0);
    ASSERT_TRUE(sentinel.ran.WaitFor());
    EXPECT_EQ(refused.viaFirst.load(), 0);
    EXPECT_EQ(looper.Stop(), 0);
    EXPECT_EQ(refused.viaFirst.load(), 0);
  }
}

// ---------------------------------------------------------------------------
// Stopping from inside a message.

TEST(LooperTest, StopInsideRunFinishesThatRunAndDropsRestOfPass) {
  Journal journal;
  auto loopEnded = std::make_shared<Signal>();
  std::atomic<int> stopResult{99};
  std::atomic<bool> stoppedInside{false};
  auto looper = std::make_unique<zel::Looper>();
  zel::Looper* const raw = looper.get();
  Gate gate;
  ASSERT_EQ(looper->Start(), 0);
  ASSERT_EQ(looper->PostMessageAAA(gate.NewMessage()), 0);
  ASSERT_TRUE(gate.WaitEntered());

  // A, B and C become due together and are taken in the same pass; D is not
  // due for a long time.
  ASSERT_EQ(looper->PostMessageAAA(NewTestMessage(&journal, "A",
                                                  [&] {
                                                    NotifyWhenThisThreadEnds(loopEnded);
                                                    stopResult = raw->Stop();
                                                    stoppedInside = raw->IsStoped();
                                                  })),
            0);
  ASSERT_EQ(looper->PostMessageAAA(NewTestMessage(&journal, "B")), 0);
  ASSERT_EQ(looper->PostDelayMessage(NewTestMessage(&journal, "C"), 0), 0);
  ASSERT_EQ(looper->PostDelayMessage(NewTestMessage(&journal, "D"), kFarDelayMs), 0);
  gate.Release();

  // The detached loop thread must have ended before the Looper goes away.
  ASSERT_TRUE(loopEnded->WaitFor());
  EXPECT_EQ(stopResult.load(), 0);
  EXPECT_TRUE(stoppedInside.load());
  EXPECT_TRUE(looper->IsStoped());
  const std::vector<std::string> expected = {"run A", "end A", "destroy A", "destroy B",
                                             "destroy C"};
  EXPECT_EQ(journal.Events(), expected);

  // Stopped for everyone else too.
  EXPECT_EQ(looper->PostMessageAAA(NewTestMessage(&journal, "E")), -1);
  EXPECT_EQ(journal.Count("destroy E"), 1);

  // D stayed queued; destroying the Looper destroys it unrun.
  EXPECT_EQ(journal.Count("destroy D"), 0);
  looper.reset();
  EXPECT_EQ(journal.Count("destroy D"), 1);
  EXPECT_EQ(journal.Count("run D"), 0);
  EXPECT_EQ(journal.Count("run E"), 0);
}

// Starts `looper`, makes one of its messages stop it from inside, and waits
// until the loop thread has ended. Returns the kernel id of the loop thread,
// empty on failure.
std::string StopFromInside(zel::Looper* looper, int* stopResult) {
  auto loopEnded = std::make_shared<Signal>();
  auto tid = std::make_shared<std::string>();
  Journal journal;
  if (looper->Start() != 0) return std::string();
  const int posted = looper->PostMessageAAA(NewTestMessage(&journal, "stopper", [=] {
    NotifyWhenThisThreadEnds(loopEnded);
    *tid = OsThreadId();
    *stopResult = looper->Stop();
  }));
  if (posted != 0 || !loopEnded->WaitFor()) return std::string();
  return *tid;
}

TEST(LooperTest, StopInsideRunLogsNotAllowedFromLevelOne) {
  LogReader log;
  struct Row {
    int level;
    int notAllowedLines;
    int exitLines;
  };
  const Row rows[] = {
      {0, 0, 0}, {-1, 0, 0}, {1, 1, 0}, {3, 1, 0}, {4, 1, 1},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE("level " + std::to_string(row.level));
    zel_set_log_level(static_cast<char>(row.level));
    ASSERT_EQ(zel_log_level(), row.level);
    int stopResult = 99;
    std::string tid;
    {
      zel::Looper looper;
      tid = StopFromInside(&looper, &stopResult);
    }
    ASSERT_FALSE(tid.empty());
    EXPECT_EQ(stopResult, 0);

    const std::string text = log.TextSinceLastMark();
    EXPECT_EQ(zel_test::CountOccurrences(text, "not allowed"), row.notAllowedLines) << text;
    EXPECT_EQ(CountLogLines(text, kNotAllowedBody, tid), row.notAllowedLines) << text;
    EXPECT_EQ(zel_test::CountOccurrences(text, "looper exit"), row.exitLines) << text;
    EXPECT_EQ(CountLogLines(text, kExitBody, tid), row.exitLines) << text;
    if (row.exitLines > 0) {
      EXPECT_LT(text.find(kNotAllowedBody), text.find(kExitBody)) << text;
    }
  }
}

TEST(LooperTest, LooperExitIsLoggedFromLevelFour) {
  LogReader log;
  ASSERT_EQ(zel_log_level(), 3);  // the default
  struct Row {
    int level;
    int exitLines;
  };
  const Row rows[] = {{3, 0}, {0, 0}, {-1, 0}, {4, 1}, {5, 1}};
  for (const Row& row : rows) {
    SCOPED_TRACE("level " + std::to_string(row.level));
    zel_set_log_level(static_cast<char>(row.level));
    std::string tid;
    Signal ran;
    Journal journal;
    {
      zel::Looper looper;
      ASSERT_EQ(looper.Start(), 0);
      ASSERT_EQ(looper.PostMessageAAA(NewTestMessage(&journal, "probe",
                                                     [&] {
                                                       tid = OsThreadId();
                                                       ran.Notify();
                                                     })),
                0);
      ASSERT_TRUE(ran.WaitFor());
      // The line is logged by the loop thread as it ends, before Stop returns.
      ASSERT_EQ(looper.Stop(), 0);
    }

    const std::string text = log.TextSinceLastMark();
    EXPECT_EQ(zel_test::CountOccurrences(text, "looper exit"), row.exitLines) << text;
    EXPECT_EQ(CountLogLines(text, kExitBody, tid), row.exitLines) << text;
  }
}

// ---------------------------------------------------------------------------
// Destruction and restart.

// Shared by a chain of messages in which each one posts the next from the
// loop thread, keeping the loop busy.
struct Chain {
  zel::Looper* looper = nullptr;
  std::atomic<int> created{0};
  std::atomic<int> destroyed{0};
  std::atomic<int> runs{0};
  std::atomic<bool> looperGone{false};
  std::atomic<int> runsAfterLooperGone{0};
};

class ChainMessage : public zel::Message {
 public:
  explicit ChainMessage(std::shared_ptr<Chain> chain) : chain_(std::move(chain)) {
    chain_->created.fetch_add(1);
  }
  void Run() override {
    chain_->runs.fetch_add(1);
    if (chain_->looperGone.load()) chain_->runsAfterLooperGone.fetch_add(1);
    chain_->looper->PostMessageAAA(std::make_unique<ChainMessage>(chain_));
  }
  ~ChainMessage() override { chain_->destroyed.fetch_add(1); }

 private:
  std::shared_ptr<Chain> chain_;
};

TEST(LooperTest, DestroyingRunningLooperJoinsThreadAndDropsPending) {
  Journal journal;
  auto chain = std::make_shared<Chain>();
  auto loopEnded = std::make_shared<Signal>();
  auto looper = std::make_unique<zel::Looper>();
  chain->looper = looper.get();
  ASSERT_EQ(looper->Start(), 0);
  ASSERT_EQ(looper->PostMessageAAA(NewTestMessage(
                &journal, "watch", [loopEnded] { NotifyWhenThisThreadEnds(loopEnded); })),
            0);
  ASSERT_EQ(looper->PostDelayMessage(NewTestMessage(&journal, "pending"), kFarDelayMs), 0);
  ASSERT_EQ(looper->PostMessageAAA(std::make_unique<ChainMessage>(chain)), 0);
  ASSERT_TRUE(zel_test::WaitFor([&] { return chain->runs.load() >= 50; }, kWaitLimit));

  looper.reset();
  chain->looperGone = true;

  // The loop thread had ended when the destructor returned.
  EXPECT_TRUE(loopEnded->IsSet());
  EXPECT_EQ(chain->runsAfterLooperGone.load(), 0);
  // Every message was destroyed, run or not: the chain's last link and the
  // pending message never ran.
  EXPECT_EQ(chain->destroyed.load(), chain->created.load());
  EXPECT_LT(chain->runs.load(), chain->created.load());
  EXPECT_EQ(journal.Count("destroy pending"), 1);
  EXPECT_EQ(journal.Count("run pending"), 0);
}

TEST(LooperTest, RestartRunsMessagesLeftPending) {
  constexpr int64_t kDelayMs = 300;
  auto probe = std::make_shared<TimingProbe>();
  zel::Looper looper;
  ASSERT_EQ(looper.Start(), 0);
  const int64_t before = NowMs();
  ASSERT_EQ(looper.PostDelayMessage(std::make_unique<TimedMessage>(probe), kDelayMs), 0);
  ASSERT_EQ(looper.Stop(), 0);
  // Not due when the looper stopped: still queued, neither run nor destroyed.
  EXPECT_FALSE(probe->ran.IsSet());
  EXPECT_FALSE(probe->destroyed.IsSet());

  ASSERT_EQ(looper.Start(), 0);
  ASSERT_TRUE(probe->destroyed.WaitFor());
  EXPECT_EQ(probe->runs.load(), 1);
  EXPECT_GE(probe->ranAtMs.load(), probe->whenAtRun.load());
  EXPECT_GE(probe->ranAtMs.load(), before + kDelayMs);
  EXPECT_EQ(looper.Stop(), 0);
}

TEST(LooperTest, PostsFromLoopThreadAfterStopInsideRunRunAfterRestart) {
  Journal journal;
  auto loopEnded = std::make_shared<Signal>();
  std::atomic<int> stopResult{99};
  std::atomic<int> postResult{99};
  std::atomic<int> delayPostResult{99};
  auto looper = std::make_unique<zel::Looper>();
  zel::Looper* const raw = looper.get();
  ASSERT_EQ(looper->Start(), 0);
  ASSERT_EQ(looper->PostMessageAAA(NewTestMessage(
                &journal, "A",
                [&] {
                  NotifyWhenThisThreadEnds(loopEnded);
                  stopResult = raw->Stop();
                  // The loop thread still posts without a check once stopped.
                  postResult = raw->PostMessageAAA(NewTestMessage(&journal, "B"));
                  delayPostResult = raw->PostDelayMessage(NewTestMessage(&journal, "C"), 0);
                })),
            0);
  ASSERT_TRUE(loopEnded->WaitFor());
  EXPECT_EQ(stopResult.load(), 0);
  EXPECT_EQ(postResult.load(), 0);
  EXPECT_EQ(delayPostResult.load(), 0);
  // B and C are queued: neither run nor destroyed.
  EXPECT_EQ(journal.Events(), (std::vector<std::string>{"run A", "end A", "destroy A"}));

  ASSERT_EQ(looper->Start(), 0);
  ASSERT_TRUE(journal.WaitForEvent("destroy C"));
  EXPECT_EQ(looper->Stop(), 0);
  EXPECT_EQ(journal.RunOrder(), (std::vector<std::string>{"A", "B", "C"}));
}

TEST(LooperTest, DueTimeIsHeldAtTheEndsOfTheRange) {
  Journal journal;
  zel::Looper looper;
  ASSERT_EQ(looper.Start(), 0);
  auto late = std::make_unique<TestMessage>(&journal, "late");
  TestMessage* lateRaw = late.get();
  auto early = std::make_unique<TestMessage>(&journal, "early");
  TestMessage* earlyRaw = early.get();
  Gate gate;
  ASSERT_EQ(looper.PostMessageAAA(gate.NewMessage()), 0);
  ASSERT_TRUE(gate.WaitEntered());
  // While the loop is held, the due times can be read safely.
  ASSERT_EQ(looper.PostDelayMessage(std::move(late), std::numeric_limits<int64_t>::max()), 0);
  ASSERT_EQ(looper.PostDelayMessage(std::move(early), std::numeric_limits<int64_t>::min()), 0);
  EXPECT_EQ(lateRaw->when_, std::numeric_limits<int64_t>::max());
  EXPECT_LT(earlyRaw->when_, 0);  // now + the lowest delay: far in the past
  gate.Release();
  ASSERT_TRUE(journal.WaitForEvent("destroy early"));
  EXPECT_EQ(journal.Count("run early"), 1);
  EXPECT_EQ(journal.Count("run late"), 0);
  EXPECT_EQ(looper.Stop(), 0);
}

TEST(LooperTest, ThreadStoppedFromInsideEndsEvenWhenRestartedAtOnce) {
  Journal journal;
  auto oldLoopEnded = std::make_shared<Signal>();
  Signal restarted;
  std::atomic<int> startResult{99};
  zel::Looper looper;
  std::thread::id oldThread;
  ASSERT_EQ(looper.Start(), 0);
  ASSERT_EQ(looper.PostMessageAAA(NewTestMessage(&journal, "stopper",
                                                 [&] {
                                                   oldThread = std::this_thread::get_id();
                                                   NotifyWhenThisThreadEnds(oldLoopEnded);
                                                   looper.Stop();
                                                   // Restarted before this
                                                   // message has finished.
                                                   std::thread([&] {
                                                     startResult = looper.Start();
                                                     restarted.Notify();
                                                   }).join();
                                                 })),
            0);
  ASSERT_TRUE(restarted.WaitFor());
  EXPECT_EQ(startResult.load(), 0);
  ASSERT_TRUE(oldLoopEnded->WaitFor());
  // Every later message runs once, on the new loop thread only.
  std::mutex mutex;
  std::vector<std::thread::id> ranOn;
  for (int i = 0; i < 200; ++i) {
    ASSERT_EQ(looper.PostMessageAAA(NewTestMessage(&journal, "m" + std::to_string(i),
                                                   [&] {
                                                     std::lock_guard<std::mutex> lock(mutex);
                                                     ranOn.push_back(std::this_thread::get_id());
                                                   })),
              0);
  }
  ASSERT_TRUE(journal.WaitForEvent("destroy m199"));
  EXPECT_EQ(looper.Stop(), 0);
  std::lock_guard<std::mutex> lock(mutex);
  ASSERT_EQ(ranOn.size(), 200u);
  for (const std::thread::id& id : ranOn) {
    EXPECT_NE(id, oldThread);
    EXPECT_EQ(id, ranOn.front());
  }
}

}  // namespace
