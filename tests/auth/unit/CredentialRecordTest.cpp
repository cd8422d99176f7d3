#include <gtest/gtest.h>

#include "CredentialRecord.h"
#include "JwtTokenData.h"
#include "kelcore/KelException.h"
#include "OstrioAuthManager.h"

namespace ostriolib {
namespace {

CredentialRecord Parse(std::string_view text, bool expectParsed = true) {
  CredentialRecord record;
  EXPECT_EQ(ParseCredentialRecord(text, record), expectParsed) << text;
  return record;
}

TEST(CredentialRecord, WritesTheFourItemsInOrderAndReadsThemBack) {
  const CredentialRecord record{"u-7", "eyJ.abc.sig", "rt-1", "1700003600"};
  const std::string text = WriteCredentialRecord(record);
  EXPECT_EQ(text, "expires=1700003600&refreshToken=rt-1&token=Bearer%20eyJ.abc.sig&userId=u-7");
  const CredentialRecord back = Parse(text);
  EXPECT_EQ(back.userId.View(), "u-7");
  EXPECT_EQ(back.accessToken.View(), "eyJ.abc.sig");
  EXPECT_EQ(back.refreshToken.View(), "rt-1");
  EXPECT_EQ(back.expiresAt.View(), "1700003600");
}

TEST(CredentialRecord, ItemRules) {
  // Of repeated keys the first counts.
  EXPECT_EQ(Parse("expires=1&expires=2&refreshToken=r&token=Bearer%20abc&userId=u").expiresAt.View(), "1");
  // The token loses its first nine characters, whatever they are.
  EXPECT_EQ(Parse("expires=1&refreshToken=r&token=abc&userId=u").accessToken.View(), "");
  EXPECT_EQ(Parse("expires=1&refreshToken=r&token=123456789abc&userId=u").accessToken.View(), "abc");
  // An item with two '=' is skipped, so the later "expires" is the first that counts.
  EXPECT_EQ(Parse("expires=1=2&expires=3&refreshToken=r&token=Bearer%20abc&userId=u").expiresAt.View(), "3");
  // Runs of separators count as one.
  const CredentialRecord runs = Parse("&&expires==5&&refreshToken=r&token=Bearer%20t&&userId=u&");
  EXPECT_EQ(runs.expiresAt.View(), "5");
  EXPECT_EQ(runs.userId.View(), "u");
}

TEST(CredentialRecord, EveryKeyIsRequired) {
  Parse("", false);
  Parse("refreshToken=r&token=Bearer%20t&userId=u", false);
  Parse("expires=1&token=Bearer%20t&userId=u", false);
  Parse("expires=1&refreshToken=r&userId=u", false);
  Parse("expires=1&refreshToken=r&token=Bearer%20t", false);
}

TEST(UrlEncode, KeepsUnreservedBytesAndWritesOthersInHexWithoutLeadingZero) {
  EXPECT_EQ(OstrioAuthManager::UrlEncode("Az09-_.~"), "Az09-_.~");
  EXPECT_EQ(OstrioAuthManager::UrlEncode("a+b"), "a%2Bb");
  EXPECT_EQ(OstrioAuthManager::UrlEncode("a b"), "a%20b");
  EXPECT_EQ(OstrioAuthManager::UrlEncode("a\tb\n"), "a%9b%A");
  EXPECT_EQ(OstrioAuthManager::UrlEncode("\xC3\xA9:/"), "%C3%A9%3A%2F");
}

TEST(JwtTokenData, PayloadIsTheSecondPartPaddedToWholeQuanta) {
  EXPECT_EQ(DecodeJwtPayload("h.YQ.s"), "a");
  EXPECT_EQ(DecodeJwtPayload("h.YWI.s"), "ab");
  EXPECT_EQ(DecodeJwtPayload("h.YWJj.s"), "abc");
  EXPECT_EQ(DecodeJwtPayload("h.YWJjZ.s"), "");  // five characters cannot be padded into base64
  EXPECT_EQ(DecodeJwtPayload("h.+/8.s"), "\xFB\xFF");
  EXPECT_EQ(DecodeJwtPayload("h.YWJj"), "");
  EXPECT_EQ(DecodeJwtPayload("YWJj"), "");
}

TEST(JwtTokenData, EveryClaimIsRequired) {
  const std::string claims = R"("_correlation_id":"c","_version":4294967298,"aud":"a","exp":-5,"iat":1,)"
                             R"("iss":7,"jti":"j","nbf":2,"sub":"s","typ":"t")";
  const JwtTokenData data = ParseJwtTokenData("{" + claims + "}");
  EXPECT_EQ(data.version, 2);  // the low 32 bits
  EXPECT_EQ(data.exp, -5);
  EXPECT_EQ(data.iss.View(), "");  // not a string
  EXPECT_EQ(data.typ.View(), "t");

  for (const char* key : {"_correlation_id", "_version", "aud", "exp", "iat", "iss", "jti", "nbf", "sub", "typ"}) {
    const std::string item = "\"" + std::string(key) + "\":";
    const std::size_t at = claims.find(item);
    const std::size_t end = claims.find(',', at);
    std::string without = claims;
    without.erase(at, end == std::string::npos ? std::string::npos : end - at + 1);
    if (!without.empty() && without.back() == ',') without.pop_back();
    try {
      ParseJwtTokenData("{" + without + "}");
      ADD_FAILURE() << key << " was not required";
    } catch (const kelcore::missing_key_exception& e) {
      EXPECT_EQ(e.Key(), key);
      EXPECT_EQ(e.TypeName(), "ostriolib::JwtTokenData");
    }
  }
}

}  // namespace
}  // namespace ostriolib
