// A compressed answer decodes to exactly its bytes, in chunks of any size, or fails with a
// reason; it never grows past its limit however far it would inflate.

#include <gtest/gtest.h>
#include <zlib.h>

#include <string>

#include "kelnet/internal/AnswerDecoder.h"

namespace {

// windowBits 31: gzip; 15: zlib (what "deflate" means on the web).
std::string Compress(const std::string& text, int windowBits) {
  z_stream stream{};
  deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY);
  std::string out(deflateBound(&stream, text.size()) + 32, '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  deflate(&stream, Z_FINISH);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return out;
}

// The body, or "failed: <why>", or "incomplete: <body>".
std::string Decode(const char* encoding, const std::string& wire, std::size_t chunk, std::size_t limit = 1 << 20) {
  kelnet::internal::AnswerDecoder decoder(encoding);
  std::string body;
  const char* why = nullptr;
  for (std::size_t at = 0; at < wire.size(); at += chunk) {
    const auto size = std::min(chunk, wire.size() - at);
    if (!decoder.Append(body, reinterpret_cast<const std::uint8_t*>(wire.data()) + at, size, limit, why)) {
      EXPECT_LE(body.size(), limit);
      return std::string("failed: ") + why;
    }
  }
  return decoder.Complete() ? body : "incomplete: " + body;
}

TEST(AnswerDecoderTest, EncodedBodiesDecodeExactlyOrFail) {
  const std::string json = R"({"data":{"me":{"id":"ünï","pad":")" + std::string(40000, 'x') + "\"}}}";
  const std::string gzip = Compress(json, 31);
  const std::string zlib = Compress(json, 15);
  for (std::size_t chunk : {std::size_t{1}, std::size_t{7}, std::size_t{1} << 20}) {
    EXPECT_EQ(Decode("gzip", gzip, chunk), json) << chunk;
    EXPECT_EQ(Decode("X-GZIP", gzip, chunk), json) << chunk;
    EXPECT_EQ(Decode("deflate", zlib, chunk), json) << chunk;
    EXPECT_EQ(Decode("", json, chunk), json) << chunk;
  }
  // An encoding it was not offered passes through untouched.
  EXPECT_EQ(Decode("br", gzip, 100), gzip);
  // Cut short: what came is a prefix of the body, and the answer is not complete.
  const std::string cut = Decode("gzip", gzip.substr(0, gzip.size() - 9), 100);
  EXPECT_EQ(cut.rfind("incomplete: ", 0), 0u);
  EXPECT_EQ(json.rfind(cut.substr(12), 0), 0u);
  EXPECT_EQ(Decode("gzip", gzip + "tail", 100), "failed: answer could not be decoded");
  EXPECT_EQ(Decode("gzip", json, 100), "failed: answer could not be decoded");
  // The limit is of the decoded body, to the byte.
  for (const auto& [encoding, wire] : {std::pair{"", json}, std::pair{"gzip", gzip}}) {
    EXPECT_EQ(Decode(encoding, wire, 100, json.size()), json) << encoding;
    EXPECT_EQ(Decode(encoding, wire, 100, json.size() - 1), "failed: answer larger than its limit") << encoding;
  }
  // 64 MiB of zeros in a few dozen KiB: refused at the limit, not after inflating them all.
  EXPECT_EQ(Decode("gzip", Compress(std::string(64 << 20, '\0'), 31), 4096, 100000),
            "failed: answer larger than its limit");
}

}  // namespace
