// SPDX-License-Identifier: MIT

// The parts every replacement of the global operator new on top of malloc
// shares: the allocation itself, and the operator delete pair that gives
// its memory back with free. A test executable that fails allocations in a
// way of its own defines its operator new with MallocOrThrow() and includes
// this header in that one source file only.
#ifndef ZEL_TESTS_SUPPORT_MALLOC_OPERATORS_H_
#define ZEL_TESTS_SUPPORT_MALLOC_OPERATORS_H_

#include <cstddef>
#include <cstdlib>
#include <new>

namespace zel_test {

// `size` bytes from malloc (one for a size of 0); std::bad_alloc when
// there are none.
inline void* MallocOrThrow(std::size_t size) {
  void* p = std::malloc(size == 0 ? 1 : size);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}

}  // namespace zel_test

// The pair of an operator new made with MallocOrThrow(): what it allocated
// with malloc goes back with free (the compiler cannot see that they belong
// together).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
#pragma GCC diagnostic pop

#endif  // ZEL_TESTS_SUPPORT_MALLOC_OPERATORS_H_
