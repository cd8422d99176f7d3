#include "JwtTokenData.h"

#include "kelcore/Dictionary.h"
#include "kelcore/KelException.h"
#include "kelcore/Strings.h"

namespace ostriolib {

namespace {

constexpr std::string_view kTypeName = "ostriolib::JwtTokenData";

using kelcore::utility::Dictionary;
using kelcore::utility::DictionaryValue;

DictionaryValue Required(const Dictionary& claims, std::string_view key) {
  auto value = claims.Get(key);
  if (!value) throw kelcore::missing_key_exception(key, kTypeName);
  return *value;
}

std::int32_t IntegerClaim(const Dictionary& claims, std::string_view key) {
  const DictionaryValue value = Required(claims, key);
  if (!value.IsInteger()) return 0;
  const std::uint64_t bits = value.GetKind() == DictionaryValue::Kind::UnsignedInteger
                                 ? value.AsUInt64()
                                 : static_cast<std::uint64_t>(value.AsInt64());
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(bits));
}

kelcore::ImmutableString StringClaim(const Dictionary& claims, std::string_view key) {
  const DictionaryValue value = Required(claims, key);
  return value.IsString() ? value.AsImmutableString() : kelcore::ImmutableString();
}

}  // namespace

std::string DecodeJwtPayload(std::string_view token) {
  const std::size_t first = token.find('.');
  if (first == std::string_view::npos) return {};
  const std::size_t second = token.find('.', first + 1);
  if (second == std::string_view::npos) return {};
  std::string payload(token.substr(first + 1, second - first - 1));
  while (payload.size() % 4 != 0) payload += '=';
  return kelcore::DecodeBinaryDataFromUTF8String(payload);
}

JwtTokenData ParseJwtTokenData(std::string_view json) {
  auto parsed = kelcore::utility::JSONParseToDictionaryValue(json.data(), json.size());
  if (!parsed) throw kelcore::kel_exception(kelcore::kErrorFailed, "JSON not well-formed");
  Dictionary claims = parsed->AsDictionary();
  if (auto wrapped = claims.Get("SerializerWrappedObject")) claims = wrapped->AsDictionary();

  JwtTokenData data;
  data.correlationId = StringClaim(claims, "_correlation_id");
  data.version = IntegerClaim(claims, "_version");
  data.aud = StringClaim(claims, "aud");
  data.exp = IntegerClaim(claims, "exp");
  data.iat = IntegerClaim(claims, "iat");
  data.iss = StringClaim(claims, "iss");
  data.jti = StringClaim(claims, "jti");
  data.nbf = IntegerClaim(claims, "nbf");
  data.sub = StringClaim(claims, "sub");
  data.typ = StringClaim(claims, "typ");
  return data;
}

}  // namespace ostriolib
