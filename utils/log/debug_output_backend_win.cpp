// SPDX-License-Identifier: MIT

#include <windows.h>

#include <string>

#include "utils/log/internal/handoff_thread.h"
#include "utils/log_debug_output_backend.h"

namespace zel {

struct DebugOutputBackend::Impl {
  std::unique_ptr<log_internal::HandoffThread> thread;
};

DebugOutputBackend::DebugOutputBackend(std::size_t maxWaiting) : mImpl(std::make_unique<Impl>()) {
  mImpl->thread = std::make_unique<log_internal::HandoffThread>(
      [](const std::string& line, int /*level*/) {
        OutputDebugStringA(line.c_str());
        return true;
      },
      maxWaiting > 0 ? maxWaiting : 1);
}

DebugOutputBackend::~DebugOutputBackend() = default;

void DebugOutputBackend::Log(const std::string& line, int level) {
  mImpl->thread->post(line, level);
}

void DebugOutputBackend::Flush() { mImpl->thread->flush(); }

uint64_t DebugOutputBackend::Sent() const { return mImpl->thread->sent(); }

uint64_t DebugOutputBackend::Dropped() const { return mImpl->thread->dropped(); }

}  // namespace zel
