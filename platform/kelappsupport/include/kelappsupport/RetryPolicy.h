#pragma once
// When a failed attempt is tried again, and after how long.
//
// Back-off grows exponentially from initialBackoff by multiplier up to maxBackoff; each delay is
// drawn uniformly from [backoff/2, backoff] so that clients failed by the same outage do not come
// back in lock-step. A Retry-After answer is a floor: the wait is never shorter than the server
// asked for. Retries stop after maxAttempts attempts, or when the next attempt would start later
// than maxTotal after the first, or when the server asks for a wait longer than maxRetryAfter;
// the last answer is then what the caller gets.

#include <chrono>
#include <optional>
#include <string_view>

namespace kelappsupport::cloudservice {

struct RetryPolicy {
  int maxAttempts = 5;  // the first attempt included
  std::chrono::milliseconds initialBackoff{250};
  double multiplier = 2.0;
  std::chrono::milliseconds maxBackoff{8000};
  std::chrono::milliseconds maxTotal{60000};
  std::chrono::milliseconds maxRetryAfter{30000};
};

// The wait before retry number `retry` (1 for the first retry). jitter01 is a uniform draw in
// [0, 1); retryAfter the server's wish, if any.
std::chrono::milliseconds BackoffDelay(const RetryPolicy& policy, int retry, double jitter01,
                                       std::optional<std::chrono::milliseconds> retryAfter = std::nullopt);

// Retry-After as delta-seconds ("120") or an HTTP date ("Wed, 21 Oct 2015 07:28:00 GMT"), relative
// to now; nullopt when absent or unreadable. A date in the past means no wait.
std::optional<std::chrono::milliseconds> ParseRetryAfter(std::string_view value,
                                                         std::chrono::system_clock::time_point now);

}  // namespace kelappsupport::cloudservice
