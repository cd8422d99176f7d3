// Streaming downloads against a hand-driven transport that plays a range-capable media server:
// concurrent pieces out of order, resumption, a resource that changes, servers without ranges.

#include <gtest/gtest.h>

#include <charconv>
#include <set>

#include "TransportTestSupport.h"
#include "kelappsupport/ServiceBase.h"
#include "kelnet/Constants.h"

namespace {

using kelcore::utility::Guid;
using transport_test::FakeRequestPtr;

constexpr std::size_t kMiB = 1 << 20;

struct Resource {
  std::size_t size = 0;
  std::string etag = "\"v1\"";
  bool ranges = true;
  std::size_t back = 0;  // partial answers start this many bytes before the asked-for range
};

// How an answer ends: in full, or after `after` body bytes with no response (a reset
// connection; kAfterLastByte: after every byte) or cleanly (a short but well-framed answer).
struct Cut {
  std::size_t after = SIZE_MAX;
  bool clean = false;
};
constexpr std::size_t kAfterLastByte = SIZE_MAX - 1;

// The first and last byte a request's Range asks for.
std::pair<std::size_t, std::size_t> AskedRange(const FakeRequestPtr& request) {
  const std::string range = request->Header("range");
  std::size_t first = 0, last = SIZE_MAX;
  const auto dash = range.find('-');
  if (dash == std::string::npos) return {first, last};
  std::from_chars(range.data() + 6, range.data() + dash, first);
  std::from_chars(range.data() + dash + 1, range.data() + range.size(), last);
  return {first, last};
}

class SegmentedDownloadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    service.SetTransport(transport);
    service.SetRetryScheduler(scheduler);
    kelappsupport::cloudservice::DownloadPolicy policy;
    policy.probeBytes = 1 * kMiB;
    policy.segmentThreshold = 8 * kMiB;
    policy.maxSegments = 4;
    policy.pieceBytes = 4 * kMiB;
    policy.maxResumes = 3;
    ASSERT_EQ(service.ConfigureDownloads(policy), 0);
  }

  void Start() {
    sink = std::make_unique<transport_test::PatternSink>();
    final = nullptr;
    ASSERT_EQ(service.HttpStreamingGet(
                  Guid::CreateUnique(),
                  [this](const Guid&, const void* data, std::size_t offset, std::size_t size, const kelnet::Progress&,
                         const kelnet::HeaderMap&) { sink->OnData(data, offset, size); },
                  [this](const Guid&, const std::shared_ptr<kelnet::Response>& response) {
                    ++completions;
                    final = response;
                  },
                  "https://media.example.test/asset", {}, kelnet::Configuration(), true),
              0);
  }

  // Answers like the emulator (byte i is i % 251): a range is honoured unless it runs backwards
  // or its guard names another version; one that starts past the end gets 416.
  void Serve(const FakeRequestPtr& request, const Resource& resource, Cut cut = {}) {
    auto [first, last] = AskedRange(request);
    const std::string ifRange = request->Header("if-range");
    const bool partial = resource.ranges && !request->Header("range").empty() && last >= first &&
                         (ifRange.empty() || ifRange == resource.etag);
    if (partial && first >= resource.size) {
      return transport->Answer(request, 416, {{"content-range", "bytes */" + std::to_string(resource.size)}});
    }
    first = partial ? first - resource.back : 0;
    const std::size_t end = partial ? std::min(last + 1, resource.size) - resource.back : resource.size;
    kelnet::HeaderMap headers{{"etag", resource.etag}};
    if (partial) {
      headers.emplace("content-range", "bytes " + std::to_string(first) + "-" + std::to_string(end - 1) + "/" +
                                           std::to_string(resource.size));
    }
    std::vector<unsigned char> chunk(64 * 1024);
    std::size_t sent = 0;
    for (std::size_t at = first; at < end && sent < cut.after && !request->cancelled;) {
      const std::size_t n = std::min({chunk.size(), end - at, cut.after - sent});
      for (std::size_t i = 0; i < n; ++i) chunk[i] = static_cast<unsigned char>((at + i) % 251);
      request->onData(request->id, chunk.data(), at, n, {}, headers);
      at += n;
      sent += n;
    }
    const bool broken = request->cancelled || (cut.after == kAfterLastByte ? sent == end - first : sent == cut.after);
    if (broken && !cut.clean) return transport->Answer(request, nullptr);
    transport->Answer(request, partial ? 206 : 200, headers);
  }

  // Serves requests newest first (so pieces land out of order) and runs due timers, until idle.
  void Drive(const Resource& resource, const std::function<Cut(std::size_t served)>& cut = nullptr) {
    for (std::size_t served = 0;; ++served) {
      if (auto request = transport->Take(/*newest=*/true)) {
        Serve(request, resource, cut ? cut(served) : Cut{});
      } else if (!scheduler->RunNext()) {
        return;
      }
    }
  }

  std::shared_ptr<transport_test::FakeTransport> transport = std::make_shared<transport_test::FakeTransport>();
  std::shared_ptr<transport_test::FakeScheduler> scheduler = std::make_shared<transport_test::FakeScheduler>();
  kelappsupport::cloudservice::ServiceBase service;
  std::unique_ptr<transport_test::PatternSink> sink;
  int completions = 0;
  std::shared_ptr<kelnet::Response> final;
};

// Concurrent pieces, each guarded by If-Range and on a connection of its own (a paused HTTP/2
// stream would hold 32 MiB). Answers 1 and 2 stop part-way, by a reset and by a clean but short
// answer: each resumes where it stopped. Answer 3 breaks after its last byte: nothing is missing,
// nothing is asked again.
TEST_F(SegmentedDownloadTest, LargeResourceComesAsConcurrentGuardedPiecesThatResume) {
  const Resource resource{20 * kMiB + 123};
  Start();
  Drive(resource, [](std::size_t served) {
    return served == 1 ? Cut{300000} : served == 2 ? Cut{300000, true} : served == 3 ? Cut{kAfterLastByte} : Cut{};
  });
  ASSERT_EQ(completions, 1);
  ASSERT_TRUE(final);
  EXPECT_EQ(final->StatusCode(), 200);
  EXPECT_EQ(final->FirstHeader("content-length").View(), std::to_string(resource.size));
  EXPECT_TRUE(final->FirstHeader("content-range").empty());
  EXPECT_TRUE(sink->Complete(resource.size));
  EXPECT_GT(transport->maxInFlight, 1);
  EXPECT_LE(transport->maxInFlight, 4);
  const auto& all = transport->all;
  ASSERT_FALSE(all.empty());
  EXPECT_EQ(all.front()->Header("range"), "bytes=0-1048575");
  std::set<std::size_t> starts;
  for (std::size_t i = 0; i < all.size(); ++i) {
    EXPECT_EQ(all[i]->Header("if-range"), i == 0 ? "" : "\"v1\"") << i;
    starts.insert(AskedRange(all[i]).first);
  }
  EXPECT_EQ(std::count_if(starts.begin(), starts.end(), [&](std::size_t first) { return starts.count(first - 300000); }),
            2);
}

// After the probe, pieces answered with bytes of another place, or of a resource of another size,
// or in full because the resource changed and the guarded range was refused: the download fails
// with 412. Pieces that break off without a byte, resume after resume: it fails with no answer,
// never as a short success. Either way nothing but the probe's bytes reaches the consumer.
TEST_F(SegmentedDownloadTest, AnswersOfAnotherPlaceOrVersionOrNoneFailTheDownload) {
  struct Row {
    const char* wrong;
    Resource changed;
    int status;
    std::size_t cutAfter = SIZE_MAX;
  };
  for (const Row& row : {Row{"place", {20 * kMiB, "\"v1\"", true, 1000}, 412}, Row{"size", {20 * kMiB + 1}, 412},
                         Row{"version", {20 * kMiB, "\"v2\""}, 412}, Row{"none", {20 * kMiB}, 0, 0}}) {
    Start();
    auto probe = transport->Take();
    ASSERT_TRUE(probe);
    Serve(probe, Resource{20 * kMiB});
    Drive(row.changed, [&](std::size_t) { return Cut{row.cutAfter}; });
    EXPECT_EQ(final ? final->StatusCode() : 0, row.status) << row.wrong;
    EXPECT_TRUE(sink->Complete(kMiB)) << row.wrong;
  }
  EXPECT_EQ(completions, 4);
}

TEST_F(SegmentedDownloadTest, SmallEmptyAndRangelessResources) {
  struct Row {
    Resource resource;
    std::size_t requests;
  };
  // Small: one range. A server that ignores ranges: its one answer is the whole download. Between
  // the two sizes: the probe, then the rest as one range. Empty: no byte 0 to range over, so
  // 416 and then a plain request.
  for (const Row& row : {Row{{3000}, 1}, Row{{10 * kMiB, "\"v1\"", false}, 1}, Row{{5 * kMiB}, 2}, Row{{0}, 2}}) {
    const std::size_t before = transport->all.size();
    Start();
    Drive(row.resource);
    ASSERT_TRUE(final) << row.resource.size;
    EXPECT_EQ(final->StatusCode(), 200) << row.resource.size;
    EXPECT_TRUE(sink->Complete(row.resource.size));
    EXPECT_EQ(transport->all.size() - before, row.requests) << row.resource.size;
  }
  ASSERT_EQ(transport->all.size(), 6u);
  EXPECT_EQ(transport->all[3]->Header("range"), "bytes=1048576-5242879");
  EXPECT_TRUE(transport->all[5]->Header("range").empty());
}

}  // namespace
