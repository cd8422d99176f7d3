#include <gtest/gtest.h>

#include "auth/src/CredentialRecord.h"
#include "auth/src/OstrioAuthManager.h"

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

}  // namespace
}  // namespace ostriolib
