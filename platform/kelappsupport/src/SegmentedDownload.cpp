#include "SegmentedDownload.h"

#include <algorithm>
#include <optional>

#include "RetryVerdict.h"
#include "kelcore/Logging.h"
#include "kelnet/Constants.h"
#include "kelnet/internal/HeaderParsing.h"

namespace kelappsupport::cloudservice::detail {
namespace {

constexpr std::uint64_t kMinPieceBytes = 1ull << 20;

// "bytes a-b/total": the total, or nullopt when it is "*" or the range is unreadable.
std::optional<std::uint64_t> ContentRangeTotal(std::string_view value) {
  const auto range = kelnet::internal::ParseContentRange(value);
  return range ? range->total : std::nullopt;
}

kelnet::HeaderMap::const_iterator FindHeader(const kelnet::HeaderMap& headers,
                                                   const kelcore::ImmutableString& name) {
  return headers.find(name);
}

std::shared_ptr<kelnet::Response> Failure(int status, std::string_view reason) {
  return std::make_shared<kelnet::Response>(status, kelnet::HeaderMap{}, std::string(reason));
}

RetryPolicy ResumePolicy(RetryPolicy policy, const DownloadPolicy& download) {
  policy.maxAttempts = download.maxResumes + 1;
  policy.maxTotal = std::chrono::milliseconds::max();
  return policy;
}

void LogWarning(std::string message, std::vector<std::pair<std::string, std::string>> fields) {
  kelcore::logging::LogWarning("kelappsupport", std::move(message), std::move(fields));
}

}  // namespace

SegmentedDownload::SegmentedDownload(std::shared_ptr<RequestPipeline> pipeline, Request request)
    : pipeline_(std::move(pipeline)),
      request_(std::move(request)),
      policy_(pipeline_->GetDownloadPolicy()),
      resumePolicy_(ResumePolicy(pipeline_->GetRetryPolicy(), policy_)) {}

bool SegmentedDownload::Start() {
  auto probe = std::make_shared<Piece>();
  probe->probe = true;
  probe->end = std::max<std::uint64_t>(1, policy_.probeBytes);
  {
    std::lock_guard lock(mutex_);
    probeEnd_ = probe->end;
    running_.insert(probe);
  }
  if (Launch(probe)) return true;
  std::lock_guard lock(mutex_);
  running_.erase(probe);
  finished_ = true;
  return false;
}

bool SegmentedDownload::Launch(const PiecePtr& piece) {
  ExchangePlan plan;
  plan.url = request_.url;
  plan.headers = request_.headers;
  plan.configuration = request_.configuration;
  plan.authorize = request_.authorize;
  plan.streaming = true;
  {
    std::lock_guard lock(mutex_);
    piece->answerSeen = false;
    piece->nextAtAttemptStart = piece->next;
    if (!piece->whole) {
      std::string range = "bytes=" + std::to_string(piece->next) + "-";
      if (piece->end != kOpenEnd) range += std::to_string(piece->end - 1);
      plan.headers.emplace(kelnet::kHEADER_RANGE, kelcore::ImmutableString(range));
      if (!validator_.empty()) plan.headers.emplace(kelnet::kHEADER_IF_RANGE, validator_);
    }
  }
  auto self = shared_from_this();
  plan.onData = [self, piece](const kelcore::utility::Guid& attemptId, const void* data, std::size_t offset,
                              std::size_t size, const kelnet::Progress& progress, const kelnet::HeaderMap& headers) {
    self->OnData(piece, attemptId, data, offset, size, progress, headers);
  };
  auto exchange = pipeline_->Start(std::move(plan), [self, piece](const std::shared_ptr<kelnet::Response>& response,
                                                                 bool) { self->OnDone(piece, response); });
  if (!exchange) return false;
  std::lock_guard lock(mutex_);
  piece->exchange = std::move(exchange);
  return true;
}

void SegmentedDownload::OnData(const PiecePtr& piece, const kelcore::utility::Guid& attemptId, const void* data,
                               std::size_t offset, std::size_t size, const kelnet::Progress& attemptProgress,
                               const kelnet::HeaderMap& headers) {
  bool startWorkers = false;
  kelnet::Progress progress;
  std::vector<std::shared_ptr<Exchange>> cancel;
  {
    std::lock_guard lock(mutex_);
    if (failed_ || finished_) {
      cancel.push_back(piece->exchange);
    } else {
      const auto range = FindHeader(headers, kelnet::kHEADER_CONTENT_RANGE);
      const bool ranged = range != headers.end();
      if (!piece->answerSeen) {
        piece->answerSeen = true;
        if (piece->probe && mode_ == Mode::Probing) {
          firstHeaders_ = headers;
          if (!ranged) {
            // The server sends the whole resource whatever we ask: this answer is the download.
            mode_ = Mode::Whole;
            piece->whole = true;
            piece->end = kOpenEnd;
          } else {
            if (auto total = ContentRangeTotal(range->second.View())) {
              total_ = *total;
              totalKnown_ = true;
              piece->end = std::min(piece->end, total_);
            }
            // A weak ETag cannot guard a range; Last-Modified can, at one-second resolution.
            const auto etag = FindHeader(headers, kelnet::kHEADER_ETAG);
            const auto modified = FindHeader(headers, kelnet::kHEADER_LAST_MODIFIED);
            if (etag != headers.end() && !etag->second.empty() && etag->second.View().substr(0, 2) != "W/") {
              validator_ = etag->second;
            } else if (modified != headers.end() && !modified->second.empty()) {
              validator_ = modified->second;
            }
            if (totalKnown_ && total_ > piece->end && total_ > policy_.segmentThreshold && !validator_.empty() &&
                policy_.maxSegments > 1) {
              mode_ = Mode::Segmented;
              cursor_ = piece->end;
              startWorkers = true;
            } else {
              mode_ = Mode::Single;
            }
          }
        } else if (!piece->whole) {
          // A full answer to a guarded range, or a range of a resource of another size: the
          // resource is no longer the one we started on.
          const auto total = ranged ? ContentRangeTotal(range->second.View()) : std::nullopt;
          if (!ranged || (totalKnown_ && total && *total != total_)) {
            cancel = FailLocked(Failure(kelnet::kStatusPreconditionFailed, "resource changed during download"));
            cancel.push_back(piece->exchange);
          }
        }
      }
      if (cancel.empty() && !piece->whole && offset != piece->next) {
        // Bytes from somewhere we did not ask for would land at the wrong place.
        cancel = FailLocked(Failure(kelnet::kStatusPreconditionFailed, "range answer out of place"));
        cancel.push_back(piece->exchange);
      }
      if (cancel.empty()) {
        if (piece->end != kOpenEnd && piece->next + size > piece->end) {
          size = static_cast<std::size_t>(piece->end > piece->next ? piece->end - piece->next : 0);
        }
        piece->next += size;
        delivered_ += size;
        progress.bytesReceived = delivered_;
        progress.totalBytes = totalKnown_ ? total_ : attemptProgress.totalBytes;
      }
    }
  }
  if (!cancel.empty()) {
    // Stop this attempt's bytes at once, then whatever else is running.
    pipeline_->GetTransport()->Cancel(attemptId);
    CancelAll(cancel);
    return;
  }
  if (size > 0) request_.onData(request_.requestId, data, offset, size, progress, headers);
  if (startWorkers) FillWorkers();
}

void SegmentedDownload::OnDone(const PiecePtr& piece, const std::shared_ptr<kelnet::Response>& response) {
  std::vector<std::shared_ptr<Exchange>> cancel;
  bool resume = false;
  bool fill = false;
  PiecePtr next;
  RetryVerdict verdict;
  const auto scheduler = pipeline_->GetScheduler();
  {
    std::lock_guard lock(mutex_);
    piece->exchange.reset();
    // Every byte of the piece arrived: a connection lost after the last of them changes nothing
    // (asking again would ask for an empty range).
    const bool allThere = !piece->whole && piece->end != kOpenEnd && piece->next >= piece->end;
    if (failed_ || finished_) {
      running_.erase(piece);
    } else if ((response && response->IsSuccess()) || allThere) {
      if (piece->probe && response) httpVersion_ = response->HttpVersion();
      if (piece->whole || (piece->probe && mode_ == Mode::Probing)) {
        // The whole resource in one answer (or an empty one, which carries no bytes to look at).
        wholeResponse_ = response;
        mode_ = Mode::Whole;
        running_.erase(piece);
      } else if (piece->end == kOpenEnd || piece->next >= piece->end) {
        running_.erase(piece);
        if (piece->end == kOpenEnd && !totalKnown_) {
          total_ = piece->next;
          totalKnown_ = true;
        }
        if (piece->probe && mode_ == Mode::Single && (!totalKnown_ || total_ > piece->end)) {
          next = std::make_shared<Piece>();
          next->start = next->next = piece->end;
          next->end = totalKnown_ ? total_ : kOpenEnd;
          running_.insert(next);
        }
        fill = mode_ == Mode::Segmented;
      } else {
        // A shorter range than asked for is allowed; ask again for the rest.
        resume = true;
      }
    } else if (response) {
      if (piece->probe && !piece->answerSeen && response->StatusCode() == kelnet::kStatusRangeNotSatisfiable) {
        // An empty resource has no byte 0: ask for it plainly.
        piece->whole = true;
        piece->end = kOpenEnd;
        mode_ = Mode::Whole;
        next = piece;
      } else {
        cancel = FailLocked(response);
        running_.erase(piece);
      }
    } else if (piece->whole) {
      // Without ranges there is no resuming: the bytes so far cannot be trusted to continue.
      cancel = FailLocked(nullptr);
      running_.erase(piece);
    } else {
      resume = true;
    }
    if (resume) {
      if (piece->next > piece->nextAtAttemptStart) piece->failures = 0;
      // A piece that made progress comes back at once; one that keeps failing backs off.
      FailedAttempt attempt;
      attempt.retryable = true;
      attempt.failures = ++piece->failures;
      attempt.firstStart = scheduler->Now();
      attempt.firstRetryAtOnce = true;
      verdict = JudgeAttempt(resumePolicy_, attempt, *scheduler);
      if (!verdict.retry) {
        LogWarning("download gave up after repeated break-offs", {});
        cancel = FailLocked(nullptr);
        running_.erase(piece);
        resume = false;
      }
    }
  }
  CancelAll(cancel);
  if (resume) {
    auto self = shared_from_this();
    if (!scheduler->ScheduleAfter(verdict.delay, [self, piece] { self->Resume(piece); })) {
      std::unique_lock lock(mutex_);
      auto more = FailLocked(nullptr);
      running_.erase(piece);
      lock.unlock();
      CancelAll(more);
    }
  }
  if (next) Resume(next);
  if (fill) FillWorkers();
  FinishIfSettled();
}

void SegmentedDownload::Resume(const PiecePtr& piece) {
  bool stopped = false;
  {
    std::lock_guard lock(mutex_);
    stopped = failed_ || finished_;
    if (stopped) running_.erase(piece);
  }
  if (!stopped && !Launch(piece)) {
    std::unique_lock lock(mutex_);
    auto cancel = FailLocked(nullptr);
    running_.erase(piece);
    lock.unlock();
    CancelAll(cancel);
  }
  FinishIfSettled();
}

void SegmentedDownload::FillWorkers() {
  std::vector<PiecePtr> launch;
  {
    std::lock_guard lock(mutex_);
    while (!failed_ && !finished_ && cursor_ < total_ && static_cast<int>(running_.size()) < policy_.maxSegments) {
      // Pieces shrink towards the end so that the last ones finish together rather than one
      // long piece running alone.
      const std::uint64_t remaining = total_ - cursor_;
      const std::uint64_t share = remaining / static_cast<std::uint64_t>(std::max(1, policy_.maxSegments));
      const std::uint64_t size =
          std::min(remaining, std::clamp(share, kMinPieceBytes, std::max(kMinPieceBytes, policy_.pieceBytes)));
      auto piece = std::make_shared<Piece>();
      piece->start = piece->next = cursor_;
      piece->end = cursor_ + size;
      cursor_ += size;
      running_.insert(piece);
      launch.push_back(std::move(piece));
    }
  }
  for (const auto& piece : launch) {
    if (Launch(piece)) continue;
    std::vector<std::shared_ptr<Exchange>> cancel;
    {
      std::lock_guard lock(mutex_);
      cancel = FailLocked(nullptr);
      running_.erase(piece);
    }
    CancelAll(cancel);
  }
}

std::vector<std::shared_ptr<Exchange>> SegmentedDownload::FailLocked(std::shared_ptr<kelnet::Response> response) {
  std::vector<std::shared_ptr<Exchange>> cancel;
  if (failed_) return cancel;
  failed_ = true;
  failure_ = std::move(response);
  for (const auto& piece : running_) {
    if (piece->exchange) cancel.push_back(piece->exchange);
  }
  return cancel;
}

void SegmentedDownload::CancelAll(const std::vector<std::shared_ptr<Exchange>>& exchanges) {
  for (const auto& exchange : exchanges) pipeline_->Cancel(exchange);
}

std::shared_ptr<kelnet::Response> SegmentedDownload::SuccessResponseLocked() {
  if (wholeResponse_) return wholeResponse_;
  if (!totalKnown_ || delivered_ != total_) return nullptr;
  kelnet::HeaderMap headers;
  for (const auto& [name, value] : firstHeaders_) {
    if (name == kelnet::kHEADER_CONTENT_RANGE || name == kelnet::kHEADER_CONTENT_LENGTH) continue;
    headers.emplace(name, value);
  }
  headers.emplace(kelnet::kHEADER_CONTENT_LENGTH, kelcore::ImmutableString(std::to_string(total_)));
  return std::make_shared<kelnet::Response>(kelnet::kStatusOK, std::move(headers), std::string(), httpVersion_);
}

void SegmentedDownload::FinishIfSettled() {
  std::shared_ptr<kelnet::Response> response;
  {
    std::lock_guard lock(mutex_);
    if (finished_ || !running_.empty()) return;
    if (!failed_ && mode_ == Mode::Segmented && cursor_ < total_) return;  // more pieces are on their way
    finished_ = true;
    response = failed_ ? failure_ : SuccessResponseLocked();
  }
  // Reached from a resume timer as well as from a range's completion: either way the caller's
  // completion runs where its data went.
  auto self = shared_from_this();
  pipeline_->GetTransport()->RunWithStreamingCallbacks([self, response] {
    try {
      self->request_.completion(self->request_.requestId, response);
    } catch (...) {
      LogWarning("download completion threw", {});
    }
  });
}

}  // namespace kelappsupport::cloudservice::detail
