#include <gtest/gtest.h>

#include "CredentialRecord.h"
#include "JwtTokenData.h"
#include "kelcore/KelException.h"
#include "OstrioAuthManager.h"

namespace ostriolib {
namespace {

// The record's item rules, each row one text: whether it parses, and what expiresAt and the
// access token read. The written form is pinned where records are stored (TokenRefreshTest).
TEST(CredentialRecord, ItemRules) {
  struct Case {
    std::string text;
    bool parses;
    std::string expiresAt, accessToken;
  };
  const Case cases[] = {
      {WriteCredentialRecord({"u", "eyJ.abc.sig", "r", "1700003600"}), true, "1700003600", "eyJ.abc.sig"},
      // Of repeated keys the first counts.
      {"expires=1&expires=2&refreshToken=r&token=Bearer%20abc&userId=u", true, "1", "abc"},
      // The token loses its first nine characters, whatever they are.
      {"expires=1&refreshToken=r&token=abc&userId=u", true, "1", ""},
      {"expires=1&refreshToken=r&token=123456789abc&userId=u", true, "1", "abc"},
      // An item with two '=' is skipped, so the later "expires" is the first that counts.
      {"expires=1=2&expires=3&refreshToken=r&token=Bearer%20abc&userId=u", true, "3", "abc"},
      // Runs of separators count as one.
      {"&&expires==5&&refreshToken=r&token=Bearer%20t&&userId=u&", true, "5", "t"},
      // Every key is required.
      {"", false, "", ""},
      {"refreshToken=r&token=Bearer%20t&userId=u", false, "", ""},
      {"expires=1&token=Bearer%20t&userId=u", false, "1", ""},
      {"expires=1&refreshToken=r&userId=u", false, "1", ""},
      {"expires=1&refreshToken=r&token=Bearer%20t", false, "1", "t"},
  };
  for (const auto& c : cases) {
    CredentialRecord record;
    EXPECT_EQ(ParseCredentialRecord(c.text, record), c.parses) << c.text;
    EXPECT_EQ(record.expiresAt.View(), c.expiresAt) << c.text;
    EXPECT_EQ(record.accessToken.View(), c.accessToken) << c.text;
  }
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
