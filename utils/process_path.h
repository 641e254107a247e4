// SPDX-License-Identifier: MIT

// The directory and the file name of the running process's executable.
//
// The path is the one of the process's main executable (not of this
// library), as the operating system reports it: GetModuleFileNameA on
// Windows, /proc/self/exe on Linux. It is cut at its last path separator
// ('\' on Windows, '/' on Linux). None of the functions reports an error
// or throws: when the path cannot be had, or memory runs out, they return
// the empty text.
//
// Threads: any thread; they keep no state.
//
// Example (C:\apps\client.exe):
//   get_process_dir()   == "C:\\apps\\"
//   get_process_name()  == "client.exe"
#ifndef ZEL_UTILS_PROCESS_PATH_H_
#define ZEL_UTILS_PROCESS_PATH_H_

#include <string>

#include "utils/export.h"

// These functions keep C linkage (unadorned export names) although they
// return std::string; they are meant for C++ callers.
#if defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wreturn-type-c-linkage"
#elif defined(_MSC_VER)
#pragma warning(push)
#pragma warning(disable : 4190)
#endif

extern "C" {

// Returns the executable's directory with its trailing separator, from a
// path of at most 259 characters; the result is cut at 255 characters. A
// path without any separator past its first character gives that first
// character alone.
ZEL_API std::string get_self_dir();

// Returns the executable's directory with its trailing separator, from a
// path of at most 1023 characters.
ZEL_API std::string get_process_dir();

// Returns the executable's file name, extension kept, from the first 511
// characters of its path (a longer path is cut first, which can cut the
// name). A path without a separator is returned whole.
ZEL_API std::string get_process_name();

}  // extern "C"

#if defined(__clang__)
#pragma clang diagnostic pop
#elif defined(_MSC_VER)
#pragma warning(pop)
#endif

#endif  // ZEL_UTILS_PROCESS_PATH_H_
