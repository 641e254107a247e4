// SPDX-License-Identifier: MIT

// Export macro of the zel_utils shared library.
//
// ZEL_API marks what the library exports: __declspec(dllexport) while the DLL
// itself is built (CMake defines ZEL_BUILDING on that target only),
// __declspec(dllimport) for its users on Windows, and default visibility
// elsewhere, where the library is compiled with hidden visibility.
//
// ZEL_LOCAL keeps a class nested in an exported one out of the export
// table: an ELF library gives a nested class the visibility of the class
// around it, while __declspec(dllexport) never reaches nested classes.
#ifndef ZEL_UTILS_EXPORT_H_
#define ZEL_UTILS_EXPORT_H_

#if defined(_WIN32)
#if defined(ZEL_BUILDING)
#define ZEL_API __declspec(dllexport)
#else
#define ZEL_API __declspec(dllimport)
#endif
#define ZEL_LOCAL
#else
#define ZEL_API __attribute__((visibility("default")))
#define ZEL_LOCAL __attribute__((visibility("hidden")))
#endif

#endif  // ZEL_UTILS_EXPORT_H_
