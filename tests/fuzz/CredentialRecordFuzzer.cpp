// A stored credential record (or a sign-in fragment) that parses must write back to a record
// that parses to the same fields, and the written form is a fixed point: whatever the store
// holds after one save is what every later save writes.

#include <cstdint>
#include <string>
#include <string_view>

#include "CredentialRecord.h"
#include "FuzzCheck.h"

using ostriolib::CredentialRecord;

namespace {

bool Same(const CredentialRecord& a, const CredentialRecord& b) {
  return a.userId == b.userId && a.accessToken == b.accessToken && a.refreshToken == b.refreshToken &&
         a.expiresAt == b.expiresAt;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  CredentialRecord first;
  if (!ostriolib::ParseCredentialRecord(text, first)) return 0;

  const std::string written = ostriolib::WriteCredentialRecord(first);
  CredentialRecord second;
  FUZZ_CHECK(ostriolib::ParseCredentialRecord(written, second));
  FUZZ_CHECK(Same(first, second));
  FUZZ_CHECK(ostriolib::WriteCredentialRecord(second) == written);

  // A record that parses keeps parsing to the same fields when a later duplicate of any key or
  // an unknown item is appended: the first of repeated keys counts.
  CredentialRecord third;
  FUZZ_CHECK(ostriolib::ParseCredentialRecord(std::string(text) + "&token=Bearer%20x&userId=y&extra=1", third));
  FUZZ_CHECK(Same(first, third));
  return 0;
}
