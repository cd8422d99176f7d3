#pragma once
// Test doubles for the request pipeline: a transport whose requests the test answers by hand, a
// scheduler whose clock only moves when the test says so, and a sink that checks every
// downloaded byte at its offset without keeping the bytes.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <deque>
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

constexpr int kPatternModulus = 251;  // the emulator's media pattern: byte i is i % 251

struct FakeRequest {
  Guid id;
  bool streaming = false;
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
    return Add(id, false, nullptr, std::move(completion), url, std::move(body), headers, configuration);
  }
  bool StreamingGet(const Guid& id, kelnet::DataCallback onData, kelnet::Completion completion,
                    const kelcore::ImmutableString& url, const kelnet::HeaderMap& headers,
                    const kelnet::Configuration& configuration) override {
    return Add(id, true, std::move(onData), std::move(completion), url, nullptr, headers, configuration);
  }
  void Cancel(const Guid& id) override {
    std::lock_guard lock(mutex);
    for (auto& request : pending) {
      if (request->id == id) request->cancelled = true;
    }
  }

  // Oldest (or newest) unanswered request, taken out of the pending list.
  FakeRequestPtr Take(bool newest = false) {
    std::lock_guard lock(mutex);
    if (pending.empty()) return nullptr;
    FakeRequestPtr request;
    if (newest) {
      request = pending.back();
      pending.pop_back();
    } else {
      request = pending.front();
      pending.pop_front();
    }
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
  bool Add(const Guid& id, bool streaming, kelnet::DataCallback onData, kelnet::Completion completion,
           const kelcore::ImmutableString& url, std::shared_ptr<const kelcore::allocator::RecycledMemory> body,
           const kelnet::HeaderMap& headers, const kelnet::Configuration& configuration) {
    auto request = std::make_shared<FakeRequest>();
    request->id = id;
    request->streaming = streaming;
    request->onData = std::move(onData);
    request->completion = std::move(completion);
    request->url = url.ToStdString();
    request->headers = headers;
    request->body = std::move(body);
    request->configuration = configuration;
    std::lock_guard lock(mutex);
    if (refuse) return false;
    pending.push_back(request);
    all.push_back(request);
    maxInFlight = std::max(maxInFlight, ++inFlight);
    maxInFlightPerHost = std::max(maxInFlightPerHost, ++inFlightPerHost[request->Host()]);
    return true;
  }
};

// Time stands still until the test runs the timers; every requested delay is kept.
class FakeScheduler : public IRetryScheduler {
 public:
  std::chrono::steady_clock::time_point Now() override {
    std::lock_guard lock(mutex);
    return now;
  }
  bool ScheduleAfter(std::chrono::milliseconds delay, std::function<void()> task) override {
    std::lock_guard lock(mutex);
    delays.push_back(delay);
    timers.emplace(now + delay, std::move(task));
    return true;
  }
  double Jitter() override { return jitter; }
  // The wall clock moves with the steady one, from wherever the test sets it.
  std::chrono::system_clock::time_point WallNow() override {
    std::lock_guard lock(mutex);
    return wallAtStart + (now - std::chrono::steady_clock::time_point{});
  }
  void SetWallNow(std::chrono::system_clock::time_point wall) {
    std::lock_guard lock(mutex);
    wallAtStart = wall - (now - std::chrono::steady_clock::time_point{});
  }

  // Runs the earliest timer, moving the clock to its time; false when none is left.
  bool RunNext() {
    std::function<void()> task;
    {
      std::lock_guard lock(mutex);
      if (timers.empty()) return false;
      now = std::max(now, timers.begin()->first);
      task = std::move(timers.begin()->second);
      timers.erase(timers.begin());
    }
    task();
    return true;
  }

  std::mutex mutex;
  std::chrono::steady_clock::time_point now{};
  std::multimap<std::chrono::steady_clock::time_point, std::function<void()>> timers;
  std::vector<std::chrono::milliseconds> delays;
  double jitter = 0.5;
  std::chrono::system_clock::time_point wallAtStart{};
};

// Checks each chunk against the pattern at its offset and keeps only which ranges arrived, so
// a download of any size is verified byte by byte in constant memory.
class PatternSink {
 public:
  explicit PatternSink(int seed = 0) : seed_(seed) {
    pattern_.resize(kChunk + kPatternModulus);
    for (std::size_t i = 0; i < pattern_.size(); ++i) pattern_[i] = static_cast<unsigned char>(i % kPatternModulus);
  }

  void OnData(const void* data, std::size_t offset, std::size_t size) {
    std::lock_guard lock(mutex_);
    const auto* bytes = static_cast<const unsigned char*>(data);
    for (std::size_t done = 0; done < size;) {
      const std::size_t n = std::min(kChunk, size - done);
      const std::size_t start = (offset + done + static_cast<std::size_t>(seed_)) % kPatternModulus;
      if (std::memcmp(bytes + done, pattern_.data() + start, n) != 0) ++wrongChunks_;
      done += n;
    }
    bytes_ += size;
    // Coverage as merged intervals: an overlap means a byte came twice.
    auto next = covered_.upper_bound(offset);
    if (next != covered_.begin()) {
      auto previous = std::prev(next);
      if (previous->second > offset) ++overlaps_;
    }
    if (next != covered_.end() && next->first < offset + size) ++overlaps_;
    std::size_t start = offset;
    std::size_t end = offset + size;
    if (next != covered_.begin()) {
      auto previous = std::prev(next);
      if (previous->second == start) {
        start = previous->first;
        covered_.erase(previous);
      }
    }
    next = covered_.find(end);
    if (next != covered_.end()) {
      end = next->second;
      covered_.erase(next);
    }
    covered_[start] = end;
  }

  // Every byte of [0, total) arrived exactly once and matched the pattern.
  ::testing::AssertionResult Complete(std::size_t total) {
    std::lock_guard lock(mutex_);
    if (wrongChunks_) return ::testing::AssertionFailure() << wrongChunks_ << " chunk(s) with wrong bytes";
    if (overlaps_) return ::testing::AssertionFailure() << overlaps_ << " overlapping chunk(s)";
    if (bytes_ != total) return ::testing::AssertionFailure() << bytes_ << " bytes of " << total;
    if (total && (covered_.size() != 1 || covered_.begin()->first != 0 || covered_.begin()->second != total)) {
      return ::testing::AssertionFailure() << "gaps: " << covered_.size() << " covered range(s)";
    }
    return ::testing::AssertionSuccess();
  }

  std::size_t Bytes() {
    std::lock_guard lock(mutex_);
    return bytes_;
  }

  void Reset() {
    std::lock_guard lock(mutex_);
    covered_.clear();
    bytes_ = wrongChunks_ = overlaps_ = 0;
  }

 private:
  static constexpr std::size_t kChunk = 64 * 1024;
  int seed_;
  std::vector<unsigned char> pattern_;
  std::mutex mutex_;
  std::map<std::size_t, std::size_t> covered_;
  std::size_t bytes_ = 0;
  std::size_t wrongChunks_ = 0;
  std::size_t overlaps_ = 0;
};

}  // namespace transport_test
