#pragma once
// What a POST carried by kelnet's own HTTP/2 client needs besides the Request: the head it sends,
// its deadline, how far its body went, and the decoder of its answer. It also keeps what
// curl needs to take the request over when the server turns out not to speak HTTP/2.
//
// Threads: filled on the caller's thread before hand-over (Prepare), the network thread's alone
// after.

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kelcore/ImmutableString.h"
#include "kelnet/Response.h"
#include "kelnet/URL.h"
#include "kelnet/internal/AnswerDecoder.h"

namespace kelnet {

struct Http2Exchange {
  using Clock = std::chrono::steady_clock;

  // For curl, should the origin answer the TLS handshake without "h2".
  kelcore::ImmutableString url;
  Configuration configuration;

  std::string host;  // lower-case; IPv6 without brackets
  std::uint16_t port = 443;
  // The head after the pseudo-headers, names in lower case, in the order sent. The views point
  // into url, callerHeaders, lowered, contentLength or static text: nothing is copied per request
  // but what must change.
  std::string_view authority;  // as the URL wrote it (host[:port]), or the caller's Host
  std::string_view target;     // path and query
  std::vector<std::pair<std::string_view, std::string_view>> headers;
  // The caller's headers, as given (curl's, should the origin turn out not to speak HTTP/2).
  std::vector<std::pair<kelcore::ImmutableString, kelcore::ImmutableString>> callerHeaders;
  Clock::time_point deadline = Clock::time_point::max();
  std::chrono::milliseconds connectTimeout{0};

  // Per attempt.
  int attempts = 0;
  bool sent = false;  // its HEADERS frame went out on this attempt
  std::size_t bodySent = 0;
  std::size_t headBytes = 0;
  // Of the answer's head, noted as its fields go by: the first Content-Length and
  // Content-Encoding (short texts: no allocation).
  std::optional<std::string> announcedLength;
  std::optional<std::string> encoding;

  // Builds the head and the deadline; the caller has checked the headers (Request::PrepareHeaders).
  // now: the time the request was submitted, its deadline counted from it.
  void Prepare(const URLParts& parts, const HeaderMap& headersGiven, std::size_t bodySize, Clock::time_point now);
  // Forgets the attempt: the request starts over on another connection.
  void Restart();

  // The decoder of this attempt's answer body, made when its first bytes arrive.
  std::optional<internal::AnswerDecoder> decoder;

 private:
  std::vector<std::string> lowered;  // caller's names that were not in lower case (rare)
  std::string ownTarget;             // "/" before a query when the URL has no path
  char contentLength[24] = {};
};

}  // namespace kelnet
