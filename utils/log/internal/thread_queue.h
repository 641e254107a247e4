// SPDX-License-Identifier: MIT

// The queue of one posting thread: records written by that thread alone and
// read by the log's writer thread alone, so that posting takes no lock.
//
// A queue is a chain of segments. The thread appends records to the last
// one and publishes each with one release store of the segment's committed
// size; when a record does not fit it starts a new segment (a spare one
// the writer gave back, or a new allocation) and links it behind the full
// one. The writer reads records up to what is committed, moves to the next
// segment once the one it reads is finished and linked, and gives finished
// segments back as the spare or frees them.
//
// Each record starts with a RecordHeader; the header and the bytes behind
// it are packed without padding and read with memcpy.
//
// Internal: this header is not installed.
#ifndef ZEL_UTILS_LOG_INTERNAL_THREAD_QUEUE_H_
#define ZEL_UTILS_LOG_INTERNAL_THREAD_QUEUE_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace zel {

// What a record holds.
enum RecordKind : uint16_t {
  kTextRecord = 0,     // a finished line: its text
  kFormatRecord = 1,   // a line to format on the writer (see line_format.h)
  kForwardRecord = 4,  // flag: hand the line to the backends too
};

struct RecordHeader {
  uint64_t seq;   // the line's place among the lines of every thread
  uint32_t size;  // bytes behind the header
  uint16_t kind;  // RecordKind, with kForwardRecord or not
  int16_t level;  // the level the backends get
};

constexpr std::size_t kRecordHeaderSize = sizeof(RecordHeader);
static_assert(kRecordHeaderSize == 16, "records are packed as 16 header bytes and the payload");

class ThreadQueue {
  struct Segment;

 public:
  // The size of a segment; a record larger than this gets a segment of
  // its own size.
  static constexpr std::size_t kSegmentSize = 32 * 1024;

  // Allocates the first segment; throws std::bad_alloc.
  explicit ThreadQueue(uint64_t threadId);
  // Frees every segment. Only when neither side uses the queue any more.
  ~ThreadQueue();
  ThreadQueue(const ThreadQueue&) = delete;
  ThreadQueue& operator=(const ThreadQueue&) = delete;

  // Posting thread: room for a record of `size` bytes (header included),
  // or null when a new segment is needed and cannot be allocated. The
  // record becomes visible to the writer with commit(size).
  char* reserve(std::size_t size) noexcept {
    if (tail_->capacity - tailUsed_ >= size) return tail_->data() + tailUsed_;
    return grow(size);
  }
  void commit(std::size_t size) noexcept {
    tailUsed_ += size;
    tail_->committed.store(tailUsed_, std::memory_order_release);
  }

  // Writer: a cursor over the records committed so far, from the first one
  // not consumed yet. Reading does not consume.
  class Cursor {
   public:
    // The next record, or null at the end of what is committed.
    const char* next(RecordHeader* header) noexcept;

   private:
    friend class ThreadQueue;
    Segment* segment_ = nullptr;
    std::size_t pos_ = 0;
    std::size_t committed_ = 0;  // of segment_, as last read
  };
  Cursor read() const noexcept;
  // Writer: consumes the records up to `at` (a cursor of read() advanced
  // past them), giving finished segments back.
  void consume(const Cursor& at) noexcept;
  // Writer: true when every committed record is consumed.
  bool empty() const noexcept;
  // Writer: frees the spare segment (an idle queue keeps one segment).
  void shrink() noexcept;

  uint64_t threadId() const { return threadId_; }

  // The registry's link, and whether the thread has ended (the queue is
  // freed by the writer once it is empty).
  std::atomic<ThreadQueue*> nextQueue{nullptr};
  std::atomic<bool> closed{false};

 private:
  struct Segment {
    explicit Segment(std::size_t size) : capacity(size) {}
    std::atomic<std::size_t> committed{0};
    std::atomic<Segment*> next{nullptr};
    const std::size_t capacity;
    char* data() { return reinterpret_cast<char*>(this + 1); }
  };
  static Segment* newSegment(std::size_t capacity) noexcept;
  static void freeSegment(Segment* segment) noexcept;
  char* grow(std::size_t size) noexcept;

  const uint64_t threadId_;
  // Posting thread only.
  Segment* tail_;
  std::size_t tailUsed_ = 0;
  // Writer only.
  Segment* head_;
  std::size_t headPos_ = 0;
  // A finished segment of kSegmentSize the writer gave back for reuse.
  std::atomic<Segment*> spare_{nullptr};
};

inline void readHeader(const char* at, RecordHeader* header) {
  std::memcpy(header, at, kRecordHeaderSize);
}

inline void writeHeader(char* at, const RecordHeader& header) {
  std::memcpy(at, &header, kRecordHeaderSize);
}

}  // namespace zel

#endif  // ZEL_UTILS_LOG_INTERNAL_THREAD_QUEUE_H_
