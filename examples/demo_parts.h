// SPDX-License-Identifier: MIT

// Parts of the demonstration program, each showing one area of zel_utils.
#ifndef ZEL_EXAMPLES_DEMO_PARTS_H_
#define ZEL_EXAMPLES_DEMO_PARTS_H_

#include <string>

// Writes a sample key file and a sample INI file under `workDir` (an
// existing directory whose path ends in '/'), reads the key file with
// zel::ConfigParser, reads and changes the INI file through the path-taking
// configuration functions, and shows the string helpers on a few inputs.
// Prints what it does on standard output.
void DemoConfiguration(const std::string& workDir);

// Installs the log's crash drain (zel_log_install_crash_handler()) and says
// what it does; the program does not crash. Call it from the main thread,
// early, after the log path is set.
void DemoCrashDrain();

// Bounds the log's queue to a few lines while a backend holds the writer
// thread, posts more lines than fit, and prints how many were dropped and
// the notice the log file got in their place; restores the default bound.
// `logDir` is the current day directory (it holds the live file).
void DemoQueueLimit(const std::string& logDir);

// Leaves a day directory of an earlier run, dated long ago, below
// `logBase`, switches retention on (30 days) and prints what became of it.
void DemoRetention(const std::string& logBase);

#endif  // ZEL_EXAMPLES_DEMO_PARTS_H_
