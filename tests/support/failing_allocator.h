// SPDX-License-Identifier: MIT

// A replacement of the global operator new and delete for one test
// executable, with a switch that makes every allocation fail with
// std::bad_alloc, so that a test can exhaust memory for the length of one
// call. Include it in one source file of the executable only. POSIX only:
// on Windows the library's allocations do not reach the executable's
// operators.
#ifndef ZEL_TESTS_SUPPORT_FAILING_ALLOCATOR_H_
#define ZEL_TESTS_SUPPORT_FAILING_ALLOCATOR_H_

#include <atomic>
#include <cstdlib>
#include <new>

namespace zel_test {

// While true, every operator new of the process throws std::bad_alloc.
inline std::atomic<bool> gFailAllocations{false};

// Makes allocations fail for the life of the object.
class AllocationFailure {
 public:
  AllocationFailure() { gFailAllocations.store(true); }
  ~AllocationFailure() { gFailAllocations.store(false); }
  AllocationFailure(const AllocationFailure&) = delete;
  AllocationFailure& operator=(const AllocationFailure&) = delete;
};

// Whether AllocationFailure takes effect: not when a memory checker (such
// as valgrind) has put its own operators in place of the ones below.
inline bool AllocationFailureWorks() {
  AllocationFailure failure;
  try {
    ::operator delete(::operator new(1));
  } catch (const std::bad_alloc&) {
    return true;
  }
  return false;
}

}  // namespace zel_test

// Exported, so that the library's calls reach them too. Kept whole (no
// inlining, no clones): a memory checker that swaps the exported operators
// for its own must see every call go through them.
#if defined(__clang__)
#define ZEL_TEST_WHOLE_FUNCTION __attribute__((visibility("default"), noinline))
#else
#define ZEL_TEST_WHOLE_FUNCTION __attribute__((visibility("default"), noipa))
#endif
ZEL_TEST_WHOLE_FUNCTION void* operator new(std::size_t size) {
  if (zel_test::gFailAllocations.load()) throw std::bad_alloc();
  void* memory = std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

ZEL_TEST_WHOLE_FUNCTION void operator delete(void* memory) noexcept { std::free(memory); }

ZEL_TEST_WHOLE_FUNCTION void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

#endif  // ZEL_TESTS_SUPPORT_FAILING_ALLOCATOR_H_
