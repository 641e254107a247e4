// SPDX-License-Identifier: MIT

// The line queue of the Logger: the lines posted and not yet written, in
// posting order, the bound on them (kDrop counted with a notice line,
// kBlock holding the caller), the writer thread that drains them into the
// log file (utils/log/internal/file_writer.h) and hands forwarded lines to
// the backends (utils/log/internal/backend_list.h), and its part in the
// crash drain and around fork(). Internal: this header is not installed.
#ifndef ZEL_UTILS_LOG_INTERNAL_LINE_QUEUE_H_
#define ZEL_UTILS_LOG_INTERNAL_LINE_QUEUE_H_

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "utils/looper.h"
#include "utils/platform.h"

namespace zel {

class BackendList;
class LogFile;

// The lines posted and not yet written, in posting order, and the writer's
// side of them.
//
// Callers copy a line's text into the current block and append a record of
// its size; nothing is allocated while a block has room and reused blocks
// are at hand. A caller that finds the writer asleep posts one drain
// message to the writer's Looper; the drain then takes every queued block at
// once and writes each block's lines in runs, one gathered write per run,
// while callers fill fresh blocks. It goes on until the queue is empty and
// only then counts as asleep again, so every line is in the operating system
// before the writer waits.
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
    explicit Block(std::size_t size);
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

}  // namespace zel

#endif  // ZEL_UTILS_LOG_INTERNAL_LINE_QUEUE_H_
