#pragma once
// Response, Progress, Configuration, StatusCode.

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "kelcore/ImmutableString.h"

namespace kelnet {

// Header multimap: ordered by name, duplicates kept in arrival order.
using HeaderMap = std::multimap<kelcore::ImmutableString, kelcore::ImmutableString>;

enum StatusCode : int {
  kStatusNone = 0,
  kStatusOK = 200,
  kStatusPartialContent = 206,
  kStatusBadRequest = 400,
  kStatusUnauthorized = 401,
  kStatusNotFound = 404,
  kStatusPreconditionFailed = 412,
  kStatusRangeNotSatisfiable = 416,
  kStatusTooManyRequests = 429,
  kStatusInternalServerError = 500,
  kStatusBadGateway = 502,
  kStatusServiceUnavailable = 503,
  kStatusGatewayTimeout = 504,
};

struct Progress {
  std::uint64_t bytesReceived = 0;  // body bytes so far
  std::uint64_t totalBytes = 0;     // 0 when unknown
  std::uint64_t bytesSent = 0;
};

// Per-request options. The defaults are what the service needs: no redirects, peer verified,
// compressed answers accepted.
struct Configuration {
  bool followRedirects = false;
  bool verifyPeer = true;  // TLS verification is never turned off: a request asking for it is refused
  bool acceptCompressed = true;  // ignored for requests that carry a Range (offsets are of the raw bytes)
  // An extra CA bundle (PEM) trusted besides the system store; empty: the system store only.
  // Which bundle a product trusts is its own setting: it names it here (or through its service).
  std::string caBundlePath;
  std::string proxy;         // empty: the environment's proxy settings
  std::string userAgent;     // empty: "ostriolib/<version>"
  std::chrono::milliseconds connectTimeout{15000};
  // A transfer slower than lowSpeedBytesPerSecond for lowSpeedTime is aborted.
  std::chrono::milliseconds lowSpeedTime{30000};
  std::uint32_t lowSpeedBytesPerSecond = 1;
  // POST only: HTTP/2 over TLS when the server offers it, several requests multiplexed on one
  // connection. False keeps the request on HTTP/1.1. A streaming GET is always HTTP/1.1.
  bool allowHttp2 = true;
  std::size_t receiveBufferSize = 0;  // bytes; 0: the transport's default
  // POST only: an answer body (decoded) longer than this fails the request with a null response
  // and the reason in the log, before more of it is held. 64 MiB is some forty times the largest
  // page of results the service sends. A streaming GET holds no body: its bytes go to the consumer.
  std::size_t maxAnswerBodyBytes = 64 * 1024 * 1024;
  // POST only: the whole exchange, connecting included, ends within this or fails with a null
  // response; 0: no limit. A streaming GET has none: a download of any size may take its time, and
  // the stall rule above (lowSpeed*) ends one that stops moving.
  std::chrono::milliseconds deadline{120000};
};

class Response {
 public:
  // An answer's fields as they arrived: each name and each value followed by a NUL, names in lower
  // case and no NUL inside either (what HTTP/2 guarantees).
  struct ReceivedFields {
    std::string text;
  };

  Response() = default;
  Response(int status, HeaderMap headers, std::string body, std::string httpVersion = "1.1")
      : status_(status), headers_(std::move(headers)), body_(std::move(body)), httpVersion_(std::move(httpVersion)) {}
  // The header map is made from the fields the first time it is asked for: most answers are read
  // for their status and body alone, and a map costs an allocation and an interned name and value
  // per field.
  Response(int status, ReceivedFields fields, std::string body, std::string httpVersion)
      : status_(status),
        fields_(std::move(fields.text)),
        body_(std::move(body)),
        httpVersion_(std::move(httpVersion)) {}
  Response(const Response&) = delete;
  Response& operator=(const Response&) = delete;

  int StatusCode() const noexcept { return status_; }
  bool IsSuccess() const noexcept { return status_ >= 200 && status_ <= 299; }
  // Safe from any number of threads at once, like every other accessor.
  const HeaderMap& Headers() const;
  // First / last value of the (lower-case) header name; empty when absent.
  kelcore::ImmutableString FirstHeader(std::string_view name) const;
  kelcore::ImmutableString LastHeader(std::string_view name) const;
  const std::string& Body() const noexcept { return body_; }
  const std::string& HttpVersion() const noexcept { return httpVersion_; }  // "1.1" or "2"

 private:
  void MakeHeaders() const;

  int status_ = kStatusNone;
  std::string fields_;  // ReceivedFields' text, until the map is made
  mutable std::once_flag headersMade_;
  mutable HeaderMap headers_;
  std::string body_;
  std::string httpVersion_;
};

}  // namespace kelnet
