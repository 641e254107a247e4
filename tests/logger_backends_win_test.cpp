// SPDX-License-Identifier: MIT

// The Windows backends of the log: the event log and the debugger output.
//
// The debugger output is read the way debug output viewers read it, through
// the DBWIN_BUFFER shared memory and its two events, on Windows and under
// Wine alike. The event log is read back under Wine from Wine's own trace of
// the events (its "eventlog" debug channel, which prints each event's text
// on standard error in the class of its type); the Application log itself
// exists on real Windows only.
#include <windows.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/test_util.h"
#include "utils/log_debug_output_backend.h"
#include "utils/log_event_log_backend.h"
#include "utils/logger.h"

namespace {

using zel_test::TempDir;
using zel_test::WaitFor;

// The environment variable that tells a child run of a test its part.
constexpr char kChildVariable[] = "ZEL_BACKENDS_CHILD";

// True when the program runs under Wine.
bool UnderWine() {
  const HMODULE ntdll = GetModuleHandleA("ntdll.dll");
  return ntdll != nullptr && GetProcAddress(ntdll, "wine_get_version") != nullptr;
}

// Runs this test program again under Wine with only `test` selected,
// kChildVariable set to `role` and WINEDEBUG to `wineDebug`, and puts what
// Wine's debug channels print into the file `errorPath`. Wine prints them
// on the standard error of the host process, which a Windows process does
// not hand to its children: the child is started by the host's shell (Wine
// starts host programs), with its standard error going to the file. Returns
// the child's exit status, or -1 when it could not be run.
int RunChildUnderWine(const std::string& test, const std::string& role,
                      const std::string& wineDebug, const std::string& errorPath) {
  char self[MAX_PATH] = {0};
  GetModuleFileNameA(nullptr, self, MAX_PATH);
  const std::string hostSelf = zel_test::HostPath(self);
  const std::string hostError = zel_test::HostPath(errorPath);
  const std::string donePath = errorPath + ".status";
  const std::string hostDone = zel_test::HostPath(donePath);
  if (hostSelf.empty() || hostError.empty() || hostDone.empty()) return -1;
  std::string command =
      "Z:\\bin\\sh -c \"" + std::string(kChildVariable) + "=" + role + " WINEDEBUG=" + wineDebug +
      " wine '" + hostSelf + "' --gtest_filter=" + test + " </dev/null >/dev/null 2>'" + hostError +
      "'; echo $? >'" + hostDone + ".tmp'; mv '" + hostDone + ".tmp' '" + hostDone + "'\"";
  STARTUPINFOA startup{};
  startup.cb = sizeof(startup);
  PROCESS_INFORMATION child{};
  if (CreateProcessA(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                     &child) == 0) {
    return -1;
  }
  CloseHandle(child.hThread);
  CloseHandle(child.hProcess);
  // The host program's end is not reported through its handle: wait for
  // the status it leaves.
  if (!WaitFor([&donePath] { return zel_test::FileExists(donePath); }, std::chrono::seconds(60))) {
    return -1;
  }
  return std::atoi(zel_test::ReadFile(donePath).c_str());
}

// The part this run plays: empty for the test itself, the role otherwise.
std::string ChildRole() {
  const char* role = std::getenv(kChildVariable);
  return role != nullptr ? role : "";
}

// The lines of `text` that contain `needle`.
std::vector<std::string> LinesWith(const std::string& text, const std::string& needle) {
  std::vector<std::string> lines;
  for (const std::string& line : zel_test::SplitLines(text)) {
    if (line.find(needle) != std::string::npos) lines.push_back(line);
  }
  return lines;
}

// ---------------------------------------------------------------------------
// The event log.

TEST(EventLogBackendTest, EventTypeFollowsTheLevel) {
  EXPECT_EQ(zel::EventLogBackend::EventType(0), EVENTLOG_ERROR_TYPE);
  EXPECT_EQ(zel::EventLogBackend::EventType(1), EVENTLOG_WARNING_TYPE);
  for (int level : {-1, 2, 3, 4, 9}) {
    SCOPED_TRACE(level);
    EXPECT_EQ(zel::EventLogBackend::EventType(level), EVENTLOG_INFORMATION_TYPE);
  }
}

TEST(EventLogBackendTest, EmptySourceIsRefused) {
  EXPECT_THROW(zel::EventLogBackend(""), std::invalid_argument);
}

TEST(EventLogBackendTest, EachLineIsReportedWithTheTypeOfItsLevel) {
  if (ChildRole() == "eventlog") {
    TempDir dir;
    zel_set_log_path(dir.path().c_str());
    zel::EventLogBackend events("zel-test");
    zel::Logger::GetInstance()->RegisterBackend(&events);
    log_print(0, 1, "[%s][%s %s %d] Error:disk %s gone\n\n", "", "/device.cpp", "f", 11, "E:");
    log_print(1, 1, "[%s][%s %s %d] the loop warns\n", "", "/looper.cpp", "g", 22);
    log_print(3, 1, "[%s][%s %s %d] Debug:attached\n", "", "/device.cpp", "h", 33);
    zel_log_flush();
    events.Flush();
    EXPECT_EQ(events.Sent(), 3u);
    EXPECT_EQ(events.Dropped(), 0u);
    return;
  }
  if (!UnderWine()) {
    GTEST_SKIP() << "reading the Application log back is left to real Windows (Event Viewer, "
                    "wevtutil qe Application); under Wine the events are read from its trace";
  }
  TempDir dir;
  const std::string errors = dir.path() + "child-stderr.txt";
  ASSERT_EQ(RunChildUnderWine("EventLogBackendTest.EachLineIsReportedWithTheTypeOfItsLevel",
                              "eventlog", "-all,+eventlog", errors),
            0);
  // Wine traces each event's text in the class of its type: errors as
  // "err", warnings as "warn", information as "trace".
  const std::string trace = zel_test::ReadFile(errors);
  const auto error = LinesWith(trace, "[][/device.cpp f 11] Error:disk E: gone");
  const auto warning = LinesWith(trace, "[][/looper.cpp g 22] the loop warns");
  const auto information = LinesWith(trace, "[][/device.cpp h 33] Debug:attached");
  ASSERT_EQ(error.size(), 1u) << trace;
  ASSERT_EQ(warning.size(), 1u) << trace;
  ASSERT_EQ(information.size(), 1u) << trace;
  EXPECT_NE(error[0].find("err:eventlog:"), std::string::npos) << error[0];
  EXPECT_NE(warning[0].find("warn:eventlog:"), std::string::npos) << warning[0];
  EXPECT_NE(information[0].find("trace:eventlog:"), std::string::npos) << information[0];
  // The prefix and the line ends are not part of the event's text.
  EXPECT_EQ(error[0].find("[tid:"), std::string::npos) << error[0];
  EXPECT_EQ(error[0].find("\\n"), std::string::npos) << error[0];
}

// ---------------------------------------------------------------------------
// The debugger output.

// A debug output viewer: takes each text that OutputDebugStringA hands to
// the DBWIN_BUFFER shared memory, once started.
class DebugOutputViewer {
 public:
  DebugOutputViewer() {
    bufferReady_ = CreateEventA(nullptr, FALSE, FALSE, "DBWIN_BUFFER_READY");
    dataReady_ = CreateEventA(nullptr, FALSE, FALSE, "DBWIN_DATA_READY");
    mapping_ =
        CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 4096, "DBWIN_BUFFER");
    if (bufferReady_ == nullptr || dataReady_ == nullptr || mapping_ == nullptr) {
      throw std::runtime_error("no DBWIN objects");
    }
    view_ = static_cast<const char*>(MapViewOfFile(mapping_, FILE_MAP_READ, 0, 0, 4096));
    if (view_ == nullptr) throw std::runtime_error("no DBWIN view");
  }
  ~DebugOutputViewer() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    UnmapViewOfFile(view_);
    CloseHandle(mapping_);
    CloseHandle(dataReady_);
    CloseHandle(bufferReady_);
  }
  DebugOutputViewer(const DebugOutputViewer&) = delete;
  DebugOutputViewer& operator=(const DebugOutputViewer&) = delete;

  // Starts taking texts (until then a writer waits for the buffer).
  void Start() {
    thread_ = std::thread([this] {
      SetEvent(bufferReady_);
      while (!stop_) {
        if (WaitForSingleObject(dataReady_, 50) != WAIT_OBJECT_0) continue;
        DWORD pid = 0;
        std::memcpy(&pid, view_, sizeof(pid));
        {
          std::lock_guard<std::mutex> lock(mutex_);
          if (pid == GetCurrentProcessId()) texts_.emplace_back(view_ + sizeof(DWORD));
        }
        SetEvent(bufferReady_);
      }
    });
  }

  std::vector<std::string> texts() {
    std::lock_guard<std::mutex> lock(mutex_);
    return texts_;
  }

 private:
  HANDLE bufferReady_ = nullptr;
  HANDLE dataReady_ = nullptr;
  HANDLE mapping_ = nullptr;
  const char* view_ = nullptr;
  std::atomic<bool> stop_{false};
  std::thread thread_;
  std::mutex mutex_;
  std::vector<std::string> texts_;
};

TEST(DebugOutputBackendTest, ViewerReceivesEachForwardedLineAsWritten) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  DebugOutputViewer viewer;
  viewer.Start();
  static std::unique_ptr<zel::DebugOutputBackend> debugger;
  debugger = std::make_unique<zel::DebugOutputBackend>();
  zel::Logger::GetInstance()->RegisterBackend(debugger.get());
  log_print(0, 1, "[%s][%s %s %d] Error:disk %s gone\n\n", "", "/device.cpp", "f", 11, "E:");
  log_print(3, 0, "not forwarded\n");
  log_print(3, 1, "caf\xe9 in the system code page\n");
  zel_log_flush();
  debugger->Flush();
  ASSERT_TRUE(WaitFor([&viewer] { return viewer.texts().size() >= 2; }));
  const auto texts = viewer.texts();
  ASSERT_EQ(texts.size(), 2u);
  EXPECT_NE(texts[0].find("][tid:" + std::to_string(zel_test::OsThreadId()) + "] "),
            std::string::npos)
      << texts[0];
  EXPECT_NE(texts[0].find("] [][/device.cpp f 11] Error:disk E: gone\n\n"), std::string::npos)
      << texts[0];
  EXPECT_NE(texts[1].find("] caf\xe9 in the system code page\n"), std::string::npos) << texts[1];
  EXPECT_EQ(debugger->Sent(), 2u);
  EXPECT_EQ(debugger->Dropped(), 0u);
}

TEST(DebugOutputBackendTest, StalledViewerNeverBlocksTheWriterAndExtraLinesAreCounted) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  // A viewer that does not take texts yet: OutputDebugStringA waits for it.
  DebugOutputViewer viewer;
  static std::unique_ptr<zel::DebugOutputBackend> debugger;
  constexpr std::size_t kWaiting = 16;
  debugger = std::make_unique<zel::DebugOutputBackend>(kWaiting);
  zel::Logger::GetInstance()->RegisterBackend(debugger.get());
  constexpr int kLines = 300;
  std::atomic<bool> flushed{false};
  std::thread writer([&flushed] {
    for (int i = 0; i < kLines; ++i) log_print(3, 1, "line %d\n", i);
    zel_log_flush();  // returns once the writer thread has handed every line on
    flushed = true;
  });
  const bool inTime = WaitFor([&flushed] { return flushed.load(); }, std::chrono::seconds(60));
  viewer.Start();  // lets the stalled text through, then takes the rest
  writer.join();
  ASSERT_TRUE(inTime) << "the writer was blocked by the stalled viewer";
  debugger->Flush();
  EXPECT_EQ(debugger->Sent() + debugger->Dropped(), static_cast<uint64_t>(kLines));
  // At most the waiting lines and the one being sent got through.
  EXPECT_GE(debugger->Dropped(), static_cast<uint64_t>(kLines) - kWaiting - 1);
  EXPECT_GT(debugger->Sent(), 0u);
  EXPECT_EQ(viewer.texts().size(), debugger->Sent());
}

TEST(DebugOutputBackendTest, WineTracesEachLineOnItsDebugChannel) {
  if (ChildRole() == "debugstr") {
    TempDir dir;
    zel_set_log_path(dir.path().c_str());
    zel::DebugOutputBackend debugger;
    zel::Logger::GetInstance()->RegisterBackend(&debugger);
    log_print(0, 1, "[%s][%s %s %d] Error:to the debugger\n", "", "/device.cpp", "f", 11);
    zel_log_flush();
    debugger.Flush();
    EXPECT_EQ(debugger.Sent(), 1u);
    return;
  }
  if (!UnderWine()) GTEST_SKIP() << "Wine's debug channel exists under Wine only";
  TempDir dir;
  const std::string errors = dir.path() + "child-stderr.txt";
  ASSERT_EQ(RunChildUnderWine("DebugOutputBackendTest.WineTracesEachLineOnItsDebugChannel",
                              "debugstr", "-all,+debugstr", errors),
            0);
  const std::string trace = zel_test::ReadFile(errors);
  const auto lines = LinesWith(trace, "[][/device.cpp f 11] Error:to the debugger\\n");
  ASSERT_EQ(lines.size(), 1u) << trace;
  EXPECT_NE(lines[0].find(":debugstr:"), std::string::npos) << lines[0];
}

}  // namespace
