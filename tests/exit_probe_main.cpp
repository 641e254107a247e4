// SPDX-License-Identifier: MIT

// Usage: exit_probe.exe <marker file> <log directory>
// Arms exit_probe.dll, then returns from main: the DLL's static destructor
// runs at process exit (see tests/exit_probe_dll.cpp).
extern "C" __declspec(dllimport) void exit_probe_arm(const char* marker, const char* logDir);

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  exit_probe_arm(argv[1], argv[2]);
  return 0;
}
