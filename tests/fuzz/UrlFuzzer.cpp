// The URL rule against libcurl's own parser, which is what finally connects: where both accept a
// URL they must agree on the host and the port, or a check made on our reading (where the token
// may go, the throttling key) is about another server than the one curl talks to. Filling a
// template must give either the empty URL or one the rule accepts.

#include <arpa/inet.h>
#include <curl/curl.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

#include "FuzzCheck.h"
#include "kelnet/URL.h"

namespace {

struct CurlParts {
  std::string host;
  std::optional<unsigned> port;
};

std::optional<CurlParts> CurlParse(const std::string& url) {
  std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> handle(curl_url(), &curl_url_cleanup);
  if (curl_url_set(handle.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) return std::nullopt;
  CurlParts parts;
  char* text = nullptr;
  if (curl_url_get(handle.get(), CURLUPART_HOST, &text, 0) != CURLUE_OK) return std::nullopt;
  parts.host = text;
  curl_free(text);
  if (curl_url_get(handle.get(), CURLUPART_PORT, &text, 0) == CURLUE_OK) {
    parts.port = static_cast<unsigned>(std::stoul(text));
    curl_free(text);
  }
  return parts;
}

std::string Lower(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

// The same IPv6 address however it is spelled ("::0" and "::"); other hosts compare as text.
bool SameHost(const std::string& curlHost, const std::string& ourHost) {
  if (ourHost.find(':') == std::string::npos) return Lower(curlHost) == ourHost;
  in6_addr a{}, b{};
  if (curlHost.size() < 2 || curlHost.front() != '[' || curlHost.back() != ']') return false;
  return inet_pton(AF_INET6, curlHost.substr(1, curlHost.size() - 2).c_str(), &a) == 1 &&
         inet_pton(AF_INET6, ourHost.c_str(), &b) == 1 && std::memcmp(&a, &b, sizeof a) == 0;
}

void CheckAgainstCurl(const std::string& url) {
  const auto ours = kelnet::ParseURL(url);
  FUZZ_CHECK(ours.has_value() == kelnet::IsValidURL(url));
  if (!ours) return;
  FUZZ_CHECK(!ours->host.empty());
  const auto theirs = CurlParse(url);
  if (!theirs) return;
  FUZZ_CHECK(SameHost(theirs->host, ours->host));
  FUZZ_CHECK(theirs->port == (ours->port ? std::optional<unsigned>(*ours->port) : std::nullopt));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string url(reinterpret_cast<const char*>(data), size);
  if (url.find('\0') != std::string::npos) {
    FUZZ_CHECK(!kelnet::IsValidURL(url));  // curl would read only up to the NUL
    return 0;
  }
  CheckAgainstCurl(url);

  // The input as a value filled into the refresh URL's template, as a token from an answer is.
  const kelnet::URL filled = kelnet::ReplaceInURL(
      "https://api:domain/v2/auth/refresh_tokens/:refresh_token/apply",
      {{kelcore::ImmutableString(":refresh_token"), kelcore::ImmutableString(url)},
       {kelcore::ImmutableString(":domain"), kelcore::ImmutableString(".ostrio.localhost:8443")}});
  if (!filled.empty()) {
    const auto parts = kelnet::ParseURL(filled.Text().View());
    FUZZ_CHECK(parts.has_value());
    // The token comes after the authority: whatever it holds, the request goes to the API host.
    FUZZ_CHECK(parts->host == "api.ostrio.localhost" && parts->port == 8443);
    CheckAgainstCurl(filled.Text().ToStdString());
  }
  return 0;
}
