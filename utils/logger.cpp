// SPDX-License-Identifier: MIT

#include "utils/logger.h"

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <new>
#include <thread>
#include <vector>

#include "utils/log/internal/crash_drain.h"
#include "utils/log/internal/file_writer.h"
#include "utils/log/internal/line_format.h"
#include "utils/log/internal/retention.h"
#include "utils/log_levelled_backend.h"
#include "utils/platform.h"

namespace zel {

namespace {

constexpr int kFpNullLine = 296;

// The text capacity of one block of the line queue. Blocks of this size are
// reused; a longer line gets a block of its own size, freed after writing.
constexpr std::size_t kBlockSize = 256 * 1024;
// Free blocks kept for reuse; the others are given back.
constexpr std::size_t kSpareBlocks = 4;
// Records a new block has room for before its record list grows; a
// recycled block keeps this much record storage and gives back the rest.
constexpr std::size_t kBlockRecords = 2048;
// While the queue is bounded, at most this many records (lines and drop
// notices, 8 bytes each) are queued, whatever the size of the lines: the
// bound counts text, and lines of no or little text would otherwise queue
// without limit. 8 MiB of records, 16 MiB while a record list grows.
constexpr std::size_t kMaxQueuedRecords = std::size_t{1} << 20;
// How long the writer stays awake for more lines after the queue ran empty.
constexpr int64_t kLingerNs = 50 * 1000;
constexpr std::size_t kDefaultQueueLimit = std::size_t{64} * 1024 * 1024;

// A record of the line queue: the size of a line's text (bits 0-45), or the
// number of lines dropped at that point of the stream, the line's level
// (bits 46-61, 16 bits two's complement: what LevelledBackend receives), and
// two flags.
constexpr uint64_t kRecordForward = uint64_t{1} << 62;  // hand the line to the backends
constexpr uint64_t kRecordDropped = uint64_t{1} << 63;  // a notice, not a line
constexpr int kRecordLevelShift = 46;
constexpr uint64_t kRecordValue = (uint64_t{1} << kRecordLevelShift) - 1;
constexpr uint64_t kRecordLevel = uint64_t{0xFFFF} << kRecordLevelShift;
// A notice's reason (DropReason) sits in the two bits below the flags, its
// count in the bits below that.
constexpr int kNoticeReasonShift = 60;
constexpr uint64_t kNoticeCount = (uint64_t{1} << kNoticeReasonShift) - 1;

// Why lines were dropped: each reason has its notice in the file, and all
// of them are counted by zel_log_dropped().
enum DropReason : unsigned {
  kQueueFull = 0,  // the bound, under kDrop
  kNoMemory = 1,   // no memory to queue the line
  kNoWriter = 2,   // the writer thread could not be started
  kDropReasons = 3,
};

// The level bits of a record for `level`, held in -32768..32767.
uint64_t levelBits(int level) {
  const int held = level < -32768 ? -32768 : (level > 32767 ? 32767 : level);
  return static_cast<uint64_t>(static_cast<uint16_t>(static_cast<int16_t>(held)))
         << kRecordLevelShift;
}

// The level that `record` carries.
int recordLevel(uint64_t record) {
  return static_cast<int16_t>(static_cast<uint16_t>((record & kRecordLevel) >> kRecordLevelShift));
}

// The queue bound and its policy, process-wide so that they can be set
// before the Logger exists.
std::atomic<std::size_t> sQueueLimit{kDefaultQueueLimit};
std::atomic<bool> sQueueBlocks{false};
// Lines dropped since the process started.
std::atomic<uint64_t> sDroppedLines{0};

// True on the writer thread, which must not wait for its own queue.
thread_local bool tOnWriterThread = false;

// The calling thread's operating-system id, asked once per thread (and
// again in a forked child, whose thread has an id of its own).
thread_local uint64_t tThreadId = 0;

uint64_t selfId() {
  if (tThreadId == 0) tThreadId = platform::currentThreadId();
  return tThreadId;
}

// Set in a forked child: the writer thread and the crash drain's thread are
// the parent's and not in the child; the next line makes them anew.
std::atomic<bool> sWriterLost{false};
// Serialises making them anew; made anew itself in the child.
std::mutex* sRestartMutex = new std::mutex;  // never destroyed

}  // namespace

// The lines posted and not yet written, in posting order, and the writer's
// side of them.
//
// Callers copy a line's text into the current block and append a record of
// its size; nothing is allocated while a block has room and reused blocks
// are at hand. A caller that finds the writer asleep posts one drain
// message to the Logger's Looper; the drain then takes every queued block at
// once and writes each block's lines in runs, one gathered write per run,
// while callers fill fresh blocks. It goes on until the queue is empty and
// only then counts as asleep again, so every line is in the operating system
// before the writer waits.
class Logger::LineQueue {
 public:
  explicit LineQueue(Logger* logger) : logger_(logger) {}
  LineQueue(const LineQueue&) = delete;
  LineQueue& operator=(const LineQueue&) = delete;

  // Queues one line, or drops it (the bound, kDrop) or waits for room (the
  // bound, kBlock). Any thread.
  void post(const char* text, std::size_t size, int level, bool forward);

  // Waits until every record queued before the call has been written.
  void flush();

  // Wakes the callers that wait for room, after a change of the bound.
  void limitChanged();

  // Writes queued lines until the queue is empty. The drain message's work,
  // on the writer thread.
  void drain();

  // Writes one line as a run of its own, on the writer thread.
  void writeOne(const char* text, std::size_t size, int level, bool forward);

  // Called when the drain message's work ended with an exception: counts
  // and reports it, and lets the next wake start a new drain.
  void drainFailed();
  // The crash drain's flush (crash::DrainFunction): waits until the lines
  // queued so far are written, at most until `deadlineNs`, and never for
  // the queue's lock while `faultingThread` holds it (it never lets go).
  void crashFlush(uint64_t faultingThread, int64_t deadlineNs);

  // A fault of the writer thread (crash::WriterFaultFunction's work, in the
  // fatal handler): writes the lines of the run being gathered and the
  // line being handed to a backend.
  void writeGathered();

  // Around fork(): the queue's lock (and the locks the writer takes) are
  // held across the fork, so that the child finds them in a known state;
  // in the child the queue is reset to the lines the child posts.
  static void forkPrepare();
  static void forkParent();
  static void forkChild();

  // In a forked child, at its first line: a writer thread of its own, and
  // the crash drain's thread anew.
  void restartWriter();

 private:
  // How far the writing of a block's records got: the next record, where
  // its text starts, and the records already handed to the backends.
  struct Progress {
    std::size_t record = 0;
    std::size_t offset = 0;
    std::size_t forwarded = 0;
  };

  struct Block {
    explicit Block(std::size_t size) : text(new char[size]), capacity(size) {
      records.reserve(kBlockRecords);
    }
    std::unique_ptr<char[]> text;
    std::size_t capacity;
    std::size_t used = 0;           // bytes of text
    std::vector<uint64_t> records;  // one per line or notice, in order
  };

  // Posted to the Looper to wake the writer. Its memory is kept for the
  // next wake, so that waking allocates nothing in the common case.
  class DrainMessage final : public Message {
   public:
    explicit DrainMessage(LineQueue* queue) : queue_(queue) {}
    void Run() override {
      // No exception may leave a message of the Logger's Looper (it would
      // end the process): the drain catches what its writing throws, and
      // anything else is caught here.
      try {
        queue_->drain();
      } catch (...) {
        queue_->drainFailed();
      }
    }
    static void* operator new(std::size_t size);
    static void operator delete(void* memory);

   private:
    LineQueue* queue_;
  };

  // A block with room for `size` more bytes at the back of the queue.
  // Requires mutex_.
  Block* blockFor(std::size_t size);
  // Gives a written block back for reuse, with at most kBlockRecords of
  // record storage. Requires mutex_.
  void recycle(std::unique_ptr<Block> block) noexcept;
  // Called with mutex_ held and the queue empty: waits up to kLingerNs for
  // more lines (mutex_ released meanwhile). True when lines are queued.
  bool linger();
  // Accounts for the written `block` (room, the written count, waiters)
  // and recycles it. Requires mutex_.
  void release(std::unique_ptr<Block> block);
  // Takes `lock` (on mutex_, not owned yet), trying briefly before sleeping.
  static void lock(std::unique_lock<std::mutex>* lock);
  // Whether a line of `size` bytes fits under the bound `limit` (0: none),
  // in text and in records. Requires mutex_.
  bool hasRoom(std::size_t size, std::size_t limit) const;
  // Decides whether a line of `size` bytes may be queued: true when it fits
  // (or under kBlock once it does: the caller waits, `lock` released
  // meanwhile), false when it is to be dropped. A waiter looks at the bound
  // and the policy again each time it wakes. Requires `lock` held.
  bool waitForRoom(std::unique_lock<std::mutex>* lock, std::size_t size);
  // Appends the line to the queue, all or nothing: false, with nothing
  // changed, when memory for it cannot be had. Requires mutex_.
  bool append(const char* text, std::size_t size, int level, bool forward) noexcept;
  // Counts one line dropped for `reason`; its notice is queued now, or
  // with the next notice that can be queued. Allocates nothing that can
  // fail: the count and the notices agree whatever fails. Requires mutex_.
  void noteDropped(DropReason reason) noexcept;
  // Queues the notice of the drops not noticed yet; false when that needs
  // memory that cannot be had (they stay pending). Requires mutex_.
  bool appendNotices() noexcept;
  // Whether the writer thread runs; starts it when it does not (after a
  // failed start), reporting the first failure. Requires mutex_.
  bool writerRunning();
  // Posts the drain message when the writer was asleep; `lock` is held on
  // entry and released on return. False when the writer could not be
  // woken (no writer, or no memory to post): then the writer counts as
  // asleep again, the lines stay queued for the next wake, and waiters are
  // told so that they can try the wake themselves.
  bool wake(std::unique_lock<std::mutex>* lock);
  // Writes the records of one block, catching every exception: a run whose
  // writing throws is tried again once, and a record that throws twice is
  // given up (counted and reported with drainFailed()'s count).
  void writeSafely(const char* text, const uint64_t* records, std::size_t count) noexcept;
  // Writes the records of one block from `at` on, advancing `at` as they are
  // written; `text` holds the lines back to back.
  void writeRecords(const char* text, const uint64_t* records, std::size_t count, Progress* at);
  // Counts one exception caught on the writer thread and reports the first.
  void writerFailed() noexcept;
  // Writes the notice record `notice` (a count of dropped lines and their
  // reason) as a line of the writer's own.
  void writeDropNotice(uint64_t notice);
  // Hands the line `text` of `size` bytes to every registered backend: the
  // one place where backends are called.
  void forward(const char* text, std::size_t size, int level);

  Logger* logger_;
  std::mutex mutex_;
  std::condition_variable room_;                // the writer made room, or the bound changed
  std::condition_variable written_;             // the writer finished a block
  std::vector<std::unique_ptr<Block>> blocks_;  // queued, oldest first; the last one fills
  std::vector<std::unique_ptr<Block>> spare_;   // written blocks kept for reuse
  std::size_t queuedBytes_ = 0;                 // text of the lines posted and not yet written
  std::size_t queuedRecords_ = 0;               // records posted and not yet written
  uint64_t unnotedDrops_[kDropReasons] = {};    // dropped lines whose notice is not queued yet
  bool startReported_ = false;                  // a failed start of the writer was reported
  // Records queued so far; written under mutex_, also read without it by
  // the writer while it lingers.
  std::atomic<uint64_t> posted_{0};
  uint64_t done_ = 0;          // records written (or given up) so far
  bool drainPending_ = false;  // the writer is awake or woken
  int roomWaiters_ = 0;
  int flushWaiters_ = 0;
  // The thread that holds mutex_ in post(), flush() or limitChanged() (0:
  // none, or the writer in its own work): the crash drain does not wait
  // for a lock its faulting thread holds.
  std::atomic<uint64_t> owner_{0};
  // True while the writer writes a batch it took, without the lock.
  std::atomic<bool> writing_{false};

  // Writer thread only.
  std::vector<std::unique_ptr<Block>> batch_;  // the blocks being written
  std::vector<platform::WriteBuffer> pieces_;  // the run being built
  std::vector<std::size_t> runLines_;          // its lines' lengths in the file
  std::atomic<uint64_t> writerFailures_{0};    // exceptions caught on the writer thread
  // While the writer hands a line to the backends: the run's file, and the
  // line's text as the file gets it (for a fault inside a backend).
  std::atomic<bool> forwarding_{false};
  platform::FileHandle runFile_ = platform::kNoFile;
  const char* forwardText_ = nullptr;
  std::size_t forwardLength_ = 0;

  static std::atomic<void*> sSpareDrain;  // the memory of one drain message
};

namespace {

// Counts an exception thrown by a backend into `failures` and reports the
// first one.
void countBackendFailure(std::atomic<uint64_t>* failures) {
  if (failures->fetch_add(1) == 0) {
    logConsole(
        "zel log: a log backend threw an exception; the line is still written "
        "(reported once)\n");
  }
}

}  // namespace

std::atomic<void*> Logger::LineQueue::sSpareDrain{nullptr};

void* Logger::LineQueue::DrainMessage::operator new(std::size_t size) {
  void* memory = sSpareDrain.exchange(nullptr, std::memory_order_acquire);
  return memory != nullptr ? memory : ::operator new(size);
}

void Logger::LineQueue::DrainMessage::operator delete(void* memory) {
  void* expected = nullptr;
  if (!sSpareDrain.compare_exchange_strong(expected, memory, std::memory_order_release)) {
    ::operator delete(memory);
  }
}

Logger::LineQueue::Block* Logger::LineQueue::blockFor(std::size_t size) {
  if (!blocks_.empty()) {
    Block* last = blocks_.back().get();
    if (last->capacity - last->used >= size) return last;
  }
  if (size <= kBlockSize && !spare_.empty()) {
    blocks_.push_back(std::move(spare_.back()));
    spare_.pop_back();
  } else {
    blocks_.push_back(std::make_unique<Block>(size > kBlockSize ? size : kBlockSize));
  }
  return blocks_.back().get();
}

void Logger::LineQueue::recycle(std::unique_ptr<Block> block) noexcept {
  if (block->capacity != kBlockSize || spare_.size() >= kSpareBlocks) return;
  block->used = 0;
  block->records.clear();
  try {
    if (block->records.capacity() > kBlockRecords) {
      // A block that held many short lines gives its record storage back.
      std::vector<uint64_t>().swap(block->records);
      block->records.reserve(kBlockRecords);
    }
    spare_.push_back(std::move(block));
  } catch (...) {
    // No memory for the reserve: the block is freed instead of kept.
  }
}

void Logger::LineQueue::noteDropped(DropReason reason) noexcept {
  sDroppedLines.fetch_add(1, std::memory_order_relaxed);
  ++unnotedDrops_[reason];
  appendNotices();
}

bool Logger::LineQueue::appendNotices() noexcept {
  for (unsigned reason = 0; reason < kDropReasons; ++reason) {
    uint64_t& count = unnotedDrops_[reason];
    if (count == 0) continue;
    const uint64_t kind = kRecordDropped | (uint64_t{reason} << kNoticeReasonShift);
    if (!blocks_.empty() && !blocks_.back()->records.empty()) {
      // Drops for the same reason as the notice at the back of the queue
      // are added to it.
      uint64_t& last = blocks_.back()->records.back();
      if ((last & ~kNoticeCount) == kind && (last & kNoticeCount) <= kNoticeCount - count) {
        last += count;
        count = 0;
        continue;
      }
    }
    try {
      blockFor(0)->records.push_back(kind | count);
    } catch (...) {
      return false;
    }
    count = 0;
    ++queuedRecords_;
    posted_.store(posted_.load(std::memory_order_relaxed) + 1, std::memory_order_release);
  }
  return true;
}

bool Logger::LineQueue::writerRunning() {
  Looper& looper = *logger_->mWriter->looper;
  if (!looper.IsStoped()) return true;
  // The writer's thread could not be created (at start-up or since): try
  // again, as every line that comes meanwhile does.
  try {
    looper.Start();
    return !looper.IsStoped();
  } catch (...) {
  }
  if (!startReported_) {
    startReported_ = true;
    logConsole(
        "zel log: the writer thread cannot be started; lines are dropped and counted until it "
        "can (reported once)\n");
  }
  return false;
}

bool Logger::LineQueue::wake(std::unique_lock<std::mutex>* lock) {
  owner_.store(0, std::memory_order_relaxed);
  if (drainPending_) {
    lock->unlock();
    return true;
  }
  drainPending_ = true;
  lock->unlock();
  bool posted = false;
  try {
    // The Looper's queue may need memory for the message: a failure is
    // undone below rather than leaving the writer asleep for good.
    posted = logger_->mWriter->looper->PostMessageAAA(
                 std::unique_ptr<Message>(new DrainMessage(this))) == 0;
  } catch (...) {
  }
  if (!posted) {
    lock->lock();
    drainPending_ = false;
    if (roomWaiters_ > 0) room_.notify_all();
    if (flushWaiters_ > 0) written_.notify_all();
    lock->unlock();
  }
  return posted;
}

bool Logger::LineQueue::hasRoom(std::size_t size, std::size_t limit) const {
  if (limit == 0) return true;
  if (queuedRecords_ >= kMaxQueuedRecords) return false;
  return size <= limit - (queuedBytes_ < limit ? queuedBytes_ : limit);
}

bool Logger::LineQueue::waitForRoom(std::unique_lock<std::mutex>* lock, std::size_t size) {
  for (;;) {
    if (hasRoom(size, sQueueLimit.load(std::memory_order_relaxed))) return true;
    if (!sQueueBlocks.load(std::memory_order_relaxed)) return false;
    // The writer thread (a backend that logs) cannot wait for itself: its
    // line goes beyond the bound. A line longer than the bound waits for
    // an empty queue only.
    if (tOnWriterThread) return true;
    if (queuedBytes_ == 0 && queuedRecords_ < kMaxQueuedRecords) return true;
    if (!drainPending_) {
      // The writer is asleep with lines queued (its wake failed): wake it,
      // or give the line up when that fails again.
      const bool woken = wake(lock);
      lock->lock();
      owner_.store(selfId(), std::memory_order_relaxed);
      if (!woken) return false;
      continue;
    }
    ++roomWaiters_;
    owner_.store(0, std::memory_order_relaxed);
    room_.wait(*lock);
    owner_.store(selfId(), std::memory_order_relaxed);
    --roomWaiters_;
  }
}

bool Logger::LineQueue::append(const char* text, std::size_t size, int level,
                               bool forward) noexcept {
  // The record is added before the text is copied: a record list that
  // cannot grow leaves the queue as it was.
  Block* block = nullptr;
  try {
    block = blockFor(size);
    // A line is bounded by the memory it was made in, far below the 2^46
    // bytes that its record holds.
    block->records.push_back(static_cast<uint64_t>(size) | levelBits(level) |
                             (forward ? kRecordForward : 0));
  } catch (...) {
    return false;
  }
  std::memcpy(block->text.get() + block->used, text, size);
  block->used += size;
  queuedBytes_ += size;
  ++queuedRecords_;
  posted_.store(posted_.load(std::memory_order_relaxed) + 1, std::memory_order_release);
  return true;
}

void Logger::LineQueue::post(const char* text, std::size_t size, int level, bool forward) {
  if (sWriterLost.load(std::memory_order_acquire)) restartWriter();
  std::unique_lock<std::mutex> lock(mutex_, std::defer_lock);
  LineQueue::lock(&lock);
  owner_.store(selfId(), std::memory_order_relaxed);
  if (!writerRunning()) {
    // No writer: nothing could write the line, and no caller may wait for
    // one. It is dropped and counted; the notice is written once a writer
    // runs.
    noteDropped(kNoWriter);
    owner_.store(0, std::memory_order_relaxed);
    return;
  }
  // Drops not noticed yet (no memory then) come before this line.
  appendNotices();
  if (!waitForRoom(&lock, size)) {
    noteDropped(kQueueFull);
  } else if (!append(text, size, level, forward)) {
    // At most this line is lost: the queue is as it was before it.
    noteDropped(kNoMemory);
  }
  wake(&lock);
}

void Logger::LineQueue::flush() {
  if (tOnWriterThread) return;
  const uint64_t self = selfId();
  std::unique_lock<std::mutex> lock(mutex_);
  owner_.store(self, std::memory_order_relaxed);
  appendNotices();
  const uint64_t target = posted_.load(std::memory_order_relaxed);
  while (done_ < target) {
    if (!drainPending_) {
      // Lines are queued and the writer sleeps: its wake failed, or it has
      // no thread. Wake it; when that cannot be done the lines stay queued
      // for the next line's wake and the flush returns.
      if (!writerRunning()) break;
      if (!wake(&lock)) return;
      lock.lock();
      owner_.store(self, std::memory_order_relaxed);
      continue;
    }
    ++flushWaiters_;
    owner_.store(0, std::memory_order_relaxed);
    written_.wait(lock);
    owner_.store(self, std::memory_order_relaxed);
    --flushWaiters_;
  }
  owner_.store(0, std::memory_order_relaxed);
}

void Logger::LineQueue::limitChanged() {
  std::lock_guard<std::mutex> lock(mutex_);
  owner_.store(selfId(), std::memory_order_relaxed);
  if (roomWaiters_ > 0) room_.notify_all();
  owner_.store(0, std::memory_order_relaxed);
}

void Logger::LineQueue::crashFlush(uint64_t faultingThread, int64_t deadlineNs) {
  // The faulting thread is stopped in its signal handler for good: a lock
  // it holds is never let go, and waiting for it would only run out the
  // handler's wait. Then the lines queued behind that lock cannot be
  // reached (the thread may have stopped half-way through changing the
  // queue); the ones the writer took already are written by the writer,
  // which needs no lock for them. Anyone else holds the lock for well
  // under a microsecond.
  std::unique_lock<std::mutex> lock(mutex_, std::defer_lock);
  while (!lock.try_lock()) {
    if (owner_.load(std::memory_order_relaxed) == faultingThread) {
      while (writing_.load(std::memory_order_acquire) && platform::monotonicNs() < deadlineNs) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
      return;
    }
    if (platform::monotonicNs() >= deadlineNs) return;
    std::this_thread::sleep_for(std::chrono::microseconds(50));
  }
  const uint64_t target = posted_.load(std::memory_order_relaxed);
  if (done_ >= target) return;
  ++flushWaiters_;
  const int64_t left = deadlineNs - platform::monotonicNs();
  if (left > 0) {
    written_.wait_for(lock, std::chrono::nanoseconds(left),
                      [this, target] { return done_ >= target; });
  }
  --flushWaiters_;
}

void Logger::LineQueue::writeGathered() {
  if (!forwarding_.load(std::memory_order_acquire)) return;
  // The lines gathered before the one a backend was given are not in the
  // file yet (the run is written after the gathering); the line itself is
  // written too, since it is whole. Whatever comes behind stays unwritten:
  // the thread that writes it is the one that failed.
  platform::writeAll(runFile_, pieces_.data(), pieces_.size());
  if (forwardLength_ > 0) {
    const platform::WriteBuffer line{forwardText_, forwardLength_};
    platform::writeAll(runFile_, &line, 1);
  }
}

void Logger::LineQueue::forkPrepare() {
  Logger* logger = sLogger.load(std::memory_order_acquire);
  if (logger == nullptr) return;
  // In the order the writer takes them: a backend (called under the
  // backend lock) may log or set the base.
  logger->mBackendLock.lock();
  LogFile::lockForFork();
  retention::lockForFork();
  logger->mQueue->mutex_.lock();
}

void Logger::LineQueue::forkParent() {
  Logger* logger = sLogger.load(std::memory_order_acquire);
  if (logger == nullptr) return;
  logger->mQueue->mutex_.unlock();
  retention::unlockAfterFork();
  LogFile::unlockAfterFork();
  logger->mBackendLock.unlock();
}

void Logger::LineQueue::forkChild() {
  Logger* logger = sLogger.load(std::memory_order_acquire);
  if (logger == nullptr) return;
  // The child has only the forking thread. The lines queued in the parent
  // are the parent's to write: the child's queue starts empty, and nobody
  // waits in it. The condition variables are made anew: their waiters are
  // threads of the parent.
  LineQueue& queue = *logger->mQueue;
  tThreadId = 0;
  tOnWriterThread = false;
  new (&queue.room_) std::condition_variable;
  new (&queue.written_) std::condition_variable;
  queue.blocks_.clear();
  queue.batch_.clear();
  queue.pieces_.clear();
  queue.runLines_.clear();
  queue.queuedBytes_ = 0;
  queue.queuedRecords_ = 0;
  for (uint64_t& count : queue.unnotedDrops_) count = 0;
  queue.done_ = queue.posted_.load(std::memory_order_relaxed);
  queue.drainPending_ = false;
  queue.roomWaiters_ = 0;
  queue.flushWaiters_ = 0;
  queue.owner_.store(0, std::memory_order_relaxed);
  queue.writing_.store(false, std::memory_order_relaxed);
  queue.forwarding_.store(false, std::memory_order_relaxed);
  sDroppedLines.store(0, std::memory_order_relaxed);
  // A live file of its own, named with the child's process id.
  logger->mLogFile->afterForkInChild(platform::processId());
  crash::afterForkInChild();
  sRestartMutex = new (sRestartMutex) std::mutex;
  sWriterLost.store(true, std::memory_order_release);
  queue.mutex_.unlock();
  retention::unlockAfterFork();
  LogFile::unlockAfterFork();
  // A reader-writer lock remembers its writer by thread id, which the
  // child's thread does not share with the parent's: it is made anew.
  new (&logger->mBackendLock) std::shared_mutex;
}

void Logger::LineQueue::restartWriter() {
  std::lock_guard<std::mutex> lock(*sRestartMutex);
  if (!sWriterLost.load(std::memory_order_acquire)) return;
  // The parent's writer (its Looper) belongs to a thread the child does
  // not have: it can be neither stopped nor freed, and is left alone.
  static_cast<void>(logger_->mWriter.release());
  auto writer = std::make_unique<Writer>();
  writer->looper = std::make_unique<Looper>();
  Logger* logger = logger_;
  writer->handler = [logger](LogInfo* info) { logger->writeLog(info); };
  try {
    writer->looper->Start();
  } catch (...) {
    // No thread now: post() finds the writer stopped, drops and counts the
    // line, and tries again with the next one.
  }
  logger_->mWriter = std::move(writer);
  crash::restartAfterFork();
  sWriterLost.store(false, std::memory_order_release);
}

void Logger::LineQueue::drain() {
  tOnWriterThread = true;
  for (;;) {
    {
      // The last block written is accounted for together with taking the
      // next batch: one lock per batch while lines trickle in.
      writing_.store(false, std::memory_order_release);
      std::lock_guard<std::mutex> lock(mutex_);
      for (std::unique_ptr<Block>& block : batch_) {
        if (block) release(std::move(block));
      }
      batch_.clear();
      if (blocks_.empty() && !linger()) {
        drainPending_ = false;
        return;
      }
      batch_.swap(blocks_);
      writing_.store(true, std::memory_order_relaxed);
    }
    for (std::size_t b = 0; b < batch_.size(); ++b) {
      Block& block = *batch_[b];
      writeSafely(block.text.get(), block.records.data(), block.records.size());
      if (b + 1 == batch_.size()) break;
      // A backlog: give each block's room back as soon as it is written.
      // The writer does not wait for the lock here: while it holds blocks
      // it took, it needs no lock to write them, and the crash drain counts
      // on that (a thread that faulted holding the lock never lets go).
      // Room that cannot be given back now is given back after the batch.
      std::unique_lock<std::mutex> lock(mutex_, std::defer_lock);
      for (int i = 0; i < 100 && !lock.owns_lock(); ++i) lock.try_lock();
      if (lock.owns_lock()) release(std::move(batch_[b]));
    }
  }
}

bool Logger::LineQueue::linger() {
  // Lines of a burst come faster than waking the writer through the Looper
  // costs the caller: the writer stays awake a little (without holding the
  // lock, yielding its processor) in case more follow.
  const uint64_t seen = posted_.load(std::memory_order_relaxed);
  mutex_.unlock();
  const int64_t until = platform::monotonicNs() + kLingerNs;
  bool more = false;
  while (!(more = posted_.load(std::memory_order_acquire) != seen) &&
         platform::monotonicNs() < until) {
    std::this_thread::yield();
  }
  mutex_.lock();
  return !blocks_.empty();
}

void Logger::LineQueue::drainFailed() {
  writerFailed();
  // The drain ended early: the blocks it had taken are given up (their
  // lines are lost, counted in the failure), and the next wake starts a
  // new drain.
  writing_.store(false, std::memory_order_release);
  std::lock_guard<std::mutex> lock(mutex_);
  for (std::unique_ptr<Block>& block : batch_) {
    if (block) release(std::move(block));
  }
  batch_.clear();
  drainPending_ = false;
  if (roomWaiters_ > 0) room_.notify_all();
  if (flushWaiters_ > 0) written_.notify_all();
}

void Logger::LineQueue::release(std::unique_ptr<Block> block) {
  queuedBytes_ -= block->used;
  queuedRecords_ -= block->records.size();
  done_ += block->records.size();
  recycle(std::move(block));
  if (roomWaiters_ > 0) room_.notify_all();
  if (flushWaiters_ > 0) written_.notify_all();
}

void Logger::LineQueue::lock(std::unique_lock<std::mutex>* lock) {
  // The writer holds the lock only to take or give back blocks, for well
  // under a microsecond: trying a few times first spares the caller the
  // sleep and wake of a contended mutex.
  for (int i = 0; i < 100; ++i) {
    if (lock->try_lock()) return;
  }
  lock->lock();
}

void Logger::LineQueue::writeOne(const char* text, std::size_t size, int level, bool forward) {
  tOnWriterThread = true;
  const uint64_t record =
      static_cast<uint64_t>(size) | levelBits(level) | (forward ? kRecordForward : 0);
  writeSafely(text, &record, 1);
}

void Logger::LineQueue::writerFailed() noexcept {
  if (writerFailures_.fetch_add(1) == 0) {
    logConsole(
        "zel log: the writer thread ran out of memory; the run is tried again once, then its "
        "line is lost (reported once)\n");
  }
}

void Logger::LineQueue::writeSafely(const char* text, const uint64_t* records,
                                    std::size_t count) noexcept {
  Progress at;
  std::size_t failedAt = count;  // the record whose run threw last
  while (at.record < count) {
    try {
      writeRecords(text, records, count, &at);
    } catch (...) {
      // Out of memory in the file's work (rotation, retention, paths):
      // the lines before the run are written; the run is tried again, and
      // a record that throws again is given up so that the writer goes on.
      forwarding_.store(false, std::memory_order_relaxed);
      writerFailed();
      if (at.record != failedAt) {
        failedAt = at.record;
        continue;
      }
      if ((records[at.record] & kRecordDropped) == 0) {
        at.offset += static_cast<std::size_t>(records[at.record] & kRecordValue);
      }
      ++at.record;
      if (at.forwarded < at.record) at.forwarded = at.record;
    }
  }
}

void Logger::LineQueue::writeDropNotice(uint64_t notice) {
  const auto count = static_cast<unsigned long long>(notice & kNoticeCount);
  char line[kLineSize];
  std::size_t size = 0;
  switch ((notice >> kNoticeReasonShift) & 3) {
    case kNoMemory:
      size = printLogLine(line, "zel log: %llu lines lost (out of memory)\n", count);
      break;
    case kNoWriter:
      size = printLogLine(line, "zel log: %llu lines lost (no writer thread)\n", count);
      break;
    default:
      size = printLogLine(line, "zel log: %llu lines dropped (queue full)\n", count);
      break;
  }
  writeOne(line, size, 0, false);
}

void Logger::LineQueue::forward(const char* text, std::size_t size, int level) {
  std::shared_lock<std::shared_mutex> lock(logger_->mBackendLock);
  if (logger_->mBackends.empty()) return;
  // An exception from a backend (or from copying the line) must not end the
  // writer thread, and with it the process: it is counted, reported once,
  // and the line still goes to the other backends and the file.
  try {
    const std::string line(text, size);
    auto levelled = logger_->mLevelled.begin();
    for (LogBackend* backend : logger_->mBackends) {
      LevelledBackend* withLevel = *levelled++;
      try {
        if (withLevel != nullptr) {
          withLevel->Log(line, level);
        } else {
          backend->Log(line);
        }
      } catch (...) {
        countBackendFailure(&logger_->mBackendFailures);
      }
    }
  } catch (...) {
    countBackendFailure(&logger_->mBackendFailures);
  }
}

void Logger::LineQueue::writeRecords(const char* text, const uint64_t* records, std::size_t count,
                                     Progress* at) {
  LogFile& file = *logger_->mLogFile;
  // at->record: the next record to write; at->offset: where its text
  // starts; at->forwarded: records before it were handed to the backends.
  std::size_t& i = at->record;
  std::size_t& offset = at->offset;
  std::size_t& forwarded = at->forwarded;
  while (i < count) {
    if ((records[i] & kRecordDropped) != 0) {
      writeDropNotice(records[i]);
      ++i;
      continue;
    }
    // A run starts: the per-line checks (size, day, a file removed or
    // replaced from outside) are made here, once, with one status query.
    const std::intptr_t handle = logger_->getLogFp();
    if (handle == platform::kNoFile) {
      // A refused directory was reported once; its lines go nowhere quietly
      // and are counted as dropped.
      if (!file.refused()) {
        logConsole("%s %d: fp is null \n", "zel::Logger::writeLog", kFpNullLine);
      } else {
        sDroppedLines.fetch_add(1, std::memory_order_relaxed);
      }
      offset += static_cast<std::size_t>(records[i] & kRecordValue);
      ++i;
      continue;
    }
    const int64_t start = file.runPosition();
    const int64_t maxSize = file.maxSize();
    // Gather lines while the file would not have rotated before them had
    // they been written one by one: the run is split where a line finds
    // the file larger than the limit. An empty text (one that starts with
    // a NUL) takes the failure path of its own and ends the run.
    pieces_.clear();
    runLines_.clear();
    int64_t runBytes = 0;
    std::size_t end = i;
    std::size_t endOffset = offset;
    bool emptyLine = false;
    while (end < count && (records[end] & kRecordDropped) == 0) {
      if (end > i && (start < 0 || start + runBytes > maxSize)) break;
      const auto size = static_cast<std::size_t>(records[end] & kRecordValue);
      const char* line = text + endOffset;
      // The file gets the text up to its first NUL, as a C string.
      const void* nul = std::memchr(line, '\0', size);
      const std::size_t length =
          nul != nullptr ? static_cast<std::size_t>(static_cast<const char*>(nul) - line) : size;
      if (length == 0 && end > i) break;
      if (end >= forwarded) {
        // Counted at once, so that a run tried again after an exception
        // does not hand the line to the backends twice.
        forwarded = end + 1;
        if ((records[end] & kRecordForward) != 0) {
          // Kept for a fault inside a backend: the crash handler writes the
          // run gathered so far and this line.
          runFile_ = handle;
          forwardText_ = line;
          forwardLength_ = length;
          forwarding_.store(true, std::memory_order_release);
          forward(line, size, recordLevel(records[end]));
          forwarding_.store(false, std::memory_order_relaxed);
        }
      }
      endOffset += size;
      ++end;
      if (length == 0) {
        emptyLine = true;
        break;
      }
      if (!pieces_.empty() &&
          static_cast<const char*>(pieces_.back().data) + pieces_.back().size == line) {
        pieces_.back().size += length;
      } else {
        pieces_.push_back(platform::WriteBuffer{line, length});
      }
      // Counted as the file holds it (on Windows each '\n' takes "\r\n"),
      // so that the run splits where the file's size passes the limit.
      const std::size_t onDisk = platform::writtenLength(line, length);
      runLines_.push_back(onDisk);
      runBytes += static_cast<int64_t>(onDisk);
    }
    if (emptyLine) {
      // What fprintf gives for an empty text: 0, a failure.
      logConsole("zel log write error,ret[%d] \n", 0);
      logger_->UpdateLogDir();
      i = end;
      offset = endOffset;
      continue;
    }
    std::size_t written = 0;
    if (file.writeRun(handle, pieces_.data(), pieces_.size(), &written) >= 0) {
      i = end;
      offset = endOffset;
      continue;
    }
    // The write failed inside line `i` + k: the lines before it are in the
    // file, that line is lost (as its own failed write would lose it) and
    // the lines behind it start a run of their own.
    std::size_t k = 0;
    while (k < runLines_.size() && written >= runLines_[k]) {
      written -= runLines_[k];
      offset += static_cast<std::size_t>(records[i + k] & kRecordValue);
      ++k;
    }
    offset += static_cast<std::size_t>(records[i + k] & kRecordValue);
    i += k + 1;
    logConsole("zel log write error,ret[%d] \n", -1);
    logger_->UpdateLogDir();
  }
}

std::atomic<Logger*> Logger::sLogger{nullptr};
std::mutex Logger::sMutex;

LogBackend::~LogBackend() = default;

Logger* Logger::GetInstance() {
  Logger* logger = sLogger.load(std::memory_order_acquire);
  if (logger != nullptr) return logger;
  std::lock_guard<std::mutex> lock(sMutex);
  logger = sLogger.load(std::memory_order_relaxed);
  if (logger == nullptr) {
    logger = new Logger();
    sLogger.store(logger, std::memory_order_release);
  }
  return logger;
}

Logger::Logger()
    : mToFile(true),
      mFp(nullptr),
      mLogFile(std::make_unique<LogFile>()),
      mQueue(std::make_unique<LineQueue>(this)) {
  init();
}

Logger::~Logger() {
  if (mWriter) mWriter->looper->Stop();
  if (mFp != nullptr) {
    std::fclose(mFp);
    mFp = nullptr;
  }
}

int Logger::init() {
  mToFile = false;
  mLogFile->logFileInit();
  mToFile = true;
  auto writer = std::make_unique<Writer>();
  writer->looper = std::make_unique<Looper>();
  writer->handler = [this](LogInfo* info) { writeLog(info); };
  mWriter = std::move(writer);
  try {
    mWriter->looper->Start();
  } catch (...) {
    // No thread for the writer now: lines are dropped and counted, and
    // each new line tries to start it again.
  }
  // A forked child gets a writer of its own at its first line; see
  // LineQueue::forkChild().
  platform::registerForkHandlers(&LineQueue::forkPrepare, &LineQueue::forkParent,
                                 &LineQueue::forkChild);
  return 0;
}

void Logger::Log(const std::string& line) { Log(line, 3, false); }

void Logger::Log(const std::string& line, int level, bool forward) {
  postLine(line.data(), line.size(), level, forward);
}

void Logger::postLine(const char* text, std::size_t size, int level, bool forward) {
  mQueue->post(text, size, level, forward);
}

void Logger::SetQueueLimit(std::size_t bytes, QueueFullPolicy policy) {
  sQueueLimit.store(bytes, std::memory_order_relaxed);
  sQueueBlocks.store(policy == QueueFullPolicy::kBlock, std::memory_order_relaxed);
  Logger* logger = sLogger.load(std::memory_order_acquire);
  if (logger != nullptr) logger->mQueue->limitChanged();
}

void Logger::RegisterBackend(LogBackend* backend) {
  // The library's own backends (and any LevelledBackend) are handed each
  // line's level too: recognised here, once.
  auto* levelled = dynamic_cast<LevelledBackend*>(backend);
  std::unique_lock<std::shared_mutex> lock(mBackendLock);
  mLevelled.push_back(levelled);
  try {
    mBackends.push_back(backend);
  } catch (...) {
    mLevelled.pop_back();
    throw;
  }
}

void Logger::Flush() {
  // No writer any more: when the process is ending on Windows (a DLL's
  // static destructor) its other threads are gone.
  if (platform::processExiting()) return;
  mQueue->flush();
}

void Logger::writeLog(LogInfo* info) {
  writeLine(info->message.c_str(), info->message.size(), info->level, info->forward);
}

void Logger::writeLine(const char* text, std::size_t size, int level, bool forward) {
  mQueue->writeOne(text, size, level, forward);
}

uint64_t Logger::BackendFailures() const { return mBackendFailures.load(); }

int Logger::InstallCrashHandler() {
  try {
    GetInstance();
    return crash::install(
        [](uint64_t faultingThread, int64_t deadlineNs) {
          sLogger.load(std::memory_order_acquire)->mQueue->crashFlush(faultingThread, deadlineNs);
        },
        [] {
          Logger* logger = sLogger.load(std::memory_order_acquire);
          if (logger != nullptr) logger->mQueue->writeGathered();
        });
  } catch (...) {
    return -1;
  }
}

void Logger::SetRetention(int days, std::int64_t totalBytes) { retention::set(days, totalBytes); }

std::intptr_t Logger::getLogFp() { return mToFile ? getFile() : platform::standardError(); }

std::intptr_t Logger::getFile() { return mLogFile->getFile(); }

int Logger::logFileInit() { return mLogFile->logFileInit(); }

std::string Logger::getPrefix() { return mLogFile->getPrefix(); }

void Logger::UpdateLogDir() { mLogFile->updateLogDir(); }

void Logger::updateLogFile(unsigned char index) { mLogFile->updateLogFile(index); }

void Logger::SetLogFileInfo(int maxSize, int maxCount) { mLogFile->setLimits(maxSize, maxCount); }

int Logger::SetLogPath(const std::string& path) {
  LogFile::setBase(path);
  return 0;
}

std::string Logger::GetLogPath() { return LogFile::currentDir(); }

}  // namespace zel

using zel::Logger;

extern "C" {

// No exception leaves these functions: each catches everything and behaves
// as its declaration says for a failure.

void zel_set_log_path(const char* path) {
  if (path[0] == '\0') return;
  try {
    Logger::SetLogPath(path);
  } catch (...) {
    // Out of memory: the base stays as it was.
  }
}

int zel_get_log_path(char* buffer, int size) {
  if (buffer == nullptr || size < 1) return -1;
  try {
    const std::string dir = Logger::GetLogPath();
    if (dir.empty()) return -1;
    std::strncpy(buffer, dir.c_str(), static_cast<std::size_t>(size) - 1);
    return 0;
  } catch (...) {
    return -1;
  }
}

void zel_log_flush(void) {
  try {
    Logger* logger = Logger::sLogger.load(std::memory_order_acquire);
    if (logger != nullptr) logger->Flush();
  } catch (...) {
    // The barrier could not be posted or waited for: return.
  }
}

int zel_log_install_crash_handler(void) { return Logger::InstallCrashHandler(); }

void zel_set_log_retention(int days, long long total_bytes) {
  try {
    Logger::SetRetention(days, static_cast<std::int64_t>(total_bytes));
  } catch (...) {
    // A lock failure: the settings stay as they were.
  }
}

void zel_set_log_queue_limit(size_t bytes, int block) {
  try {
    Logger::SetQueueLimit(bytes,
                          block != 0 ? zel::QueueFullPolicy::kBlock : zel::QueueFullPolicy::kDrop);
  } catch (...) {
    // A lock failure while waking waiting callers: the new bound is set.
  }
}

uint64_t zel_log_dropped(void) { return zel::sDroppedLines.load(std::memory_order_relaxed); }

}  // extern "C"
