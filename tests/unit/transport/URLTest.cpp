// URL rules and template filling: which host a request goes to decides throttling and where the
// token may go, so a URL is taken only in the form curl will connect to.

#include <gtest/gtest.h>

#include "kelnet/URL.h"

namespace {

TEST(URLTest, ValidityRule) {
  for (const char* url : {"https://api.ostrio.io/graphql", "HTTP://Example.COM", "https://a.b:8443/x?y=1#z",
                          "https://127.0.0.1:1/", "https://[::1]:443/p", "https://api.ostrio.localhost:65535",
                          "https://user:pw@host/p", "https://host./"}) {
    EXPECT_TRUE(kelnet::IsValidURL(url)) << url;
  }
  for (const char* url : {"", "api.ostrio.io/graphql", "ftp://host/", "https://", "https:///path", "https://host:0/",
                          "https://host:65536/", "https://host:/", "https://ho st/", "https://host/a b",
                          "https://host/\r\nX-Injected: 1", "https://.host/", "https://a..b/", "https://[zz::1]/",
                          "https://host:12a/", "javascript://alert(1)", "http://127.1/", "http://u@8080/p",
                          "https://0x7f.0.0.1/", "https://010.0.0.1/"}) {
    EXPECT_FALSE(kelnet::IsValidURL(url)) << url;
  }
}

TEST(URLTest, ReplaceInURL) {
  const std::map<kelcore::ImmutableString, kelcore::ImmutableString> values = {
      {":domain", ".ostrio.localhost:8443"}, {":refresh_token", "rt:domain"}, {":refresh", "WRONG"}};
  // The longer key wins over its prefix, and a value is never scanned again.
  EXPECT_EQ(kelnet::ReplaceInURL("https://api:domain/v2/auth/refresh_tokens/:refresh_token/apply", values).Text().View(),
            "https://api.ostrio.localhost:8443/v2/auth/refresh_tokens/rt:domain/apply");
  // A result that is no URL gives the empty URL rather than something half-filled.
  EXPECT_TRUE(kelnet::ReplaceInURL("https://api:domain/graphql", {{":domain", " bad"}}).empty());
  EXPECT_TRUE(kelnet::ReplaceInURL("https://api:domain/graphql", {}).empty());
}

}  // namespace
