#pragma once
// One streaming download: a probe range, then the rest as one range or as concurrent pieces,
// each resumed from its last delivered byte when it breaks off. See DownloadPolicy.h.

#include <memory>
#include <mutex>
#include <set>

#include "RequestPipeline.h"

namespace kelappsupport::cloudservice::detail {

class SegmentedDownload : public std::enable_shared_from_this<SegmentedDownload> {
 public:
  struct Request {
    kelcore::utility::Guid requestId;
    kelnet::DataCallback onData;
    kelnet::Completion completion;
    kelcore::ImmutableString url;
    kelnet::HeaderMap headers;
    kelnet::Configuration configuration;
    bool authorize = false;
  };

  SegmentedDownload(std::shared_ptr<RequestPipeline> pipeline, Request request);

  // False when the first request was refused at once (the completion will not run).
  bool Start();

 private:
  static constexpr std::uint64_t kOpenEnd = ~0ull;

  struct Piece {
    std::uint64_t start = 0;
    std::uint64_t end = kOpenEnd;  // exclusive
    std::uint64_t next = 0;        // first byte not yet delivered
    std::uint64_t nextAtAttemptStart = 0;
    int failures = 0;  // in a row, without progress
    bool probe = false;
    bool whole = false;  // no Range: the server does not do ranges
    bool answerSeen = false;
    std::shared_ptr<Exchange> exchange;
  };
  using PiecePtr = std::shared_ptr<Piece>;

  enum class Mode { Probing, Whole, Single, Segmented };

  bool Launch(const PiecePtr& piece);
  void OnData(const PiecePtr& piece, const kelcore::utility::Guid& attemptId, const void* data, std::size_t offset,
              std::size_t size, const kelnet::Progress& attemptProgress, const kelnet::HeaderMap& headers);
  void OnDone(const PiecePtr& piece, const std::shared_ptr<kelnet::Response>& response);
  void Resume(const PiecePtr& piece);
  void FillWorkers();
  // Records the first failure and cancels the pieces still running (lock held).
  std::vector<std::shared_ptr<Exchange>> FailLocked(std::shared_ptr<kelnet::Response> response);
  void CancelAll(const std::vector<std::shared_ptr<Exchange>>& exchanges);
  // Ends the download once no piece is running any more.
  void FinishIfSettled();
  std::shared_ptr<kelnet::Response> SuccessResponseLocked();

  const std::shared_ptr<RequestPipeline> pipeline_;
  const Request request_;
  const DownloadPolicy policy_;
  // The retry policy, with the download's own limit on resumes in a row and no overall budget:
  // a long download that keeps making progress is never cut short.
  const RetryPolicy resumePolicy_;

  std::mutex mutex_;
  Mode mode_ = Mode::Probing;
  std::uint64_t total_ = 0;
  bool totalKnown_ = false;
  kelcore::ImmutableString validator_;
  kelnet::HeaderMap firstHeaders_;
  std::string httpVersion_ = "1.1";
  std::uint64_t cursor_ = 0;     // next byte not yet given to a piece
  std::uint64_t delivered_ = 0;  // bytes handed to the caller, all pieces
  std::uint64_t probeEnd_ = 0;
  std::set<PiecePtr> running_;   // launched or waiting to resume
  bool failed_ = false;
  bool finished_ = false;
  std::shared_ptr<kelnet::Response> failure_;
  std::shared_ptr<kelnet::Response> wholeResponse_;
};

}  // namespace kelappsupport::cloudservice::detail
