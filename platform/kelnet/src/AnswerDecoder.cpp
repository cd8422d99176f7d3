// Content-Encoding of answers: identity, gzip or deflate. See kelnet/internal/AnswerDecoder.h.

#include "kelnet/internal/AnswerDecoder.h"

#include <zlib.h>

#include <algorithm>
#include <array>

namespace kelnet::internal {
namespace {

bool Is(std::string_view text, std::string_view lowerName) {
  return text.size() == lowerName.size() &&
         std::equal(text.begin(), text.end(), lowerName.begin(),
                    [](char a, char b) { return (a >= 'A' && a <= 'Z' ? static_cast<char>(a - 'A' + 'a') : a) == b; });
}

}  // namespace

void AnswerDecoder::InflateEnd::operator()(z_stream_s* stream) const {
  inflateEnd(stream);
  delete stream;
}

AnswerDecoder::AnswerDecoder(std::string_view encoding) {
  if (!Is(encoding, "gzip") && !Is(encoding, "x-gzip") && !Is(encoding, "deflate")) return;
  auto* stream = new z_stream{};
  // 32: a zlib or a gzip wrapper, whichever the stream starts with.
  if (inflateInit2(stream, 32 + MAX_WBITS) != Z_OK) {
    delete stream;
    failed_ = true;
    return;
  }
  inflater_.reset(stream);
}

bool AnswerDecoder::Append(std::string& body, const std::uint8_t* data, std::size_t size, std::size_t limit,
                           const char*& why) {
  auto room = [&] { return limit - std::min(limit, body.size()); };
  if (failed_) {
    why = "answer could not be decoded";
    return false;
  }
  if (!inflater_) {
    if (size > room()) {
      why = "answer larger than its limit";
      return false;
    }
    body.append(reinterpret_cast<const char*>(data), size);
    return true;
  }
  z_stream& stream = *inflater_;
  stream.next_in = const_cast<Bytef*>(data);
  stream.avail_in = static_cast<uInt>(size);
  std::array<char, 16384> out;
  while (stream.avail_in > 0 && !ended_) {
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    const int result = inflate(&stream, Z_NO_FLUSH);
    const std::size_t produced = out.size() - stream.avail_out;
    if ((result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR) || (result == Z_BUF_ERROR && !produced)) {
      why = "answer could not be decoded";
      failed_ = true;
      return false;
    }
    if (produced > room()) {
      why = "answer larger than its limit";
      failed_ = true;
      return false;
    }
    body.append(out.data(), produced);
    ended_ = result == Z_STREAM_END;
  }
  if (ended_ && stream.avail_in > 0) {
    why = "answer could not be decoded";  // bytes after the end of the compressed stream
    failed_ = true;
    return false;
  }
  return true;
}

}  // namespace kelnet::internal
