// Streaming downloads from the emulator's media server: every byte verified at its offset as it
// arrives (nothing is stored), flat memory for a 2 GB resource, and connections that break.

#include <gtest/gtest.h>

#include <fstream>

#include "Sanitizers.h"
#include "tests/integration/transport/EmulatorFixture.h"

namespace {

using namespace std::chrono_literals;
using kelappsupport::cloudservice::RetryPolicy;
using kelappsupport::cloudservice::ServiceBase;
using kelcore::ImmutableString;
using kelcore::utility::Guid;
using transport_test::Awaited;
using transport_test::PatternSink;

// kB of the named /proc/self/status line ("VmHWM", "VmRSS").
long StatusKiB(const std::string& name) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind(name + ":", 0) == 0) return std::stol(line.substr(name.size() + 1));
  }
  return -1;
}

class DownloadIntegrationTest : public transport_test::EmulatorFixture {
 protected:
  void SetUp() override {
    EmulatorFixture::SetUp();
    service.ConfigureCABundle(emulator->CaPath());
  }

  std::shared_ptr<kelnet::Response> Download(std::uint64_t size) {
    Awaited awaited;
    const auto url = emulator->ApiUrl("/media/synthetic/" + std::to_string(size));
    EXPECT_EQ(service.HttpStreamingGet(
                  Guid::CreateUnique(),
                  [this](const Guid&, const void* data, std::size_t offset, std::size_t bytes,
                         const kelnet::Progress& progress, const kelnet::HeaderMap&) {
                    sink.OnData(data, offset, bytes);
                    lastProgress = progress;
                  },
                  awaited.Completion(), ImmutableString(url), {}, kelnet::Configuration(), true),
              0);
    return awaited.Get();
  }

  ServiceBase service;
  PatternSink sink;
  kelnet::Progress lastProgress;
};

TEST_F(DownloadIntegrationTest, TwoGigabytesVerifiedWithFlatMemory) {
  const std::uint64_t size = kSanitized ? (256ull << 20) : (2048ull << 20);
  // Start the high-water mark from here, so what earlier work touched does not count.
  { std::ofstream("/proc/self/clear_refs") << "5"; }
  const long before = StatusKiB("VmRSS");
  auto response = Download(size);
  const long peak = StatusKiB("VmHWM");
  ASSERT_TRUE(response);
  EXPECT_EQ(response->StatusCode(), 200);
  EXPECT_TRUE(sink.Complete(size));
  EXPECT_EQ(lastProgress.totalBytes, size);
  // Sanitizers keep freed memory in quarantine, so only a plain build can be held to the ceiling:
  // 8 MiB of queues shared by the segments, spare chunks and curl's buffers (8-10 MiB measured).
  if (!kSanitized) {
    EXPECT_LT(peak - before, 20 * 1024) << "peak RSS grew by " << (peak - before) / 1024 << " MiB";
  }
  // More than one range went out at once, each guarded against a change of the resource.
  int ranged = 0;
  for (const auto& entry : Requests()) {
    for (const auto& header : entry.AsDictionary().GetArray("headers")) {
      if (header.AsArray()[0].AsString() == "if-range") ++ranged;
    }
  }
  EXPECT_GT(ranged, 1);
}

TEST_F(DownloadIntegrationTest, BrokenAndTruncatedAnswersAreResumed) {
  const std::uint64_t size = 96ull << 20;
  Fault(R"({"route":"media","resetAfterBytes":3000000,"count":3})");
  Fault(R"({"route":"media","truncateBody":1500000,"count":2})");
  auto response = Download(size);
  ASSERT_TRUE(response);
  EXPECT_EQ(response->StatusCode(), 200);
  EXPECT_TRUE(sink.Complete(size));
  EXPECT_NE(emulator->ControlGet("faults").find(R"("faults":[])"), std::string::npos);
}

TEST_F(DownloadIntegrationTest, ConnectionThatKeepsBreakingIsReportedNotTruncated) {
  RetryPolicy fast;
  fast.initialBackoff = 5ms;
  fast.maxBackoff = 20ms;
  service.ConfigureRetryPolicy(fast);
  Fault(R"({"route":"media","resetAfterBytes":0,"count":1000})");
  auto response = Download(8ull << 20);
  EXPECT_FALSE(response && response->IsSuccess());
  EXPECT_LT(sink.Bytes(), 8ull << 20);
}

TEST_F(DownloadIntegrationTest, ErrorStatusBodiesNeverReachTheDataCallback) {
  Awaited awaited;
  ASSERT_EQ(service.HttpStreamingGet(
                Guid::CreateUnique(),
                [this](const Guid&, const void* data, std::size_t offset, std::size_t bytes, const kelnet::Progress&,
                       const kelnet::HeaderMap&) { sink.OnData(data, offset, bytes); },
                awaited.Completion(), ImmutableString(emulator->ApiUrl("/media/no-such-asset/original.mp4")), {},
                kelnet::Configuration(), true),
            0);
  auto response = awaited.Get();
  ASSERT_TRUE(response);
  // An unsigned media link is refused before the lookup, with a JSON body.
  EXPECT_EQ(response->StatusCode(), 403);
  EXPECT_FALSE(response->Body().empty());
  EXPECT_EQ(sink.Bytes(), 0u);
}

}  // namespace
