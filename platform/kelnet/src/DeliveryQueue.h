#pragma once
// The delivery thread and what it hands over: the bytes of streaming transfers, chunk by chunk,
// then each transfer's completion; and what else belongs with a streaming consumer (Post: a
// download's completion reached through a timer).
//
// Threads: the network thread queues bytes (Enqueue), hands over finished transfers (HandOver)
// and collects the transfers that want its attention (TakeAttention, Attend). The delivery
// thread (Run) alone calls the consumers. Cancel may come from any thread, a consumer's included.
// One mutex guards every queue and flag here; it is never held across a call into curl or a
// consumer, and the network thread never waits for the delivery thread, only for this mutex.
//
// Per streaming transfer at most its share of kTotalHighWater (never more than kHighWater) waits:
// the network thread pauses a transfer whose queue reaches it, and the delivery thread asks for
// it to be resumed once the queue has drained to a quarter of it.

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "kelnet/Http.h"

namespace kelnet {

struct Request;

// 4 MiB is about 10 ms of a fast loopback stream: enough to ride out a stall of the consumer's
// disk (page allocation, writeback) without pausing. Resuming at a quarter leaves the consumer
// 3 MiB of work while the first bytes after the pause come in.
constexpr std::size_t kHighWater = 4 * 1024 * 1024;
// All transfers together queue about this much: each gets an equal share, between one chunk and
// kHighWater, so the eight segments of a download pause at 1 MiB each. Each at 4 MiB, they held
// up to 32 MiB whenever the delivery thread was off the CPU for a few time slices (a busy
// machine): a 2 GiB download peaked at 34-52 MiB of RSS, and at 27-28 MiB with this share, at
// the same speed. Waking the delivery thread for less than a chunk's worth (every 16 KiB curl
// hands over) cost about 10% more CPU time per GiB; for a MiB at a time, throughput.
constexpr std::size_t kTotalHighWater = 8 * 1024 * 1024;
// curl hands over at most 16 KiB at a time; the consumer gets them joined up to this size, so a
// disk write costs one call per 256 KiB rather than per TLS record.
constexpr std::size_t kChunkBytes = 256 * 1024;
// Chunk buffers kept for reuse: a fresh buffer costs a page fault per 4 KiB on first touch.
constexpr std::size_t kMaxSpareChunks = 8;

struct Chunk {
  std::unique_ptr<char[]> data;
  std::size_t capacity = 0;
  std::size_t size = 0;
  std::uint64_t offset = 0;
  Progress progress;
  std::shared_ptr<const HeaderMap> headers;
};

// What the delivery thread knows of one streaming transfer. The flags and queue are guarded by
// the queue's mutex; onData is the delivery thread's alone once the transfer is handed over, and
// request is the network thread's alone (null once the transfer finished there).
struct Stream {
  kelcore::utility::Guid id;
  DataCallback onData;
  Request* request = nullptr;

  std::deque<Chunk> chunks;
  std::size_t queued = 0;     // bytes in chunks
  bool scheduled = false;     // in the delivery thread's ready queue
  bool paused = false;        // receiving paused because the queue was full
  bool resumeAsked = false;   // waiting in the network thread's attention list for a resume
  bool cancelled = false;     // nothing more is delivered; completes with a null response
  bool failed = false;        // onData threw; the same
  bool done = false;          // the transfer finished; completion and response are set
  bool completed = false;
  Completion completion;
  std::shared_ptr<Response> response;
};

class DeliveryQueue {
 public:
  // wakeNetwork makes the network thread look at TakeAttention soon; it may be called with no
  // lock of ours held, from the delivery thread or a consumer's.
  explicit DeliveryQueue(std::function<void()> wakeNetwork) : wakeNetwork_(std::move(wakeNetwork)) {}

  void Start();
  std::thread::id ThreadId() const { return threadId_.load(); }

  // Network thread. What Enqueue made of the bytes.
  enum class Taken {
    Queued,
    QueuedAndFull,   // the caller pauses the transfer: what curl receives from now on it holds
    ConsumerFailed,  // the consumer threw: nothing more is taken
    Cancelled,       // the consumer cancelled: nothing more is taken
  };
  Taken Enqueue(const std::shared_ptr<Stream>& stream, const char* data, std::size_t size, std::uint64_t offset,
                const Progress& progress, const std::shared_ptr<const HeaderMap>& headers, bool mayPause);
  // Before the first byte: Cancel finds the transfer from now on.
  void Track(const std::shared_ptr<Stream>& stream);
  // The transfer is over on the network thread; its completion follows its last chunk.
  void HandOver(std::shared_ptr<Stream> stream, bool cancelled, Completion completion,
                std::shared_ptr<Response> response);
  // Network thread, before it waits: bytes queued since the delivery thread was last woken go now.
  void Flush();

  // Network thread: transfers to resume, or to end because their consumer is done with them.
  std::vector<std::shared_ptr<Stream>> TakeAttention();
  struct Attention {
    bool resume = false;
    bool end = false;
  };
  Attention Attend(Stream& stream);
  // Network thread, as a transfer ends: how its consumer left it. Clears the pause.
  struct Settled {
    bool failed = false;
    bool cancelled = false;
    bool wasPaused = false;
  };
  Settled Settle(Stream& stream);

  // Any thread: drops what is queued for every transfer with this id; nothing more is delivered.
  void Cancel(const kelcore::utility::Guid& id);
  // Any thread: runs task here, between chunks; false once the thread has ended (not run).
  bool Post(std::function<void()> task);

  // Network thread, last: the delivery thread hands over what is left and ends.
  void Stop();
  // Any thread but the delivery thread.
  void Join();

 private:
  void Run();
  void DropChunksLocked(Stream& stream);
  // The queue at which a transfer pauses; it resumes at a quarter of it.
  std::size_t HighWaterLocked() const;
  void RecycleLocked(Chunk& chunk);

  const std::function<void()> wakeNetwork_;
  std::thread thread_;
  std::atomic<std::thread::id> threadId_{};

  std::mutex mutex_;
  std::condition_variable readySignal_;
  bool stop_ = false;
  bool waiting_ = false;
  bool wakeLater_ = false;
  bool ended_ = false;
  std::deque<std::function<void()>> tasks_;
  std::deque<std::shared_ptr<Stream>> ready_;      // streams with a chunk or their completion due
  std::vector<std::shared_ptr<Stream>> attention_;  // to resume, or to end because onData threw
  std::vector<std::shared_ptr<Stream>> live_;       // handed to curl and not yet completed
  std::vector<std::unique_ptr<char[]>> spare_;
};

}  // namespace kelnet
