#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <ostream>
#include <thread>

#include "kelcore/Dictionary.h"
#include "kelcore/Guid.h"

using kelcore::utility::Dictionary;
using kelcore::utility::DictionaryValue;
using kelcore::utility::JSONParseToDictionaryValue;
using kelcore::utility::JSONWrite;
using Kind = DictionaryValue::Kind;

namespace kelcore::utility {
// Failures show the value as JSON rather than as the bytes of the object.
void PrintTo(const DictionaryValue& value, std::ostream* out) { *out << JSONWrite(value); }
}  // namespace kelcore::utility

namespace {

std::optional<DictionaryValue> Parse(std::string_view text, std::string* error = nullptr) {
  return JSONParseToDictionaryValue(text.data(), text.size(), error);
}

Dictionary ParseObject(std::string_view text) {
  auto value = Parse(text);
  EXPECT_TRUE(value && value->IsObject()) << text;
  return value ? value->AsDictionary() : Dictionary();
}

// A page of a folder listing as the service answers it.
Dictionary BuildListing(int count) {
  std::vector<DictionaryValue> nodes;
  for (int i = 0; i < count; ++i) {
    nodes.push_back(Dictionary{{"id", kelcore::utility::Guid::CreateUnique().ToString()},
                               {"__typename", i % 3 ? "VideoAsset" : "Folder"},
                               {"name", "Shot " + std::to_string(i) + " \"final\"\t\xC3\xA9.mp4"},
                               {"size", std::int64_t{1} << (i % 63)},
                               {"duration", i * 0.1},
                               {"archived", i % 2 == 0},
                               {"parent", nullptr}});
  }
  Dictionary pageInfo{{"hasNextPage", true}, {"endCursor", "YXJyYXljb25uZWN0aW9uOjE5"}};
  Dictionary files{{"nodes", std::move(nodes)}, {"pageInfo", pageInfo}, {"totalCount", count}};
  return Dictionary{{"data", Dictionary{{"files", files}}}};
}

}  // namespace

TEST(DictionaryJson, NumbersKeepTheirKind) {
  const std::string common =
      R"({"min":-9223372036854775808,"max":18446744073709551615,"zero":-0,"negzero":-0.0,"half":1.5,)"
      R"("exp":1e2,"tiny":1e-400,"t":true,"n":null)";
  // Integers beyond 64 bits send the whole document down the slower path; check both.
  for (const std::string extra : {"", R"(,"big":18446744073709551616,"low":-9223372036854775809)"}) {
    const Dictionary d = ParseObject(common + extra + "}");
    EXPECT_EQ(d.Get("min")->GetKind(), Kind::Integer);
    EXPECT_EQ(d.GetInteger("min"), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(d.GetDouble("min"), -9223372036854775808.0);
    EXPECT_EQ(d.Get("max")->GetKind(), Kind::UnsignedInteger);
    EXPECT_EQ(d.Get("max")->AsUInt64(), std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(d.Get("zero")->GetKind(), Kind::Integer);
    EXPECT_EQ(d.Get("negzero")->GetKind(), Kind::Double);
    EXPECT_TRUE(std::signbit(d.GetDouble("negzero")));
    EXPECT_EQ(d.Get("exp")->GetKind(), Kind::Double);
    EXPECT_EQ(d.GetDouble("tiny", 1), 0.0);
    EXPECT_EQ(d.GetInteger("half", 7), 7);  // a double is not an integer
    EXPECT_TRUE(d.Get("n")->IsNull());
    if (!extra.empty()) {
      EXPECT_EQ(d.Get("big")->GetKind(), Kind::Double);
      EXPECT_EQ(d.GetDouble("big"), 18446744073709551616.0);
      EXPECT_EQ(d.GetDouble("low"), -9223372036854775809.0);
    }
    // Round trip keeps each kind, including the sign of a double zero.
    const auto again = Parse(JSONWrite(d));
    ASSERT_TRUE(again);
    EXPECT_EQ(*again, DictionaryValue(d));
    EXPECT_EQ(JSONWrite(again->AsDictionary()), JSONWrite(d));
  }

  std::string error;
  EXPECT_FALSE(Parse("[1e400]", &error));
  EXPECT_FALSE(error.empty());
  EXPECT_FALSE(Parse("-1e400"));
  EXPECT_FALSE(Parse("[1, 123456789012345678901234567890, 1e400]"));

  EXPECT_EQ(JSONWrite(DictionaryValue(std::vector<DictionaryValue>{
                std::numeric_limits<double>::infinity(), std::nan(""), 100.0, 0.1, 1e300, -0.0,
                std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::uint64_t>::max(), 3u})),
            "[null,null,100.0,0.1,1e+300,-0.0,-9223372036854775808,18446744073709551615,3]");
}

TEST(DictionaryJson, EveryParsePathReadsANumberToTheSameBits) {
  // A number alone, inside an array, and inside an array that a big integer sends down the
  // slower path: three readers, one answer.
  const char* numbers[] = {"0", "-0", "7", "-9223372036854775808", "9223372036854775808", "18446744073709551615",
                           "0.42225574925786837226", "-0.98197216152701925357", "0.26387571351658728295e42",
                           "-0.000000000000000000000000001234567890123456789012", "1.7976931348623157e308",
                           "4.9406564584124654e-324", "2e-324", "-1e-400", "1e-99999999999999999999", "1E+2"};
  for (const char* number : numbers) {
    const auto alone = Parse(number);
    const auto inArray = Parse(std::string("[") + number + "]");
    const auto slow = Parse(std::string("[18446744073709551616,") + number + "]");
    ASSERT_TRUE(alone && inArray && slow) << number;
    EXPECT_EQ(*alone, inArray->AsArray()[0]) << number;
    EXPECT_EQ(*alone, slow->AsArray()[1]) << number;
    if (alone->GetKind() == Kind::Double) {
      EXPECT_EQ(std::signbit(alone->AsDouble()), number[0] == '-') << number;
    }
  }
  EXPECT_EQ(Parse("0.42225574925786837226")->AsDouble(), 0.42225574925786837226);

  // Integers beyond 64 bits alone in a document: doubles, never a truncated integer.
  for (const char* big : {"-18446744073709551616", "123456789012345678901", " 98765432109876543210987 "}) {
    const auto value = Parse(big);
    ASSERT_TRUE(value) << big;
    EXPECT_EQ(value->GetKind(), Kind::Double) << big;
    EXPECT_EQ(value->AsDouble(), std::stod(big)) << big;
  }
  for (const char* bad : {"-18446744073709551616 1", "123456789012345678901x", "1e99999999999999999999",
                          "[18446744073709551616,1e99999999999999999999]", "[18446744073709551616,-1e309]"}) {
    EXPECT_FALSE(Parse(bad)) << bad;
  }
}

TEST(DictionaryJson, StringsAreUnescapedAndWrittenEscaped) {
  const auto value = Parse(R"(["a\"b\\c\/d\n\t\u0001\u00e9\ud83d\ude00", "\u0000"])");
  ASSERT_TRUE(value);
  const auto items = value->AsArray();
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items[0].AsStringView(), "a\"b\\c/d\n\t\x01\xC3\xA9\xF0\x9F\x98\x80");
  EXPECT_EQ(items[1].AsStringView(), std::string_view("\0", 1));
  EXPECT_EQ(JSONWrite(*value), "[\"a\\\"b\\\\c/d\\n\\t\\u0001\xC3\xA9\xF0\x9F\x98\x80\",\"\\u0000\"]");

  // Built text that is not UTF-8 is still written as valid JSON.
  EXPECT_EQ(JSONWrite(DictionaryValue("ok\xFF\xC3(\x1F\x7F")), "\"ok\\ufffd\\ufffd(\\u001f\x7F\"");
  const auto reparsed = Parse(JSONWrite(DictionaryValue("x\xED\xA0\x80y")));
  ASSERT_TRUE(reparsed);
  EXPECT_EQ(reparsed->AsStringView(), "x\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBDy");
}

TEST(DictionaryJson, MalformedTextIsRejectedWithAReason) {
  const char* cases[] = {"", "   ", "{", "[1,2", "[1,2]]", "{\"a\":1} x", "{\"a\":1}{}", "1 2", "{\"a\" 1}",
                         "[1,]", "{\"a\":1,}", "{a:1}", "tru", "nul", "01", "1.", "-", "+1", ".5", "1e", "0x10",
                         "\"abc", "\"a\tb\"", "\"\\x\"", "\"\\u12\"", "\"\\ud800\"", "\"\\udc00\\ud800\"",
                         "\"\xFF\"", "[\"\xC0\xAF\"]", "{\"\xED\xA0\x80\":1}", "[18446744073709551616,tru]",
                         "[18446744073709551616 1]", "[-18446744073709551616]]", "[00018446744073709551616]",
                         "[18446744073709551616,01.5]", "[18446744073709551616,1.]", "[18446744073709551616,-01]",
                         "[18446744073709551616,1.e5]", "[18446744073709551616,.5]", "[18446744073709551616,1e400]",
                         "{\"a\":18446744073709551616,\"b\" 1}", "[18446744073709551616,\"\\ud800\"]",
                         // Spellings of non-numbers some encoders emit; JSON has none of them.
                         "NaN", "[NaN]", "-Infinity", "{\"a\":Infinity}", "[1,nan]", "[-inf]", "--1", "1e+", "[-]",
                         "[18446744073709551616,NaN]", "[18446744073709551616,-Infinity]"};
  for (const char* text : cases) {
    std::string error;
    EXPECT_FALSE(Parse(text, &error)) << text;
    EXPECT_FALSE(error.empty()) << text;
    EXPECT_EQ(error.find('\n'), std::string::npos);
  }
  EXPECT_FALSE(JSONParseToDictionaryValue(nullptr, 3));
  EXPECT_TRUE(JSONParseToDictionaryValue(" 7 ", 3));

  // Nesting is bounded; too deep is an error, never a crash.
  for (std::size_t depth : {1022u, 1023u, 1024u, 1025u, 100000u}) {
    const std::string deep = std::string(depth, '[') + std::string(depth, ']');
    EXPECT_EQ(Parse(deep).has_value(), depth <= 1024) << depth;
    const std::string deepObjects = [&] {
      std::string text;
      for (std::size_t i = 0; i < depth; ++i) text += "{\"k\":";
      return text + "18446744073709551616" + std::string(depth, '}');
    }();
    EXPECT_EQ(Parse(deepObjects).has_value(), depth <= 1023) << depth;
    // A big integer ahead of the nesting takes the other path, which has its own bound.
    EXPECT_EQ(Parse("[18446744073709551616," + deep + "]").has_value(), depth < 1023) << depth;
  }
}

TEST(DictionaryJson, FirstOfDuplicatedKeysWins) {
  for (const char* suffix : {"", ",\"big\":18446744073709551616"}) {  // both parse paths
    const Dictionary d = ParseObject(std::string(R"({"a":1,"b":{"x":[1]},"a":3,"b":4,"c":5)") + suffix + "}");
    EXPECT_EQ(d.GetInteger("a"), 1);
    EXPECT_EQ(d.GetDictionary("b").GetArray("x").size(), 1u);
    EXPECT_EQ(d.size(), *suffix ? 4u : 3u);
    EXPECT_EQ(d.Entries().size(), d.size());
    EXPECT_EQ(JSONWrite(d).substr(0, 26), R"({"a":1,"b":{"x":[1]},"c":5)");
  }
  // Larger objects are checked differently past 64 keys; repeats on both sides of that line.
  for (int total : {40, 150}) {
    const int distinct = total * 2 / 3;
    std::string many = "{";
    for (int i = 0; i < total; ++i) many += "\"k" + std::to_string(i % distinct) + "\":" + std::to_string(i) + ",";
    many.back() = '}';
    const Dictionary d = ParseObject(many);
    EXPECT_EQ(d.size(), static_cast<std::size_t>(distinct));
    for (int i = 0; i < distinct; ++i) EXPECT_EQ(d.GetInteger("k" + std::to_string(i), -1), i);
    EXPECT_EQ(*Parse(JSONWrite(d)), DictionaryValue(d));
  }
}

TEST(Dictionary, LookupsNeverThrowOnMissingKeysOrOtherKinds) {
  const Dictionary d = ParseObject(R"({"s":"text","i":5,"o":{"k":1},"a":[1,"x"],"b":true,"n":null})");
  EXPECT_EQ(d.GetString("missing", "fallback"), "fallback");
  EXPECT_EQ(d.GetString("i", "fallback"), "fallback");
  EXPECT_EQ(d.GetString("s"), "text");
  EXPECT_EQ(d.GetImmutableString("s"), kelcore::ImmutableString("text"));
  EXPECT_TRUE(d.GetImmutableString("o").empty());
  EXPECT_EQ(d.GetInteger("s", -1), -1);
  EXPECT_EQ(d.GetDouble("i"), 5.0);
  EXPECT_FALSE(d.GetBool("n", false));
  EXPECT_TRUE(d.GetBool("b"));
  EXPECT_TRUE(d.GetDictionary("a").empty());
  EXPECT_TRUE(d.GetArray("o").empty());
  EXPECT_EQ(d.GetArray("a").size(), 2u);
  EXPECT_FALSE(d.Get("missing"));
  EXPECT_FALSE(d.Contains("k"));  // members of nested objects are not members of this one
  EXPECT_EQ(d.Get("o")->Size(), 1u);
  EXPECT_EQ(d.Get("s")->Size(), 0u);
  EXPECT_EQ(d.Get("s")->AsArray().size(), 0u);
  EXPECT_EQ(d.Get("i")->AsStringView(), "");
  EXPECT_TRUE(DictionaryValue().AsDictionary().empty());
  EXPECT_TRUE(Dictionary().GetDictionary("x").GetArray("y").empty());

  const auto scalar = Parse("\"just text\"");
  ASSERT_TRUE(scalar);
  EXPECT_EQ(scalar->AsString(), "just text");
  EXPECT_TRUE(scalar->AsDictionary().empty());
}

TEST(Dictionary, CopiesAreIsolatedFromWrites) {
  Dictionary built{{"a", 1}, {"b", "two"}, {"c", 3.0}};
  Dictionary copy = built;
  const DictionaryValue asValue(built);
  copy.Set("b", "changed");
  copy.Set("d", false);
  EXPECT_EQ(built.GetString("b"), "two");
  EXPECT_FALSE(built.Contains("d"));
  EXPECT_EQ(asValue.AsDictionary().GetString("b"), "two");
  built.Set("b", 2);  // in place: order kept
  EXPECT_EQ(JSONWrite(built), R"({"a":1,"b":2,"c":3.0})");
  EXPECT_EQ(JSONWrite(copy), R"({"a":1,"b":"changed","c":3.0,"d":false})");
  EXPECT_TRUE(copy.Remove("a"));
  EXPECT_FALSE(copy.Remove("a"));
  EXPECT_EQ(built.GetInteger("a"), 1);

  // A dictionary stored into itself keeps the old contents, not a cycle.
  built.Set("self", built);
  EXPECT_EQ(JSONWrite(built), R"({"a":1,"b":2,"c":3.0,"self":{"a":1,"b":2,"c":3.0}})");

  const auto parsed = Parse(R"({"x":{"y":1},"z":[1,2]})");
  Dictionary top = parsed->AsDictionary();
  Dictionary inner = top.GetDictionary("x");
  inner.Set("y", 2);
  top.Set("added", inner);
  EXPECT_EQ(JSONWrite(*parsed), R"({"x":{"y":1},"z":[1,2]})");
  EXPECT_EQ(JSONWrite(top), R"({"x":{"y":1},"z":[1,2],"added":{"y":2}})");
}

TEST(DictionaryJson, WriterAndParserRoundTripAGraphQLAnswer) {
  const Dictionary built = BuildListing(50);
  const std::string text = JSONWrite(built);
  const auto parsed = Parse(text);
  ASSERT_TRUE(parsed);
  EXPECT_EQ(*parsed, DictionaryValue(built));
  EXPECT_EQ(JSONWrite(*parsed), text);
  const auto nodes = parsed->AsDictionary().GetDictionary("data").GetDictionary("files").GetArray("nodes");
  ASSERT_EQ(nodes.size(), 50u);
  EXPECT_EQ(nodes[7].AsDictionary().GetString("name"), "Shot 7 \"final\"\t\xC3\xA9.mp4");
  EXPECT_EQ(nodes[62 % 50].AsDictionary().GetInteger("size"), std::int64_t{1} << 12);

  // Equality ignores member order but not values or kinds.
  EXPECT_EQ(*Parse(R"({"a":1,"b":[true,null]})"), *Parse(R"({"b":[true,null],"a":1})"));
  EXPECT_FALSE(*Parse(R"({"a":1,"b":2})") == *Parse(R"({"a":1,"c":2})"));
  EXPECT_FALSE(*Parse(R"({"a":1})") == *Parse(R"({"a":1.0})"));
  EXPECT_FALSE(*Parse(R"([1,2])") == *Parse(R"([2,1])"));

  // The big-integer path builds the same tape as the fast path.
  std::string withBig = text;
  withBig.insert(withBig.size() - 1, ",\"big\":-98765432109876543210");
  Dictionary slow = Parse(withBig)->AsDictionary();
  EXPECT_EQ(slow.GetDouble("big"), -98765432109876543210.0);
  slow.Remove("big");
  EXPECT_EQ(slow, parsed->AsDictionary());
}

TEST(DictionaryJson, ManyThreadsReadOneParsedDocument) {
  const std::string text = JSONWrite(BuildListing(200));
  const auto parsed = Parse(text);
  ASSERT_TRUE(parsed);
  std::vector<std::thread> threads;
  std::vector<int> failures(8, 0);
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < 5; ++round) {
        DictionaryValue copy = *parsed;
        Dictionary files = copy.AsDictionary().GetDictionary("data").GetDictionary("files");
        if (files.GetInteger("totalCount") != 200) ++failures[t];
        for (const auto& node : files.GetArray("nodes")) {
          Dictionary mine = node.AsDictionary();
          mine.Set("seen", t);
          if (mine.GetString("id").size() != 36 || mine.GetInteger("seen") != t) ++failures[t];
        }
        if (JSONWrite(copy) != text) ++failures[t];
      }
    });
  }
  for (auto& thread : threads) thread.join();
  for (int t = 0; t < 8; ++t) EXPECT_EQ(failures[t], 0) << "thread " << t;
  EXPECT_EQ(JSONWrite(*parsed), text);
}
