#include <random>

#include "kelappsupport/ITransport.h"

namespace kelappsupport::cloudservice {
namespace {

class KelnetTransport final : public ITransport {
 public:
  bool Post(const kelcore::utility::Guid& requestId, kelnet::Completion completion, const kelcore::ImmutableString& url,
            std::shared_ptr<const kelcore::allocator::RecycledMemory> body, const kelnet::HeaderMap& headers,
            const kelnet::Configuration& configuration) override {
    return kelnet::POST(requestId, std::move(completion), url, std::move(body), headers, configuration);
  }
  bool StreamingGet(const kelcore::utility::Guid& requestId, kelnet::DataCallback onData,
                    kelnet::Completion completion, const kelcore::ImmutableString& url,
                    const kelnet::HeaderMap& headers, const kelnet::Configuration& configuration) override {
    return kelnet::StreamingGET(requestId, std::move(onData), std::move(completion), url, headers, configuration);
  }
  void Cancel(const kelcore::utility::Guid& requestId) override { kelnet::Cancel(requestId); }
  void RunWithStreamingCallbacks(std::function<void()> task) override {
    // Once the delivery thread has ended (process exit), the caller's thread is all there is.
    if (kelnet::IsDeliveryThread() || !kelnet::RunOnDeliveryThread(task)) task();
  }
};

class KelnetRetryScheduler final : public IRetryScheduler {
 public:
  std::chrono::steady_clock::time_point Now() override { return std::chrono::steady_clock::now(); }
  std::chrono::system_clock::time_point WallNow() override { return std::chrono::system_clock::now(); }
  bool ScheduleAfter(std::chrono::milliseconds delay, std::function<void()> task) override {
    return kelnet::ScheduleAfter(delay, std::move(task));
  }
  double Jitter() override {
    thread_local std::mt19937_64 engine{std::random_device{}()};
    return std::uniform_real_distribution<double>(0.0, 1.0)(engine);
  }
};

}  // namespace

std::shared_ptr<ITransport> GetDefaultTransport() {
  static const auto transport = std::make_shared<KelnetTransport>();
  return transport;
}

std::shared_ptr<IRetryScheduler> GetDefaultRetryScheduler() {
  static const auto scheduler = std::make_shared<KelnetRetryScheduler>();
  return scheduler;
}

}  // namespace kelappsupport::cloudservice
