// Dictionary and its JSON reader/writer: kinds and bits of numbers on every parse path, escapes,
// malformed input and nesting bounds, duplicate keys, copies, and sharing across threads.
// A big integer (beyond 64 bits) anywhere in a document sends it down the slower parse path, so
// most rules are checked with and without one.

#include <gtest/gtest.h>

#include <cmath>
#include <atomic>
#include <cstdlib>
#include <limits>
#include <ostream>
#include <thread>

#include "kelcore/Dictionary.h"

using kelcore::utility::Dictionary;
using kelcore::utility::DictionaryValue;
using kelcore::utility::JSONWrite;
using Kind = DictionaryValue::Kind;

namespace kelcore::utility {
// Failures show the value as JSON rather than as the bytes of the object.
void PrintTo(const DictionaryValue& value, std::ostream* out) { *out << JSONWrite(value); }
}  // namespace kelcore::utility

constexpr const char* kBig = "18446744073709551616";

static std::optional<DictionaryValue> Parse(std::string_view text, std::string* error = nullptr) {
  return kelcore::utility::JSONParseToDictionaryValue(text.data(), text.size(), error);
}

static Dictionary ParseObject(std::string_view text) {
  auto value = Parse(text);
  EXPECT_TRUE(value && value->IsObject()) << text;
  return value ? value->AsDictionary() : Dictionary();
}

TEST(DictionaryJson, NumbersKeepTheirKindAndBitsOnEveryPath) {
  for (const std::string& extra : {std::string(), ",\"big\":" + std::string(kBig)}) {
    const Dictionary d = ParseObject(R"({"min":-9223372036854775808,"max":18446744073709551615,"zero":-0,)"
                                     R"("negzero":-0.0,"half":1.5,"exp":1e2,"tiny":1e-400,"n":null)" + extra + "}");
    const std::pair<const char*, DictionaryValue> expected[] = {
        {"min", std::numeric_limits<std::int64_t>::min()}, {"max", std::numeric_limits<std::uint64_t>::max()},
        {"zero", std::int64_t{0}}, {"exp", 100.0}, {"tiny", 0.0}, {"half", 1.5}, {"n", nullptr}};
    for (const auto& [key, value] : expected) {
      ASSERT_TRUE(d.Get(key)) << key;
      EXPECT_EQ(*d.Get(key), value) << key;  // kind and value
    }
    EXPECT_TRUE(std::signbit(d.GetDouble("negzero")));
    const auto again = Parse(JSONWrite(d));  // keeps each kind, including the sign of a double zero
    ASSERT_TRUE(again);
    EXPECT_EQ(*again, DictionaryValue(d));
    EXPECT_EQ(JSONWrite(again->AsDictionary()), JSONWrite(d));
  }
  EXPECT_EQ(JSONWrite(DictionaryValue(std::vector<DictionaryValue>{
                std::numeric_limits<double>::infinity(), std::nan(""), 100.0, 0.1, 1e300, -0.0,
                std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::uint64_t>::max(), 3u})),
            "[null,null,100.0,0.1,1e+300,-0.0,-9223372036854775808,18446744073709551615,3]");

  // A number alone, inside an array, and inside an array on the slower path: one answer.
  for (const char* number : {"-0", "9223372036854775808", "0.42225574925786837226", "-0.98197216152701925357",
                             "0.26387571351658728295e42", "-0.000000000000000000000000001234567890123456789012",
                             "1.7976931348623157e308", "4.9406564584124654e-324", "2e-324", "-1e-400",
                             "1e-99999999999999999999", "1E+2"}) {
    const auto alone = Parse(number);
    const auto inArray = Parse(std::string("[") + number + "]");
    const auto slow = Parse(std::string("[") + kBig + "," + number + "]");
    ASSERT_TRUE(alone && inArray && slow) << number;
    EXPECT_EQ(*alone, inArray->AsArray()[0]) << number;
    EXPECT_EQ(*alone, slow->AsArray()[1]) << number;
    if (alone->GetKind() == Kind::Double) {
      EXPECT_EQ(alone->AsDouble(), std::strtod(number, nullptr)) << number;  // correctly rounded, sign kept
      EXPECT_EQ(std::signbit(alone->AsDouble()), number[0] == '-') << number;
    }
  }
  // Integers beyond 64 bits: doubles, never a truncated integer.
  for (const char* big : {"-18446744073709551616", " 98765432109876543210987 ", "-9223372036854775809"}) {
    ASSERT_TRUE(Parse(big)) << big;
    EXPECT_EQ(*Parse(big), DictionaryValue(std::strtod(big, nullptr))) << big;
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
  const std::string big = kBig;
  const std::string cases[] = {
      "", "   ", "{", "[1,2", "[1,2]]", "{\"a\":1} x", "{\"a\":1}{}", "1 2", "{\"a\" 1}", "[1,]", "{\"a\":1,}",
      "{a:1}", "tru", "nul", "01", "1.", "-", "+1", ".5", "1e", "0x10", "\"abc", "\"a\tb\"", "\"\\x\"", "\"\\u12\"",
      "\"\\ud800\"", "\"\\udc00\\ud800\"", "\"\xFF\"", "[\"\xC0\xAF\"]", "{\"\xED\xA0\x80\":1}", "[1e400]", "-1e400",
      "1e99999999999999999999", "-18446744073709551616 1", "123456789012345678901x", "[" + big + " 1]",
      "[-" + big + "]]", "[000" + big + "]", "{\"a\":" + big + ",\"b\" 1}",
      // Spellings of non-numbers some encoders emit; JSON has none of them.
      "NaN", "-Infinity", "{\"a\":Infinity}", "[1,nan]", "[-inf]", "--1", "1e+", "[-]"};
  // The slower path has its own reader of every token: the same verdicts there.
  const std::string slowOnly[] = {"tru", "01.5", "1.", "-01", "1.e5", ".5", "1e400", "-1e309", "\"\\ud800\"", "NaN",
                                  "-Infinity", "1e99999999999999999999"};
  std::vector<std::string> all(std::begin(cases), std::end(cases));
  for (const auto& token : slowOnly) all.push_back("[" + big + "," + token + "]");
  for (const auto& text : all) {
    std::string error;
    EXPECT_FALSE(Parse(text, &error)) << text;
    EXPECT_FALSE(error.empty()) << text;
    EXPECT_EQ(error.find('\n'), std::string::npos);
  }
  EXPECT_FALSE(kelcore::utility::JSONParseToDictionaryValue(nullptr, 3));

  // Nesting is bounded on both paths; too deep is an error, never a crash.
  for (std::size_t depth : {1022u, 1023u, 1024u, 1025u, 100000u}) {
    const std::string deep = std::string(depth, '[') + std::string(depth, ']');
    EXPECT_EQ(Parse(deep).has_value(), depth <= 1024) << depth;
    std::string deepObjects;
    for (std::size_t i = 0; i < depth; ++i) deepObjects += "{\"k\":";
    EXPECT_EQ(Parse(deepObjects + big + std::string(depth, '}')).has_value(), depth <= 1023) << depth;
    EXPECT_EQ(Parse("[" + big + "," + deep + "]").has_value(), depth < 1023) << depth;
  }
}

TEST(DictionaryJson, FirstOfDuplicatedKeysWins) {
  for (const std::string& suffix : {std::string(), ",\"big\":" + std::string(kBig)}) {
    const Dictionary d = ParseObject(R"({"a":1,"b":{"x":[1]},"a":3,"b":4,"c":5)" + suffix + "}");
    EXPECT_EQ(d.size(), suffix.empty() ? 3u : 4u);
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
  }
}

TEST(Dictionary, LookupsOfMissingKeysOrOtherKindsGiveTheFallback) {
  const Dictionary d = ParseObject(R"({"i":5,"o":{"k":1},"a":[1]})");
  EXPECT_EQ(d.GetString("missing", "fallback"), "fallback");
  EXPECT_EQ(d.GetString("i", "fallback"), "fallback");
  EXPECT_EQ(d.GetDouble("i"), 5.0);  // an integer is a number too
  EXPECT_TRUE(d.GetDictionary("a").empty() && d.GetArray("o").empty() && d.GetImmutableString("o").empty());
  EXPECT_FALSE(d.Contains("k"));  // members of nested objects are not members of this one
}

TEST(Dictionary, CopiesAreIsolatedFromWrites) {
  Dictionary built{{"a", 1}, {"b", "two"}, {"c", 3.0}};
  Dictionary copy = built;
  copy.Set("b", "changed");
  copy.Set("d", false);
  built.Set("b", 2);  // in place: order kept
  EXPECT_EQ(JSONWrite(built), R"({"a":1,"b":2,"c":3.0})");
  EXPECT_EQ(JSONWrite(copy), R"({"a":1,"b":"changed","c":3.0,"d":false})");
  copy.Remove("a");
  EXPECT_EQ(built.GetInteger("a"), 1);

  // A dictionary stored into itself keeps the old contents, not a cycle.
  built.Set("self", built);
  EXPECT_EQ(JSONWrite(built), R"({"a":1,"b":2,"c":3.0,"self":{"a":1,"b":2,"c":3.0}})");

  const auto parsed = Parse(R"({"x":{"y":1},"z":[1,2]})");
  ASSERT_TRUE(parsed);
  Dictionary top = parsed->AsDictionary();
  Dictionary inner = top.GetDictionary("x");
  inner.Set("y", 2);
  top.Set("added", inner);
  EXPECT_EQ(JSONWrite(*parsed), R"({"x":{"y":1},"z":[1,2]})");
  EXPECT_EQ(JSONWrite(top), R"({"x":{"y":1},"z":[1,2],"added":{"y":2}})");
}

TEST(DictionaryJson, AGraphQLAnswerRoundTripsAndIsReadByManyThreadsAtOnce) {
  std::vector<DictionaryValue> nodes;
  for (int i = 0; i < 200; ++i) {
    nodes.push_back(Dictionary{{"name", "Shot " + std::to_string(i) + " \"final\"\t\xC3\xA9.mp4"},
                               {"size", std::int64_t{1} << (i % 63)},
                               {"duration", i * 0.1},
                               {"parent", nullptr}});
  }
  const Dictionary files{{"nodes", std::move(nodes)}, {"totalCount", 200}};
  const Dictionary built{{"data", Dictionary{{"files", files}}}};
  const std::string text = JSONWrite(built);
  const auto parsed = Parse(text);
  ASSERT_TRUE(parsed);
  EXPECT_EQ(*parsed, DictionaryValue(built));
  EXPECT_EQ(JSONWrite(*parsed), text);

  // Equality ignores member order but not values or kinds.
  EXPECT_EQ(ParseObject(R"({"a":1,"b":[true,null]})"), ParseObject(R"({"b":[true,null],"a":1})"));
  EXPECT_FALSE(ParseObject(R"({"a":1})") == ParseObject(R"({"a":1.0})"));

  // The slower path builds the same document.
  Dictionary slow = ParseObject(text.substr(0, text.size() - 1) + ",\"big\":-98765432109876543210}");
  slow.Remove("big");
  EXPECT_EQ(slow, parsed->AsDictionary());

  std::vector<std::thread> threads;
  std::atomic<int> failures{0};
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      DictionaryValue copy = *parsed;
      for (const auto& node : copy.AsDictionary().GetDictionary("data").GetDictionary("files").GetArray("nodes")) {
        Dictionary mine = node.AsDictionary();
        mine.Set("seen", t);
        failures += mine.GetString("name").empty() || mine.GetInteger("seen") != t;
      }
      failures += JSONWrite(copy) != text;
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(JSONWrite(*parsed), text);
}
