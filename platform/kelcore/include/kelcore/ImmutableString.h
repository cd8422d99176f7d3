#pragma once
// ImmutableString: an interned, immutable, shared UTF-8 string.
//
// Equal texts share one storage, so equality and hashing are pointer operations. Interning
// goes through a sharded table (one lock per shard), so threads creating strings in parallel
// rarely meet on a lock; copies only touch an atomic reference count. Storage is released
// when the last reference goes, so secrets held as ImmutableString do not outlive their use.

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

namespace kelcore {

namespace detail {
struct InternedText;  // defined in ImmutableString.cpp
}

class ImmutableString {
 public:
  ImmutableString() noexcept;  // the empty string (no allocation)
  ImmutableString(std::string_view text);
  ImmutableString(const char* text) : ImmutableString(std::string_view(text ? text : "")) {}
  ImmutableString(const std::string& text) : ImmutableString(std::string_view(text)) {}
  ImmutableString(const std::basic_string<unsigned char>& utf8);

  ImmutableString(const ImmutableString& other) noexcept;
  ImmutableString(ImmutableString&& other) noexcept;
  ImmutableString& operator=(const ImmutableString& other) noexcept;
  ImmutableString& operator=(ImmutableString&& other) noexcept;
  ~ImmutableString();

  std::string_view View() const noexcept;
  const char* c_str() const noexcept;  // NUL-terminated
  std::size_t size() const noexcept;
  bool empty() const noexcept { return size() == 0; }
  std::string ToStdString() const { return std::string(View()); }
  std::size_t Hash() const noexcept;

  // Identity: equal texts are the same storage.
  friend bool operator==(const ImmutableString& a, const ImmutableString& b) noexcept { return a.text_ == b.text_; }
  // Text order, so ordered containers sort by name and iterate deterministically.
  friend bool operator<(const ImmutableString& a, const ImmutableString& b) noexcept { return a.View() < b.View(); }
  friend bool operator==(const ImmutableString& a, std::string_view b) noexcept { return a.View() == b; }
  // Literals and std::strings convert both to ImmutableString and to string_view; these pick
  // the text comparison (which does not intern the other side) without ambiguity.
  friend bool operator==(const ImmutableString& a, const char* b) noexcept {
    return a.View() == std::string_view(b ? b : "");
  }
  friend bool operator==(const ImmutableString& a, const std::string& b) noexcept { return a.View() == b; }

  // Number of distinct texts currently interned (for tests and diagnostics).
  static std::size_t InternedCount();

 private:
  detail::InternedText* text_;
};

std::ostream& operator<<(std::ostream& out, const ImmutableString& s);

}  // namespace kelcore

template <>
struct std::hash<kelcore::ImmutableString> {
  std::size_t operator()(const kelcore::ImmutableString& s) const noexcept { return s.Hash(); }
};
