#pragma once
// What a POST carried by kelnet's own HTTP/2 client needs besides the Request: the head it sends,
// its deadline, how far its body went, and the decoder of a compressed answer. It also keeps what
// curl needs to take the request over when the server turns out not to speak HTTP/2.
//
// Threads: filled on the caller's thread before hand-over (Prepare), the network thread's alone
// after.

#include <zlib.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kelcore/ImmutableString.h"
#include "kelnet/Response.h"
#include "kelnet/URL.h"

namespace kelnet {

struct Http2Exchange {
  using Clock = std::chrono::steady_clock;

  // For curl, should the origin answer the TLS handshake without "h2".
  kelcore::ImmutableString url;
  Configuration configuration;
  bool hasRange = false;

  std::string host;       // lower-case; IPv6 without brackets
  std::uint16_t port = 443;
  std::string authority;  // as the URL wrote it (host[:port])
  std::string target;     // path and query
  // The head after the pseudo-headers, names in lower case, in the order sent.
  std::vector<std::pair<std::string, std::string>> headers;
  Clock::time_point deadline = Clock::time_point::max();
  std::chrono::milliseconds connectTimeout{0};

  // Per attempt.
  int attempts = 0;
  bool sent = false;  // its HEADERS frame went out on this attempt
  std::size_t bodySent = 0;
  std::size_t headBytes = 0;

  // Builds the head and the deadline; the caller has checked the headers (Request::PrepareHeaders).
  void Prepare(const URLParts& parts, const HeaderMap& callerHeaders, std::size_t bodySize);
  // Forgets the attempt: the request starts over on another connection.
  void Restart();

  // Appends answer bytes to body, decoding them when the answer is compressed; false with the
  // reason when they cannot be decoded or the decoded body would pass limit.
  bool AppendBody(std::string& body, const HeaderMap& answerHeaders, const std::uint8_t* data, std::size_t size,
                  std::size_t limit, const char*& broken);
  // False when a compressed answer ended before its compressed stream did.
  bool BodyComplete() const { return !inflater || inflateDone; }

 private:
  struct InflateEnd {
    void operator()(z_stream* stream) const {
      inflateEnd(stream);
      delete stream;
    }
  };
  bool decodingChosen = false;
  bool inflateDone = false;
  std::unique_ptr<z_stream, InflateEnd> inflater;
};

}  // namespace kelnet
