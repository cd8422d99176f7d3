#pragma once
// Test doubles for the request pipeline: a transport whose requests the test answers by hand, a
// scheduler whose clock only moves when the test says so, a sink that checks every downloaded
// byte at its offset without keeping the bytes, and a bounded wait for one request's outcome.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <deque>
#include <future>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "kelappsupport/ITransport.h"
#include "kelnet/URL.h"

namespace transport_test {

using kelappsupport::cloudservice::IRetryScheduler;
using kelappsupport::cloudservice::ITransport;
using kelcore::utility::Guid;

inline constexpr auto kHangGuard = std::chrono::minutes(5);  // only stops a broken test from hanging

struct FakeRequest {
  Guid id;
  kelnet::Completion completion;
  kelnet::DataCallback onData;
  std::string url;
  kelnet::HeaderMap headers;
  std::shared_ptr<const kelcore::allocator::RecycledMemory> body;
  kelnet::Configuration configuration;
  bool cancelled = false;

  std::string Header(std::string_view name) const {
    for (const auto& [key, value] : headers) {
      if (key.View() == name) return value.ToStdString();
    }
    return {};
  }
  std::string Host() const { return kelnet::ParseURL(url)->host; }
};
using FakeRequestPtr = std::shared_ptr<FakeRequest>;

// Requests wait until the test answers them, on the test's own thread.
class FakeTransport : public ITransport {
 public:
  bool Post(const Guid& id, kelnet::Completion completion, const kelcore::ImmutableString& url,
            std::shared_ptr<const kelcore::allocator::RecycledMemory> body, const kelnet::HeaderMap& headers,
            const kelnet::Configuration& configuration) override {
    return Add({id, std::move(completion), nullptr, url.ToStdString(), headers, std::move(body), configuration});
  }
  bool StreamingGet(const Guid& id, kelnet::DataCallback onData, kelnet::Completion completion,
                    const kelcore::ImmutableString& url, const kelnet::HeaderMap& headers,
                    const kelnet::Configuration& configuration) override {
    return Add({id, std::move(completion), std::move(onData), url.ToStdString(), headers, nullptr, configuration});
  }
  void Cancel(const Guid& id) override {
    std::lock_guard lock(mutex);
    for (auto& request : pending) request->cancelled = request->cancelled || request->id == id;
  }

  // Oldest (or newest) unanswered request, taken out of the pending list; null when none.
  FakeRequestPtr Take(bool newest = false) {
    std::lock_guard lock(mutex);
    if (pending.empty()) return nullptr;
    FakeRequestPtr request = newest ? pending.back() : pending.front();
    newest ? pending.pop_back() : pending.pop_front();
    return request;
  }

  void Answer(const FakeRequestPtr& request, std::shared_ptr<kelnet::Response> response) {
    {
      std::lock_guard lock(mutex);
      --inFlight;
      --inFlightPerHost[request->Host()];
    }
    // Dropped once called, as the real transport does: they hold the pipeline alive.
    auto completion = std::move(request->completion);
    request->onData = nullptr;
    completion(request->id, request->cancelled ? nullptr : response);
  }
  void Answer(const FakeRequestPtr& request, int status, kelnet::HeaderMap headers = {}, std::string body = {}) {
    Answer(request, std::make_shared<kelnet::Response>(status, std::move(headers), std::move(body)));
  }

  std::size_t PendingCount() {
    std::lock_guard lock(mutex);
    return pending.size();
  }

  std::mutex mutex;
  std::deque<FakeRequestPtr> pending;
  std::vector<FakeRequestPtr> all;
  int inFlight = 0;
  int maxInFlight = 0;
  std::map<std::string, int> inFlightPerHost;
  int maxInFlightPerHost = 0;
  bool refuse = false;

 private:
  bool Add(FakeRequest added) {
    auto request = std::make_shared<FakeRequest>(std::move(added));
    std::lock_guard lock(mutex);
    if (refuse) return false;
    pending.push_back(request);
    all.push_back(request);
    maxInFlight = std::max(maxInFlight, ++inFlight);
    maxInFlightPerHost = std::max(maxInFlightPerHost, ++inFlightPerHost[request->Host()]);
    return true;
  }
};

// Time stands still until the test runs the timers; every requested delay is kept. Test thread only.
class FakeScheduler : public IRetryScheduler {
 public:
  std::chrono::steady_clock::time_point Now() override { return now; }
  std::chrono::system_clock::time_point WallNow() override { return wall; }
  bool ScheduleAfter(std::chrono::milliseconds delay, std::function<void()> task) override {
    delays.push_back(delay);
    timers.emplace(now + delay, std::move(task));
    return true;
  }
  double Jitter() override { return 0.5; }

  // Runs the earliest timer, moving the clock to its time; false when none is left.
  bool RunNext() {
    if (timers.empty()) return false;
    now = std::max(now, timers.begin()->first);
    auto task = std::move(timers.begin()->second);
    timers.erase(timers.begin());
    task();
    return true;
  }

  std::chrono::steady_clock::time_point now{};
  std::chrono::system_clock::time_point wall{};  // set by the test before the first request
  std::multimap<std::chrono::steady_clock::time_point, std::function<void()>> timers;
  std::vector<std::chrono::milliseconds> delays;
};

// Checks each chunk against the emulator's media pattern (byte i is i % 251) at its offset and
// keeps only the ranges that arrived (a chunk right after the end of one extends it), so a
// download of any size is verified byte by byte in constant memory.
class PatternSink {
 public:
  void OnData(const void* data, std::size_t offset, std::size_t size) {
    static const std::vector<unsigned char> pattern = [] {
      std::vector<unsigned char> bytes(kSpan + 251);
      for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i % 251);
      return bytes;
    }();
    std::lock_guard lock(mutex_);
    for (std::size_t done = 0; done < size; done += kSpan) {
      const auto* bytes = static_cast<const unsigned char*>(data) + done;
      wrong_ += std::memcmp(bytes, pattern.data() + (offset + done) % 251, std::min(kSpan, size - done)) != 0;
    }
    auto next = covered_.upper_bound(offset);
    if (next != covered_.begin() && std::prev(next)->second == offset) {
      std::prev(next)->second += size;
    } else {
      wrong_ += !covered_.emplace(offset, offset + size).second;
    }
  }

  // Every byte of [0, total) arrived exactly once and matched the pattern.
  ::testing::AssertionResult Complete(std::size_t total) {
    std::lock_guard lock(mutex_);
    std::size_t at = 0;
    for (const auto& [start, end] : covered_) {
      if (start != at) return ::testing::AssertionFailure() << (start < at ? "repeated" : "missing") << " bytes at " << at;
      at = end;
    }
    if (wrong_ == 0 && at == total) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << wrong_ << " wrong chunk(s), " << at << " bytes of " << total;
  }

 private:
  static constexpr std::size_t kSpan = 64 * 1024;
  std::mutex mutex_;
  std::map<std::size_t, std::size_t> covered_;
  std::size_t wrong_ = 0;
};

// The outcome of one request, awaited by the test thread; a lost completion fails the test.
struct Awaited {
  std::promise<std::shared_ptr<kelnet::Response>> promise;
  std::future<std::shared_ptr<kelnet::Response>> future = promise.get_future();
  kelnet::Completion Completion() {
    return [this](const Guid&, const std::shared_ptr<kelnet::Response>& response) { promise.set_value(response); };
  }
  std::shared_ptr<kelnet::Response> Get() {
    if (future.wait_for(kHangGuard) == std::future_status::ready) return future.get();
    ADD_FAILURE() << "request never completed";
    return nullptr;
  }
};

}  // namespace transport_test
