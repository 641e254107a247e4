// SPDX-License-Identifier: MIT

#include <atomic>
#include <cstring>
#include <mutex>
#include <string_view>
#include <vector>

#include "utils/log/internal/line_parts.h"
#include "utils/log/internal/process_name.h"
#include "utils/log/internal/unix_datagram.h"
#include "utils/log_journal_backend.h"

namespace zel {

namespace {

// Appends the field `key`=`value` to `entry` in the journal's native form:
// "KEY=value\n", or, when the value holds a line end, "KEY\n", the value's
// length as a 64-bit little-endian number, the value and "\n".
void appendField(std::string* entry, std::string_view key, std::string_view value) {
  entry->append(key.data(), key.size());
  if (value.find('\n') == std::string_view::npos) {
    entry->push_back('=');
  } else {
    entry->push_back('\n');
    uint64_t size = value.size();
    for (int i = 0; i < 8; ++i) {
      entry->push_back(static_cast<char>(size & 0xFF));
      size >>= 8;
    }
  }
  entry->append(value.data(), value.size());
  entry->push_back('\n');
}

}  // namespace

struct JournalBackend::Impl {
  explicit Impl(const std::string& path) : sender(path) {}

  log_internal::UnixDatagramSender sender;
  std::string identifier;
  std::mutex mutex;   // guards entry
  std::string entry;  // the datagram being built, kept for its memory
  std::atomic<uint64_t> sent{0};
  std::atomic<uint64_t> dropped{0};
};

JournalBackend::JournalBackend(const std::string& socketPath, const std::string& identifier)
    : mImpl(std::make_unique<Impl>(socketPath)) {
  mImpl->identifier = identifier.empty() ? log_internal::processName() : identifier;
}

JournalBackend::~JournalBackend() = default;

void JournalBackend::Log(const std::string& line, int level) {
  const log_internal::LineParts parts = log_internal::splitLine(line);
  const char priority[2] = {static_cast<char>('0' + SyslogPriority(level)), '\0'};
  std::lock_guard<std::mutex> lock(mImpl->mutex);
  std::string& entry = mImpl->entry;
  entry.clear();
  appendField(&entry, "MESSAGE", parts.message);
  appendField(&entry, "PRIORITY", priority);
  if (parts.hasCallSite) {
    appendField(&entry, "CODE_FILE", log_internal::fileName(parts.file));
    appendField(&entry, "CODE_LINE", parts.lineNo);
    appendField(&entry, "CODE_FUNC", parts.function);
  }
  if (!parts.tid.empty()) appendField(&entry, "TID", parts.tid);
  appendField(&entry, "SYSLOG_IDENTIFIER", mImpl->identifier);
  const log_internal::DatagramPiece piece{entry.data(), entry.size()};
  if (mImpl->sender.send(&piece, 1) == log_internal::UnixDatagramSender::Result::kSent) {
    mImpl->sent.fetch_add(1, std::memory_order_relaxed);
  } else {
    mImpl->dropped.fetch_add(1, std::memory_order_relaxed);
  }
}

uint64_t JournalBackend::Sent() const { return mImpl->sent.load(std::memory_order_relaxed); }

uint64_t JournalBackend::Dropped() const { return mImpl->dropped.load(std::memory_order_relaxed); }

}  // namespace zel
