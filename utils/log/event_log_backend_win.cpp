// SPDX-License-Identifier: MIT

#include <windows.h>

#include <stdexcept>
#include <string>
#include <system_error>

#include "utils/log/internal/handoff_thread.h"
#include "utils/log/internal/line_parts.h"
#include "utils/log_event_log_backend.h"

namespace zel {

namespace {

// The longest insertion string ReportEventA takes, in characters.
constexpr std::size_t kMaxEventText = 31839;

}  // namespace

struct EventLogBackend::Impl {
  HANDLE source = nullptr;
  // Destroyed first (declared last): the thread stops before the source
  // closes.
  std::unique_ptr<log_internal::HandoffThread> thread;
};

EventLogBackend::EventLogBackend(const std::string& source, std::size_t maxWaiting)
    : mImpl(std::make_unique<Impl>()) {
  if (source.empty()) throw std::invalid_argument("zel log: empty event source name");
  mImpl->source = RegisterEventSourceA(nullptr, source.c_str());
  if (mImpl->source == nullptr) {
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category(),
                            "zel log: RegisterEventSourceA(" + source + ")");
  }
  HANDLE handle = mImpl->source;
  try {
    mImpl->thread = std::make_unique<log_internal::HandoffThread>(
        [handle](const std::string& line, int level) {
          std::string text(log_internal::splitLine(line).message);
          if (text.size() > kMaxEventText) text.resize(kMaxEventText);
          const char* strings[1] = {text.c_str()};
          return ReportEventA(handle, static_cast<WORD>(EventType(level)), 0, 0, nullptr, 1, 0,
                              strings, nullptr) != FALSE;
        },
        maxWaiting > 0 ? maxWaiting : 1);
  } catch (...) {
    DeregisterEventSource(mImpl->source);
    throw;
  }
}

EventLogBackend::~EventLogBackend() {
  mImpl->thread.reset();
  DeregisterEventSource(mImpl->source);
}

void EventLogBackend::Log(const std::string& line, int level) { mImpl->thread->post(line, level); }

void EventLogBackend::Flush() { mImpl->thread->flush(); }

uint64_t EventLogBackend::Sent() const { return mImpl->thread->sent(); }

uint64_t EventLogBackend::Dropped() const { return mImpl->thread->dropped(); }

int EventLogBackend::EventType(int level) {
  switch (level) {
    case 0:
      return kErrorType;
    case 1:
      return kWarningType;
    default:
      return kInformationType;
  }
}

}  // namespace zel
