#pragma once
// The body of an answer as its Content-Encoding says it was sent: identity, or gzip/deflate
// (zlib), decoded as it arrives. Internal to the platform: kelnet's HTTP/2 client uses it (curl
// decodes its own answers); not part of what a product is written against.
//
// The bytes are a server's and may be anything: they either decode within the limit or the
// decoder says why not; a body never grows past the limit, however far the data would inflate.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

struct z_stream_s;  // zlib's

namespace kelnet::internal {

class AnswerDecoder {
 public:
  // encoding: the answer's Content-Encoding ("" when none); one it does not know is passed
  // through as it is, as curl does with an encoding it was not asked for.
  explicit AnswerDecoder(std::string_view encoding);
  // Appends the decoded bytes to body; false, with the reason, when they cannot be decoded or
  // the body would pass limit. Nothing more is taken after a refusal.
  bool Append(std::string& body, const std::uint8_t* data, std::size_t size, std::size_t limit, const char*& why);
  // False when a compressed body ended before its compressed stream did.
  bool Complete() const { return !inflater_ || ended_; }

 private:
  struct InflateEnd {
    void operator()(z_stream_s* stream) const;
  };
  std::unique_ptr<z_stream_s, InflateEnd> inflater_;
  bool ended_ = false;
  bool failed_ = false;
};

}  // namespace kelnet::internal
