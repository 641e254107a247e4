#include "utils/log_crash.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include "utils/logger.h"

namespace zel {
namespace crash {

namespace {

// Everything the fatal handler reads, set up before it can run. Atomics
// that are lock-free, so that the handler may read them.
std::atomic<platform::FileHandle> sLiveFile{platform::kNoFile};
std::atomic<uint64_t> sWriterThread{0};
std::atomic<int64_t> sOffsetSeconds{0};
std::atomic<int64_t> sWaitMs{kDefaultWaitMs};
std::atomic<int> sBusy{0};  // set by the first fault; a second one falls through
platform::WakeChannel sRequest;
platform::WakeChannel sReply;
char sLine[512];  // the fatal line; only the first faulting thread writes it

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

// The calendar month (1-12) and day of the day `days` since 1970-01-01.
void civilFromDays(int64_t days, int* month, int* day) {
  days += 719468;
  const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const int64_t doe = days - era * 146097;
  const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const int64_t mp = (5 * doy + 2) / 153;
  *day = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  *month = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
}

// Floor division for a negative `a` too.
int64_t floorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

void onFatal(uint32_t code, const char* name) {
  if (sBusy.exchange(1) != 0) return;  // a second fault: fall through at once
  const uint64_t tid = platform::currentThreadId();
  // The writer thread cannot drain its own queue while it is stopped here.
  if (tid != sWriterThread.load()) {
    platform::wakeSend(sRequest);
    platform::wakeWait(sReply, sWaitMs.load());
  }
  const platform::FileHandle file = sLiveFile.load();
  if (file == platform::kNoFile) return;
  const std::size_t length =
      formatFatalLine(sLine, sizeof(sLine), platform::wallClockMs(), sOffsetSeconds.load(), tid,
                      code, name, platform::kFatalCodeIsException);
  const platform::WriteBuffer piece{sLine, length};
  platform::writeAll(file, &piece, 1);
}

}  // namespace

std::size_t formatFatalLine(char* buf, std::size_t size, int64_t utcMs, int64_t offsetSeconds,
                            uint64_t tid, uint32_t code, const char* name, bool exception) {
  if (size == 0) return 0;
  char* out = buf;
  char* const end = buf + size - 1;
  const int64_t localMs = utcMs + offsetSeconds * 1000;
  const int64_t seconds = floorDiv(localMs, 1000);
  const int64_t ms = localMs - seconds * 1000;
  const int64_t days = floorDiv(seconds, 86400);
  const int64_t secondOfDay = seconds - days * 86400;
  int month = 0;
  int day = 0;
  civilFromDays(days, &month, &day);
  out = putText(out, end, "[");
  out = putDecimal(out, end, static_cast<uint64_t>(month), 1);
  out = putText(out, end, "-");
  out = putDecimal(out, end, static_cast<uint64_t>(day), 1);
  out = putText(out, end, " ");
  out = putDecimal(out, end, static_cast<uint64_t>(secondOfDay / 3600), 2);
  out = putText(out, end, ":");
  out = putDecimal(out, end, static_cast<uint64_t>(secondOfDay / 60 % 60), 2);
  out = putText(out, end, ":");
  out = putDecimal(out, end, static_cast<uint64_t>(secondOfDay % 60), 2);
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
    value = value * 10 + (*p - '0');
    if (value > 600000) return kDefaultWaitMs;
  }
  return value;
}

void setLiveFile(platform::FileHandle file) {
  sWriterThread.store(platform::currentThreadId());
  sLiveFile.store(file);
}

int install(Logger* logger) {
  static std::mutex mutex;
  static bool installed = false;
  static bool drainStarted = false;
  std::lock_guard<std::mutex> lock(mutex);
  if (installed) return 0;
  std::string wait;
  sWaitMs.store(platform::getEnv("ZEL_LOG_CRASH_WAIT_MS", &wait) ? parseWaitMs(wait.c_str())
                                                                 : kDefaultWaitMs);
  sOffsetSeconds.store(
      platform::localOffsetSeconds(static_cast<std::time_t>(platform::wallClockMs() / 1000)));
  if (sRequest.readEnd == platform::kNoFile && !platform::makeWakeChannel(&sRequest)) return -1;
  if (sReply.readEnd == platform::kNoFile && !platform::makeWakeChannel(&sReply)) return -1;
  // The drain thread waits for the handler's request for the rest of the
  // process; it flushes the log, refreshes the local time offset for the
  // fatal line's prefix, and answers.
  if (!drainStarted) {
    std::thread drain([logger] {
      while (platform::wakeWait(sRequest, -1)) {
        logger->Flush();
        sOffsetSeconds.store(
            platform::localOffsetSeconds(static_cast<std::time_t>(platform::wallClockMs() / 1000)));
        platform::wakeSend(sReply);
      }
    });
    drain.detach();
    drainStarted = true;
  }
  if (!platform::installFatalHandler(onFatal)) return -1;
  installed = true;
  return 0;
}

}  // namespace crash
}  // namespace zel
