// POSTs over kelnet's own HTTP/2 connections, against the emulator: the bytes of a body past the
// server's flow-control window, streams the server refuses or a GOAWAY cuts off, and streams that
// end early (deadline, limit, reset, cancel) without taking the connection with them. An origin
// that offers no HTTP/2 is curl's.

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "kelnet/Http.h"
#include "tests/integration/transport/EmulatorFixture.h"

namespace {

using namespace std::chrono_literals;
using kelcore::utility::Guid;
using transport_test::Awaited;

constexpr const char* kQuery = R"({"query":"query Me { me { id } }"})";

class Http2ClientTest : public transport_test::EmulatorFixture {
 protected:
  static std::shared_ptr<kelnet::Response> Post(const std::string& body,
                                                const kelnet::Configuration& configuration = Trusted()) {
    Awaited awaited;
    EXPECT_TRUE(kelnet::POST(Guid::CreateUnique(), awaited.Completion(), Url("/graphql"),
                             body.empty() ? nullptr : kelcore::allocator::RecycledMemory::Copy(body),
                             {{"content-type", "application/json"}}, configuration));
    return awaited.Get();
  }
};

TEST_F(Http2ClientTest, BodiesCrossWholeWithAnExactHead) {
  // Past the server's 64 KiB window and over many DATA frames; a byte out of place shows.
  std::string pad(300000, ' ');
  for (std::size_t i = 0; i < pad.size(); ++i) pad[i] = static_cast<char>('a' + i % 23);
  const std::string big = R"({"query":"query Me { me { id } }","variables":{"pad":")" + pad + R"("}})";
  std::vector<std::shared_ptr<kelnet::Response>> responses;
  for (const std::string& body : {big, std::string()}) {
    responses.push_back(Post(body));
    ASSERT_TRUE(responses.back());
    EXPECT_EQ(responses.back()->HttpVersion(), "2");
  }
  const auto requests = Requests();
  ASSERT_EQ(requests.size(), 2u);
  // The answer's head, as the server sent it: its sequence number names the request it answers.
  for (std::size_t i = 0; i < 2; ++i) {
    const auto& response = *responses[i];
    EXPECT_EQ(response.FirstHeader("x-emulator-seq"), std::to_string(requests[i].AsDictionary().GetInteger("seq")));
    EXPECT_EQ(response.LastHeader("content-length"), std::to_string(response.Body().size()));
    EXPECT_EQ(response.Headers().count(kelcore::ImmutableString("content-type")), 1u);
  }
  const std::string url(Url("/graphql").View());
  for (std::size_t i = 0; i < 2; ++i) {
    const auto entry = requests[i].AsDictionary();
    std::multimap<std::string, std::string> sent;
    for (const auto& header : entry.GetArray("headers")) sent.emplace(header.AsArray()[0].AsString(), header.AsArray()[1].AsString());
    const std::string body = i == 0 ? big : "";
    EXPECT_TRUE(entry.GetString("body") == body) << i << ": " << entry.GetString("body").size() << " bytes";
    EXPECT_EQ(entry.GetString("httpVersion"), "2.0");
    EXPECT_EQ(entry.GetString("method") + " " + entry.GetString("url"), "POST " + url);  // scheme and authority
    EXPECT_EQ(sent.count("content-length") == 1 ? sent.find("content-length")->second : "", std::to_string(body.size()));
    EXPECT_EQ(sent.count("content-type"), 1u);
  }
}

// REFUSED_STREAM means the server never acted on it: sent again, three attempts in all. After a
// GOAWAY the next request opens a new connection.
TEST_F(Http2ClientTest, RefusedStreamsGoAgainAtMostThriceAndAGoawayMovesOn) {
  Fault(R"({"route":"graphql","refuseStream":true,"count":2})");
  auto third = Post(kQuery);
  ASSERT_TRUE(third);
  EXPECT_EQ(third->StatusCode(), 200);
  Fault(R"({"route":"graphql","refuseStream":true,"count":3})");
  EXPECT_FALSE(Post(kQuery));
  Fault(R"({"route":"graphql","goaway":true})");
  for (int i = 0; i < 2; ++i) {
    auto response = Post(kQuery);
    ASSERT_TRUE(response) << i;
    EXPECT_EQ(response->StatusCode(), 200);
  }
  EXPECT_EQ(Requests().size(), 8u);
}

// Each ends its own stream only, once: none is sent again (the server saw them all), and the
// connection goes on to answer the next request.
TEST_F(Http2ClientTest, DeadlineLimitResetAndCancelEndOneStreamOnly) {
  LogCapture log;
  kelnet::Configuration quick = Trusted(), small = Trusted();
  quick.deadline = 300ms;
  small.maxAnswerBodyBytes = 10;
  Fault(R"({"route":"graphql","delayMs":20000})");
  EXPECT_FALSE(Post(kQuery, quick));
  EXPECT_FALSE(Post(kQuery, small));
  Fault(R"({"route":"graphql","resetAfterBytes":5})");
  EXPECT_FALSE(Post(kQuery));
  Fault(R"({"route":"graphql","delayMs":20000})");
  Awaited cancelled;
  const Guid id = Guid::CreateUnique();
  ASSERT_TRUE(kelnet::POST(id, cancelled.Completion(), Url("/graphql"), kelcore::allocator::RecycledMemory::Copy(kQuery),
                           {}, Trusted()));
  // Cancelled on the wire (an RST_STREAM), not while still waiting for the connection.
  for (auto end = std::chrono::steady_clock::now() + 10s; Requests().size() < 4 && std::chrono::steady_clock::now() < end;) {
    std::this_thread::sleep_for(5ms);
  }
  kelnet::Cancel(id);
  EXPECT_FALSE(cancelled.Get());
  // Cancelled by the completion that started it, before it reached a connection: never sent.
  Awaited started, outer;
  const Guid next = Guid::CreateUnique();
  ASSERT_TRUE(kelnet::POST(
      Guid::CreateUnique(),
      [&](const Guid& id, const std::shared_ptr<kelnet::Response>& response) {
        EXPECT_TRUE(kelnet::POST(next, started.Completion(), Url("/graphql"),
                                 kelcore::allocator::RecycledMemory::Copy(kQuery), {}, Trusted()));
        kelnet::Cancel(next);
        outer.Completion()(id, response);
      },
      Url("/graphql"), kelcore::allocator::RecycledMemory::Copy(kQuery), {}, Trusted()));
  EXPECT_TRUE(outer.Get());
  EXPECT_FALSE(started.Get());
  auto after = Post(kQuery);
  ASSERT_TRUE(after);
  EXPECT_EQ(after->StatusCode(), 200);
  EXPECT_EQ(Requests().size(), 6u);
  const std::string logged = log.AllText();
  for (const char* reason : {"deadline passed", "answer larger than its limit", "INTERNAL_ERROR"}) {
    EXPECT_NE(logged.find(reason), std::string::npos) << reason << " in " << logged;
  }
}

TEST(Http2ClientFallbackTest, AnOriginWithoutHttp2IsCurls) {
  auto http1 = EmulatorProcess::Start({"--http1"});
  ASSERT_TRUE(http1);
  kelnet::Configuration configuration;
  configuration.caBundlePath = http1->CaPath();
  for (int i = 0; i < 2; ++i) {
    Awaited awaited;
    ASSERT_TRUE(kelnet::POST(Guid::CreateUnique(), awaited.Completion(), kelcore::ImmutableString(http1->ApiUrl("/graphql")),
                             kelcore::allocator::RecycledMemory::Copy(kQuery), {{"content-type", "application/json"}},
                             configuration));
    auto response = awaited.Get();
    ASSERT_TRUE(response) << i;
    EXPECT_EQ(response->StatusCode(), 200);
    EXPECT_EQ(response->HttpVersion(), "1.1");
  }
}

}  // namespace
