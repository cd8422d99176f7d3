// Interned strings (identity, release, concurrent resurrection) and text conversions: UTF-8/16 with
// malformed input, lower-casing, Base64.

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "kelcore/ImmutableString.h"
#include "kelcore/Strings.h"

using kelcore::ImmutableString;

TEST(ImmutableString, EqualTextsShareStorageAndAreReleased) {
  const std::size_t baseline = ImmutableString::InternedCount();
  {
    ImmutableString a("StringsTest.identity");
    ImmutableString b(std::string("StringsTest.identity"));
    EXPECT_EQ(a.c_str(), b.c_str());
    EXPECT_EQ(a.c_str()[a.size()], '\0');
    EXPECT_EQ(ImmutableString::InternedCount(), baseline + 1);

    ImmutableString moved(std::move(b));
    EXPECT_TRUE(b.empty());
    a = ImmutableString("StringsTest.other");
    const ImmutableString& alias = moved;
    moved = alias;  // self-assignment of the only reference must not free the text
    EXPECT_EQ(ImmutableString::InternedCount(), baseline + 2);
    EXPECT_EQ(moved, ImmutableString(std::string("StringsTest.identity")));
  }
  EXPECT_EQ(ImmutableString::InternedCount(), baseline);
  // The empty text never enters the table.
  EXPECT_EQ(ImmutableString(static_cast<const char*>(nullptr)), ImmutableString(""));
  EXPECT_STREQ(ImmutableString().c_str(), "");
  EXPECT_EQ(ImmutableString::InternedCount(), baseline);
  // Texts with embedded NULs are distinct from their prefixes.
  const std::string withNul("ab\0cd", 5);
  EXPECT_NE(ImmutableString(withNul), ImmutableString("ab"));
  EXPECT_EQ(ImmutableString(withNul).View(), withNul);
}

TEST(ImmutableString, ConcurrentInterningAndReleaseKeepsIdentity) {
  const std::size_t baseline = ImmutableString::InternedCount();
  std::vector<std::string> texts;
  for (int i = 0; i < 48; ++i) texts.push_back("StringsTest.concurrent." + std::to_string(i));
  // Half the texts stay alive throughout; the other half keep dropping to zero references while
  // other threads intern them again, which is where a freed entry could be resurrected.
  std::vector<ImmutableString> anchors(texts.begin(), texts.begin() + 24);
  std::vector<std::thread> threads;
  std::vector<int> failures(8, 0);
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      std::vector<ImmutableString> held;
      for (int i = 0; i < 20000; ++i) {
        const std::size_t index = (i * 7 + t * 5) % texts.size();
        ImmutableString s(texts[index]);
        if (s.View() != texts[index] || (index < anchors.size() && !(s == anchors[index]))) ++failures[t];
        if (i % 3 == 0) held.push_back(s);
        if (held.size() > 16) held.erase(held.begin(), held.begin() + 8);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  for (int t = 0; t < 8; ++t) EXPECT_EQ(failures[t], 0) << "thread " << t;
  anchors.clear();
  EXPECT_EQ(ImmutableString::InternedCount(), baseline);
}

TEST(Strings, UTF8AndUTF16RoundTripAndReplaceMalformedInput) {
  const std::string text = "plain, caf\xC3\xA9, \xE2\x82\xAC, \xF0\x9F\x98\x80";
  EXPECT_EQ(kelcore::UTF8ToUTF16(text), u"plain, café, €, 😀");
  EXPECT_EQ(kelcore::UTF16ToUTF8(kelcore::UTF8ToUTF16(text)), text);
  // Each maximal ill-formed subpart becomes one U+FFFD; the bytes after it are kept.
  const std::pair<std::string_view, std::u16string_view> toUTF16[] = {
      {"a\x80z", u"a\uFFFDz"},
      {"\xC0\xAF", u"\uFFFD\uFFFD"},                    // overlong '/'
      {"\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"},          // encoded surrogate
      {"\xE2\x82", u"\uFFFD"},                          // truncated
      {"\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"},  // above U+10FFFF
      {"\xF0\x9F\x98", u"\uFFFD"},
      {{"\0x", 2}, {u"\0x", 2}}};
  for (const auto& [in, out] : toUTF16) EXPECT_EQ(kelcore::UTF8ToUTF16(in), out) << in;
  EXPECT_EQ(kelcore::UTF16ToUTF8(u"a\xD800"), "a\xEF\xBF\xBD");
  EXPECT_EQ(kelcore::UTF16ToUTF8(u"\xDC00x"), "\xEF\xBF\xBDx");
  EXPECT_EQ(kelcore::UTF16ToUTF8(u"\xDE00\xD83D"), "\xEF\xBF\xBD\xEF\xBF\xBD");  // pair in the wrong order
  EXPECT_EQ(kelcore::Std8ToUTF8String("caf\xC3\xA9"), "caf\xC3\xA9");
  EXPECT_EQ(kelcore::Std8ToUTF8String("caf\xE9 \xFF"), "caf\xC3\xA9 \xC3\xBF");
}

TEST(Strings, LowerCasingCoversTheSupportedScripts) {
  EXPECT_EQ(kelcore::ToLowerUTF8("ABC 09 ÀÉÎÕÜ×ÞßÿÆ ĀĲĶĸĹŇŉŊŶŸŹŽſİı ΑΒΓΡΣΩ ЀЏАЯ Москва 中文 😀 A\xFF\xC3"),
            "abc 09 àéîõü×þßÿæ āĳķĸĺňŉŋŷÿźžſiı αβγρσω ѐџая москва 中文 😀 a\xFF\xC3");  // not UTF-8: kept
  EXPECT_EQ(kelcore::ToUpperASCII("ostrio-éa://Cb"), "OSTRIO-éA://CB");
}

TEST(Strings, Base64AcceptsBothAlphabetsAndRejectsGarbage) {
  using kelcore::DecodeBinaryDataFromUTF8String;
  const std::pair<const char*, std::string_view> valid[] = {
      {"aGVsbG8=", "hello"}, {"aGVsbG8", "hello"}, {"aGVsbA==", "hell"}, {"aGVsbA", "hell"},
      {"-_-_", "\xFB\xFF\xBF"}, {"+/+/", "\xFB\xFF\xBF"}};
  for (const auto& [text, bytes] : valid) EXPECT_EQ(DecodeBinaryDataFromUTF8String(text), bytes) << text;
  for (const char* garbage : {"aGVsbG8*", "a", "aGVsb", "aGVsbG8==", "aGVsbA=", "aGVsbA===", "aG=sbA==", "aGVs bG8=",
                              "Zh==", "Zh", "aGVsbG9=", "====", "=", "aGVsbG8=\n"}) {
    EXPECT_EQ(DecodeBinaryDataFromUTF8String(garbage), "") << garbage;
  }
  std::string bytes;
  for (int i = 0; i < 256; ++i) bytes += char(i);
  for (std::size_t length = 0; length <= bytes.size(); length += (length < 8 ? 1 : 37)) {
    const std::string chunk = bytes.substr(bytes.size() - length);
    const std::string encoded = kelcore::EncodeBinaryDataToBase64(chunk);
    EXPECT_EQ(encoded.size() % 4, 0u);
    EXPECT_EQ(DecodeBinaryDataFromUTF8String(encoded), chunk) << encoded;
  }
}
