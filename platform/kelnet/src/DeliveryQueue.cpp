// The delivery thread (Run) and the queues it shares with the network thread. Threads: Enqueue,
// HandOver, Flush, TakeAttention, Attend and Settle on the network thread; Cancel and Post on any;
// consumers only on the delivery thread; mutex_ never held across a consumer or curl.

#include "DeliveryQueue.h"

#include <algorithm>
#include <cstring>

#include "kelcore/Logging.h"

namespace kelnet {
namespace {

void LogWarning(std::string message, std::vector<std::pair<std::string, std::string>> fields) {
  kelcore::logging::LogWarning("kelnet", std::move(message), std::move(fields));
}

}  // namespace

void DeliveryQueue::Start() {
  thread_ = std::thread([this] { Run(); });
  threadId_ = thread_.get_id();
}

void DeliveryQueue::Join() {
  if (thread_.joinable()) thread_.join();
}

void DeliveryQueue::Stop() {
  {
    std::lock_guard lock(mutex_);
    stop_ = true;
    attention_.clear();
  }
  readySignal_.notify_one();
}

bool DeliveryQueue::Post(std::function<void()> task) {
  {
    std::lock_guard lock(mutex_);
    if (ended_) return false;
    tasks_.push_back(std::move(task));
  }
  readySignal_.notify_one();
  return true;
}

void DeliveryQueue::Track(const std::shared_ptr<Stream>& stream) {
  std::lock_guard lock(mutex_);
  live_.push_back(stream);
}

std::size_t DeliveryQueue::HighWaterLocked() const {
  return std::clamp(kTotalHighWater / std::max<std::size_t>(1, live_.size()), kChunkBytes, kHighWater);
}

void DeliveryQueue::DropChunksLocked(Stream& stream) {
  for (auto& chunk : stream.chunks) RecycleLocked(chunk);
  stream.chunks.clear();
  stream.queued = 0;
}

void DeliveryQueue::RecycleLocked(Chunk& chunk) {
  if (chunk.data && chunk.capacity == kChunkBytes && spare_.size() < kMaxSpareChunks) {
    spare_.push_back(std::move(chunk.data));
  }
  chunk.data.reset();
}

DeliveryQueue::Taken DeliveryQueue::Enqueue(const std::shared_ptr<Stream>& stream, const char* data, std::size_t size,
                                            std::uint64_t offset, const Progress& progress,
                                            const std::shared_ptr<const HeaderMap>& headers, bool mayPause) {
  Stream& s = *stream;
  bool notify = false;
  bool full = false;
  {
    std::lock_guard lock(mutex_);
    if (s.failed) return Taken::ConsumerFailed;
    if (s.cancelled) return Taken::Cancelled;
    Chunk* tail = s.chunks.empty() ? nullptr : &s.chunks.back();
    if (tail && tail->headers == headers && tail->offset + tail->size == offset &&
        tail->capacity - tail->size >= size) {
      std::memcpy(tail->data.get() + tail->size, data, size);
      tail->size += size;
      tail->progress = progress;
    } else {
      Chunk chunk;
      chunk.capacity = std::max(size, kChunkBytes);
      if (chunk.capacity == kChunkBytes && !spare_.empty()) {
        chunk.data = std::move(spare_.back());
        spare_.pop_back();
      } else {
        chunk.data.reset(new char[chunk.capacity]);
      }
      std::memcpy(chunk.data.get(), data, size);
      chunk.size = size;
      chunk.offset = offset;
      chunk.progress = progress;
      chunk.headers = headers;
      s.chunks.push_back(std::move(chunk));
    }
    s.queued += size;
    if (!s.scheduled) {
      s.scheduled = true;
      ready_.push_back(stream);
    }
    // Waking the delivery thread for every 16 KiB would cost more than copying them: it is woken
    // for a chunk's worth, and for the rest before the network thread waits (Flush).
    if (waiting_) {
      notify = s.queued >= kChunkBytes;
      wakeLater_ = !notify;
    }
    if (s.queued >= HighWaterLocked() && !s.paused && mayPause) {
      s.paused = true;
      s.resumeAsked = false;
      full = true;
    }
  }
  if (notify) readySignal_.notify_one();
  return full ? Taken::QueuedAndFull : Taken::Queued;
}

void DeliveryQueue::HandOver(std::shared_ptr<Stream> stream, bool cancelled, Completion completion,
                             std::shared_ptr<Response> response) {
  {
    std::lock_guard lock(mutex_);
    if (cancelled && !stream->cancelled) {
      stream->cancelled = true;
      DropChunksLocked(*stream);
    }
    stream->done = true;
    stream->completion = std::move(completion);
    stream->response = std::move(response);
    if (stream->scheduled) return;
    stream->scheduled = true;
    ready_.push_back(std::move(stream));
  }
  readySignal_.notify_one();
}

void DeliveryQueue::Flush() {
  {
    std::lock_guard lock(mutex_);
    if (!wakeLater_) return;
    wakeLater_ = false;
    if (!waiting_ || ready_.empty()) return;
  }
  readySignal_.notify_one();
}

std::vector<std::shared_ptr<Stream>> DeliveryQueue::TakeAttention() {
  std::vector<std::shared_ptr<Stream>> attention;
  std::lock_guard lock(mutex_);
  attention.swap(attention_);
  return attention;
}

DeliveryQueue::Attention DeliveryQueue::Attend(Stream& stream) {
  Attention attention;
  std::lock_guard lock(mutex_);
  attention.end = stream.failed || stream.cancelled;
  if (!attention.end && stream.paused) {
    stream.paused = false;
    stream.resumeAsked = false;
    attention.resume = true;
  }
  return attention;
}

DeliveryQueue::Settled DeliveryQueue::Settle(Stream& stream) {
  std::lock_guard lock(mutex_);
  Settled settled{stream.failed, stream.cancelled, stream.paused};
  stream.paused = false;
  return settled;
}

void DeliveryQueue::Cancel(const kelcore::utility::Guid& id) {
  std::lock_guard lock(mutex_);
  for (auto& stream : live_) {
    if (stream->id == id && !stream->cancelled) {
      stream->cancelled = true;
      DropChunksLocked(*stream);
    }
  }
}

// One chunk at a time, taking turns between transfers, so that one transfer's consumer cannot
// starve another's.
void DeliveryQueue::Run() {
  std::unique_lock lock(mutex_);
  while (true) {
    waiting_ = true;
    readySignal_.wait(lock, [this] { return !ready_.empty() || !tasks_.empty() || stop_; });
    waiting_ = false;
    if (!tasks_.empty()) {
      std::function<void()> task = std::move(tasks_.front());
      tasks_.pop_front();
      lock.unlock();
      try {
        task();
      } catch (...) {
        LogWarning("delivery task threw", {});
      }
      task = nullptr;
      lock.lock();
      continue;
    }
    if (ready_.empty()) {
      ended_ = true;
      break;
    }
    std::shared_ptr<Stream> stream = std::move(ready_.front());
    ready_.pop_front();
    Stream& s = *stream;
    s.scheduled = false;
    if (!s.chunks.empty()) {
      Chunk chunk = std::move(s.chunks.front());
      s.chunks.pop_front();
      s.queued -= chunk.size;
      bool wake = false;
      if (s.paused && !s.resumeAsked && s.queued <= HighWaterLocked() / 4) {
        s.resumeAsked = true;
        attention_.push_back(stream);
        wake = true;
      }
      if (!s.chunks.empty() || s.done) {
        s.scheduled = true;
        ready_.push_back(stream);
      }
      lock.unlock();
      if (wake) wakeNetwork_();
      bool threw = false;
      try {
        s.onData(s.id, chunk.data.get(), static_cast<std::size_t>(chunk.offset), chunk.size, chunk.progress,
                 *chunk.headers);
      } catch (...) {
        threw = true;
      }
      lock.lock();
      RecycleLocked(chunk);
      if (threw && !s.cancelled && !s.failed) {
        s.failed = true;
        DropChunksLocked(s);
        if (!s.done) {
          attention_.push_back(stream);
          lock.unlock();
          wakeNetwork_();
          lock.lock();
        }
      }
      continue;
    }
    if (!s.done || s.completed) continue;
    s.completed = true;
    Completion completion = std::move(s.completion);
    std::shared_ptr<Response> response = std::move(s.response);
    if (s.cancelled) response.reset();
    if (s.failed) {
      if (response) LogWarning("HTTP request failed", {{"error", "callback failed"}});
      response.reset();
    }
    live_.erase(std::remove(live_.begin(), live_.end(), stream), live_.end());
    lock.unlock();
    // The consumer's state goes with its callbacks, here rather than on the network thread.
    s.onData = nullptr;
    if (completion) {
      try {
        completion(s.id, response);
      } catch (const std::exception& error) {
        LogWarning("HTTP completion threw", {{"what", error.what()}});
      } catch (...) {
        LogWarning("HTTP completion threw", {});
      }
    }
    completion = nullptr;
    response.reset();
    stream.reset();
    lock.lock();
  }
}

}  // namespace kelnet
