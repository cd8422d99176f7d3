#pragma once
// The claims of an access token's payload, and the decoding that gets at them.

#include <cstdint>
#include <string>
#include <string_view>

#include "kelcore/ImmutableString.h"
#include "ostriolib/OstrioExport.h"

namespace ostriolib {

struct JwtTokenData {
  kelcore::ImmutableString correlationId;  // "_correlation_id"
  std::int32_t version = 0;                // "_version"
  kelcore::ImmutableString aud;
  std::int32_t exp = 0;  // seconds since 1970
  std::int32_t iat = 0;
  kelcore::ImmutableString iss;
  kelcore::ImmutableString jti;
  std::int32_t nbf = 0;
  kelcore::ImmutableString sub;
  kelcore::ImmutableString typ;

  friend bool operator==(const JwtTokenData&, const JwtTokenData&) = default;
};

// The payload part of a JWT (between the first and the second '.'), padded with '=' to a
// multiple of four and base64-decoded. Empty when either '.' is missing or nothing decodes.
std::string DecodeJwtPayload(std::string_view token);

// Reads the claims from the payload's JSON; an object with a "SerializerWrappedObject" member is
// read from that member. Every claim is required: a missing one throws missing_key_exception
// naming it. Integer claims keep the low 32 bits of either JSON integer kind; a claim of another
// kind than its field reads as 0 or the empty string. Text that is not JSON throws kel_exception
// (kErrorFailed, "JSON not well-formed").
JwtTokenData ParseJwtTokenData(std::string_view json);

}  // namespace ostriolib
