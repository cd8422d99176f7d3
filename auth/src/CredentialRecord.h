#pragma once
// The credential record: the persisted form of the user's tokens, and the form the sign-in
// redirect carries in its fragment.
//
//   expires=<seconds since 1970>&refreshToken=<token>&token=Bearer%20<access token>&userId=<id>
//
// Values are written raw: the service never puts '&' or '=' into them.

#include <cstddef>
#include <string>
#include <string_view>

#include "kelcore/ImmutableString.h"
#include "ostriolib/OstrioExport.h"

namespace ostriolib {

// A record is four short values; a longer text is not one, and is not looked into.
inline constexpr std::size_t kMaxCredentialRecordBytes = 64 * 1024;

struct CredentialRecord {
  kelcore::ImmutableString userId;
  kelcore::ImmutableString accessToken;  // bare, without "Bearer "
  kelcore::ImmutableString refreshToken;
  kelcore::ImmutableString expiresAt;    // decimal seconds since 1970-01-01 UTC
};

std::string WriteCredentialRecord(const CredentialRecord& record);
// Values are written raw, so one holding "&" or "=" would not read back: such a token is refused
// where it arrives (a refresh answer) rather than stored as a record that signs the user out.
bool CredentialRecordCanCarry(std::string_view value);

// Items split on runs of '&', each on runs of '='; an item that is not exactly key and value is
// skipped, and of repeated keys the first counts. The token value loses its first nine characters
// (the length of "Bearer%20", not compared). false when the text is empty or longer than
// kMaxCredentialRecordBytes, or one of the four keys is missing; fields filled before the failing
// step keep their values.
bool ParseCredentialRecord(std::string_view text, CredentialRecord& record);

}  // namespace ostriolib
