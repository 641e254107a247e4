#include <windows.h>

#include <string>

#include "utils/log/internal/handoff_thread.h"
#include "utils/log_debug_output_backend.h"

namespace zel {

namespace {

// Lines waiting for the debugger at most.
constexpr std::size_t kMaxWaiting = 4096;

}  // namespace

struct DebugOutputBackend::Impl {
  std::unique_ptr<log_internal::HandoffThread> thread;
};

DebugOutputBackend::DebugOutputBackend() : mImpl(std::make_unique<Impl>()) {
  mImpl->thread = std::make_unique<log_internal::HandoffThread>(
      [](const std::string& line, int /*level*/) {
        OutputDebugStringA(line.c_str());
        return true;
      },
      kMaxWaiting);
}

DebugOutputBackend::~DebugOutputBackend() = default;

void DebugOutputBackend::Log(const std::string& line, int level) {
  mImpl->thread->post(line, level);
}

void DebugOutputBackend::Flush() { mImpl->thread->flush(); }

uint64_t DebugOutputBackend::Sent() const { return mImpl->thread->sent(); }

uint64_t DebugOutputBackend::Dropped() const { return mImpl->thread->dropped(); }

}  // namespace zel
