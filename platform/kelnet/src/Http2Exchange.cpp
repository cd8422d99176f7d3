// The head of a POST over kelnet's own HTTP/2 connections.

#include "Http2Exchange.h"

#include <algorithm>
#include <array>
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

void Http2Exchange::Prepare(const URLParts& parts, const HeaderMap& callerHeaders, std::size_t bodySize) {
  host = parts.host;
  port = parts.port.value_or(443);
  const bool literalV6 = host.find(':') != std::string::npos;
  authority = literalV6 ? "[" + host + "]" : host;
  if (parts.port) authority += ":" + std::to_string(*parts.port);
  target = parts.path.empty() ? "/" : parts.path;
  if (!parts.query.empty()) target += "?" + parts.query;

  std::vector<std::pair<std::string, std::string>> given;
  hasRange = false;
  for (const auto& [name, value] : callerHeaders) {
    std::string lower = Lower(name.View());
    if (lower == "range") hasRange = true;
    if (lower == "host") {
      if (!value.empty()) authority = std::string(value.View());
      continue;
    }
    if (IsConnectionSpecific(lower)) continue;
    given.emplace_back(std::move(lower), std::string(value.View()));
  }
  auto has = [&](std::string_view name) {
    return std::any_of(given.begin(), given.end(), [&](const auto& field) { return field.first == name; });
  };
  headers.clear();
  if (!has("user-agent")) {
    headers.emplace_back("user-agent", configuration.userAgent.empty() ? std::string("ostriolib/" KELNET_VERSION)
                                                                         : configuration.userAgent);
  }
  if (!has("accept")) headers.emplace_back("accept", "*/*");
  if (configuration.acceptCompressed && !hasRange && !has("accept-encoding")) {
    headers.emplace_back("accept-encoding", "deflate, gzip");
  }
  for (auto& field : given) headers.push_back(std::move(field));
  headers.emplace_back("content-length", std::to_string(bodySize));

  connectTimeout = configuration.connectTimeout;
  if (configuration.deadline.count() > 0) deadline = Clock::now() + configuration.deadline;
}

void Http2Exchange::Restart() {
  sent = false;
  bodySent = 0;
  headBytes = 0;
  decoder.reset();
}

}  // namespace kelnet
