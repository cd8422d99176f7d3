// Streaming downloads against a hand-driven transport that plays a range-capable media server:
// concurrent pieces out of order, resumption, a resource that changes, servers without ranges.

#include <gtest/gtest.h>

#include <charconv>
#include <set>

#include "kelappsupport/ServiceBase.h"
#include "kelnet/Constants.h"
#include "TransportTestSupport.h"

namespace {

using kelappsupport::cloudservice::DownloadPolicy;
using kelappsupport::cloudservice::ServiceBase;
using kelcore::ImmutableString;
using kelcore::utility::Guid;
using transport_test::FakeRequestPtr;
using transport_test::FakeScheduler;
using transport_test::FakeTransport;
using transport_test::PatternSink;

constexpr std::size_t kMiB = 1 << 20;

struct Resource {
  std::size_t size = 0;
  std::string etag = "\"v1\"";
  bool ranges = true;
};

// Answers like the emulator: byte i is i % 251; a range that runs backwards is ignored. breakAfter
// ends the answer with no response after that many body bytes (kAfterLastByte: after all of them),
// as a reset connection would.
constexpr std::size_t kAfterLastByte = SIZE_MAX - 1;
void Serve(FakeTransport& transport, const FakeRequestPtr& request, const Resource& resource,
           std::size_t breakAfter = SIZE_MAX) {
  std::size_t first = 0, last = resource.size ? resource.size - 1 : 0;
  bool partial = false;
  const std::string range = request->Header("range");
  const std::string ifRange = request->Header("if-range");
  if (resource.ranges && range.rfind("bytes=", 0) == 0 && (ifRange.empty() || ifRange == resource.etag)) {
    std::size_t askedFirst = 0, askedLast = SIZE_MAX;
    const auto dash = range.find('-');
    std::from_chars(range.data() + 6, range.data() + dash, askedFirst);
    if (dash + 1 < range.size()) std::from_chars(range.data() + dash + 1, range.data() + range.size(), askedLast);
    if (askedFirst >= resource.size && askedLast >= askedFirst) {
      transport.Answer(request, 416, {{"content-range", "bytes */" + std::to_string(resource.size)}});
      return;
    }
    if (askedLast >= askedFirst) {
      first = askedFirst;
      last = std::min(askedLast, resource.size - 1);
      partial = true;
    }
  }
  kelnet::HeaderMap headers{{"etag", resource.etag}, {"accept-ranges", "bytes"}};
  if (partial) {
    headers.emplace("content-range", "bytes " + std::to_string(first) + "-" + std::to_string(last) + "/" +
                                         std::to_string(resource.size));
  }
  const std::size_t end = resource.size ? last + 1 : 0;
  std::vector<unsigned char> chunk(64 * 1024);
  std::size_t sent = 0;
  for (std::size_t at = first; at < end && !request->cancelled;) {
    std::size_t n = std::min(chunk.size(), end - at);
    if (sent + n > breakAfter) n = breakAfter - sent;
    if (n == 0) break;
    for (std::size_t i = 0; i < n; ++i) chunk[i] = static_cast<unsigned char>((at + i) % transport_test::kPatternModulus);
    request->onData(request->id, chunk.data(), at, n, kelnet::Progress{sent + n, resource.size, 0}, headers);
    at += n;
    sent += n;
  }
  if (request->cancelled || sent == (breakAfter == kAfterLastByte ? end - first : breakAfter)) {
    transport.Answer(request, nullptr);
    return;
  }
  transport.Answer(request, partial ? 206 : 200, headers);
}

class SegmentedDownloadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    service.SetTransport(transport);
    service.SetRetryScheduler(scheduler);
    DownloadPolicy policy;
    policy.probeBytes = 1 * kMiB;
    policy.segmentThreshold = 8 * kMiB;
    policy.maxSegments = 4;
    policy.pieceBytes = 4 * kMiB;
    policy.maxResumes = 3;
    ASSERT_EQ(service.ConfigureDownloads(policy), 0);
  }

  void Start(const std::string& url = "https://media.example.test/asset") {
    ASSERT_EQ(service.HttpStreamingGet(
                  Guid::CreateUnique(),
                  [this](const Guid&, const void* data, std::size_t offset, std::size_t size, const kelnet::Progress&,
                         const kelnet::HeaderMap&) { sink.OnData(data, offset, size); },
                  [this](const Guid&, const std::shared_ptr<kelnet::Response>& response) {
                    ++completions;
                    final = response;
                  },
                  ImmutableString(url), {}, kelnet::Configuration(), true),
              0);
  }

  // Serves requests newest first (so pieces land out of order) and runs due timers, until idle.
  void Drive(const Resource& resource, const std::function<std::size_t(std::size_t)>& breakAfter = nullptr) {
    std::size_t served = 0;
    while (true) {
      if (auto request = transport->Take(/*newest=*/true)) {
        Serve(*transport, request, resource, breakAfter ? breakAfter(served) : SIZE_MAX);
        ++served;
      } else if (!scheduler->RunNext()) {
        return;
      }
    }
  }

  std::shared_ptr<FakeTransport> transport = std::make_shared<FakeTransport>();
  std::shared_ptr<FakeScheduler> scheduler = std::make_shared<FakeScheduler>();
  ServiceBase service;
  PatternSink sink;
  int completions = 0;
  std::shared_ptr<kelnet::Response> final;
};

TEST_F(SegmentedDownloadTest, LargeResourceComesAsConcurrentGuardedPieces) {
  const Resource resource{40 * kMiB + 123};
  Start();
  Drive(resource);
  ASSERT_EQ(completions, 1);
  ASSERT_TRUE(final);
  EXPECT_EQ(final->StatusCode(), 200);
  EXPECT_EQ(final->FirstHeader("content-length").View(), std::to_string(resource.size));
  EXPECT_TRUE(final->FirstHeader("content-range").empty());
  EXPECT_TRUE(sink.Complete(resource.size));
  EXPECT_GT(transport->maxInFlight, 1);
  EXPECT_LE(transport->maxInFlight, 4);
  const auto& all = transport->all;
  EXPECT_EQ(all.front()->Header("range"), "bytes=0-1048575");
  EXPECT_TRUE(all.front()->Header("if-range").empty());
  for (std::size_t i = 0; i < all.size(); ++i) {
    if (i > 0) {
      EXPECT_EQ(all[i]->Header("if-range"), "\"v1\"");
    }
    EXPECT_FALSE(all[i]->configuration.allowHttp2) << i;  // a paused HTTP/2 stream holds 32 MiB
  }
}

TEST_F(SegmentedDownloadTest, BrokenPiecesResumeFromTheirLastByte) {
  const Resource resource{20 * kMiB};
  Start();
  // Requests 1 and 2 break off part-way; each resumes where it stopped.
  Drive(resource, [](std::size_t served) { return served == 1 || served == 2 ? 300000 : SIZE_MAX; });
  ASSERT_EQ(completions, 1);
  EXPECT_EQ(final->StatusCode(), 200);
  EXPECT_TRUE(sink.Complete(resource.size));
  std::set<std::size_t> starts;
  for (const auto& request : transport->all) {
    const std::string range = request->Header("range");
    std::size_t first = 0;
    std::from_chars(range.data() + 6, range.data() + range.size(), first);
    starts.insert(first);
  }
  const auto resumed = std::count_if(starts.begin(), starts.end(),
                                     [&](std::size_t first) { return starts.count(first - 300000) > 0; });
  EXPECT_EQ(resumed, 2);
}

TEST_F(SegmentedDownloadTest, BreakOffsWithoutProgressAreReportedNotTruncated) {
  const Resource resource{20 * kMiB};
  Start();
  Drive(resource, [](std::size_t served) { return served == 0 ? SIZE_MAX : 0; });
  ASSERT_EQ(completions, 1);
  EXPECT_FALSE(final);
  EXPECT_LT(sink.Bytes(), resource.size);
}

TEST_F(SegmentedDownloadTest, ConnectionLostRightAfterAPiecesLastByteChangesNothing) {
  const Resource resource{20 * kMiB};
  Start();
  Drive(resource, [](std::size_t served) { return served == 1 ? kAfterLastByte : SIZE_MAX; });
  ASSERT_EQ(completions, 1);
  ASSERT_TRUE(final);
  EXPECT_EQ(final->StatusCode(), 200);
  EXPECT_TRUE(sink.Complete(resource.size));
}

TEST_F(SegmentedDownloadTest, RangeAnswersThatDoNotMatchTheRequestFailTheDownload) {
  const Resource resource{20 * kMiB};
  // A piece answered with bytes of another place, or of a resource of another size.
  for (bool wrongPlace : {true, false}) {
    sink.Reset();
    Start();
    Serve(*transport, transport->Take(), resource);
    auto piece = transport->Take();
    std::size_t first = 0;
    const std::string range = piece->Header("range");
    std::from_chars(range.data() + 6, range.data() + range.size(), first);
    const std::size_t offset = wrongPlace ? 0 : first;
    const std::size_t total = wrongPlace ? resource.size : resource.size + 1;
    std::vector<unsigned char> bytes(1000);
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>((offset + i) % 251);
    const kelnet::HeaderMap headers{
        {"etag", resource.etag},
        {"content-range", "bytes " + std::to_string(offset) + "-" + std::to_string(offset + 999) + "/" +
                              std::to_string(total)}};
    piece->onData(piece->id, bytes.data(), offset, bytes.size(), kelnet::Progress{}, headers);
    transport->Answer(piece, 206, headers);
    Drive(resource);
    ASSERT_TRUE(final) << wrongPlace;
    EXPECT_EQ(final->StatusCode(), kelnet::kStatusPreconditionFailed);
    EXPECT_EQ(sink.Bytes(), 1 * kMiB) << "only the probe's bytes may arrive";
  }
  EXPECT_EQ(completions, 2);
}

TEST_F(SegmentedDownloadTest, ResourceChangingMidwayFailsWithoutMixingVersions) {
  Resource resource{20 * kMiB};
  Start();
  Serve(*transport, transport->Take(), resource);  // the probe sees v1
  resource.etag = "\"v2\"";
  Drive(resource);
  ASSERT_EQ(completions, 1);
  ASSERT_TRUE(final);
  EXPECT_EQ(final->StatusCode(), kelnet::kStatusPreconditionFailed);
  EXPECT_EQ(sink.Bytes(), 1 * kMiB);  // the full-body answers were never delivered
}

TEST_F(SegmentedDownloadTest, SmallEmptyAndRangelessResources) {
  Start();
  Drive(Resource{3000});
  EXPECT_EQ(final->StatusCode(), 200);
  EXPECT_TRUE(sink.Complete(3000));
  EXPECT_EQ(transport->all.size(), 1u);

  // A server that ignores ranges: its one answer is the whole download.
  sink.Reset();
  Start();
  Drive(Resource{10 * kMiB, "\"v1\"", false});
  EXPECT_EQ(final->StatusCode(), 200);
  EXPECT_TRUE(sink.Complete(10 * kMiB));
  EXPECT_EQ(transport->all.size(), 2u);

  // Between the two sizes: the probe, then the rest as one range.
  sink.Reset();
  Start();
  Drive(Resource{5 * kMiB});
  EXPECT_EQ(final->StatusCode(), 200);
  EXPECT_TRUE(sink.Complete(5 * kMiB));
  EXPECT_EQ(transport->all.back()->Header("range"), "bytes=1048576-5242879");

  // An empty resource has no byte 0 to range over: 416, then a plain request.
  Start();
  Drive(Resource{0});
  EXPECT_EQ(completions, 4);
  EXPECT_EQ(final->StatusCode(), 200);
  EXPECT_TRUE(transport->all.back()->Header("range").empty());
}

}  // namespace
