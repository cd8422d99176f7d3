// Streaming downloads from the emulator's media server, every byte verified at its offset as it
// arrives (nothing is stored). Data reaches its consumer on kelnet's delivery thread, in order; a
// consumer that stops holds up no other request and costs no more memory than the pause bound of
// its transfers, which then resume without a byte lost or repeated.

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <stdexcept>

#include "Sanitizers.h"
#include "kelnet/Http.h"
#include "tests/integration/transport/EmulatorFixture.h"

namespace {

using kelcore::utility::Guid;
using transport_test::Awaited;

using DeliveryTest = transport_test::EmulatorFixture;

// kB of the named /proc/self/status line ("VmHWM", "VmRSS").
long StatusKiB(const std::string& name) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind(name + ":", 0) == 0) return std::stol(line.substr(name.size() + 1));
  }
  return -1;
}

TEST_F(DeliveryTest, ConsumerThatCancelsOrThrowsGetsNoFurtherChunk) {
  for (const bool cancel : {true, false}) {
    int calls = 0;  // these three are the delivery thread's alone until the completion
    std::size_t next = 0;
    bool inOrder = true;
    Awaited awaited;
    const Guid id = Guid::CreateUnique();
    ASSERT_TRUE(kelnet::StreamingGET(
        id,
        [&](const Guid&, const void*, std::size_t offset, std::size_t size, const kelnet::Progress& progress,
            const kelnet::HeaderMap&) {
          inOrder = inOrder && offset == next && progress.bytesReceived == offset + size;
          next = offset + size;
          if (++calls == 3) cancel ? kelnet::Cancel(id) : throw std::runtime_error("disk full");
        },
        awaited.Completion(), Url("/media/synthetic/50000000"), {}, Trusted()));
    EXPECT_FALSE(awaited.Get()) << cancel;
    EXPECT_EQ(calls, 3) << cancel;
    EXPECT_TRUE(inOrder) << cancel;
  }
}

// Even when the request allows HTTP/2: a paused HTTP/2 stream would keep receiving up to its
// window, a paused HTTP/1.1 one is held back by TCP.
TEST_F(DeliveryTest, StreamsGoOverHttp1Only) {
  Awaited awaited;
  ASSERT_TRUE(kelnet::StreamingGET(Guid::CreateUnique(), [](auto&, auto, auto, auto, auto&, auto&) {}, awaited.Completion(),
                                   Url("/media/synthetic/1000"), {}, Trusted()));
  auto response = awaited.Get();
  ASSERT_TRUE(response);
  EXPECT_EQ(response->HttpVersion(), "1.1");
}

// Through the service, with connections that break (resets, and clean but short answers) and a
// consumer that stops for a while with every range on the wire: memory stays flat (the pause
// bound of each range holds).
TEST_F(DeliveryTest, TwoGigabytesVerifiedWithFlatMemory) {
  const std::uint64_t size = kSanitized ? (256ull << 20) : (2048ull << 20);
  Fault(R"({"route":"media","resetAfterBytes":3000000,"count":3})");
  Fault(R"({"route":"media","truncateBody":1500000,"count":2})");
  transport_test::PatternSink sink;
  kelnet::Progress last;
  std::promise<void> stopped, release;
  bool stoppedOnce = false;  // the delivery thread's alone
  std::shared_future<void> released = release.get_future().share();
  // A failed assertion must not leave the consumer stopped: shutdown at exit would wait for it.
  std::shared_ptr<void> releaseOnExit(nullptr, [&](void*) { release.set_value(); });
  Awaited awaited;
  // Start the high-water mark from here, so what earlier work touched does not count.
  { std::ofstream("/proc/self/clear_refs") << "5"; }
  const long before = StatusKiB("VmRSS");
  ASSERT_EQ(service.HttpStreamingGet(
                Guid::CreateUnique(),
                [&](const Guid&, const void* data, std::size_t offset, std::size_t bytes,
                    const kelnet::Progress& progress, const kelnet::HeaderMap&) {
                  if (offset >= size / 2 && !std::exchange(stoppedOnce, true)) {
                    stopped.set_value();
                    released.wait();
                  }
                  sink.OnData(data, offset, bytes);
                  last.totalBytes = progress.totalBytes;
                },
                awaited.Completion(), Url("/media/synthetic/" + std::to_string(size)), {}, {}, true),
            0);
  ASSERT_EQ(stopped.get_future().wait_for(transport_test::kHangGuard), std::future_status::ready);
  // Queries to the same host while every range is paused: none may land on a connection a paused
  // range holds. They also give each range time to fill its queue; a bound that does not hold
  // shows in the peak below.
  for (int i = 0; i < 100; ++i) {
    Awaited post;
    ASSERT_TRUE(kelnet::POST(Guid::CreateUnique(), post.Completion(), Url("/graphql"), nullptr, {}, Trusted()));
    ASSERT_TRUE(post.Get()) << "query " << i << " failed while a download was paused";
  }
  releaseOnExit.reset();
  auto response = awaited.Get();
  const long peak = StatusKiB("VmHWM");
  ASSERT_TRUE(response);
  EXPECT_EQ(response->StatusCode(), 200);
  EXPECT_TRUE(sink.Complete(size));
  EXPECT_EQ(last.totalBytes, size);
  EXPECT_NE(emulator->ControlGet("faults").find(R"("faults":[])"), std::string::npos);
  // Sanitizers keep freed memory in quarantine, so only a plain build can be held to the ceiling:
  // 8 MiB of queues shared by the segments, spare chunks and curl's buffers (8-10 MiB measured).
  if (!kSanitized) {
    EXPECT_LT(peak - before, 20 * 1024) << "peak RSS grew by " << (peak - before) / 1024 << " MiB";
  }
}

}  // namespace
