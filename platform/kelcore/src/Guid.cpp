#include "kelcore/Guid.h"

#include <sys/random.h>

#include <pthread.h>

#include <array>
#include <cerrno>
#include <mutex>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "kelcore/KelException.h"

namespace kelcore::utility {
namespace {

int HexValue(char c) noexcept {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Reads from /dev/urandom where getrandom(2) is missing (kernels before 3.17, some sandboxes).
bool ReadURandom(std::uint8_t* out, std::size_t size) noexcept {
  const int fd = ::open("/dev/urandom", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  std::size_t done = 0;
  while (done < size) {
    const ssize_t got = ::read(fd, out + done, size - done);
    if (got > 0) {
      done += static_cast<std::size_t>(got);
    } else if (got < 0 && errno == EINTR) {
      continue;
    } else {
      break;
    }
  }
  ::close(fd);
  return done == size;
}

bool FillRandom(std::uint8_t* out, std::size_t size) noexcept {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t got = ::getrandom(out + done, size - done, 0);
    if (got > 0) {
      done += static_cast<std::size_t>(got);
    } else if (got < 0 && errno == EINTR) {
      continue;
    } else {
      return ReadURandom(out, size);
    }
  }
  return true;
}

// Every request carries a new Guid: one getrandom call per 256 of them instead of one each. The
// bytes are the kernel's, handed out once; a forked child drops what its parent had fetched, so
// the two never hand out the same ones.
struct RandomReserve {
  std::array<std::uint8_t, 4096> bytes;
  std::size_t used = sizeof(bytes);
};
thread_local RandomReserve reserve;

bool TakeRandom(std::uint8_t* out, std::size_t size) noexcept {
  static std::once_flag atFork;
  std::call_once(atFork, [] { ::pthread_atfork(nullptr, nullptr, [] { reserve.used = sizeof(reserve.bytes); }); });
  if (reserve.used + size > reserve.bytes.size()) {
    if (!FillRandom(reserve.bytes.data(), reserve.bytes.size())) return false;
    reserve.used = 0;
  }
  std::memcpy(out, reserve.bytes.data() + reserve.used, size);
  // Taken bytes do not stay behind in the reserve.
  std::memset(reserve.bytes.data() + reserve.used, 0, size);
  reserve.used += size;
  return true;
}

}  // namespace

Guid::Guid(std::string_view text) noexcept : Guid(TryParse(text).value_or(Guid())) {}

std::optional<Guid> Guid::TryParse(std::string_view text) noexcept {
  if (text.size() == 38 && text.front() == '{' && text.back() == '}') text = text.substr(1, 36);
  if (text.size() != 36) return std::nullopt;
  Guid guid;
  std::size_t byte = 0;
  for (std::size_t i = 0; i < text.size();) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (text[i] != '-') return std::nullopt;
      ++i;
      continue;
    }
    const int high = HexValue(text[i]);
    const int low = HexValue(text[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    guid.bytes_[byte++] = static_cast<std::uint8_t>(high << 4 | low);
    i += 2;
  }
  return guid;
}

Guid Guid::CreateUnique() {
  Guid guid;
  KEL_THROW_IF(!TakeRandom(guid.bytes_.data(), guid.bytes_.size()), kErrorFailed, "no source of random bytes");
  guid.bytes_[6] = static_cast<std::uint8_t>((guid.bytes_[6] & 0x0F) | 0x40);  // version 4
  guid.bytes_[8] = static_cast<std::uint8_t>((guid.bytes_[8] & 0x3F) | 0x80);  // RFC 4122 variant
  return guid;
}

bool Guid::IsNil() const noexcept { return *this == Guid(); }

std::string Guid::ToString() const {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(36);
  for (std::size_t i = 0; i < bytes_.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) out += '-';
    out += kDigits[bytes_[i] >> 4];
    out += kDigits[bytes_[i] & 0xF];
  }
  return out;
}

}  // namespace kelcore::utility

std::size_t std::hash<kelcore::utility::Guid>::operator()(const kelcore::utility::Guid& g) const noexcept {
  std::uint64_t high = 0;
  std::uint64_t low = 0;
  std::memcpy(&high, g.Bytes().data(), 8);
  std::memcpy(&low, g.Bytes().data() + 8, 8);
  // Random Guids are already uniform; the multiply spreads structured ones (sequential ids).
  return static_cast<std::size_t>((high ^ (low * 0x9E3779B97F4A7C15ull)) * 0xBF58476D1CE4E5B9ull);
}
