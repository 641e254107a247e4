// SPDX-License-Identifier: MIT

#include "utils/log/internal/line_queue.h"

#include <chrono>
#include <cstring>
#include <new>
#include <thread>

#include "utils/log/internal/backend_list.h"
#include "utils/log/internal/crash_drain.h"
#include "utils/log/internal/file_writer.h"
#include "utils/log/internal/line_format.h"
#include "utils/log/internal/retention.h"

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

// The queue of the process's Logger, for the fork handlers.
std::atomic<LineQueue*> sInstance{nullptr};

// Set in a forked child: the writer thread and the crash drain's thread are
// the parent's and not in the child; the next line makes them anew.
std::atomic<bool> sWriterLost{false};
// Serialises making them anew; made anew itself in the child.
std::mutex* sRestartMutex = new std::mutex;  // never destroyed

}  // namespace

std::atomic<void*> LineQueue::sSpareDrain{nullptr};

LineQueue::Block::Block(std::size_t size) : text(new char[size]), capacity(size) {
  records.reserve(kBlockRecords);
}

LineQueue::~LineQueue() {
  if (looper_) looper_->Stop();
}

void LineQueue::startWriter() {
  looper_ = std::make_unique<Looper>();
  try {
    looper_->Start();
  } catch (...) {
    // No thread for the writer now: lines are dropped and counted, and
    // each new line tries to start it again.
  }
  // A forked child gets a writer of its own at its first line; see
  // forkChild().
  sInstance.store(this, std::memory_order_release);
  platform::registerForkHandlers(&LineQueue::forkPrepare, &LineQueue::forkParent,
                                 &LineQueue::forkChild);
}

void LineQueue::setLimit(std::size_t bytes, bool blocks) {
  sQueueLimit.store(bytes, std::memory_order_relaxed);
  sQueueBlocks.store(blocks, std::memory_order_relaxed);
}

uint64_t LineQueue::dropped() { return sDroppedLines.load(std::memory_order_relaxed); }

void* LineQueue::DrainMessage::operator new(std::size_t size) {
  void* memory = sSpareDrain.exchange(nullptr, std::memory_order_acquire);
  return memory != nullptr ? memory : ::operator new(size);
}

void LineQueue::DrainMessage::operator delete(void* memory) {
  void* expected = nullptr;
  if (!sSpareDrain.compare_exchange_strong(expected, memory, std::memory_order_release)) {
    ::operator delete(memory);
  }
}

LineQueue::Block* LineQueue::blockFor(std::size_t size) {
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

void LineQueue::recycle(std::unique_ptr<Block> block) noexcept {
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

void LineQueue::noteDropped(DropReason reason) noexcept {
  sDroppedLines.fetch_add(1, std::memory_order_relaxed);
  ++unnotedDrops_[reason];
  appendNotices();
}

bool LineQueue::appendNotices() noexcept {
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

bool LineQueue::writerRunning() {
  Looper& looper = *looper_;
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

bool LineQueue::wake(std::unique_lock<std::mutex>* lock) {
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
    posted = looper_->PostMessageAAA(std::unique_ptr<Message>(new DrainMessage(this))) == 0;
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

bool LineQueue::hasRoom(std::size_t size, std::size_t limit) const {
  if (limit == 0) return true;
  if (queuedRecords_ >= kMaxQueuedRecords) return false;
  return size <= limit - (queuedBytes_ < limit ? queuedBytes_ : limit);
}

bool LineQueue::waitForRoom(std::unique_lock<std::mutex>* lock, std::size_t size) {
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

bool LineQueue::append(const char* text, std::size_t size, int level, bool forward) noexcept {
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

void LineQueue::post(const char* text, std::size_t size, int level, bool forward) {
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

void LineQueue::flush() {
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

void LineQueue::limitChanged() {
  std::lock_guard<std::mutex> lock(mutex_);
  owner_.store(selfId(), std::memory_order_relaxed);
  if (roomWaiters_ > 0) room_.notify_all();
  owner_.store(0, std::memory_order_relaxed);
}

void LineQueue::crashFlush(uint64_t faultingThread, int64_t deadlineNs) {
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

void LineQueue::writeGathered() {
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

void LineQueue::forkPrepare() {
  LineQueue* queue = sInstance.load(std::memory_order_acquire);
  if (queue == nullptr) return;
  // In the order the writer takes them: a backend (called under the
  // backend lock) may log or set the base.
  queue->backends_->lockForFork();
  LogFile::lockForFork();
  retention::lockForFork();
  queue->mutex_.lock();
}

void LineQueue::forkParent() {
  LineQueue* queue = sInstance.load(std::memory_order_acquire);
  if (queue == nullptr) return;
  queue->mutex_.unlock();
  retention::unlockAfterFork();
  LogFile::unlockAfterFork();
  queue->backends_->unlockAfterFork();
}

void LineQueue::forkChild() {
  LineQueue* instance = sInstance.load(std::memory_order_acquire);
  if (instance == nullptr) return;
  // The child has only the forking thread. The lines queued in the parent
  // are the parent's to write: the child's queue starts empty, and nobody
  // waits in it. The condition variables are made anew: their waiters are
  // threads of the parent.
  LineQueue& queue = *instance;
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
  queue.file_->afterForkInChild(platform::processId());
  crash::afterForkInChild();
  sRestartMutex = new (sRestartMutex) std::mutex;
  sWriterLost.store(true, std::memory_order_release);
  queue.mutex_.unlock();
  retention::unlockAfterFork();
  LogFile::unlockAfterFork();
  queue.backends_->resetInChild();
}

void LineQueue::restartWriter() {
  std::lock_guard<std::mutex> lock(*sRestartMutex);
  if (!sWriterLost.load(std::memory_order_acquire)) return;
  // The parent's writer (its Looper) belongs to a thread the child does
  // not have: it can be neither stopped nor freed, and is left alone.
  static_cast<void>(looper_.release());
  auto looper = std::make_unique<Looper>();
  try {
    looper->Start();
  } catch (...) {
    // No thread now: post() finds the writer stopped, drops and counts the
    // line, and tries again with the next one.
  }
  looper_ = std::move(looper);
  crash::restartAfterFork();
  sWriterLost.store(false, std::memory_order_release);
}

void LineQueue::drain() {
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

bool LineQueue::linger() {
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

void LineQueue::drainFailed() {
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

void LineQueue::release(std::unique_ptr<Block> block) {
  queuedBytes_ -= block->used;
  queuedRecords_ -= block->records.size();
  done_ += block->records.size();
  recycle(std::move(block));
  if (roomWaiters_ > 0) room_.notify_all();
  if (flushWaiters_ > 0) written_.notify_all();
}

void LineQueue::lock(std::unique_lock<std::mutex>* lock) {
  // The writer holds the lock only to take or give back blocks, for well
  // under a microsecond: trying a few times first spares the caller the
  // sleep and wake of a contended mutex.
  for (int i = 0; i < 100; ++i) {
    if (lock->try_lock()) return;
  }
  lock->lock();
}

void LineQueue::writeOne(const char* text, std::size_t size, int level, bool forward) {
  tOnWriterThread = true;
  const uint64_t record =
      static_cast<uint64_t>(size) | levelBits(level) | (forward ? kRecordForward : 0);
  writeSafely(text, &record, 1);
}

void LineQueue::writerFailed() noexcept {
  if (writerFailures_.fetch_add(1) == 0) {
    logConsole(
        "zel log: the writer thread ran out of memory; the run is tried again once, then its "
        "line is lost (reported once)\n");
  }
}

void LineQueue::writeSafely(const char* text, const uint64_t* records, std::size_t count) noexcept {
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

void LineQueue::writeDropNotice(uint64_t notice) {
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

void LineQueue::forward(platform::FileHandle file, const char* text, std::size_t size, int level) {
  // Kept for a fault inside a backend: the crash handler writes the run
  // gathered so far and this line (up to its first NUL, as the file gets it).
  const void* nul = std::memchr(text, '\0', size);
  runFile_ = file;
  forwardText_ = text;
  forwardLength_ =
      nul != nullptr ? static_cast<std::size_t>(static_cast<const char*>(nul) - text) : size;
  forwarding_.store(true, std::memory_order_release);
  backends_->forward(text, size, level);
  forwarding_.store(false, std::memory_order_relaxed);
}

void LineQueue::writeRecords(const char* text, const uint64_t* records, std::size_t count,
                             Progress* at) {
  LogFile& file = *file_;
  // at->record: the next record to write; at->offset: where its text
  // starts; at->forwarded: records before it were handed to the backends.
  std::size_t& i = at->record;
  std::size_t& offset = at->offset;
  while (i < count) {
    if ((records[i] & kRecordDropped) != 0) {
      writeDropNotice(records[i]);
      ++i;
      continue;
    }
    // A run starts: the per-line checks (size, day, a file removed or
    // replaced from outside) are made here, once, with one status query.
    const std::intptr_t handle = file.getFile();
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
    Progress end = *at;
    if (!gatherRun(handle, text, records, count, &end, &at->forwarded)) {
      // What fprintf gives for an empty text: 0, a failure.
      logConsole("zel log write error,ret[%d] \n", 0);
      file.updateLogDir();
      *at = end;
      continue;
    }
    std::size_t written = 0;
    if (file.writeRun(handle, pieces_.data(), pieces_.size(), &written) >= 0) {
      *at = end;
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
    file.updateLogDir();
  }
}

bool LineQueue::gatherRun(platform::FileHandle handle, const char* text, const uint64_t* records,
                          std::size_t count, Progress* end, std::size_t* forwarded) {
  const std::size_t first = end->record;
  const int64_t start = file_->runPosition();
  const int64_t maxSize = file_->maxSize();
  // Gather lines while the file would not have rotated before them had
  // they been written one by one: the run is split where a line finds
  // the file larger than the limit. An empty text (one that starts with
  // a NUL) takes the failure path of its own and ends the run.
  pieces_.clear();
  runLines_.clear();
  int64_t runBytes = 0;
  while (end->record < count && (records[end->record] & kRecordDropped) == 0) {
    if (end->record > first && (start < 0 || start + runBytes > maxSize)) break;
    const uint64_t record = records[end->record];
    const auto size = static_cast<std::size_t>(record & kRecordValue);
    const char* line = text + end->offset;
    // The file gets the text up to its first NUL, as a C string.
    const void* nul = std::memchr(line, '\0', size);
    const std::size_t length =
        nul != nullptr ? static_cast<std::size_t>(static_cast<const char*>(nul) - line) : size;
    if (length == 0 && end->record > first) break;
    if (end->record >= *forwarded) {
      // Counted at once (in the caller's progress, not the run's), so that
      // a run tried again after an exception does not hand the line to the
      // backends twice.
      *forwarded = end->record + 1;
      if ((record & kRecordForward) != 0) forward(handle, line, size, recordLevel(record));
    }
    end->offset += size;
    ++end->record;
    if (length == 0) return false;
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
  return true;
}

}  // namespace zel
