// Streaming data reaches its consumer on kelnet's delivery thread, off the network thread: a
// consumer that stops for a while holds up neither other requests nor shutdown, its transfer
// resumes where it paused without a byte lost or repeated, and the chunks of one transfer arrive
// in order, before its completion.

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>

#include "kelnet/Http.h"
#include "tests/integration/transport/EmulatorFixture.h"

namespace {

using namespace std::chrono_literals;
using kelcore::ImmutableString;
using kelcore::utility::Guid;
using transport_test::Awaited;
using transport_test::PatternSink;

// Far more than one transfer may queue, so a stopped consumer pauses its transfer.
constexpr std::size_t kLarge = 48 * 1024 * 1024;
// Network round trips the tests make with a consumer stopped: long enough, in practice, for its
// transfer to fill its queue and pause. Nothing asserted depends on it.
constexpr int kRoundTrips = 20;

class DeliveryTest : public transport_test::EmulatorFixture {
 protected:
  static std::string Media(std::size_t size) { return emulator->ApiUrl("/media/synthetic/" + std::to_string(size)); }
  static std::shared_ptr<kelnet::Response> Post() {
    Awaited post;
    if (!kelnet::POST(Guid::CreateUnique(), post.Completion(), ImmutableString(emulator->ApiUrl("/graphql")), nullptr,
                      {}, Trusted())) {
      return nullptr;
    }
    return post.Get();
  }
};

TEST_F(DeliveryTest, StoppedConsumerStallsNoOtherRequestAndLosesNoByte) {
  std::promise<void> firstChunk;
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  // A failed assertion must not leave the consumer stopped: shutdown at exit would wait for it.
  std::shared_ptr<void> releaseOnExit(nullptr, [&](void*) {
    if (released.wait_for(0s) != std::future_status::ready) release.set_value();
  });
  PatternSink sink;
  std::atomic<int> calls{0};
  std::size_t expectedOffset = 0;  // the delivery thread's alone
  bool inOrder = true;
  std::atomic<bool> completed{false};
  bool chunkAfterCompletion = false;
  Awaited download;
  ASSERT_TRUE(kelnet::StreamingGET(
      Guid::CreateUnique(),
      [&](const Guid&, const void* data, std::size_t offset, std::size_t size, const kelnet::Progress& progress,
          const kelnet::HeaderMap&) {
        if (calls++ == 0) {
          firstChunk.set_value();
          released.wait();
        }
        inOrder = inOrder && offset == expectedOffset && progress.bytesReceived == offset + size;
        expectedOffset = offset + size;
        if (completed) chunkAfterCompletion = true;
        sink.OnData(data, offset, size);
      },
      [&](const Guid& id, const std::shared_ptr<kelnet::Response>& response) {
        completed = true;
        download.Completion()(id, response);
      },
      ImmutableString(Media(kLarge)), {}, Trusted()));
  firstChunk.get_future().wait();

  // While the consumer is stopped, POSTs still get their answers; meanwhile the download's queue
  // fills and the transfer pauses.
  for (int i = 0; i < kRoundTrips; ++i) ASSERT_TRUE(Post());
  EXPECT_FALSE(completed);

  releaseOnExit.reset();
  auto response = download.Get();
  ASSERT_TRUE(response);
  EXPECT_EQ(response->StatusCode(), 200);
  EXPECT_TRUE(inOrder);
  EXPECT_FALSE(chunkAfterCompletion);
  EXPECT_TRUE(sink.Complete(kLarge));
}

TEST_F(DeliveryTest, ConsumerThatCancelsOrThrowsGetsNoFurtherChunk) {
  for (const bool cancel : {true, false}) {
    std::atomic<int> calls{0};
    Awaited awaited;
    const Guid id = Guid::CreateUnique();
    ASSERT_TRUE(kelnet::StreamingGET(
        id,
        [&](const Guid&, const void*, std::size_t, std::size_t, const kelnet::Progress&, const kelnet::HeaderMap&) {
          ++calls;
          if (cancel) {
            kelnet::Cancel(id);
          } else {
            throw std::runtime_error("disk full");
          }
        },
        awaited.Completion(), ImmutableString(Media(kLarge)), {}, Trusted()));
    EXPECT_FALSE(awaited.Get()) << cancel;
    EXPECT_EQ(calls, 1) << cancel;
  }
}

// Shutdown is for good, so this runs in a child process of its own.
TEST_F(DeliveryTest, ShutdownWithConsumersStoppedAndTransfersPausedCompletesEachOnce) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        // The first chunk stops the consumer; the delivery thread then has no turn for either
        // transfer, so both fill their queues and pause.
        auto* blocked = new std::atomic<bool>(false);
        auto* stopped = new std::promise<void>();
        auto* release = new std::promise<void>();
        auto* released = new std::shared_future<void>(release->get_future().share());
        auto* completions = new std::atomic<int>(0);
        auto* answered = new std::atomic<int>(0);
        for (int i = 0; i < 2; ++i) {
          kelnet::StreamingGET(
              Guid::CreateUnique(),
              [=](auto&, auto, auto, auto, auto&, auto&) {
                if (blocked->exchange(true)) return;
                stopped->set_value();
                released->wait();
              },
              [=](auto&, const std::shared_ptr<kelnet::Response>& response) {
                ++*completions;
                if (response) ++*answered;
              },
              ImmutableString(Media(kLarge)), {}, Trusted());
        }
        if (stopped->get_future().wait_for(60s) != std::future_status::ready) std::exit(2);
        for (int i = 0; i < kRoundTrips; ++i) {
          if (!Post()) std::exit(3);
        }
        std::thread stopper([] { kelnet::Shutdown(); });
        while (!kelnet::IsShutDown()) std::this_thread::yield();
        release->set_value();
        stopper.join();
        std::exit(*completions == 2 && *answered == 0 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
