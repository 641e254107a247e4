// SPDX-License-Identifier: MIT

#include "utils/log/internal/thread_queue.h"

#include <new>

namespace zel {

ThreadQueue::ThreadQueue(uint64_t threadId) : threadId_(threadId) {
  tail_ = newSegment(kSegmentSize);
  if (tail_ == nullptr) throw std::bad_alloc();
  head_ = tail_;
}

ThreadQueue::~ThreadQueue() {
  Segment* segment = head_;
  while (segment != nullptr) {
    Segment* next = segment->next.load(std::memory_order_relaxed);
    freeSegment(segment);
    segment = next;
  }
  freeSegment(spare_.load(std::memory_order_relaxed));
}

ThreadQueue::Segment* ThreadQueue::newSegment(std::size_t capacity) noexcept {
  // The throwing operator new, caught: an application that replaces it
  // (and not the nothrow one) sees the queue's allocations too.
  void* memory = nullptr;
  try {
    memory = ::operator new(sizeof(Segment) + capacity);
  } catch (...) {
    return nullptr;
  }
  return new (memory) Segment(capacity);
}

void ThreadQueue::freeSegment(Segment* segment) noexcept {
  if (segment == nullptr) return;
  segment->~Segment();
  ::operator delete(segment);
}

char* ThreadQueue::grow(std::size_t size) noexcept {
  Segment* segment = nullptr;
  if (size <= kSegmentSize) {
    segment = spare_.exchange(nullptr, std::memory_order_acquire);
    if (segment == nullptr) segment = newSegment(kSegmentSize);
  } else {
    segment = newSegment(size);
  }
  if (segment == nullptr) return nullptr;
  segment->committed.store(0, std::memory_order_relaxed);
  segment->next.store(nullptr, std::memory_order_relaxed);
  // Every record of the full segment is committed: once the writer sees the
  // link, the committed size it reads is final.
  tail_->next.store(segment, std::memory_order_release);
  tail_ = segment;
  tailUsed_ = 0;
  return segment->data();
}

const char* ThreadQueue::Cursor::next(RecordHeader* header) noexcept {
  for (;;) {
    // The committed size is read again only when the records it covered
    // are used up: each read takes the line its poster writes.
    if (pos_ >= committed_) committed_ = segment_->committed.load(std::memory_order_acquire);
    const std::size_t committed = committed_;
    if (pos_ < committed) {
      const char* at = segment_->data() + pos_;
      readHeader(at, header);
      pos_ += kRecordHeaderSize + header->size;
      return at;
    }
    Segment* next = segment_->next.load(std::memory_order_acquire);
    if (next == nullptr) return nullptr;
    // Linked after the last commit: look once more before moving on.
    if (pos_ < segment_->committed.load(std::memory_order_acquire)) continue;
    segment_ = next;
    pos_ = 0;
    committed_ = 0;
  }
}

ThreadQueue::Cursor ThreadQueue::read() const noexcept {
  Cursor cursor;
  cursor.segment_ = head_;
  cursor.pos_ = headPos_;
  return cursor;
}

void ThreadQueue::consume(const Cursor& at) noexcept {
  while (head_ != at.segment_) {
    Segment* finished = head_;
    head_ = finished->next.load(std::memory_order_acquire);
    if (finished->capacity == kSegmentSize) {
      finished = spare_.exchange(finished, std::memory_order_release);
    }
    freeSegment(finished);
  }
  headPos_ = at.pos_;
}

bool ThreadQueue::empty() const noexcept {
  return headPos_ == head_->committed.load(std::memory_order_acquire) &&
         head_->next.load(std::memory_order_acquire) == nullptr;
}

void ThreadQueue::shrink() noexcept {
  freeSegment(spare_.exchange(nullptr, std::memory_order_acquire));
}

}  // namespace zel
