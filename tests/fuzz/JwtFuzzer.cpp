// An access token from a refresh answer: its payload is base64 that must decode only from the
// canonical encoding of what it decodes to, and its claims must read what simdjson's own parser
// sees in the same JSON. The input is tried both as a whole token and as the payload's JSON, so
// the fuzzer reaches the claims without having to learn base64.

#include <simdjson.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "FuzzCheck.h"
#include "JwtTokenData.h"
#include "kelcore/KelException.h"
#include "kelcore/Strings.h"

using ostriolib::JwtTokenData;

namespace {

// The payload segment as the standard alphabet with padding spells it.
std::string CanonicalSegment(std::string_view segment) {
  std::string text(segment);
  for (char& c : text) {
    if (c == '-') c = '+';
    if (c == '_') c = '/';
  }
  while (text.size() % 4 != 0) text += '=';
  return text;
}

void CheckPayload(std::string_view token) {
  const std::string payload = ostriolib::DecodeJwtPayload(token);
  const std::size_t first = token.find('.');
  const std::size_t second = first == std::string_view::npos ? first : token.find('.', first + 1);
  if (second == std::string_view::npos) {
    FUZZ_CHECK(payload.empty());
    return;
  }
  if (payload.empty()) return;
  FUZZ_CHECK(kelcore::EncodeBinaryDataToBase64(payload) ==
             CanonicalSegment(token.substr(first + 1, second - first - 1)));
}

// The claim as simdjson's DOM reads it; nullopt when the member is missing.
std::optional<std::string> StringClaim(simdjson::dom::object claims, const char* key) {
  simdjson::dom::element value;
  if (claims[key].get(value) != simdjson::SUCCESS) return std::nullopt;
  std::string_view text;
  return value.get(text) == simdjson::SUCCESS ? std::string(text) : std::string();
}

std::optional<std::int32_t> IntegerClaim(simdjson::dom::object claims, const char* key) {
  simdjson::dom::element value;
  if (claims[key].get(value) != simdjson::SUCCESS) return std::nullopt;
  std::int64_t signedValue = 0;
  std::uint64_t unsignedValue = 0;
  if (value.get(signedValue) == simdjson::SUCCESS) return static_cast<std::int32_t>(signedValue & 0xFFFFFFFF);
  if (value.get(unsignedValue) == simdjson::SUCCESS) return static_cast<std::int32_t>(unsignedValue & 0xFFFFFFFF);
  return 0;
}

// simdjson's reading of the claims; nullopt when it sees no complete set.
std::optional<JwtTokenData> ReferenceClaims(std::string_view json) {
  static simdjson::dom::parser parser;
  simdjson::dom::element root;
  if (parser.parse(simdjson::padded_string(json)).get(root) != simdjson::SUCCESS) return std::nullopt;
  simdjson::dom::object claims;
  if (root.get(claims) != simdjson::SUCCESS) return std::nullopt;
  simdjson::dom::element wrapped;
  if (claims["SerializerWrappedObject"].get(wrapped) == simdjson::SUCCESS &&
      wrapped.get(claims) != simdjson::SUCCESS) {
    return std::nullopt;
  }
  JwtTokenData data;
  auto text = [&](const char* key, kelcore::ImmutableString& field) {
    const auto value = StringClaim(claims, key);
    if (value) field = kelcore::ImmutableString(*value);
    return value.has_value();
  };
  auto number = [&](const char* key, std::int32_t& field) {
    const auto value = IntegerClaim(claims, key);
    if (value) field = *value;
    return value.has_value();
  };
  if (!(text("_correlation_id", data.correlationId) && number("_version", data.version) && text("aud", data.aud) &&
        number("exp", data.exp) && number("iat", data.iat) && text("iss", data.iss) && text("jti", data.jti) &&
        number("nbf", data.nbf) && text("sub", data.sub) && text("typ", data.typ))) {
    return std::nullopt;
  }
  return data;
}

void CheckClaims(std::string_view json) {
  std::optional<JwtTokenData> data;
  try {
    data = ostriolib::ParseJwtTokenData(json);
  } catch (const kelcore::kel_exception&) {
    // Refused: not JSON, or a claim is missing. Any other exception escapes and is a finding.
  }
  const auto reference = ReferenceClaims(json);
  // simdjson's DOM refuses integers beyond 64 bits, which we read as doubles: no verdict then.
  if (!reference) return;
  FUZZ_CHECK(data.has_value());
  FUZZ_CHECK(*data == *reference);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  CheckPayload(input);
  if (const std::string payload = ostriolib::DecodeJwtPayload(input); !payload.empty()) CheckClaims(payload);
  CheckClaims(input);
  // Any bytes survive a trip through the encoder and the decoder.
  FUZZ_CHECK(kelcore::DecodeBinaryDataFromUTF8String(kelcore::EncodeBinaryDataToBase64(input)) == input);
  return 0;
}
