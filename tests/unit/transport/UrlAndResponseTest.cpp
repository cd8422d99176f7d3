// URL rules, template filling and header lookup: the small pieces every request depends on.

#include <gtest/gtest.h>

#include "kelnet/Response.h"
#include "kelnet/URL.h"

namespace {

using kelcore::ImmutableString;

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

TEST(URLTest, Parts) {
  auto parts = kelnet::ParseURL("HTTPS://API.Ostrio.io:8443/v2/x?q=1#frag");
  ASSERT_TRUE(parts);
  EXPECT_EQ(parts->scheme, "https");
  EXPECT_EQ(parts->host, "api.ostrio.io");
  EXPECT_EQ(parts->port, 8443);
  EXPECT_EQ(parts->path, "/v2/x");
  EXPECT_EQ(parts->query, "q=1");
  EXPECT_EQ(parts->fragment, "frag");
  EXPECT_EQ(kelnet::ParseURL("https://[::1]")->host, "::1");
  EXPECT_EQ(kelnet::ParseURL("https://h?x")->path, "/");
}

TEST(URLTest, ReplaceInURL) {
  const std::map<ImmutableString, ImmutableString> values = {
      {":domain", ".ostrio.localhost:8443"}, {":refresh_token", "rt:domain"}, {":refresh", "WRONG"}};
  // The longer key wins over its prefix, and a value is never scanned again.
  EXPECT_EQ(kelnet::ReplaceInURL("https://api:domain/v2/auth/refresh_tokens/:refresh_token/apply", values).Text().View(),
            "https://api.ostrio.localhost:8443/v2/auth/refresh_tokens/rt:domain/apply");
  EXPECT_EQ(kelnet::ReplaceInURL("https://api:domain/graphql", {{":domain", ".ostrio.io"}}).Text().View(),
            "https://api.ostrio.io/graphql");
  // A result that is no URL gives the empty URL rather than something half-filled.
  EXPECT_TRUE(kelnet::ReplaceInURL("https://api:domain/graphql", {{":domain", " bad"}}).empty());
  EXPECT_TRUE(kelnet::ReplaceInURL("https://api:domain/graphql", {}).empty());
}

TEST(ResponseTest, HeaderLookupKeepsArrivalOrder) {
  kelnet::HeaderMap headers;
  headers.emplace("set-cookie", "a");
  headers.emplace("authorization", "Bearer old");
  headers.emplace("set-cookie", "b");
  headers.emplace("authorization", "Bearer new");
  const kelnet::Response response(200, headers, "");
  EXPECT_EQ(response.FirstHeader("authorization").View(), "Bearer old");
  EXPECT_EQ(response.LastHeader("authorization").View(), "Bearer new");
  EXPECT_EQ(response.LastHeader("set-cookie").View(), "b");
  EXPECT_TRUE(response.FirstHeader("x-missing").empty());
  EXPECT_TRUE(response.IsSuccess());
  EXPECT_FALSE(kelnet::Response(199, {}, "").IsSuccess());
  EXPECT_FALSE(kelnet::Response(300, {}, "").IsSuccess());
}

}  // namespace
