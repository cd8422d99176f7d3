// The Dictionary tree: values and objects, read from a parsed document as views or held in
// copy-on-write storage of their own.

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "DictionaryDocument.h"

namespace kelcore::utility {

// --- DictionaryValue -------------------------------------------------------------------------

DictionaryValue::DictionaryValue() noexcept : integer_(0) {}
DictionaryValue::DictionaryValue(bool value) noexcept : kind_(Kind::Boolean), integer_(0) { boolean_ = value; }
DictionaryValue::DictionaryValue(long long value) noexcept : kind_(Kind::Integer), integer_(value) {}
DictionaryValue::DictionaryValue(unsigned long value) noexcept
    : DictionaryValue(static_cast<unsigned long long>(value)) {}
DictionaryValue::DictionaryValue(unsigned long long value) noexcept
    : kind_(value > std::uint64_t(std::numeric_limits<std::int64_t>::max()) ? Kind::UnsignedInteger : Kind::Integer),
      unsigned_(value) {}
DictionaryValue::DictionaryValue(double value) noexcept : kind_(Kind::Double), double_(value) {}

DictionaryValue::DictionaryValue(std::string_view text)
    : rep_(Rep::Text), kind_(Kind::String), integer_(0), storage_(std::make_shared<const std::string>(text)) {}

DictionaryValue::DictionaryValue(const Dictionary& object) : rep_(Rep::Object), kind_(Kind::Object), integer_(0) {
  if (object.owned_) {
    storage_ = object.owned_;
  } else if (object.view_) {
    rep_ = Rep::View;
    index_ = object.index_;
    storage_ = object.view_;
  }
}

DictionaryValue::DictionaryValue(std::vector<DictionaryValue> array)
    : rep_(Rep::Array), kind_(Kind::Array), integer_(0),
      storage_(std::make_shared<const detail::ArrayElements>(detail::ArrayElements{std::move(array)})) {}

DictionaryValue::DictionaryValue(std::shared_ptr<const ParsedDocument> document, std::uint32_t index) noexcept
    : integer_(0) {
  const Slot& slot = document->tape[index];
  kind_ = slot.kind;
  switch (slot.kind) {
    case Kind::Null: break;
    case Kind::Boolean: boolean_ = slot.payload != 0; break;
    case Kind::Integer:
    case Kind::UnsignedInteger: unsigned_ = slot.payload; break;
    case Kind::Double: double_ = std::bit_cast<double>(slot.payload); break;
    default:
      // Scalars are copied out; text and containers stay views that keep the document alive.
      rep_ = Rep::View;
      index_ = index;
      storage_ = std::move(document);
  }
}

DictionaryValue::~DictionaryValue() = default;

DictionaryValue::Kind DictionaryValue::GetKind() const noexcept { return kind_; }

bool DictionaryValue::AsBool(bool fallback) const noexcept { return kind_ == Kind::Boolean ? boolean_ : fallback; }

std::int64_t DictionaryValue::AsInt64(std::int64_t fallback) const noexcept { return IsInteger() ? integer_ : fallback; }

std::uint64_t DictionaryValue::AsUInt64(std::uint64_t fallback) const noexcept { return IsInteger() ? unsigned_ : fallback; }

double DictionaryValue::AsDouble(double fallback) const noexcept {
  switch (kind_) {
    case Kind::Integer: return static_cast<double>(integer_);
    case Kind::UnsignedInteger: return static_cast<double>(unsigned_);
    case Kind::Double: return double_;
    default: return fallback;
  }
}

std::string_view DictionaryValue::AsStringView() const noexcept {
  if (kind_ != Kind::String) return {};
  if (rep_ == Rep::View) return static_cast<const ParsedDocument*>(storage_.get())->Text(index_);
  return *static_cast<const std::string*>(storage_.get());
}

Dictionary DictionaryValue::AsDictionary() const {
  Dictionary result;
  if (kind_ != Kind::Object) return result;
  if (rep_ == Rep::View) {
    result.view_ = std::static_pointer_cast<const ParsedDocument>(storage_);
    result.index_ = index_;
  } else if (storage_) {
    // Shared, not copied: the dictionary copies on its first write while we still hold it.
    result.owned_ = std::const_pointer_cast<detail::ObjectEntries>(std::static_pointer_cast<const detail::ObjectEntries>(storage_));
  }
  return result;
}

std::vector<DictionaryValue> DictionaryValue::AsArray() const {
  std::vector<DictionaryValue> result;
  if (kind_ != Kind::Array) return result;
  if (rep_ == Rep::View) {
    auto document = std::static_pointer_cast<const ParsedDocument>(storage_);
    result.reserve(document->tape[index_].count);
    document->ForEachElement(index_, [&](std::uint32_t element) {
      result.push_back(DictionaryValue(document, element));
      return true;
    });
  } else {
    result = static_cast<const detail::ArrayElements*>(storage_.get())->elements;
  }
  return result;
}

std::size_t DictionaryValue::Size() const noexcept {
  if (kind_ != Kind::Array && kind_ != Kind::Object) return 0;
  if (rep_ == Rep::View) return static_cast<const ParsedDocument*>(storage_.get())->tape[index_].count;
  if (!storage_) return 0;
  if (kind_ == Kind::Array) return static_cast<const detail::ArrayElements*>(storage_.get())->elements.size();
  return static_cast<const detail::ObjectEntries*>(storage_.get())->entries.size();
}

namespace {

bool SameDouble(double a, double b) noexcept { return a == b || (std::isnan(a) && std::isnan(b)); }

// Deep comparison of two parsed sub-trees without materialising values.
bool TapeEqual(const ParsedDocument& a, std::uint32_t i, const ParsedDocument& b, std::uint32_t j) {
  const Slot& x = a.tape[i];
  const Slot& y = b.tape[j];
  if (x.kind != y.kind) return false;
  switch (x.kind) {
    case Kind::Null: return true;
    case Kind::Boolean:
    case Kind::Integer:
    case Kind::UnsignedInteger: return x.payload == y.payload;
    case Kind::Double: return SameDouble(std::bit_cast<double>(x.payload), std::bit_cast<double>(y.payload));
    case Kind::String: return a.Text(i) == b.Text(j);
    case Kind::Array: {
      if (x.count != y.count) return false;
      std::uint32_t other = j + 1;
      bool equal = true;
      a.ForEachElement(i, [&](std::uint32_t element) {
        equal = TapeEqual(a, element, b, other);
        other = b.Next(other);
        return equal;
      });
      return equal;
    }
    case Kind::Object: {
      if (x.count != y.count) return false;
      // Members usually come in the same order; look keys up only when they do not.
      bool ordered = true;
      bool equal = true;
      std::uint32_t otherKey = j + 1;
      a.ForEachMember(i, [&](std::uint32_t key, std::uint32_t value) {
        while (b.tape[otherKey].flags & detail::kShadowed) otherKey = b.Next(otherKey + 1);
        if (a.Text(key) != b.Text(otherKey)) return ordered = false;
        equal = TapeEqual(a, value, b, otherKey + 1);
        otherKey = b.Next(otherKey + 1);
        return equal;
      });
      if (ordered) return equal;
      equal = true;
      a.ForEachMember(i, [&](std::uint32_t key, std::uint32_t value) {
        const std::uint32_t found = b.Find(j, a.Text(key));
        equal = found != 0 && TapeEqual(a, value, b, found);
        return equal;
      });
      return equal;
    }
  }
  return false;
}

}  // namespace

bool operator==(const DictionaryValue& a, const DictionaryValue& b) {
  using Rep = DictionaryValue::Rep;
  if (a.kind_ != b.kind_) return false;
  switch (a.kind_) {
    case Kind::Null: return true;
    case Kind::Boolean: return a.boolean_ == b.boolean_;
    case Kind::Integer:
    case Kind::UnsignedInteger: return a.unsigned_ == b.unsigned_;
    case Kind::Double: return SameDouble(a.double_, b.double_);
    case Kind::String: return a.AsStringView() == b.AsStringView();
    case Kind::Array:
    case Kind::Object:
      if (a.rep_ == Rep::View && b.rep_ == Rep::View) {
        return TapeEqual(*static_cast<const ParsedDocument*>(a.storage_.get()), a.index_,
                         *static_cast<const ParsedDocument*>(b.storage_.get()), b.index_);
      }
      if (a.kind_ == Kind::Object) return a.AsDictionary() == b.AsDictionary();
      return a.AsArray() == b.AsArray();
  }
  return false;
}

// --- Dictionary ------------------------------------------------------------------------------

Dictionary::Dictionary() noexcept = default;

Dictionary::Dictionary(std::initializer_list<std::pair<ImmutableString, DictionaryValue>> entries) {
  for (const auto& [key, value] : entries) Set(key, value);
}

Dictionary::~Dictionary() = default;

std::size_t Dictionary::size() const noexcept {
  if (owned_) return owned_->entries.size();
  if (view_) return view_->tape[index_].count;
  return 0;
}

bool Dictionary::Contains(std::string_view key) const noexcept {
  if (owned_) {
    return std::any_of(owned_->entries.begin(), owned_->entries.end(),
                       [&](const auto& entry) { return entry.first.View() == key; });
  }
  return view_ && view_->Find(index_, key) != 0;
}

std::optional<DictionaryValue> Dictionary::Get(std::string_view key) const {
  if (owned_) {
    for (const auto& [name, value] : owned_->entries) {
      if (name.View() == key) return value;
    }
    return std::nullopt;
  }
  if (view_) {
    if (const std::uint32_t found = view_->Find(index_, key)) return DictionaryValue(view_, found);
  }
  return std::nullopt;
}

std::string Dictionary::GetString(std::string_view key, std::string_view fallback) const {
  if (!owned_ && view_) {
    const std::uint32_t found = view_->Find(index_, key);
    if (found && view_->tape[found].kind == Kind::String) return std::string(view_->Text(found));
    return std::string(fallback);
  }
  const auto value = Get(key);
  return value && value->IsString() ? value->AsString() : std::string(fallback);
}

ImmutableString Dictionary::GetImmutableString(std::string_view key) const {
  if (!owned_ && view_) {
    const std::uint32_t found = view_->Find(index_, key);
    if (found && view_->tape[found].kind == Kind::String) return ImmutableString(view_->Text(found));
    return ImmutableString();
  }
  const auto value = Get(key);
  return value ? value->AsImmutableString() : ImmutableString();
}

std::int64_t Dictionary::GetInteger(std::string_view key, std::int64_t fallback) const {
  const auto value = Get(key);
  return value ? value->AsInt64(fallback) : fallback;
}

double Dictionary::GetDouble(std::string_view key, double fallback) const {
  const auto value = Get(key);
  return value ? value->AsDouble(fallback) : fallback;
}

bool Dictionary::GetBool(std::string_view key, bool fallback) const {
  const auto value = Get(key);
  return value ? value->AsBool(fallback) : fallback;
}

Dictionary Dictionary::GetDictionary(std::string_view key) const {
  const auto value = Get(key);
  return value ? value->AsDictionary() : Dictionary();
}

std::vector<DictionaryValue> Dictionary::GetArray(std::string_view key) const {
  const auto value = Get(key);
  return value ? value->AsArray() : std::vector<DictionaryValue>();
}

void Dictionary::MakeOwned() {
  if (view_) {
    auto entries = std::make_shared<detail::ObjectEntries>();
    entries->entries.reserve(view_->tape[index_].count);
    view_->ForEachMember(index_, [&](std::uint32_t key, std::uint32_t value) {
      entries->entries.emplace_back(ImmutableString(view_->Text(key)), DictionaryValue(view_, value));
      return true;
    });
    owned_ = std::move(entries);
    view_.reset();
    index_ = 0;
  } else if (!owned_) {
    owned_ = std::make_shared<detail::ObjectEntries>();
  } else {
    // use_count() alone reads relaxed, which would not order our writes after the reads of a
    // thread that just dropped the last other reference. Taking a reference first is an
    // acquire-release step on the same count, and does (and ThreadSanitizer sees it).
    const std::shared_ptr<detail::ObjectEntries> probe = owned_;
    if (probe.use_count() != 2) owned_ = std::make_shared<detail::ObjectEntries>(*owned_);
  }
}

void Dictionary::Set(const ImmutableString& key, DictionaryValue value) {
  MakeOwned();
  for (auto& entry : owned_->entries) {
    if (entry.first == key) {
      entry.second = std::move(value);
      return;
    }
  }
  owned_->entries.emplace_back(key, std::move(value));
}

bool Dictionary::Remove(std::string_view key) {
  if (!Contains(key)) return false;
  MakeOwned();
  auto& entries = owned_->entries;
  entries.erase(std::find_if(entries.begin(), entries.end(), [&](const auto& entry) { return entry.first.View() == key; }));
  return true;
}

std::vector<std::pair<ImmutableString, DictionaryValue>> Dictionary::Entries() const {
  if (owned_) return owned_->entries;
  std::vector<std::pair<ImmutableString, DictionaryValue>> result;
  if (view_) {
    result.reserve(view_->tape[index_].count);
    view_->ForEachMember(index_, [&](std::uint32_t key, std::uint32_t value) {
      result.emplace_back(ImmutableString(view_->Text(key)), DictionaryValue(view_, value));
      return true;
    });
  }
  return result;
}

bool operator==(const Dictionary& a, const Dictionary& b) {
  if (a.size() != b.size()) return false;
  if (!a.owned_ && !b.owned_ && a.view_ && b.view_) return TapeEqual(*a.view_, a.index_, *b.view_, b.index_);
  const auto left = a.Entries();
  const auto right = b.Entries();
  bool ordered = true;
  for (std::size_t i = 0; i < left.size() && ordered; ++i) ordered = left[i].first == right[i].first;
  if (ordered) {
    for (std::size_t i = 0; i < left.size(); ++i) {
      if (!(left[i].second == right[i].second)) return false;
    }
    return true;
  }
  for (const auto& [key, value] : left) {
    const auto other = b.Get(key.View());
    if (!other || !(value == *other)) return false;
  }
  return true;
}

}  // namespace kelcore::utility
