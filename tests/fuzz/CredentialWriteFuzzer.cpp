// Saving a refreshed token must lose nothing: the refresh answer's headers bring the access and
// refresh tokens (any bytes a header value may hold), the claims bring the expiry, and the record
// written from them must parse back to the same fields on the next start.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <string>

#include "CredentialRecord.h"
#include "FuzzCheck.h"

using ostriolib::CredentialRecord;

namespace {

// What a header value can carry to us (no line breaks, no NUL) and a refresh accepts (no record
// separators: such an answer is refused as unusable before anything is stored).
std::string HeaderValue(FuzzedDataProvider& input) {
  std::string value = input.ConsumeRandomLengthString(256);
  std::erase_if(value, [](char c) { return c == '\r' || c == '\n' || c == '\0'; });
  FUZZ_CHECK(ostriolib::CredentialRecordCanCarry(value) == (value.find_first_of("&=") == std::string::npos));
  std::erase_if(value, [](char c) { return c == '&' || c == '='; });
  return value;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  CredentialRecord record;
  record.expiresAt = kelcore::ImmutableString(std::to_string(input.ConsumeIntegral<std::int32_t>()));
  // The user id comes only from a parsed sign-in fragment, which cannot hold the separators.
  std::string userId = input.ConsumeRandomLengthString(64);
  std::erase_if(userId, [](char c) { return c == '&' || c == '='; });
  record.userId = kelcore::ImmutableString(userId);
  record.accessToken = kelcore::ImmutableString(HeaderValue(input));
  record.refreshToken = kelcore::ImmutableString(HeaderValue(input));

  CredentialRecord read;
  FUZZ_CHECK(ostriolib::ParseCredentialRecord(ostriolib::WriteCredentialRecord(record), read));
  FUZZ_CHECK(read.expiresAt == record.expiresAt);
  FUZZ_CHECK(read.userId == record.userId);
  FUZZ_CHECK(read.accessToken == record.accessToken);
  FUZZ_CHECK(read.refreshToken == record.refreshToken);
  return 0;
}
