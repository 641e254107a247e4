// SPDX-License-Identifier: MIT

// Which sanitizer the test build runs under, for the few tests whose
// measures a sanitizer changes: its shadow memory makes the resident memory
// say nothing about the program's own, and a set-user-ID program does not
// start under it. GCC says so with __SANITIZE_*__, Clang with __has_feature.
#ifndef ZEL_TESTS_SUPPORT_SANITIZERS_H_
#define ZEL_TESTS_SUPPORT_SANITIZERS_H_

#if defined(__SANITIZE_ADDRESS__)
#define ZEL_TEST_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZEL_TEST_ADDRESS_SANITIZER 1
#endif
#endif

#if defined(__SANITIZE_THREAD__)
#define ZEL_TEST_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ZEL_TEST_THREAD_SANITIZER 1
#endif
#endif

namespace zel_test {

#if defined(ZEL_TEST_ADDRESS_SANITIZER)
constexpr bool kUnderAddressSanitizer = true;
#else
constexpr bool kUnderAddressSanitizer = false;
#endif

#if defined(ZEL_TEST_THREAD_SANITIZER)
constexpr bool kUnderThreadSanitizer = true;
#else
constexpr bool kUnderThreadSanitizer = false;
#endif

}  // namespace zel_test

#endif  // ZEL_TESTS_SUPPORT_SANITIZERS_H_
