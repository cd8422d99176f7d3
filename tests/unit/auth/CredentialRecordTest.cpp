// The texts the auth manager reads and writes: the credential record, percent-encoding, the JWT.

#include <gtest/gtest.h>

#include <array>

#include "CredentialRecord.h"
#include "JwtTokenData.h"
#include "kelcore/KelException.h"
#include "OstrioAuthManager.h"

namespace ostriolib {
namespace {

// Each row one text: whether it parses, and what expiresAt and the access token read. The
// written form is pinned where records are stored (AuthManagerTest).
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
      // Beyond the bound: not looked into.
      {"expires=1&refreshToken=r&token=Bearer%20t&userId=u&" + std::string(kMaxCredentialRecordBytes, 'x'), false, "", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 80));
    CredentialRecord record;
    EXPECT_EQ(ParseCredentialRecord(c.text, record), c.parses);
    EXPECT_EQ(record.expiresAt.View(), c.expiresAt);
    EXPECT_EQ(record.accessToken.View(), c.accessToken);
  }
}

// The sign-in page takes hex without a leading zero; a path segment takes two digits, and no
// text may add, remove or climb out of a segment.
TEST(PercentEncoding, ForTheSignInPageAndForOnePathSegment) {
  const std::array<std::string, 3> cases[] = {
      {"Az09-_.~", "Az09-_.~", "Az09-_.~"},
      {"a+b c", "a%2Bb%20c", "a%2Bb%20c"},
      {"\t\n\x10\xC3\xA9:/?#", "%9%A%10%C3%A9%3A%2F%3F%23", "%09%0A%10%C3%A9%3A%2F%3F%23"},
      {"..", "..", "%2E%2E"},
      {".", ".", "%2E"},
      {"../..", "..%2F..", "..%2F.."},
  };
  for (const auto& [text, page, segment] : cases) {
    EXPECT_EQ(OstrioAuthManager::UrlEncode(text), page) << text;
    EXPECT_EQ(OstrioAuthManager::EncodePathSegment(text), segment) << text;
  }
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
  const std::vector<std::pair<std::string, std::string>> claims = {
      {"_correlation_id", R"("c")"}, {"_version", "4294967298"}, {"aud", R"("a")"}, {"exp", "-5"},
      {"iat", "1"}, {"iss", "7"}, {"jti", R"("j")"}, {"nbf", "2"}, {"sub", R"("s")"}, {"typ", R"("t")"}};
  const auto json = [&](const std::string& without) {
    std::string text;
    for (const auto& [key, value] : claims) {
      if (key != without) text += (text.empty() ? "{\"" : ",\"") + key + "\":" + value;
    }
    return text + "}";
  };
  const JwtTokenData data = ParseJwtTokenData(json(""));
  EXPECT_EQ(data.version, 2);  // the low 32 bits
  EXPECT_EQ(data.exp, -5);
  EXPECT_EQ(data.iss.View(), "");  // not a string
  for (const auto& [key, value] : claims) {
    try {
      ParseJwtTokenData(json(key));
      ADD_FAILURE() << key << " was not required";
    } catch (const kelcore::missing_key_exception& e) {
      EXPECT_EQ(e.Key(), key);
      EXPECT_EQ(e.TypeName(), "ostriolib::JwtTokenData");
    }
  }
}

}  // namespace
}  // namespace ostriolib
