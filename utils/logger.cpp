#include "utils/logger.h"

#include <condition_variable>
#include <cstring>
#include <new>
#include <thread>
#include <vector>

#include "utils/log_crash.h"
#include "utils/log_file.h"
#include "utils/log_levelled_backend.h"
#include "utils/log_line.h"
#include "utils/log_retention.h"
#include "utils/platform.h"

namespace zel {

namespace {

constexpr int kFpNullLine = 296;

// The text capacity of one block of the line queue. Blocks of this size are
// reused; a longer line gets a block of its own size, freed after writing.
constexpr std::size_t kBlockSize = 256 * 1024;
// Free blocks kept for reuse; the others are given back.
constexpr std::size_t kSpareBlocks = 4;
// Records a new block has room for before its record list grows.
constexpr std::size_t kBlockRecords = 2048;
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

 private:
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
    void Run() override { queue_->drain(); }
    static void* operator new(std::size_t size);
    static void operator delete(void* memory);

   private:
    LineQueue* queue_;
  };

  // A block with room for `size` more bytes at the back of the queue.
  // Requires mutex_.
  Block* blockFor(std::size_t size);
  // Gives a written block back for reuse. Requires mutex_.
  void recycle(std::unique_ptr<Block> block);
  // Called with mutex_ held and the queue empty: waits up to kLingerNs for
  // more lines (mutex_ released meanwhile). True when lines are queued.
  bool linger();
  // Accounts for the written `block` (room, the written count, waiters)
  // and recycles it. Requires mutex_.
  void release(std::unique_ptr<Block> block);
  // Takes `lock` (on mutex_, not owned yet), trying briefly before sleeping.
  static void lock(std::unique_lock<std::mutex>* lock);
  // Appends the notice of one more dropped line. Requires mutex_.
  void noteDropped();
  // Posts the drain message when the writer was asleep; `lock` is released.
  void wake(std::unique_lock<std::mutex>* lock);
  // Writes the records of one block; `text` holds the lines back to back.
  void writeRecords(const char* text, const uint64_t* records, std::size_t count);
  // Writes the notice of `count` dropped lines as a line of the writer's own.
  void writeDropNotice(uint64_t count);
  // Hands the line `text` of `size` bytes, logged at `level`, to every
  // registered backend: the one place where backends are called.
  void forward(const char* text, std::size_t size, int level);

  Logger* logger_;
  std::mutex mutex_;
  std::condition_variable room_;                // the writer made room, or the bound changed
  std::condition_variable written_;             // the writer finished a block
  std::vector<std::unique_ptr<Block>> blocks_;  // queued, oldest first; the last one fills
  std::vector<std::unique_ptr<Block>> spare_;   // written blocks kept for reuse
  std::size_t queuedBytes_ = 0;                 // text of the lines posted and not yet written
  // Records queued so far; written under mutex_, also read without it by
  // the writer while it lingers.
  std::atomic<uint64_t> posted_{0};
  uint64_t done_ = 0;          // records written (or given up) so far
  bool drainPending_ = false;  // the writer is awake or woken
  int roomWaiters_ = 0;
  int flushWaiters_ = 0;

  // Writer thread only.
  std::vector<std::unique_ptr<Block>> batch_;  // the blocks being written
  std::vector<platform::WriteBuffer> pieces_;  // the run being built
  std::vector<std::size_t> runLines_;          // its lines' lengths in the file

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

void Logger::LineQueue::recycle(std::unique_ptr<Block> block) {
  if (block->capacity != kBlockSize || spare_.size() >= kSpareBlocks) return;
  block->used = 0;
  block->records.clear();
  spare_.push_back(std::move(block));
}

void Logger::LineQueue::noteDropped() {
  if (!blocks_.empty()) {
    std::vector<uint64_t>& records = blocks_.back()->records;
    if (!records.empty() && (records.back() & kRecordDropped) != 0 &&
        (records.back() & kRecordValue) < kRecordValue) {
      ++records.back();
      return;
    }
  }
  blockFor(0)->records.push_back(kRecordDropped | 1);
  posted_.store(posted_.load(std::memory_order_relaxed) + 1, std::memory_order_release);
}

void Logger::LineQueue::wake(std::unique_lock<std::mutex>* lock) {
  if (drainPending_) {
    lock->unlock();
    return;
  }
  drainPending_ = true;
  lock->unlock();
  if (logger_->mWriter->looper->PostMessageAAA(std::unique_ptr<Message>(new DrainMessage(this))) !=
      0) {
    // The writer is stopped: nothing can be written any more.
    lock->lock();
    drainPending_ = false;
    lock->unlock();
  }
}

void Logger::LineQueue::post(const char* text, std::size_t size, int level, bool forward) {
  std::unique_lock<std::mutex> lock(mutex_, std::defer_lock);
  LineQueue::lock(&lock);
  std::size_t limit = sQueueLimit.load(std::memory_order_relaxed);
  if (limit != 0 && size > limit - (queuedBytes_ < limit ? queuedBytes_ : limit)) {
    if (!sQueueBlocks.load(std::memory_order_relaxed)) {
      sDroppedLines.fetch_add(1, std::memory_order_relaxed);
      noteDropped();
      wake(&lock);
      return;
    }
    // The writer thread (a backend that logs) cannot wait for itself: its
    // line goes beyond the bound. A line longer than the bound waits for
    // an empty queue only.
    if (!tOnWriterThread) {
      ++roomWaiters_;
      room_.wait(lock, [this, size, &limit] {
        limit = sQueueLimit.load(std::memory_order_relaxed);
        return limit == 0 || queuedBytes_ == 0 || !sQueueBlocks.load(std::memory_order_relaxed) ||
               size <= limit - (queuedBytes_ < limit ? queuedBytes_ : limit);
      });
      --roomWaiters_;
    }
  }
  Block* block = blockFor(size);
  std::memcpy(block->text.get() + block->used, text, size);
  block->used += size;
  // A line is bounded by the memory it was made in, far below the 2^46
  // bytes that its record holds.
  block->records.push_back(static_cast<uint64_t>(size) | levelBits(level) |
                           (forward ? kRecordForward : 0));
  queuedBytes_ += size;
  posted_.store(posted_.load(std::memory_order_relaxed) + 1, std::memory_order_release);
  wake(&lock);
}

void Logger::LineQueue::flush() {
  if (tOnWriterThread) return;
  std::unique_lock<std::mutex> lock(mutex_);
  const uint64_t target = posted_.load(std::memory_order_relaxed);
  if (done_ >= target) return;
  ++flushWaiters_;
  written_.wait(lock, [this, target] { return done_ >= target; });
  --flushWaiters_;
}

void Logger::LineQueue::limitChanged() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (roomWaiters_ > 0) room_.notify_all();
}

void Logger::LineQueue::drain() {
  tOnWriterThread = true;
  for (;;) {
    {
      // The last block written is accounted for together with taking the
      // next batch: one lock per batch while lines trickle in.
      std::lock_guard<std::mutex> lock(mutex_);
      if (!batch_.empty()) release(std::move(batch_.back()));
      batch_.clear();
      if (blocks_.empty() && !linger()) {
        drainPending_ = false;
        return;
      }
      batch_.swap(blocks_);
    }
    for (std::size_t b = 0; b < batch_.size(); ++b) {
      Block& block = *batch_[b];
      writeRecords(block.text.get(), block.records.data(), block.records.size());
      if (b + 1 == batch_.size()) break;
      // A backlog: give each block's room back as soon as it is written.
      std::lock_guard<std::mutex> lock(mutex_);
      release(std::move(batch_[b]));
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

void Logger::LineQueue::release(std::unique_ptr<Block> block) {
  queuedBytes_ -= block->used;
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
  writeRecords(text, &record, 1);
}

void Logger::LineQueue::writeDropNotice(uint64_t count) {
  char line[kLineSize];
  const std::size_t size = printLogLine(line, "zel log: %llu lines dropped (queue full)\n",
                                        static_cast<unsigned long long>(count));
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

void Logger::LineQueue::writeRecords(const char* text, const uint64_t* records, std::size_t count) {
  LogFile& file = *logger_->mLogFile;
  std::size_t i = 0;          // the next record to write
  std::size_t offset = 0;     // where its text starts
  std::size_t forwarded = 0;  // records before this one were handed to the backends
  while (i < count) {
    if ((records[i] & kRecordDropped) != 0) {
      writeDropNotice(records[i] & kRecordValue);
      ++i;
      continue;
    }
    // A run starts: the per-line checks (size, day, a file removed or
    // replaced from outside) are made here, once, with one status query.
    const std::intptr_t handle = logger_->getLogFp();
    if (handle == platform::kNoFile) {
      // A refused directory was reported once; its lines go nowhere quietly.
      if (!file.refused()) {
        logConsole("%s %d: fp is null \n", "zel::Logger::writeLog", kFpNullLine);
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
      if (end >= forwarded && (records[end] & kRecordForward) != 0) {
        forward(line, size, recordLevel(records[end]));
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
    if (end > forwarded) forwarded = end;
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
  mWriter->looper->Start();
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
    return crash::install(GetInstance());
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
