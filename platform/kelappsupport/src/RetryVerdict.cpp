#include "RetryVerdict.h"

#include "kelnet/Constants.h"

namespace kelappsupport::cloudservice::detail {

RetryVerdict JudgeAttempt(const RetryPolicy& policy, const FailedAttempt& attempt, IRetryScheduler& scheduler) {
  if (!attempt.retryable || attempt.failures >= policy.maxAttempts) return {};
  std::optional<std::chrono::milliseconds> retryAfter;
  if (attempt.response) {
    retryAfter = ParseRetryAfter(attempt.response->LastHeader(kelnet::kHEADER_RETRY_AFTER.View()).View(),
                                 scheduler.WallNow());
  }
  // A server that asks for a longer wait than we would give it is taken at its word: no retry.
  if (retryAfter && *retryAfter > policy.maxRetryAfter) return {};
  std::chrono::milliseconds delay{0};
  if (!attempt.firstRetryAtOnce) {
    delay = BackoffDelay(policy, attempt.failures, scheduler.Jitter(), retryAfter);
  } else if (attempt.failures > 1) {
    delay = BackoffDelay(policy, attempt.failures - 1, scheduler.Jitter(), retryAfter);
  } else if (retryAfter) {
    delay = *retryAfter;
  }
  const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(scheduler.Now() - attempt.firstStart);
  if (elapsed > policy.maxTotal - delay) return {};
  return {true, delay};
}

}  // namespace kelappsupport::cloudservice::detail
