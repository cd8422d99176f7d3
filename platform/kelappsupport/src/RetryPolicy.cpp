#include "kelappsupport/RetryPolicy.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <ctime>
#include <string>

namespace kelappsupport::cloudservice {

std::chrono::milliseconds BackoffDelay(const RetryPolicy& policy, int retry, double jitter01,
                                       std::optional<std::chrono::milliseconds> retryAfter) {
  const double initial = static_cast<double>(std::max<std::int64_t>(0, policy.initialBackoff.count()));
  const double cap = static_cast<double>(std::max<std::int64_t>(0, policy.maxBackoff.count()));
  const double growth = std::pow(std::max(1.0, policy.multiplier), std::max(0, retry - 1));
  const double backoff = std::min(cap, initial * growth);
  const double jitter = std::clamp(jitter01, 0.0, 1.0);
  auto delay = std::chrono::milliseconds(static_cast<std::int64_t>(backoff / 2 + backoff / 2 * jitter));
  if (retryAfter && *retryAfter > delay) delay = *retryAfter;
  return delay;
}

std::optional<std::chrono::milliseconds> ParseRetryAfter(std::string_view value,
                                                         std::chrono::system_clock::time_point now) {
  while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) value.remove_prefix(1);
  while (!value.empty() && (value.back() == ' ' || value.back() == '\t')) value.remove_suffix(1);
  if (value.empty()) return std::nullopt;
  if (std::all_of(value.begin(), value.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    std::uint64_t seconds = 0;
    auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), seconds);
    // Absurdly large values saturate; the policy's maxRetryAfter then ends the retries.
    if (ec == std::errc::result_out_of_range || seconds > 100000000) return std::chrono::milliseconds(100000000000LL);
    if (ec != std::errc() || end != value.data() + value.size()) return std::nullopt;
    return std::chrono::milliseconds(static_cast<std::int64_t>(seconds) * 1000);
  }
  // IMF-fixdate, the only date form servers are allowed to send.
  std::tm parts{};
  const std::string text(value);
  const char* end = ::strptime(text.c_str(), "%a, %d %b %Y %H:%M:%S GMT", &parts);
  if (!end || *end != '\0') return std::nullopt;
  const std::time_t when = ::timegm(&parts);
  if (when == static_cast<std::time_t>(-1)) return std::nullopt;
  const auto target = std::chrono::system_clock::from_time_t(when);
  if (target <= now) return std::chrono::milliseconds(0);
  return std::chrono::duration_cast<std::chrono::milliseconds>(target - now);
}

}  // namespace kelappsupport::cloudservice
