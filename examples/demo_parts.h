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

#endif  // ZEL_EXAMPLES_DEMO_PARTS_H_
