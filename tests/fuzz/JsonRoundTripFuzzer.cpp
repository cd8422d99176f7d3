// JSON text -> Dictionary -> JSON text -> Dictionary must be stable, and must agree with
// simdjson's own DOM parser about what is JSON. The same bytes as a key and a value built in code
// (query variables are) must be written as JSON that reads back: unchanged when they are UTF-8,
// as UTF-8 otherwise.

#include <simdjson.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "kelcore/Dictionary.h"

using kelcore::utility::Dictionary;
using kelcore::utility::DictionaryValue;
using kelcore::utility::JSONParseToDictionaryValue;
using kelcore::utility::JSONWrite;

namespace {

void Check(bool condition) {
  if (!condition) std::abort();
}

bool DomAccepts(std::string_view text) {
  static simdjson::dom::parser parser;
  simdjson::dom::element root;
  return parser.parse(simdjson::padded_string(text)).get(root) == simdjson::SUCCESS;
}

// Our contract reads integers beyond 64 bits as doubles where simdjson's DOM refuses them (a
// negative one may have only 19 digits): a document holding a run of 19 digits gets no verdict
// from the DOM.
bool HasLongDigitRun(std::string_view text) {
  std::size_t run = 0;
  for (char c : text) {
    run = c >= '0' && c <= '9' ? run + 1 : 0;
    if (run >= 19) return true;
  }
  return false;
}

// Levels of arrays and objects around the deepest value (a scalar is 0).
int Depth(const DictionaryValue& value) {
  int deepest = 0;
  if (value.IsObject()) {
    for (const auto& [key, member] : value.AsDictionary().Entries()) deepest = std::max(deepest, Depth(member));
  } else if (value.IsArray()) {
    for (const auto& element : value.AsArray()) deepest = std::max(deepest, Depth(element));
  } else {
    return 0;
  }
  return deepest + 1;
}

// Every visible member is found by its own key, with its own value.
void CheckLookups(const DictionaryValue& value, int depth) {
  if (depth > 8) return;
  if (value.IsObject()) {
    const Dictionary object = value.AsDictionary();
    const auto entries = object.Entries();
    Check(entries.size() == object.size());
    for (const auto& [key, member] : entries) {
      const auto found = object.Get(key.View());
      Check(found && *found == member);
      CheckLookups(member, depth + 1);
    }
  } else if (value.IsArray()) {
    const auto elements = value.AsArray();
    Check(elements.size() == value.Size());
    for (const auto& element : elements) CheckLookups(element, depth + 1);
  }
}

void CheckBuilt(std::string_view bytes) {
  const std::string text = JSONWrite(Dictionary{{bytes, bytes}});
  Check(DomAccepts(text));
  const auto back = JSONParseToDictionaryValue(text.data(), text.size());
  Check(back && back->IsObject() && back->AsDictionary().size() == 1);
  const auto entries = back->AsDictionary().Entries();
  const std::string key(entries.at(0).first.View()), value(entries.at(0).second.AsStringView());
  Check(key == value && simdjson::validate_utf8(key.data(), key.size()));
  if (simdjson::validate_utf8(bytes.data(), bytes.size())) Check(key == bytes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  CheckBuilt(input);
  std::string error;
  const auto first = JSONParseToDictionaryValue(data, size, &error);
  if (!first) {
    Check(!error.empty() && error.find('\n') == std::string::npos);
    Check(!DomAccepts(input));
    return 0;
  }
  Check(error.empty());
  if (!DomAccepts(input)) Check(HasLongDigitRun(input));

  const std::string text = JSONWrite(*first);
  Check(DomAccepts(text));
  const auto second = JSONParseToDictionaryValue(text.data(), text.size(), &error);
  Check(second.has_value());
  Check(*second == *first);
  Check(JSONWrite(*second) == text);
  CheckLookups(*first, 0);

  // A big integer anywhere sends a document down the slower path; it must read the rest exactly
  // as the fast path does (written form compared, so a zero's sign counts too).
  const std::string forced = "[18446744073709551616," + std::string(input) + "]";
  const auto slow = JSONParseToDictionaryValue(forced.data(), forced.size());
  if (Depth(*first) <= 1022) Check(slow.has_value());
  if (slow) Check(JSONWrite(slow->AsArray().at(1)) == text);

  // A written-to copy of a parsed object writes the change and leaves the original alone.
  if (first->IsObject()) {
    Dictionary copy = first->AsDictionary();
    copy.Set("\xF0\x9F\x94\x91 fuzz", DictionaryValue(std::vector<DictionaryValue>{*first}));
    const std::string written = JSONWrite(copy);
    const auto third = JSONParseToDictionaryValue(written.data(), written.size());
    // Two levels deeper than the input: at the nesting bound that is legitimately refused.
    if (third) {
      Check(*third == DictionaryValue(copy));
    } else {
      Check(HasLongDigitRun(written) || !DomAccepts(written));
    }
    Check(JSONWrite(*first) == text);
  }
  return 0;
}
