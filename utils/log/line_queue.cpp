// SPDX-License-Identifier: MIT

#include "utils/log/internal/line_queue.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <iterator>
#include <new>
#include <thread>

#include "utils/log/internal/backend_list.h"
#include "utils/log/internal/crash_drain.h"
#include "utils/log/internal/file_writer.h"
#include "utils/log/internal/line_format.h"
#include "utils/log/internal/retention.h"

namespace zel {

// What the log keeps per thread, in one object: each thread-local object
// costs a lookup in a shared library.
struct ThreadState {
  // The thread's queue. It is not freed with the thread: the owner below
  // marks it closed when the thread ends, and the writer frees it once its
  // lines are written.
  ThreadQueue* queue = nullptr;
  // Set once the thread's owner is gone (the thread is ending): a line
  // posted after that gets a queue that is closed at once.
  bool ownerGone = false;
  // True on the writer thread, which must not wait for its own queue.
  bool onWriter = false;
  // The offset from UTC of the thread's last second.
  LocalOffsetCache offset;
  // The formats the thread posted last. Made with the thread's first
  // queue, freed with its owner.
  FormatPlans* plans = nullptr;
};

namespace {

constexpr int kFpNullLine = 296;

// A notice record: its count of dropped lines behind the header, its
// reason in the header's level.
constexpr uint16_t kNoticeRecord = 2;
constexpr uint16_t kKindMask = 3;
// The room the notices of every reason take.
constexpr std::size_t kNoticesSize = LineQueue::kDropReasons * (kRecordHeaderSize + 8);

// The writer takes at most this many records of one queue in one pass, and
// stops a pass once its block holds this much text, so that a backlog is
// written (and its room given back) a block at a time.
constexpr std::size_t kPassRecords = 4096;
constexpr std::size_t kPassText = std::size_t{1} << 20;
// While the queue is bounded, at most this many records (lines and drop
// notices) are queued, whatever the size of the lines: the bound counts
// text, and lines of no or little text would otherwise queue without limit.
constexpr uint64_t kMaxQueuedRecords = uint64_t{1} << 20;
// After a fault, how long a number may stay unpublished before the writer
// goes past it.
constexpr int64_t kCrashGapNs = 20 * 1000 * 1000;
// How long the writer stays awake for more lines after the queues ran empty.
constexpr int64_t kLingerNs = 50 * 1000;
// A pass that found fewer lines than this was a trickle: the writer lets
// lines gather for kGatherNs before the next one.
constexpr std::size_t kTrickleRecords = 64;
constexpr int64_t kGatherNs = 20 * 1000;
// How often the writer looks at the callers' counters while it waits.
constexpr int64_t kLookEveryNs = 2 * 1000;
constexpr std::size_t kDefaultQueueLimit = std::size_t{64} * 1024 * 1024;

// queued_ holds the bytes in its low bits and the records above them.
constexpr int kRecordsShift = 40;
constexpr uint64_t kBytesMask = (uint64_t{1} << kRecordsShift) - 1;

// A record of the writer's block: the size of a line's text (bits 0-45), or
// the number of lines dropped at that point of the stream, the line's level
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

// The level held in -32768..32767.
int16_t heldLevel(int level) {
  return static_cast<int16_t>(level < -32768 ? -32768 : (level > 32767 ? 32767 : level));
}

// The level bits of a block record for `level`.
uint64_t levelBits(int level) {
  return static_cast<uint64_t>(static_cast<uint16_t>(heldLevel(level))) << kRecordLevelShift;
}

// The level that `record` carries.
int recordLevel(uint64_t record) {
  return static_cast<int16_t>(static_cast<uint16_t>((record & kRecordLevel) >> kRecordLevelShift));
}

// The queue bound and its policy, process-wide so that they can be set
// before the Logger exists.
std::atomic<std::size_t> sQueueLimit{kDefaultQueueLimit};
std::atomic<bool> sQueueBlocks{false};
// Lines dropped since the process started, and those whose notice is not
// queued yet (per reason).
std::atomic<uint64_t> sDroppedLines{0};
std::atomic<uint64_t> sUnnoted[LineQueue::kDropReasons];
std::atomic<bool> sAnyUnnoted{false};

thread_local ThreadState tState;

struct QueueOwner {
  ~QueueOwner() {
    if (tState.queue != nullptr) tState.queue->closed.store(true, std::memory_order_release);
    tState.queue = nullptr;
    tState.ownerGone = true;
    delete tState.plans;
    tState.plans = nullptr;
  }
};

// The queue of the process's Logger, for log_print() and the fork handlers.
std::atomic<LineQueue*> sInstance{nullptr};

// Set in a forked child: the writer thread and the crash drain's thread are
// the parent's and not in the child; the next line makes them anew.
std::atomic<bool> sWriterLost{false};
// Serialises making them anew; made anew itself in the child.
std::mutex* sRestartMutex = new std::mutex;  // never destroyed

}  // namespace

std::atomic<void*> LineQueue::sSpareDrain{nullptr};

char* LineQueue::Block::room(std::size_t size) {
  // Allocated at the first line, even an empty one: the writer reads the
  // text through this pointer (with a length of 0 for an empty line).
  if (text == nullptr || capacity - used < size) {
    const std::size_t grown = std::max({used + size, capacity * 2, std::size_t{4096}});
    std::unique_ptr<char[]> bigger(new char[grown]);
    if (used > 0) std::memcpy(bigger.get(), text.get(), used);
    text = std::move(bigger);
    capacity = grown;
  }
  return text.get() + used;
}

LineQueue::~LineQueue() {
  if (looper_) looper_->Stop();
  deleteWriterPlans(writerPlans_);
  ThreadQueue* queue = queues_.load(std::memory_order_acquire);
  while (queue != nullptr) {
    ThreadQueue* next = queue->nextQueue.load(std::memory_order_relaxed);
    // A queue of a thread that still runs stays: that thread may post.
    if (queue->closed.load(std::memory_order_acquire)) delete queue;
    queue = next;
  }
}

LineQueue* LineQueue::instance() { return sInstance.load(std::memory_order_acquire); }

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

ThreadQueue* LineQueue::ownQueue(ThreadState& state) noexcept {
  ThreadQueue* queue = state.queue;
  if (queue != nullptr) return queue;
  try {
    if (!state.ownerGone) {
      // Registers the owner's destructor for this thread's end.
      thread_local QueueOwner owner;
      static_cast<void>(owner);
    }
    queue = new ThreadQueue(platform::currentThreadId());
  } catch (...) {
    return nullptr;
  }
  ThreadQueue* first = queues_.load(std::memory_order_relaxed);
  do {
    queue->nextQueue.store(first, std::memory_order_relaxed);
  } while (!queues_.compare_exchange_weak(first, queue, std::memory_order_release,
                                          std::memory_order_relaxed));
  state.queue = queue;
  if (state.plans == nullptr && !state.ownerGone) {
    // Without them each format is read at each call: nothing is lost.
    try {
      state.plans = new FormatPlans;
    } catch (...) {
    }
  }
  return queue;
}

void LineQueue::noteDropped(DropReason reason) noexcept {
  sDroppedLines.fetch_add(1, std::memory_order_relaxed);
  sUnnoted[reason].fetch_add(1, std::memory_order_relaxed);
  sAnyUnnoted.store(true, std::memory_order_release);
}

void LineQueue::postNotices(ThreadQueue* queue) noexcept {
  sAnyUnnoted.store(false, std::memory_order_relaxed);
  for (unsigned reason = 0; reason < kDropReasons; ++reason) {
    const uint64_t count = sUnnoted[reason].exchange(0, std::memory_order_acq_rel);
    if (count == 0) continue;
    char* at = queue->reserve(kRecordHeaderSize + 8);
    if (at == nullptr) {
      // No memory for the notice: it stays pending.
      sUnnoted[reason].fetch_add(count, std::memory_order_relaxed);
      sAnyUnnoted.store(true, std::memory_order_release);
      continue;
    }
    std::memcpy(at + kRecordHeaderSize, &count, 8);
    queued_.fetch_add(uint64_t{1} << kRecordsShift, std::memory_order_relaxed);
    publish(queue, at, 8, kNoticeRecord, static_cast<int>(reason));
  }
}

void LineQueue::publish(ThreadQueue* queue, char* at, std::size_t payload, uint16_t kind,
                        int level) noexcept {
  RecordHeader header;
  header.size = static_cast<uint32_t>(payload);
  header.kind = kind;
  header.level = heldLevel(level);
  // The number is taken last, right before the release store that
  // publishes the record: the writer waits for a number taken and not yet
  // published.
  header.seq = seq_.fetch_add(1, std::memory_order_seq_cst);
  writeHeader(at, header);
  queue->commit(kRecordHeaderSize + payload);
}

bool LineQueue::writerRunning() {
  if (!looper_->IsStoped()) return true;
  // The writer's thread could not be created (at start-up or since): try
  // again, as every line that comes meanwhile does.
  std::lock_guard<std::mutex> lock(startMutex_);
  if (!looper_->IsStoped()) return true;
  try {
    looper_->Start();
    if (!looper_->IsStoped()) return true;
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

bool LineQueue::wake() {
  // Pairs with the writer's store of asleep_ before its last look at seq_:
  // either the writer sees this caller's number, or this caller sees it
  // asleep (both are sequentially consistent).
  if (!asleep_.load(std::memory_order_seq_cst)) return true;
  if (!asleep_.exchange(false, std::memory_order_seq_cst)) return true;
  bool posted = false;
  try {
    // The Looper's queue may need memory for the message: a failure is
    // undone below rather than leaving the writer asleep for good.
    posted = looper_->PostMessageAAA(std::unique_ptr<Message>(new DrainMessage(this))) == 0;
  } catch (...) {
  }
  if (!posted) {
    asleep_.store(true, std::memory_order_seq_cst);
    std::lock_guard<std::mutex> lock(waitMutex_);
    room_.notify_all();
    written_.notify_all();
  }
  return posted;
}

bool LineQueue::takeRoom(std::size_t bytes) {
  const uint64_t record = uint64_t{1} << kRecordsShift;
  const uint64_t add = record + std::min<uint64_t>(bytes, kBytesMask);
  uint64_t queued = queued_.load(std::memory_order_relaxed);
  for (;;) {
    const std::size_t limit = sQueueLimit.load(std::memory_order_relaxed);
    const uint64_t queuedBytes = queued & kBytesMask;
    bool fits = limit == 0 || ((queued >> kRecordsShift) < kMaxQueuedRecords &&
                               queuedBytes + bytes <= std::min<uint64_t>(limit, kBytesMask));
    if (!fits && sQueueBlocks.load(std::memory_order_relaxed)) {
      // The writer thread (a backend that logs) cannot wait for itself: its
      // line goes beyond the bound. A line longer than the bound waits for
      // an empty queue only.
      fits = tState.onWriter || (queuedBytes == 0 && (queued >> kRecordsShift) < kMaxQueuedRecords);
    }
    if (fits) {
      if (queued_.compare_exchange_weak(queued, queued + add, std::memory_order_relaxed)) {
        return true;
      }
      continue;
    }
    if (!sQueueBlocks.load(std::memory_order_relaxed)) return false;
    // Wait for the writer to make room. It must be awake: a writer whose
    // wake failed is woken here, or the line is given up.
    if (!wake()) return false;
    std::unique_lock<std::mutex> lock(waitMutex_);
    roomWaiters_.fetch_add(1, std::memory_order_seq_cst);
    if (queued_.load(std::memory_order_seq_cst) == queued &&
        sQueueLimit.load(std::memory_order_relaxed) == limit &&
        sQueueBlocks.load(std::memory_order_relaxed)) {
      room_.wait(lock);
    }
    roomWaiters_.fetch_sub(1, std::memory_order_relaxed);
    queued = queued_.load(std::memory_order_relaxed);
  }
}

void LineQueue::giveRoom(uint64_t bytes, uint64_t records) {
  queued_.fetch_sub((records << kRecordsShift) + bytes, std::memory_order_seq_cst);
  if (roomWaiters_.load(std::memory_order_seq_cst) > 0) {
    std::lock_guard<std::mutex> lock(waitMutex_);
    room_.notify_all();
  }
}

template <typename Fill>
void LineQueue::enqueue(ThreadState& state, std::size_t payload, std::size_t counted, uint16_t kind,
                        int level, Fill fill) {
  if (sWriterLost.load(std::memory_order_acquire)) restartWriter();
  if (!writerRunning()) {
    // No writer: nothing could write the line, and no caller may wait for
    // one. It is dropped and counted; the notice is written once a writer
    // runs.
    noteDropped(kNoWriter);
    return;
  }
  ThreadQueue* queue = ownQueue(state);
  if (queue == nullptr) {
    noteDropped(kNoMemory);
    return;
  }
  char* at = nullptr;
  if (!takeRoom(counted)) {
    noteDropped(kQueueFull);
  } else {
    // Drops not noticed yet come before this line, and only before a line
    // that is queued, in the same room: a run of drops has one notice.
    const bool notices = sAnyUnnoted.load(std::memory_order_relaxed);
    at = queue->reserve(kRecordHeaderSize + payload + (notices ? kNoticesSize : 0));
    if (at != nullptr && notices) {
      postNotices(queue);
      at = queue->reserve(kRecordHeaderSize + payload);
    }
    if (at == nullptr) {
      // At most this line is lost: the queue is as it was before it.
      giveRoom(std::min<uint64_t>(counted, kBytesMask), 1);
      noteDropped(kNoMemory);
    }
  }
  if (at != nullptr) {
    fill(at + kRecordHeaderSize);
    publish(queue, at, payload, kind, level);
  }
  if (state.ownerGone) {
    // The thread is ending: its queue is the writer's to free.
    queue->closed.store(true, std::memory_order_release);
    state.queue = nullptr;
  }
  wake();
}

void LineQueue::post(const char* text, std::size_t size, int level, bool forward) {
  // A line is bounded by the memory it was made in, far below the 4 GiB a
  // record holds; a larger one is cut there.
  const std::size_t held = std::min<std::size_t>(size, UINT32_MAX - kRecordHeaderSize);
  enqueue(tState, held, held, forward ? kTextRecord | kForwardRecord : kTextRecord, level,
          [text, held](char* out) { std::memcpy(out, text, held); });
}

bool LineQueue::postFormat(int64_t timeMs, const char* format, va_list args, int level,
                           bool forward) {
  // The thread's state is looked up once: each lookup of a thread-local
  // object is a call in a shared library.
  ThreadState& state = tState;
  // The plans are made with the thread's queue: a thread's first line
  // makes both, and reads its format.
  if (state.plans == nullptr && !state.ownerGone) ownQueue(state);
  CapturedLine line;
  if (!line.capture(timeMs, &state.offset, state.plans, format, args)) return false;
  enqueue(state, line.payloadSize, line.payloadSize,
          forward ? kFormatRecord | kForwardRecord : kFormatRecord, level,
          [&line, format](char* out) { line.write(out, format); });
  return true;
}

void LineQueue::flush() {
  if (tState.onWriter) return;
  if (sAnyUnnoted.load(std::memory_order_acquire) && !looper_->IsStoped()) {
    if (ThreadQueue* queue = ownQueue(tState)) postNotices(queue);
  }
  const uint64_t target = seq_.load(std::memory_order_seq_cst);
  while (done_.load(std::memory_order_acquire) < target) {
    // Lines are queued and the writer may sleep: its wake failed, or it has
    // no thread. Wake it; when that cannot be done the lines stay queued
    // for the next line's wake and the flush returns.
    if (!writerRunning() || !wake()) return;
    std::unique_lock<std::mutex> lock(waitMutex_);
    flushWaiters_.fetch_add(1, std::memory_order_seq_cst);
    if (done_.load(std::memory_order_seq_cst) < target &&
        !asleep_.load(std::memory_order_seq_cst)) {
      written_.wait(lock);
    }
    flushWaiters_.fetch_sub(1, std::memory_order_relaxed);
  }
}

void LineQueue::limitChanged() {
  std::lock_guard<std::mutex> lock(waitMutex_);
  room_.notify_all();
}

void LineQueue::crashFlush(uint64_t faultingThread, int64_t deadlineNs) {
  static_cast<void>(faultingThread);
  crashing_.store(true, std::memory_order_release);
  const uint64_t target = seq_.load(std::memory_order_seq_cst);
  while (done_.load(std::memory_order_acquire) < target) {
    if (platform::monotonicNs() >= deadlineNs) return;
    if (asleep_.load(std::memory_order_acquire)) wake();
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  // The writer may still be writing the block the last lines are in.
  while (writing_.load(std::memory_order_acquire) && platform::monotonicNs() < deadlineNs) {
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
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
  queue->startMutex_.lock();
  queue->waitMutex_.lock();
}

void LineQueue::forkParent() {
  LineQueue* queue = sInstance.load(std::memory_order_acquire);
  if (queue == nullptr) return;
  queue->waitMutex_.unlock();
  queue->startMutex_.unlock();
  retention::unlockAfterFork();
  LogFile::unlockAfterFork();
  queue->backends_->unlockAfterFork();
}

void LineQueue::forkChild() {
  LineQueue* instance = sInstance.load(std::memory_order_acquire);
  if (instance == nullptr) return;
  // The child has only the forking thread. The lines queued in the parent
  // are the parent's to write: the queues (copies of the parent's, some
  // perhaps half-written by threads the child does not have) are let go,
  // and nobody waits. The condition variables are made anew: their
  // waiters are threads of the parent.
  LineQueue& queue = *instance;
  tState.onWriter = false;
  tState.queue = nullptr;
  new (&queue.room_) std::condition_variable;
  new (&queue.written_) std::condition_variable;
  queue.queues_.store(nullptr, std::memory_order_relaxed);
  queue.found_.clear();
  queue.block_.used = 0;
  queue.block_.records.clear();
  queue.blockBytes_ = 0;
  queue.blockRecords_ = 0;
  queue.pieces_.clear();
  queue.runLines_.clear();
  queue.queued_.store(0, std::memory_order_relaxed);
  for (std::atomic<uint64_t>& count : sUnnoted) count.store(0, std::memory_order_relaxed);
  sAnyUnnoted.store(false, std::memory_order_relaxed);
  queue.next_ = queue.seq_.load(std::memory_order_relaxed);
  queue.done_.store(queue.next_, std::memory_order_relaxed);
  queue.asleep_.store(true, std::memory_order_relaxed);
  queue.roomWaiters_.store(0, std::memory_order_relaxed);
  queue.flushWaiters_.store(0, std::memory_order_relaxed);
  queue.crashing_.store(false, std::memory_order_relaxed);
  queue.writing_.store(false, std::memory_order_relaxed);
  queue.forwarding_.store(false, std::memory_order_relaxed);
  sDroppedLines.store(0, std::memory_order_relaxed);
  // A live file of its own, named with the child's process id.
  queue.file_->afterForkInChild(platform::processId());
  crash::afterForkInChild();
  sRestartMutex = new (sRestartMutex) std::mutex;
  sWriterLost.store(true, std::memory_order_release);
  queue.waitMutex_.unlock();
  queue.startMutex_.unlock();
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
  tState.onWriter = true;
  for (;;) {
    bool gap = false;
    if (collect(&gap)) {
      const bool trickle = block_.records.size() < kTrickleRecords;
      writeBlock();
      if (trickle) gatherPause();
      continue;
    }
    if (gap) {
      // A poster is between taking its number and publishing its record.
      std::this_thread::yield();
      continue;
    }
    takeNotices();
    if (!block_.records.empty()) {
      writeBlock();
      continue;
    }
    reclaimQueues();
    if (linger()) continue;
    asleep_.store(true, std::memory_order_seq_cst);
    if (seq_.load(std::memory_order_seq_cst) == next_ &&
        !sAnyUnnoted.load(std::memory_order_seq_cst)) {
      break;
    }
    // A line came: carry on, unless its poster has already posted a new
    // drain message, which will.
    if (!asleep_.exchange(false, std::memory_order_seq_cst)) break;
  }
  if (flushWaiters_.load(std::memory_order_seq_cst) > 0) {
    std::lock_guard<std::mutex> lock(waitMutex_);
    written_.notify_all();
  }
}

bool LineQueue::collect(bool* gap) {
  found_.clear();
  auto bySeq = [](const Found& a, const Found& b) { return a.seq < b.seq; };
  for (ThreadQueue* queue = queues_.load(std::memory_order_acquire); queue != nullptr;
       queue = queue->nextQueue.load(std::memory_order_acquire)) {
    const auto first = static_cast<std::ptrdiff_t>(found_.size());
    ThreadQueue::Cursor cursor = queue->read();
    RecordHeader header;
    for (std::size_t n = 0; n < kPassRecords; ++n) {
      const char* record = cursor.next(&header);
      if (record == nullptr) break;
      found_.push_back(Found{header.seq, queue, record});
    }
    // Each queue's records come in order: merged with those before them,
    // not sorted anew (through a vector of the writer's own rather than
    // the library's temporary buffer).
    if (first > 0 && found_.size() > static_cast<std::size_t>(first)) {
      merged_.clear();
      std::merge(found_.begin(), found_.begin() + first, found_.begin() + first, found_.end(),
                 std::back_inserter(merged_), bySeq);
      found_.swap(merged_);
    }
  }
  if (found_.empty()) return false;
  if (found_.front().seq > next_) {
    if (!skipGap()) {
      *gap = true;
      return false;
    }
    next_ = found_.front().seq;
  }
  gapSinceNs_ = 0;
  try {
    for (const Found& found : found_) {
      if (found.seq != next_ || block_.used >= kPassText) break;
      RecordHeader header;
      readHeader(found.record, &header);
      take(found, header);
      ++next_;
    }
  } catch (...) {
    // No memory for the block: the records taken so far are consumed (and
    // given up with the block), so that the numbers stay in step.
    consumeTaken();
    throw;
  }
  consumeTaken();
  return true;
}

bool LineQueue::skipGap() {
  // Only after a fault: a poster that faulted between taking its number and
  // publishing its record never will. Anyone else publishes within a few
  // instructions once it runs again.
  if (!crashing_.load(std::memory_order_acquire)) return false;
  const int64_t now = platform::monotonicNs();
  if (gapSinceNs_ == 0) gapSinceNs_ = now;
  return now - gapSinceNs_ > kCrashGapNs;
}

void LineQueue::take(const Found& found, const RecordHeader& header) {
  const char* payload = found.record + kRecordHeaderSize;
  const uint16_t kind = header.kind & kKindMask;
  ++blockRecords_;
  if (kind == kNoticeRecord) {
    uint64_t count;
    std::memcpy(&count, payload, 8);
    block_.records.push_back(kRecordDropped |
                             (static_cast<uint64_t>(header.level) << kNoticeReasonShift) |
                             std::min(count, kNoticeCount));
    return;
  }
  blockBytes_ += header.size;
  const uint64_t flags =
      levelBits(header.level) | ((header.kind & kForwardRecord) != 0 ? kRecordForward : 0);
  std::size_t size = header.size;
  if (kind == kFormatRecord) {
    // The line as the caller's formatter would have made it.
    char* line = block_.room(kLineSize);
    if (writerPlans_ == nullptr) writerPlans_ = newWriterPlans();
    size = formatCapturedLine(line, payload, found.queue->threadId(), writerPlans_);
  } else {
    char* text = block_.room(size);
    if (size > 0) std::memcpy(text, payload, size);
  }
  block_.records.push_back(static_cast<uint64_t>(size) | flags);
  block_.used += size;
}

void LineQueue::consumeTaken() {
  for (ThreadQueue* queue = queues_.load(std::memory_order_acquire); queue != nullptr;
       queue = queue->nextQueue.load(std::memory_order_acquire)) {
    ThreadQueue::Cursor cursor = queue->read();
    ThreadQueue::Cursor taken = cursor;
    RecordHeader header;
    while (cursor.next(&header) != nullptr && header.seq < next_) taken = cursor;
    queue->consume(taken);
  }
}

void LineQueue::takeNotices() {
  if (!sAnyUnnoted.load(std::memory_order_acquire)) return;
  sAnyUnnoted.store(false, std::memory_order_relaxed);
  for (unsigned reason = 0; reason < kDropReasons; ++reason) {
    const uint64_t count = sUnnoted[reason].exchange(0, std::memory_order_acq_rel);
    if (count == 0) continue;
    try {
      block_.records.push_back(kRecordDropped | (uint64_t{reason} << kNoticeReasonShift) |
                               std::min(count, kNoticeCount));
    } catch (...) {
      sUnnoted[reason].fetch_add(count, std::memory_order_relaxed);
      sAnyUnnoted.store(true, std::memory_order_release);
    }
  }
}

void LineQueue::reclaimQueues() {
  ThreadQueue* previous = nullptr;
  ThreadQueue* queue = queues_.load(std::memory_order_acquire);
  while (queue != nullptr) {
    ThreadQueue* next = queue->nextQueue.load(std::memory_order_acquire);
    if (!queue->closed.load(std::memory_order_acquire) || !queue->empty()) {
      // An idle queue keeps one segment.
      if (queue->empty()) queue->shrink();
      previous = queue;
      queue = next;
      continue;
    }
    // Threads only push at the front: unlinking the front races with them,
    // any other link is the writer's alone.
    ThreadQueue* expected = queue;
    if (previous == nullptr && !queues_.compare_exchange_strong(expected, next)) {
      previous = queues_.load(std::memory_order_acquire);
      while (previous->nextQueue.load(std::memory_order_acquire) != queue) {
        previous = previous->nextQueue.load(std::memory_order_acquire);
      }
    }
    if (previous != nullptr) previous->nextQueue.store(next, std::memory_order_release);
    delete queue;
    queue = next;
  }
}

void LineQueue::writeBlock() {
  writing_.store(true, std::memory_order_release);
  writeSafely(block_.text.get(), block_.records.data(), block_.records.size());
  block_.used = 0;
  block_.records.clear();
  writing_.store(false, std::memory_order_release);
  giveRoom(blockBytes_, blockRecords_);
  blockBytes_ = 0;
  blockRecords_ = 0;
  done_.store(next_, std::memory_order_seq_cst);
  if (flushWaiters_.load(std::memory_order_seq_cst) > 0) {
    std::lock_guard<std::mutex> lock(waitMutex_);
    written_.notify_all();
  }
}

bool LineQueue::linger() {
  // Lines of a burst come faster than waking the writer through the Looper
  // costs the caller: the writer stays awake a little (yielding its
  // processor) in case more follow. It looks at the counter every few
  // microseconds only: each look takes the counter's cache line away from
  // the callers, whose next increment then waits for it.
  const uint64_t seen = seq_.load(std::memory_order_relaxed);
  const int64_t until = platform::monotonicNs() + kLingerNs;
  for (int64_t now = platform::monotonicNs(); now < until; now = platform::monotonicNs()) {
    if (seq_.load(std::memory_order_acquire) != seen) return true;
    waitAbout(kLookEveryNs);
  }
  return false;
}

void LineQueue::gatherPause() {
  // A trickle of lines: every record the writer reads while its caller
  // still writes beside it moves cache lines between the two, and the
  // caller waits for them. Letting a few lines gather first costs each of
  // them at most kGatherNs on its way to the file; a flush or a fault does
  // not wait for it.
  const int64_t until = platform::monotonicNs() + kGatherNs;
  while (platform::monotonicNs() < until) {
    if (flushWaiters_.load(std::memory_order_relaxed) > 0 ||
        crashing_.load(std::memory_order_relaxed)) {
      return;
    }
    waitAbout(kLookEveryNs);
  }
}

void LineQueue::waitAbout(int64_t ns) {
  const int64_t until = platform::monotonicNs() + ns;
  while (platform::monotonicNs() < until) std::this_thread::yield();
}

void LineQueue::drainFailed() {
  writerFailed();
  // The drain ended early: the block it was writing is given up (its lines
  // are lost, counted in the failure), and the next wake starts a new
  // drain.
  writing_.store(false, std::memory_order_release);
  block_.used = 0;
  block_.records.clear();
  giveRoom(blockBytes_, blockRecords_);
  blockBytes_ = 0;
  blockRecords_ = 0;
  done_.store(next_, std::memory_order_seq_cst);
  asleep_.store(true, std::memory_order_seq_cst);
  std::lock_guard<std::mutex> lock(waitMutex_);
  room_.notify_all();
  written_.notify_all();
}

void LineQueue::writeOne(const char* text, std::size_t size, int level, bool forward) {
  tState.onWriter = true;
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
