#pragma once
// The seams under the request pipeline: how requests go out, and how time passes. The defaults
// are kelnet's network thread; tests put fakes in their place so that no test waits for a
// back-off or depends on a server's timing.

#include <chrono>
#include <functional>
#include <memory>

#include "kelnet/Http.h"

namespace kelappsupport::cloudservice {

class ITransport {
 public:
  virtual ~ITransport() = default;
  // kelnet's contract: false when refused (the completion is then never called), otherwise the
  // completion runs exactly once, never on the caller's stack.
  virtual bool Post(const kelcore::utility::Guid& requestId, kelnet::Completion completion,
                    const kelcore::ImmutableString& url,
                    std::shared_ptr<const kelcore::allocator::RecycledMemory> body, const kelnet::HeaderMap& headers,
                    const kelnet::Configuration& configuration) = 0;
  virtual bool StreamingGet(const kelcore::utility::Guid& requestId, kelnet::DataCallback onData,
                            kelnet::Completion completion, const kelcore::ImmutableString& url,
                            const kelnet::HeaderMap& headers, const kelnet::Configuration& configuration) = 0;
  // The request completes with a null response (if it has not completed yet).
  virtual void Cancel(const kelcore::utility::Guid& requestId) = 0;
  // Runs task where this transport runs streaming callbacks (kelnet: its delivery thread), for a
  // streaming completion reached through a timer or a refusal rather than through the transfer.
  // A test transport that calls back on the test's thread may run it at once.
  virtual void RunWithStreamingCallbacks(std::function<void()> task) { task(); }
};

// The clocks, the timer and the dice of the retry logic.
class IRetryScheduler {
 public:
  virtual ~IRetryScheduler() = default;
  virtual std::chrono::steady_clock::time_point Now() = 0;
  // The wall clock, for a Retry-After given as a date.
  virtual std::chrono::system_clock::time_point WallNow() = 0;
  // Runs task once delay has passed; false when it cannot (shut down): the caller then gives up.
  virtual bool ScheduleAfter(std::chrono::milliseconds delay, std::function<void()> task) = 0;
  // Uniform in [0, 1).
  virtual double Jitter() = 0;
};

// kelnet's POST, StreamingGET and Cancel.
std::shared_ptr<ITransport> GetDefaultTransport();
// steady_clock and system_clock, kelnet's timers (their tasks run on its completion thread), a
// per-thread random engine.
std::shared_ptr<IRetryScheduler> GetDefaultRetryScheduler();

}  // namespace kelappsupport::cloudservice
