// The head of a POST over kelnet's own HTTP/2 connections.

#include "Http2Exchange.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <string_view>

namespace kelnet {
namespace {

std::string Lower(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lower;
}

// Fields that describe an HTTP/1.1 connection or a body framing of its own: HTTP/2 forbids them,
// or frames the body itself (content-length is ours to send).
bool IsConnectionSpecific(std::string_view name) {
  constexpr std::array<std::string_view, 8> kNames = {"connection", "keep-alive",     "proxy-connection", "upgrade",
                                                      "te",         "transfer-encoding", "expect",        "content-length"};
  return std::find(kNames.begin(), kNames.end(), name) != kNames.end();
}

}  // namespace

void Http2Exchange::Prepare(const URLParts& parts, const HeaderMap& headersGiven, std::size_t bodySize,
                            Clock::time_point now) {
  host = parts.host;
  port = parts.port.value_or(443);
  // The URL's own text: after "scheme://" (no user info on this path) up to the path, then up to
  // a fragment.
  const std::string_view text = url.View();
  const std::size_t start = text.find("://") + 3;
  // By hand: find_first_of calls memchr on the three characters for every character of the URL.
  std::size_t pathAt = start;
  while (pathAt < text.size() && text[pathAt] != '/' && text[pathAt] != '?' && text[pathAt] != '#') ++pathAt;
  authority = text.substr(start, pathAt - start);
  target = text.substr(pathAt, std::min(text.find('#', pathAt), text.size()) - pathAt);
  if (target.empty() || target.front() != '/') {
    ownTarget = "/" + std::string(target);
    target = ownTarget;
  }

  callerHeaders.assign(headersGiven.begin(), headersGiven.end());
  lowered.clear();
  headers.clear();
  headers.reserve(callerHeaders.size() + 4);
  bool hasRange = false;
  bool hasUserAgent = false, hasAccept = false, hasAcceptEncoding = false;
  for (const auto& [name, value] : callerHeaders) {
    std::string_view lower = name.View();
    if (std::any_of(lower.begin(), lower.end(), [](char c) { return c >= 'A' && c <= 'Z'; })) {
      // Views into it are taken as it grows: room for every name first.
      if (lowered.empty()) lowered.reserve(callerHeaders.size());
      lowered.push_back(Lower(lower));
      lower = lowered.back();
    }
    if (lower == "range") hasRange = true;
    if (lower == "host") {
      if (!value.empty()) authority = value.View();
      continue;
    }
    if (IsConnectionSpecific(lower)) continue;
    hasUserAgent = hasUserAgent || lower == "user-agent";
    hasAccept = hasAccept || lower == "accept";
    hasAcceptEncoding = hasAcceptEncoding || lower == "accept-encoding";
    headers.emplace_back(lower, value.View());
  }
  auto front = headers.begin();
  if (!hasUserAgent) {
    static const std::string_view kDefault = "ostriolib/" KELNET_VERSION;
    front = headers.emplace(front, "user-agent", configuration.userAgent.empty() ? kDefault
                                                                                : std::string_view(configuration.userAgent));
    ++front;
  }
  if (!hasAccept) front = headers.emplace(front, "accept", "*/*") + 1;
  if (configuration.acceptCompressed && !hasRange && !hasAcceptEncoding) {
    headers.emplace(front, "accept-encoding", "deflate, gzip");
  }
  const auto written = std::to_chars(contentLength, contentLength + sizeof contentLength, bodySize);
  headers.emplace_back("content-length", std::string_view(contentLength, static_cast<std::size_t>(written.ptr - contentLength)));

  connectTimeout = configuration.connectTimeout;
  if (configuration.deadline.count() > 0) deadline = now + configuration.deadline;
}

void Http2Exchange::Restart() {
  sent = false;
  bodySent = 0;
  headBytes = 0;
  announcedLength.reset();
  encoding.reset();
  decoder.reset();
}

}  // namespace kelnet
