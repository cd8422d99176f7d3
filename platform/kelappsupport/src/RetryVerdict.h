#pragma once
// The one verdict on a failed attempt: try again after a delay, or finish with what came back.
// The request pipeline asks it for every attempt that ends in a recoverable status or without an
// answer; a segmented download asks it for every range that breaks off. Their rules differ only in
// what counts as retryable and in the policy they pass (see RetryPolicy.h, DownloadPolicy.h).
//
// Threads: any; the scheduler gives the clocks and the jitter, so tests get exact answers.

#include <chrono>
#include <memory>

#include "kelappsupport/ITransport.h"
#include "kelappsupport/RetryPolicy.h"

namespace kelappsupport::cloudservice::detail {

struct FailedAttempt {
  std::shared_ptr<kelnet::Response> response;  // null: ended without a complete answer
  bool retryable = false;  // what the caller's rules make of this outcome
  int failures = 1;        // failed attempts in a row, this one included
  std::chrono::steady_clock::time_point firstStart;  // of the first attempt; maxTotal counts from it
  // A download range that made progress since its last failure comes back at once; back-off
  // counts from its second failure in a row.
  bool firstRetryAtOnce = false;
};

struct RetryVerdict {
  bool retry = false;
  std::chrono::milliseconds delay{0};
};

RetryVerdict JudgeAttempt(const RetryPolicy& policy, const FailedAttempt& attempt, IRetryScheduler& scheduler);

}  // namespace kelappsupport::cloudservice::detail
