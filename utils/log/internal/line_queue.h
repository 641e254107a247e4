// SPDX-License-Identifier: MIT

// The line queue of the Logger: the lines posted and not yet written (in a
// queue of each posting thread, utils/log/internal/thread_queue.h) and the
// order they are written in, the bound on them (kDrop counted with a notice line,
// kBlock holding the caller), the writer thread that drains them into the
// log file (utils/log/internal/file_writer.h) and hands forwarded lines to
// the backends (utils/log/internal/backend_list.h), and its part in the
// crash drain and around fork(). Internal: this header is not installed.
#ifndef ZEL_UTILS_LOG_INTERNAL_LINE_QUEUE_H_
#define ZEL_UTILS_LOG_INTERNAL_LINE_QUEUE_H_

#include <atomic>
#include <condition_variable>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "utils/log/internal/thread_queue.h"
#include "utils/looper.h"
#include "utils/platform.h"

namespace zel {

class BackendList;
class LogFile;
struct ThreadState;
struct WriterPlans;

// The lines posted and not yet written, and the writer's side of them.
//
// Each posting thread has a queue of its own (utils/log/internal/
// thread_queue.h), made at its first line and freed by the writer once the
// thread has ended and its lines are written: posting takes no lock. A
// line is a record of its text, or of its time, format and arguments for
// the writer to format (CapturedLine). Every record takes a number from one
// process-wide counter when it is published, with one atomic increment:
// when one post happens before another (the same thread, or ordered by a
// lock, an atomic or a join) its number is the smaller. The writer writes
// records in the order of their numbers, without gaps: a number taken but
// not yet published (a poster between the increment and its release store,
// a few instructions) holds back the records behind it until it is there.
//
// The bound counts the bytes of the records queued and not yet written
// (a line's text, or a captured line's time, format and arguments) and
// the records themselves, in one atomic word. A caller that finds the
// writer asleep posts one drain message to the writer's Looper; the drain
// takes the records of every queue, formats them into one block and writes
// it in runs, one gathered write per run, and goes on until every queue is
// empty, so every line is in the operating system before the writer waits.
class LineQueue {
 public:
  // Why lines were dropped: each reason has its notice in the file, and all
  // of them are counted by dropped().
  enum DropReason : unsigned {
    kQueueFull = 0,  // the bound, under kDrop
    kNoMemory = 1,   // no memory to queue the line
    kNoWriter = 2,   // the writer thread could not be started
    kDropReasons = 3,
  };

  // Lines go to `file`; lines posted with `forward` also to `backends`.
  // Both outlive the queue.
  LineQueue(LogFile* file, BackendList* backends) : file_(file), backends_(backends) {}
  // Stops the writer thread.
  ~LineQueue();
  LineQueue(const LineQueue&) = delete;
  LineQueue& operator=(const LineQueue&) = delete;

  // Starts the writer thread (a thread that cannot be created is tried
  // again by the next line) and installs the fork handlers; once.
  void startWriter();

  // The queue bound and its policy (process-wide, so that they can be set
  // before the Logger exists), and the lines dropped since the process
  // started. Any thread.
  static void setLimit(std::size_t bytes, bool blocks);
  static uint64_t dropped();

  // The queue of the process's Logger once its writer was started; null
  // before.
  static LineQueue* instance();

  // Queues one line, or drops it (the bound, kDrop) or waits for room (the
  // bound, kBlock). Any thread.
  void post(const char* text, std::size_t size, int level, bool forward);
  // As post() for the line `format` makes of `args` at `timeMs` (the wall
  // clock the caller read, through platform::wallClockMs()), formatted on
  // the writer thread; false, with nothing queued or counted, when the
  // format must be formatted by the caller (see CapturedLine).
  bool postFormat(int64_t timeMs, const char* format, va_list args, int level, bool forward);

  // Waits until every record queued before the call (by any thread) has
  // been written.
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
  // numbered so far are written (the writer formats the ones it has not),
  // at most until `deadlineNs`. Posting takes no lock, so nothing the
  // faulting thread held can stop the writer; a number it took and never
  // published is skipped.
  void crashFlush(uint64_t faultingThread, int64_t deadlineNs);

  // A fault of the writer thread (crash::WriterFaultFunction's work, in the
  // fatal handler): writes the lines of the run being gathered and the
  // line being handed to a backend.
  void writeGathered();

  // Around fork(): the locks the writer takes are held across the fork,
  // so that the child finds them in a known state; in the child every
  // thread queue (the parent's lines, the parent's to write) is let go and
  // the child's lines start anew.
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

  // The lines the writer formatted from the queues, to be written: their
  // texts back to back and one record per line or notice (its size, level
  // and flags).
  struct Block {
    std::unique_ptr<char[]> text;
    std::size_t capacity = 0;
    std::size_t used = 0;
    std::vector<uint64_t> records;
    // Room for `size` more bytes of text; throws std::bad_alloc.
    char* room(std::size_t size);
  };

  // A record of a thread's queue, found by the writer.
  struct Found {
    uint64_t seq;
    ThreadQueue* queue;
    const char* record;
  };

  // Posted to the Looper to wake the writer. Its memory is kept for the
  // next wake, so that waking allocates nothing in the common case.
  class DrainMessage final : public Message {
   public:
    explicit DrainMessage(LineQueue* queue) : queue_(queue) {}
    void Run() override {
      // No exception may leave a message of the writer's Looper (it would
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

  // The calling thread's queue, made (and registered) at its first line;
  // null when it cannot be made.
  ThreadQueue* ownQueue(ThreadState& state) noexcept;
  // Queues a record of `payload` bytes (`counted` of them under the bound)
  // that `fill` writes, with the checks and the accounting every line has.
  template <typename Fill>
  void enqueue(ThreadState& state, std::size_t payload, std::size_t counted, uint16_t kind,
               int level, Fill fill);
  // Publishes the record of `payload` bytes reserved at `at` in `queue`.
  void publish(ThreadQueue* queue, char* at, std::size_t payload, uint16_t kind,
               int level) noexcept;
  // Takes room for a record of `bytes` under the bound: true when it fits
  // (or under kBlock once it does: the caller waits), false when it is to
  // be dropped. A waiter looks at the bound and the policy each time it
  // wakes.
  bool takeRoom(std::size_t bytes);
  // Gives back what takeRoom() took for `bytes` in `records` records, and
  // wakes the callers waiting for room.
  void giveRoom(uint64_t bytes, uint64_t records);
  // Counts one line dropped for `reason`; its notice is queued with the
  // next line posted, or by the writer once every queue is empty.
  // Allocates nothing: the count and the notices agree whatever fails.
  static void noteDropped(DropReason reason) noexcept;
  // Queues, in `queue`, the notices of the drops not noticed yet.
  void postNotices(ThreadQueue* queue) noexcept;
  // Whether the writer thread runs; starts it when it does not (after a
  // failed start), reporting the first failure.
  bool writerRunning();
  // Posts the drain message when the writer is asleep. False when it was
  // asleep and could not be woken (no memory to post): then it counts as
  // asleep again and the lines stay queued for the next wake.
  bool wake();
  // The writer's pass: takes the records of every queue that are next in
  // number into block_, formatted. True when it took any; `*gap` tells
  // whether a record is published behind a number not yet published.
  bool collect(bool* gap);
  // Whether the number the writer waits for is to be skipped (see
  // crashFlush()).
  bool skipGap();
  // Appends the record `found` to block_, formatted.
  void take(const Found& found, const RecordHeader& header);
  // Consumes, in every queue, the records numbered below next_.
  void consumeTaken();
  // Appends the notices of the drops not noticed yet to block_ (the writer,
  // once every queue is empty).
  void takeNotices();
  // Frees the queues of ended threads that are empty, and the spare
  // segments of idle ones.
  void reclaimQueues();
  // Writes block_ and accounts for it (room, the written count, waiters).
  void writeBlock();
  // Waits up to kLingerNs for more lines; true when a line came.
  bool linger();
  // Waits kGatherNs for more lines of a trickle to gather.
  void gatherPause();
  // Waits about `ns` without looking at anything the callers write.
  static void waitAbout(int64_t ns);
  // Writes the records of one block, catching every exception: a run whose
  // writing throws is tried again once, and a record that throws twice is
  // given up (counted and reported with drainFailed()'s count).
  void writeSafely(const char* text, const uint64_t* records, std::size_t count) noexcept;
  // Writes the records of one block from `at` on, advancing `at` as they are
  // written; `text` holds the lines back to back.
  void writeRecords(const char* text, const uint64_t* records, std::size_t count, Progress* at);
  // Gathers into pieces_ (and their lengths in the file into runLines_) the
  // lines from `end` on that go into `handle` as one run, handing each to
  // the backends first when it is to be forwarded (counted in
  // `*forwarded` at once), and advances `end` past them. False when the run
  // ended with an empty line (a text that starts with a NUL), which is not
  // written and counts as a failed write.
  bool gatherRun(platform::FileHandle handle, const char* text, const uint64_t* records,
                 std::size_t count, Progress* end, std::size_t* forwarded);
  // Counts one exception caught on the writer thread and reports the first.
  void writerFailed() noexcept;
  // Writes the notice record `notice` (a count of dropped lines and their
  // reason) as a line of the writer's own.
  void writeDropNotice(uint64_t notice);
  // Hands the line `text` of `size` bytes to the backends, keeping what a
  // fault inside a backend needs to write the run (writeGathered()).
  void forward(platform::FileHandle file, const char* text, std::size_t size, int level);

  LogFile* file_;
  BackendList* backends_;
  // The writer thread's Looper, which runs the drain message; set by
  // startWriter() and made anew in a forked child.
  std::unique_ptr<Looper> looper_;
  std::mutex startMutex_;       // a restart of a writer that could not start
  bool startReported_ = false;  // a failed start of the writer was reported

  // The queues of the threads, newest first: threads push their own at the
  // front, and only the writer unlinks (ended and empty ones).
  std::atomic<ThreadQueue*> queues_{nullptr};
  // Each of the counters the callers and the writer share has a cache line
  // of its own: a store to one must not take the others away from the
  // threads that use them.
  // The next record number to hand out.
  alignas(64) std::atomic<uint64_t> seq_{0};
  // The bytes (bits 0-39) and records (bits 40-63) queued and not yet
  // written.
  alignas(64) std::atomic<uint64_t> queued_{0};
  // The records written (or given up) so far: every number below it.
  alignas(64) std::atomic<uint64_t> done_{0};
  // True while no drain runs or is posted (read by every post, written
  // when the writer sleeps or wakes).
  alignas(64) std::atomic<bool> asleep_{true};

  // Callers waiting for room or for a flush sleep here.
  std::mutex waitMutex_;
  std::condition_variable room_;     // the writer made room, or the bound changed
  std::condition_variable written_;  // the writer wrote a block
  std::atomic<int> roomWaiters_{0};
  std::atomic<int> flushWaiters_{0};

  // Set by the crash drain: the writer then skips a number that is never
  // published (its poster faulted between taking and publishing it).
  std::atomic<bool> crashing_{false};
  // True while the writer writes a block.
  std::atomic<bool> writing_{false};

  // Writer thread only.
  alignas(64) uint64_t next_ = 0;  // the number of the next record to write
  int64_t gapSinceNs_ = 0;         // since when it waits for next_ (after a fault)
  std::vector<Found> found_;       // the records of one pass
  std::vector<Found> merged_;      // found_ while a queue's records are merged in
  Block block_;                    // the lines being written
  uint64_t blockBytes_ = 0;        // what block_'s records took under the bound
  uint64_t blockRecords_ = 0;
  std::vector<platform::WriteBuffer> pieces_;  // the run being built
  std::vector<std::size_t> runLines_;          // its lines' lengths in the file
  // The formats it formatted last; made at the first such line (null
  // without memory: each format is then read at each line).
  WriterPlans* writerPlans_ = nullptr;
  std::atomic<uint64_t> writerFailures_{0};  // exceptions caught on the writer thread
  // While the writer hands a line to the backends: the run's file, and the
  // line's text as the file gets it (for a fault inside a backend).
  std::atomic<bool> forwarding_{false};
  platform::FileHandle runFile_ = platform::kNoFile;
  const char* forwardText_ = nullptr;
  std::size_t forwardLength_ = 0;

  static std::atomic<void*> sSpareDrain;  // the memory of one drain message
};

}  // namespace zel

#endif  // ZEL_UTILS_LOG_INTERNAL_LINE_QUEUE_H_
