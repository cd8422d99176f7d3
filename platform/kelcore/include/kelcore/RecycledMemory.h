#pragma once
// RecycledMemory: a shared, immutable byte buffer. Request bodies are serialised once into one
// and shared by every attempt of the request (retries resend it without copying).

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

namespace kelcore::allocator {

class RecycledMemory {
 public:
  static std::shared_ptr<const RecycledMemory> Copy(const void* data, std::size_t size) {
    auto memory = std::shared_ptr<RecycledMemory>(new RecycledMemory(size));
    if (size) std::memcpy(memory->bytes_.get(), data, size);
    return memory;
  }
  static std::shared_ptr<const RecycledMemory> Copy(std::string_view text) { return Copy(text.data(), text.size()); }

  const std::uint8_t* Data() const noexcept { return bytes_.get(); }
  std::size_t Size() const noexcept { return size_; }
  std::string_view View() const noexcept { return {reinterpret_cast<const char*>(bytes_.get()), size_}; }

 private:
  explicit RecycledMemory(std::size_t size) : bytes_(new std::uint8_t[size ? size : 1]), size_(size) {}
  std::unique_ptr<std::uint8_t[]> bytes_;
  std::size_t size_;
};

}  // namespace kelcore::allocator
