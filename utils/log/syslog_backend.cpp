// SPDX-License-Identifier: MIT

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "utils/log/internal/line_parts.h"
#include "utils/log/internal/process_name.h"
#include "utils/log/internal/unix_datagram.h"
#include "utils/log_syslog_backend.h"
#include "utils/platform.h"

namespace zel {

namespace {

// True when `facility` is one of SyslogFacility's values.
bool validFacility(SyslogFacility facility) {
  const int value = static_cast<int>(facility);
  return (value >= 0 && value <= 11) || (value >= 16 && value <= 23);
}

// True when `identifier` can stand as IDENT: the receiver reads it up to
// the first blank, '[' or ':'.
bool validIdentifier(const std::string& identifier) {
  for (char c : identifier) {
    const auto u = static_cast<unsigned char>(c);
    if (u < 0x20 || u == 0x7F || c == ' ' || c == ':' || c == '[' || c == ']') return false;
  }
  return true;
}

// Writes the header "<PRI>Mmm dd hh:mm:ss " of RFC 3164 for `pri` and the
// local time now into `buf`; returns its length.
std::size_t formatHeader(char* buf, std::size_t size, int pri) {
  static const char* const kMonths[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  std::tm tm{};
  platform::localTime(static_cast<std::time_t>(platform::wallClockMs() / 1000), &tm);
  const int month = tm.tm_mon >= 0 && tm.tm_mon < 12 ? tm.tm_mon : 0;
  const int n = std::snprintf(buf, size, "<%d>%s %2d %02d:%02d:%02d ", pri, kMonths[month],
                              tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
  return n > 0 ? static_cast<std::size_t>(n) : 0;
}

}  // namespace

struct SyslogBackend::Impl {
  explicit Impl(const std::string& path) : sender(path) {}

  log_internal::UnixDatagramSender sender;
  std::string ident;  // IDENT
  int facility = 1;
  std::atomic<uint64_t> sent{0};
  std::atomic<uint64_t> dropped{0};
};

SyslogBackend::SyslogBackend(const std::string& socketPath, const std::string& identifier,
                             SyslogFacility facility) {
  if (!validFacility(facility)) {
    throw std::invalid_argument("zel log: no syslog facility " +
                                std::to_string(static_cast<int>(facility)));
  }
  if (!validIdentifier(identifier)) {
    throw std::invalid_argument("zel log: unusable syslog identifier \"" + identifier + "\"");
  }
  mImpl = std::make_unique<Impl>(socketPath);
  mImpl->facility = static_cast<int>(facility);
  std::string ident = identifier.empty() ? log_internal::processName() : identifier;
  // The executable's name might hold what IDENT cannot.
  for (char& c : ident) {
    if (!validIdentifier(std::string(1, c))) c = '_';
  }
  mImpl->ident = std::move(ident);
}

SyslogBackend::~SyslogBackend() = default;

void SyslogBackend::Log(const std::string& line, int level) {
  const std::string_view message = log_internal::splitLine(line).message;
  char header[64];
  const std::size_t headerSize =
      formatHeader(header, sizeof(header), mImpl->facility * 8 + SyslogPriority(level));
  // The process id at sending: a child made by fork sends its own.
  char pid[32];
  const int pidSize =
      std::snprintf(pid, sizeof(pid), "[%lld]: ", static_cast<long long>(::getpid()));
  const log_internal::DatagramPiece pieces[4] = {
      {header, headerSize},
      {mImpl->ident.data(), mImpl->ident.size()},
      {pid, pidSize > 0 ? static_cast<std::size_t>(pidSize) : 0},
      {message.data(), message.size()},
  };
  if (mImpl->sender.send(pieces, 4) == log_internal::UnixDatagramSender::Result::kSent) {
    mImpl->sent.fetch_add(1, std::memory_order_relaxed);
  } else {
    mImpl->dropped.fetch_add(1, std::memory_order_relaxed);
  }
}

uint64_t SyslogBackend::Sent() const { return mImpl->sent.load(std::memory_order_relaxed); }

uint64_t SyslogBackend::Dropped() const { return mImpl->dropped.load(std::memory_order_relaxed); }

}  // namespace zel
