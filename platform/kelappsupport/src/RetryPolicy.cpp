#include "kelappsupport/RetryPolicy.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <ctime>
#include <string>

namespace kelappsupport::cloudservice {
namespace {

// About three years: past any wait a policy accepts, far from any overflow.
constexpr std::int64_t kSaturatedMs = 100000000000LL;

}  // namespace

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
    if (ec == std::errc::result_out_of_range || seconds > 100000000) return std::chrono::milliseconds(kSaturatedMs);
    if (ec != std::errc() || end != value.data() + value.size()) return std::nullopt;
    return std::chrono::milliseconds(static_cast<std::int64_t>(seconds) * 1000);
  }
  // IMF-fixdate ("Sun, 06 Nov 1994 08:49:37 GMT"), the only date form servers may send. Read by
  // hand: strptime's day and month names follow the host's locale.
  static constexpr std::string_view kDays = "Mon,Tue,Wed,Thu,Fri,Sat,Sun,";
  static constexpr std::string_view kMonths = "JanFebMarAprMayJunJulAugSepOctNovDec";
  if (value.size() != 29 || value.substr(25) != " GMT" || value[4] != ' ' || value[7] != ' ' || value[11] != ' ' ||
      value[16] != ' ' || value[19] != ':' || value[22] != ':') {
    return std::nullopt;
  }
  const auto day = kDays.find(value.substr(0, 4));
  const auto month = kMonths.find(value.substr(8, 3));
  if (day == std::string_view::npos || day % 4 != 0 || month == std::string_view::npos || month % 3 != 0) {
    return std::nullopt;
  }
  auto number = [&](std::size_t at, std::size_t length, int low, int high, int& out) {
    const std::string_view digits = value.substr(at, length);
    if (!std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; })) return false;
    std::from_chars(digits.data(), digits.data() + digits.size(), out);
    return out >= low && out <= high;
  };
  std::tm parts{};
  if (!number(5, 2, 1, 31, parts.tm_mday) || !number(12, 4, 1970, 9999, parts.tm_year) ||
      !number(17, 2, 0, 23, parts.tm_hour) || !number(20, 2, 0, 59, parts.tm_min) ||
      !number(23, 2, 0, 60, parts.tm_sec)) {
    return std::nullopt;
  }
  parts.tm_year -= 1900;
  parts.tm_mon = static_cast<int>(month / 3);
  const std::time_t when = ::timegm(&parts);
  if (when == static_cast<std::time_t>(-1)) return std::nullopt;
  // In milliseconds, never as a system_clock time: its nanoseconds end in 2262, and a date in
  // year 9999 must still mean "far too long", not overflow.
  const std::int64_t targetMs = static_cast<std::int64_t>(when) * 1000;
  const std::int64_t nowMs = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count();
  if (targetMs <= nowMs) return std::chrono::milliseconds(0);
  return std::chrono::milliseconds(std::min(targetMs - nowMs, kSaturatedMs));
}

}  // namespace kelappsupport::cloudservice
