#pragma once
// Sha256: the SHA-256 digest (FIPS 180-4) of a file, for the demo's proof that the bytes arrived.
// The CLI links only the library, so it carries this small one of its own.

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

namespace ostrio {

class Sha256 {
 public:
  Sha256();
  void Update(const void* data, std::size_t size);
  // The digest in lower-case hex; the object is spent afterwards.
  std::string HexDigest();

  // The digest of a file's content; throws CliError when it cannot be read.
  static std::string OfFile(const std::filesystem::path& path);

 private:
  void Block(const std::uint8_t* block);

  std::array<std::uint32_t, 8> state_;
  std::array<std::uint8_t, 64> buffer_{};
  std::size_t buffered_ = 0;
  std::uint64_t length_ = 0;
};

}  // namespace ostrio
