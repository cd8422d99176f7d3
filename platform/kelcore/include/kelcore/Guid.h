#pragma once
// Guid: a 128-bit identifier, text form lower-case 8-4-4-4-12.

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace kelcore::utility {

class Guid {
 public:
  constexpr Guid() noexcept : bytes_{} {}  // the nil Guid
  // Parses text; malformed text gives the nil Guid (use TryParse to tell the two apart).
  explicit Guid(std::string_view text) noexcept;

  // Accepts 8-4-4-4-12 hex in any letter case, optionally in braces.
  static std::optional<Guid> TryParse(std::string_view text) noexcept;
  // Random, RFC 4122 version 4, from the OS's random source.
  static Guid CreateUnique();

  bool IsNil() const noexcept;
  std::string ToString() const;  // lower-case 8-4-4-4-12
  const std::array<std::uint8_t, 16>& Bytes() const noexcept { return bytes_; }

  friend bool operator==(const Guid&, const Guid&) noexcept = default;
  friend auto operator<=>(const Guid&, const Guid&) noexcept = default;

 private:
  std::array<std::uint8_t, 16> bytes_;
};

}  // namespace kelcore::utility

template <>
struct std::hash<kelcore::utility::Guid> {
  std::size_t operator()(const kelcore::utility::Guid& g) const noexcept;
};
