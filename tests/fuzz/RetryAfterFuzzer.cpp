// Retry-After from a server: any header value reads without undefined behaviour, gives no
// negative wait, and a date reads as the same instant an independent calendar computation gives.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>
#include <string_view>

#include "FuzzCheck.h"
#include "kelappsupport/RetryPolicy.h"

using kelappsupport::cloudservice::ParseRetryAfter;
using std::chrono::milliseconds;

namespace {

// Days since 1970-01-01 of a proleptic Gregorian date; the day may run past its month, as the
// seconds may reach 60, and both count on into what follows.
std::int64_t DaysFromCivil(std::int64_t year, unsigned month, unsigned day) {
  year -= month <= 2;
  const std::int64_t era = (year >= 0 ? year : year - 399) / 400;
  const auto yearOfEra = static_cast<unsigned>(year - era * 400);
  const unsigned dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
  const unsigned dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return era * 146097 + static_cast<std::int64_t>(dayOfEra) - 719468;
}

int Number(std::string_view digits) {
  int value = 0;
  for (char c : digits) value = value * 10 + (c - '0');
  return value;
}

// The instant an IMF-fixdate names, in seconds since 1970; the value was accepted, so the fields
// sit where the format puts them.
std::int64_t Instant(std::string_view value) {
  static constexpr std::string_view kMonths = "JanFebMarAprMayJunJulAugSepOctNovDec";
  const auto month = static_cast<unsigned>(kMonths.find(value.substr(8, 3)) / 3 + 1);
  const std::int64_t days = DaysFromCivil(Number(value.substr(12, 4)), month, static_cast<unsigned>(Number(value.substr(5, 2))));
  return days * 86400 + Number(value.substr(17, 2)) * 3600 + Number(value.substr(20, 2)) * 60 + Number(value.substr(23, 2));
}

std::string_view Trim(std::string_view value) {
  while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) value.remove_prefix(1);
  while (!value.empty() && (value.back() == ' ' || value.back() == '\t')) value.remove_suffix(1);
  return value;
}

void Check(std::string_view header, std::chrono::system_clock::time_point now) {
  const auto wait = ParseRetryAfter(header, now);
  if (!wait) return;
  FUZZ_CHECK(*wait >= milliseconds(0));
  const std::string_view value = Trim(header);
  if (std::all_of(value.begin(), value.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    // Delta seconds, saturated where they stop meaning anything.
    const bool big = value.find_first_not_of('0') != std::string_view::npos &&
                     value.size() - value.find_first_not_of('0') > 9;
    const std::int64_t seconds = big ? 100000001 : Number(value);
    FUZZ_CHECK(*wait == milliseconds(seconds > 100000000 ? 100000000000LL : seconds * 1000));
    return;
  }
  FUZZ_CHECK(value.size() == 29);
  const std::int64_t target = Instant(value);
  // Past the clock's own range (2262 for nanoseconds) there is no exact answer to compare.
  if (target > std::numeric_limits<std::int64_t>::max() / 1'000'000'000) return;
  const std::int64_t nowMs = std::chrono::duration_cast<milliseconds>(now.time_since_epoch()).count();
  // Waits past the saturation point (1e11 ms, about three years) all read as that point.
  FUZZ_CHECK(wait->count() == std::min<std::int64_t>(std::max<std::int64_t>(0, target * 1000 - nowMs), 100000000000LL));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view header(reinterpret_cast<const char*>(data), size);
  using std::chrono::system_clock;
  Check(header, system_clock::time_point());
  Check(header, system_clock::time_point(std::chrono::seconds(1'700'000'000) + milliseconds(123)));
  return 0;
}
