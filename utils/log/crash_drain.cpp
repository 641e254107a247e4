// SPDX-License-Identifier: MIT

#include "utils/log/internal/crash_drain.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <thread>

#include "utils/log/internal/file_names.h"

namespace zel {
namespace crash {

namespace {

// Everything the fatal handler reads, set up before it can run. Atomics
// that are lock-free, so that the handler may read them.
std::atomic<platform::FileHandle> sLiveFile{platform::kNoFile};
std::atomic<uint64_t> sLiveDevice{0};  // the live file's identity when it was opened
std::atomic<uint64_t> sLiveNode{0};
std::atomic<uint64_t> sWriterThread{0};
std::atomic<int64_t> sOffsetSeconds{0};
std::atomic<int64_t> sWaitMs{kDefaultWaitMs};
// The thread whose fault is being handled, 0 when none is: a fault of
// another thread meanwhile waits for it (see onFatal).
std::atomic<uint64_t> sBusy{0};
// The faulting thread, for the drain thread, which must not wait for a
// lock that thread holds.
std::atomic<uint64_t> sFaultingThread{0};
DrainFunction sDrain = nullptr;
WriterFaultFunction sWriterFault = nullptr;
platform::WakeChannel sRequest;
platform::WakeChannel sReply;
char sLine[512];  // the fatal line; only the thread in sBusy writes it

// install() and its state. The mutex is made anew in a forked child, whose
// copy may have been taken by a thread that the child does not have.
std::mutex* sInstallMutex = new std::mutex;  // never destroyed: used until the process ends
bool sInstalled = false;
bool sDrainStarted = false;

// Appends `value` in decimal with at least `width` digits to `out` (bounded
// by `end`); returns the new end of the text.
char* putDecimal(char* out, char* end, uint64_t value, int width) {
  char digits[24];
  int n = 0;
  do {
    digits[n++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  while (n < width) digits[n++] = '0';
  while (n > 0 && out < end) *out++ = digits[--n];
  return out;
}

char* putText(char* out, char* end, const char* text) {
  while (*text != '\0' && out < end) *out++ = *text++;
  return out;
}

char* putHex(char* out, char* end, uint32_t value) {
  static const char kDigits[] = "0123456789ABCDEF";
  out = putText(out, end, "0x");
  for (int shift = 28; shift >= 0 && out < end; shift -= 4) *out++ = kDigits[(value >> shift) & 15];
  return out;
}

// The calendar year, month (1-12) and day of the day `days` since
// 1970-01-01.
void civilFromDays(int64_t days, int* year, int* month, int* day) {
  days += 719468;
  const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const int64_t doe = days - era * 146097;
  const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const int64_t mp = (5 * doy + 2) / 153;
  *day = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  *month = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  *year = static_cast<int>(yoe + era * 400 + (*month <= 2 ? 1 : 0));
}

// Floor division for a negative `a` too.
int64_t floorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

// Writes the fatal line to the live file, when the descriptor still is the
// live file: a process that closed it and opened another file under its
// number must not find the line in that file.
void writeFatalLine(uint64_t tid, uint32_t code, const char* name) {
  const platform::FileHandle file = sLiveFile.load();
  if (file == platform::kNoFile) return;
  platform::FileId id;
  if (!platform::fileIdentity(file, &id) || id.device != sLiveDevice.load() ||
      id.node != sLiveNode.load()) {
    return;
  }
  const std::size_t length =
      formatFatalLine(sLine, sizeof(sLine), platform::wallClockMs(), sOffsetSeconds.load(), tid,
                      code, name, platform::kFatalCodeIsException);
  const platform::WriteBuffer piece{sLine, length};
  platform::writeAll(file, &piece, 1);
}

// Asks the drain thread to write the queued lines and waits for its answer,
// at most sWaitMs.
void requestDrain(uint64_t tid) {
  if (!platform::wakeChannelIntact(sRequest) || !platform::wakeChannelIntact(sReply)) return;
  // An answer that came too late for an earlier fault must not count as
  // the answer to this one.
  while (platform::wakeWait(sReply, 0)) {
  }
  sFaultingThread.store(tid);
  platform::wakeSend(sRequest);
  platform::wakeWait(sReply, sWaitMs.load());
}

void onFatal(uint32_t code, const char* name) {
  const uint64_t tid = platform::currentThreadId();
  // Two threads faulting at once: the first one's drain and fatal line go
  // first, and the second waits for them (at most the drain's wait and a
  // second more) instead of ending the process under the first one's feet.
  // A fault of the thread that is handling one (a fault inside this
  // handling) goes on at once.
  const int64_t giveUpNs = platform::monotonicNs() + (sWaitMs.load() + 1000) * 1000000;
  uint64_t expected = 0;
  while (!sBusy.compare_exchange_strong(expected, tid)) {
    if (expected == tid || platform::monotonicNs() > giveUpNs) return;
    platform::pauseMs(1);
    expected = 0;
  }
  if (tid == sWriterThread.load()) {
    // The writer cannot drain its own queue while it is stopped here: the
    // lines it had gathered for its next write are written from here.
    if (sWriterFault != nullptr) sWriterFault();
  } else {
    requestDrain(tid);
  }
  writeFatalLine(tid, code, name);
  // sBusy stays taken: the process ends now, and another thread's fault
  // must not write a second fatal line meanwhile. When it goes on after
  // all, onResume() frees it.
}

// The process goes on after a handled signal (an earlier handler took it):
// the drain is ready for the next fault.
void onResume() { sBusy.store(0); }

}  // namespace

std::size_t formatFatalLine(char* buf, std::size_t size, int64_t utcMs, int64_t offsetSeconds,
                            uint64_t tid, uint32_t code, const char* name, bool exception) {
  if (size == 0) return 0;
  char* out = buf;
  char* const end = buf + size - 1;
  const int64_t localMs = utcMs + offsetSeconds * 1000;
  const int64_t seconds = floorDiv(localMs, 1000);
  const int64_t ms = localMs - seconds * 1000;
  std::tm tm{};
  calendarTime(seconds, &tm);
  out = putText(out, end, "[");
  out = putDecimal(out, end, static_cast<uint64_t>(tm.tm_mon + 1), 1);
  out = putText(out, end, "-");
  out = putDecimal(out, end, static_cast<uint64_t>(tm.tm_mday), 1);
  out = putText(out, end, " ");
  out = putDecimal(out, end, static_cast<uint64_t>(tm.tm_hour), 2);
  out = putText(out, end, ":");
  out = putDecimal(out, end, static_cast<uint64_t>(tm.tm_min), 2);
  out = putText(out, end, ":");
  out = putDecimal(out, end, static_cast<uint64_t>(tm.tm_sec), 2);
  out = putText(out, end, ".");
  out = putDecimal(out, end, static_cast<uint64_t>(ms), 3);
  out = putText(out, end, "][tid:");
  out = putDecimal(out, end, tid, 1);
  out = putText(out, end, "] zel log: fatal ");
  if (exception) {
    out = putText(out, end, "exception ");
    out = putHex(out, end, code);
  } else {
    out = putText(out, end, "signal ");
    out = putDecimal(out, end, code, 1);
  }
  out = putText(out, end, " (");
  out = putText(out, end, name);
  out = putText(out, end, ")\n");
  *out = '\0';
  return static_cast<std::size_t>(out - buf);
}

int64_t parseWaitMs(const char* text) {
  if (text == nullptr || *text == '\0') return kDefaultWaitMs;
  int64_t value = 0;
  for (const char* p = text; *p != '\0'; ++p) {
    if (*p < '0' || *p > '9') return kDefaultWaitMs;
    // Digits past the maximum keep it (as the tracer caps its settings):
    // a user who asks for a long wait gets the longest there is.
    if (value < kMaxWaitMs) value = value * 10 + (*p - '0');
  }
  return value < kMaxWaitMs ? value : kMaxWaitMs;
}

void setLiveFile(platform::FileHandle file) {
  sWriterThread.store(platform::currentThreadId());
  platform::FileId id;
  if (file != platform::kNoFile && platform::fileIdentity(file, &id)) {
    sLiveFile.store(platform::kNoFile);
    sLiveDevice.store(id.device);
    sLiveNode.store(id.node);
  }
  sLiveFile.store(file);
}

void noteLocalTime(int64_t utcSecond, const std::tm& local) {
  const int64_t localSecond =
      names::daysFromCivil(local.tm_year + 1900, static_cast<unsigned>(local.tm_mon + 1),
                           static_cast<unsigned>(local.tm_mday)) *
          86400 +
      local.tm_hour * 3600 + local.tm_min * 60 + local.tm_sec;
  sOffsetSeconds.store(localSecond - utcSecond, std::memory_order_relaxed);
}

void calendarTime(int64_t localSecond, std::tm* local) {
  const int64_t seconds = localSecond;
  const int64_t days = floorDiv(seconds, 86400);
  const int64_t secondOfDay = seconds - days * 86400;
  int year = 0;
  int month = 0;
  int day = 0;
  civilFromDays(days, &year, &month, &day);
  local->tm_year = year - 1900;
  local->tm_mon = month - 1;
  local->tm_mday = day;
  local->tm_hour = static_cast<int>(secondOfDay / 3600);
  local->tm_min = static_cast<int>(secondOfDay / 60 % 60);
  local->tm_sec = static_cast<int>(secondOfDay % 60);
}

void localDate(int64_t utcSecond, int* year, int* month, int* day) {
  const int64_t local = utcSecond + sOffsetSeconds.load(std::memory_order_relaxed);
  civilFromDays(floorDiv(local, 86400), year, month, day);
}

namespace {

// Makes the two wake channels and starts the drain thread, when not done
// yet in this process. Requires sInstallMutex.
bool startDrainThread() {
  if (sRequest.readEnd == platform::kNoFile && !platform::makeWakeChannel(&sRequest)) return false;
  if (sReply.readEnd == platform::kNoFile && !platform::makeWakeChannel(&sReply)) return false;
  if (sDrainStarted) return true;
  // The drain thread waits for the handler's request for the rest of the
  // process; it writes the queued lines and answers. It reads nothing
  // that depends on the time zone: a faulting thread may hold the C
  // library's time-zone lock (the fatal line's local time offset is kept
  // up to date by the threads that log, see noteLocalTime()).
  std::thread drain([] {
    while (platform::wakeWait(sRequest, -1)) {
      const int64_t deadlineNs = platform::monotonicNs() + sWaitMs.load() * 1000000;
      if (sDrain != nullptr) sDrain(sFaultingThread.load(), deadlineNs);
      platform::wakeSend(sReply);
    }
  });
  drain.detach();
  sDrainStarted = true;
  return true;
}

}  // namespace

int install(DrainFunction drain, WriterFaultFunction writerFault) {
  std::lock_guard<std::mutex> lock(*sInstallMutex);
  if (sInstalled) return 0;
  std::string wait;
  sWaitMs.store(platform::getEnv("ZEL_LOG_CRASH_WAIT_MS", &wait) ? parseWaitMs(wait.c_str())
                                                                 : kDefaultWaitMs);
  sOffsetSeconds.store(
      platform::localOffsetSeconds(static_cast<std::time_t>(platform::wallClockMs() / 1000)));
  sDrain = drain;
  sWriterFault = writerFault;
  if (!startDrainThread()) return -1;
  if (!platform::installFatalHandler(onFatal, onResume)) return -1;
  sInstalled = true;
  return 0;
}

void afterForkInChild() {
  // Runs alone in the child. The channels are shared with the parent,
  // whose drain thread would answer the child's fault and write the
  // parent's queue: the child's copies are closed. The drain thread is
  // not in the child. Both are made anew by restartAfterFork(), outside
  // the fork handler. The live file is the parent's.
  sInstallMutex = new (sInstallMutex) std::mutex;
  platform::closeWakeChannel(&sRequest);
  platform::closeWakeChannel(&sReply);
  sDrainStarted = false;
  sBusy.store(0);
  sFaultingThread.store(0);
  sWriterThread.store(0);
  sLiveFile.store(platform::kNoFile);
}

void restartAfterFork() {
  std::lock_guard<std::mutex> lock(*sInstallMutex);
  if (sInstalled) startDrainThread();
}

}  // namespace crash
}  // namespace zel
