// An answer's head as a server may send it: header lines and Content-Range. Whatever comes in,
// a Content-Range that is accepted describes bytes that exist, and reads back the same when
// written in its canonical form; a header line never yields a name that is not a token or a
// value that could end the line early.

#include <cstdint>
#include <string>
#include <string_view>

#include "FuzzCheck.h"
#include "kelnet/internal/HeaderParsing.h"

using kelnet::internal::HeaderLine;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);

  if (const auto range = kelnet::internal::ParseContentRange(text)) {
    FUZZ_CHECK(range->first <= range->last);
    if (range->total) FUZZ_CHECK(range->last < *range->total);
    const std::string canonical = "bytes " + std::to_string(range->first) + "-" + std::to_string(range->last) + "/" +
                                  (range->total ? std::to_string(*range->total) : "*");
    const auto again = kelnet::internal::ParseContentRange(canonical);
    FUZZ_CHECK(again && again->first == range->first && again->last == range->last && again->total == range->total);
  }

  const HeaderLine line = kelnet::internal::ParseHeaderLine(text);
  if (line.kind == HeaderLine::Kind::Field) {
    FUZZ_CHECK(kelnet::internal::IsHeaderNameToken(line.name));
    for (char c : line.name) FUZZ_CHECK(!(c >= 'A' && c <= 'Z'));
    FUZZ_CHECK(line.value.find_first_of("\r\n") == std::string_view::npos);
  }
  if (line.kind == HeaderLine::Kind::Status) FUZZ_CHECK(line.status >= 0 && line.status <= 999);
  if (line.kind == HeaderLine::Kind::Field || line.kind == HeaderLine::Kind::Continuation) {
    // The value is a view into the line it came from.
    FUZZ_CHECK(line.value.data() >= text.data() && line.value.data() + line.value.size() <= text.data() + text.size());
  }
  return 0;
}
