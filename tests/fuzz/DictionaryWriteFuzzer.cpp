// Dictionaries built in code (query variables, request bodies) from values that came from
// outside: the tree must hold what was put in (copies stay apart), and the JSON the writer makes
// of it must parse back to the same tree, in the same order, with invalid UTF-8 as U+FFFD, NaN and
// the infinities as null, and the first of keys that became equal the one that stays.

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "FuzzCheck.h"
#include "kelcore/Dictionary.h"

using kelcore::ImmutableString;
using kelcore::utility::Dictionary;
using kelcore::utility::DictionaryValue;
using kelcore::utility::JSONParseToDictionaryValue;
using kelcore::utility::JSONWrite;
using Kind = DictionaryValue::Kind;

namespace {

struct Member;

// What a value should hold, kept apart from the library's own representation.
struct Model {
  Kind kind = Kind::Null;
  bool boolean = false;
  std::uint64_t bits = 0;  // integers and the double's bit pattern
  std::string text;
  std::vector<Model> elements;
  std::vector<Member> members;
};

struct Member {
  std::string first;
  Model second;
};

Model Of(Kind kind, std::uint64_t bits = 0) {
  Model model;
  model.kind = kind;
  model.bits = bits;
  return model;
}

struct Built {
  DictionaryValue value;
  Model model;
};

// Length of the well-formed UTF-8 sequence at the start of `text`, 0 when there is none.
std::size_t SequenceLength(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char b0 = byte(0);
  std::size_t length = 0;
  unsigned char low = 0x80, high = 0xBF;
  if (b0 < 0x80) return 1;
  if (b0 >= 0xC2 && b0 <= 0xDF) length = 2;
  else if (b0 >= 0xE0 && b0 <= 0xEF) length = 3, low = b0 == 0xE0 ? 0xA0 : 0x80, high = b0 == 0xED ? 0x9F : 0xBF;
  else if (b0 >= 0xF0 && b0 <= 0xF4) length = 4, low = b0 == 0xF0 ? 0x90 : 0x80, high = b0 == 0xF4 ? 0x8F : 0xBF;
  else return 0;
  if (text.size() < length || byte(1) < low || byte(1) > high) return 0;
  for (std::size_t i = 2; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
  }
  return length;
}

std::string Sanitized(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    std::size_t length = SequenceLength(text);
    if (length == 0) {
      out += "\xEF\xBF\xBD";
      length = 1;
    } else {
      out.append(text.substr(0, length));
    }
    text.remove_prefix(length);
  }
  return out;
}

// The model as it comes back through JSON text.
Model AfterJson(const Model& model) {
  Model out = model;
  if (model.kind == Kind::Double && !std::isfinite(std::bit_cast<double>(model.bits))) return Model{};
  out.text = Sanitized(model.text);
  for (auto& element : out.elements) element = AfterJson(element);
  out.members.clear();
  for (const auto& [key, member] : model.members) {
    const std::string name = Sanitized(key);
    bool seen = false;
    for (const auto& earlier : out.members) seen = seen || earlier.first == name;
    if (!seen) out.members.push_back(Member{name, AfterJson(member)});
  }
  return out;
}

bool Matches(const DictionaryValue& value, const Model& model) {
  if (value.GetKind() != model.kind) return false;
  switch (model.kind) {
    case Kind::Null: return true;
    case Kind::Boolean: return value.AsBool() == model.boolean;
    case Kind::Integer:
    case Kind::UnsignedInteger: return value.AsUInt64() == model.bits;
    case Kind::Double: return std::bit_cast<std::uint64_t>(value.AsDouble()) == model.bits;
    case Kind::String: return value.AsStringView() == model.text;
    case Kind::Array: {
      const auto elements = value.AsArray();
      if (elements.size() != model.elements.size() || value.Size() != elements.size()) return false;
      for (std::size_t i = 0; i < elements.size(); ++i) {
        if (!Matches(elements[i], model.elements[i])) return false;
      }
      return true;
    }
    case Kind::Object: {
      const Dictionary object = value.AsDictionary();
      const auto entries = object.Entries();
      if (entries.size() != model.members.size() || object.size() != entries.size()) return false;
      for (std::size_t i = 0; i < entries.size(); ++i) {
        if (entries[i].first.View() != model.members[i].first) return false;
        if (!Matches(entries[i].second, model.members[i].second)) return false;
        const auto found = object.Get(model.members[i].first);
        if (!found || !Matches(*found, model.members[i].second)) return false;
      }
      return true;
    }
  }
  return false;
}

class Builder {
 public:
  explicit Builder(FuzzedDataProvider& input) : input_(input) {}

  Built Value(int depth) {
    if (++nodes_ > 2000 || input_.remaining_bytes() == 0) return {};
    switch (input_.ConsumeIntegralInRange(0, depth >= 12 ? 5 : 8)) {
      case 0: return {};
      case 1: {
        const bool value = input_.ConsumeBool();
        Model model = Of(Kind::Boolean);
        model.boolean = value;
        return {DictionaryValue(value), std::move(model)};
      }
      case 2: {
        const auto value = input_.ConsumeIntegral<std::int64_t>();
        return {DictionaryValue(static_cast<long long>(value)),
                Of(Kind::Integer, static_cast<std::uint64_t>(value))};
      }
      case 3: {
        const auto value = input_.ConsumeIntegral<std::uint64_t>();
        const Kind kind = value > static_cast<std::uint64_t>(INT64_MAX) ? Kind::UnsignedInteger : Kind::Integer;
        return {DictionaryValue(static_cast<unsigned long long>(value)), Of(kind, value)};
      }
      case 4: {
        // Any bit pattern: subnormals, negative zero, NaN and the infinities included.
        const auto bits = input_.ConsumeIntegral<std::uint64_t>();
        return {DictionaryValue(std::bit_cast<double>(bits)), Of(Kind::Double, bits)};
      }
      case 5: {
        std::string text = input_.ConsumeRandomLengthString(64);
        Model model = Of(Kind::String);
        model.text = text;
        return {DictionaryValue(text), std::move(model)};
      }
      case 6: return Array(depth);
      case 7: return Object(depth);
      default: {
        // An object shared by several parents; changed later, it must stay as it was in each.
        if (shared_.empty()) return Object(depth);
        const auto& [object, model] = shared_[input_.ConsumeIntegralInRange<std::size_t>(0, shared_.size() - 1)];
        return {DictionaryValue(object), model};
      }
    }
  }

  // Changes every shared object after the tree holds its copies.
  void ChangeShared() {
    for (auto& [object, model] : shared_) object.Set("\xE2\x9C\x8E changed", DictionaryValue(1));
  }

 private:
  Built Array(int depth) {
    std::vector<DictionaryValue> elements;
    Model model = Of(Kind::Array);
    const int count = input_.ConsumeIntegralInRange(0, 8);
    for (int i = 0; i < count; ++i) {
      Built element = Value(depth + 1);
      elements.push_back(std::move(element.value));
      model.elements.push_back(std::move(element.model));
    }
    return {DictionaryValue(std::move(elements)), std::move(model)};
  }

  Built Object(int depth) {
    Dictionary object;
    Model model = Of(Kind::Object);
    const int operations = input_.ConsumeIntegralInRange(0, 8);
    for (int i = 0; i < operations; ++i) {
      auto& members = model.members;
      const bool existing = !members.empty() && input_.ConsumeBool();
      const std::size_t at = existing ? input_.ConsumeIntegralInRange<std::size_t>(0, members.size() - 1) : 0;
      if (existing && input_.ConsumeBool()) {
        FUZZ_CHECK(object.Remove(members[at].first));
        members.erase(members.begin() + static_cast<std::ptrdiff_t>(at));
        continue;
      }
      const std::string key = existing ? members[at].first : input_.ConsumeRandomLengthString(16);
      Built value = Value(depth + 1);
      object.Set(ImmutableString(key), value.value);
      auto found = std::find_if(members.begin(), members.end(), [&](const auto& member) { return member.first == key; });
      if (found != members.end()) {
        found->second = std::move(value.model);
      } else {
        members.push_back(Member{key, std::move(value.model)});
      }
    }
    if (input_.ConsumeBool()) shared_.emplace_back(object, model);
    return {DictionaryValue(object), std::move(model)};
  }

  FuzzedDataProvider& input_;
  int nodes_ = 0;
  std::vector<std::pair<Dictionary, Model>> shared_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  Builder builder(input);
  const Built tree = builder.Value(0);
  builder.ChangeShared();
  FUZZ_CHECK(Matches(tree.value, tree.model));

  const std::string text = JSONWrite(tree.value);
  std::string error;
  const auto parsed = JSONParseToDictionaryValue(text.data(), text.size(), &error);
  if (!parsed) std::fprintf(stderr, "written JSON refused: %s\n", error.c_str());
  FUZZ_CHECK(parsed.has_value());
  FUZZ_CHECK(Matches(*parsed, AfterJson(tree.model)));
  return 0;
}
