// kelnet against a loopback server that answers with scripted bytes: broken status lines, lying
// lengths, ranges that do not add up, untidy headers. Each must end in a null response (and a
// logged reason without the URL's secrets) or in exactly the bytes the server sent, at their
// true offsets; never in bytes at the wrong place. Also what the environment and the answer
// decide: the proxy, and compressed bodies.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <future>
#include <thread>

#include "kelcore/Logging.h"
#include "kelnet/Http.h"
#include "tests/integration/transport/EmulatorFixture.h"

namespace {

using kelcore::ImmutableString;
using kelcore::utility::Guid;
using transport_test::Awaited;

// Reads each connection's one request (head and body) and answers with whatever answerFor gives
// for it, then closes the connection.
class ScriptedServer {
 public:
  explicit ScriptedServer(std::function<std::string(const std::string& request)> answerFor)
      : answerFor_(std::move(answerFor)) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 || ::listen(listener_, 8) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      ADD_FAILURE() << "cannot listen: " << std::strerror(errno);
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { Serve(); });
  }
  ~ScriptedServer() {
    ::shutdown(listener_, SHUT_RDWR);  // ends the blocked accept
    thread_.join();
    ::close(listener_);
  }
  std::string Url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(port_) + path; }

 private:
  void Serve() {
    while (true) {
      const int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (connection < 0) return;
      std::string request;
      char buffer[4096];
      std::size_t headEnd = std::string::npos;
      std::size_t wanted = 0;
      while (headEnd == std::string::npos || request.size() < headEnd + 4 + wanted) {
        const ssize_t n = ::read(connection, buffer, sizeof buffer);
        if (n <= 0) break;
        request.append(buffer, static_cast<std::size_t>(n));
        if (headEnd == std::string::npos && (headEnd = request.find("\r\n\r\n")) != std::string::npos) {
          const auto at = request.find("Content-Length: ");
          if (at != std::string::npos && at < headEnd) wanted = std::stoul(request.substr(at + 16));
        }
      }
      const std::string answer = answerFor_(request);
      for (std::size_t sent = 0; sent < answer.size();) {
        // The client may have given up on this answer already: no SIGPIPE for that.
        const ssize_t n = ::send(connection, answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) break;
        sent += static_cast<std::size_t>(n);
      }
      ::close(connection);
    }
  }

  std::function<std::string(const std::string&)> answerFor_;
  int listener_ = -1;
  int port_ = 0;
  std::thread thread_;
};

// Everything logged while it lives, flattened to text.
class LogCapture {
 public:
  LogCapture() {
    kelcore::logging::SetSink(
        [this](const kelcore::logging::Record& record) {
          std::lock_guard lock(mutex_);
          text_ += record.message + "\n";
          for (const auto& [name, value] : record.fields) text_ += "  " + name + "=" + value + "\n";
        },
        kelcore::logging::Level::Trace);
  }
  ~LogCapture() { kelcore::logging::SetSink(nullptr); }
  std::string Text() {
    std::lock_guard lock(mutex_);
    return text_;
  }

 private:
  std::mutex mutex_;
  std::string text_;
};

std::shared_ptr<kelnet::Response> Post(const std::string& url, const std::string& body = "{}") {
  Awaited awaited;
  EXPECT_TRUE(kelnet::POST(Guid::CreateUnique(), awaited.Completion(), ImmutableString(url),
                           kelcore::allocator::RecycledMemory::Copy(body), {{"content-type", "application/json"}},
                           kelnet::Configuration()));
  return awaited.Get();
}

TEST(HttpWireTest, PostAnswersThatBreakTheProtocolFailWithoutLeakingTheUrl) {
  ScriptedServer server([](const std::string& request) -> std::string {
    auto asked = [&](const char* path) { return request.find(path) != std::string::npos; };
    if (asked("/garbage/")) return "SSH-2.0-OpenSSH\r\n\r\n";
    if (asked("/status/")) return "HTTP/1.1 2x0 OK\r\ncontent-length: 0\r\n\r\n";
    if (asked("/short/")) return "HTTP/1.1 200 OK\r\ncontent-length: 100\r\n\r\n{\"data\":";
    if (asked("/long/")) return "HTTP/1.1 200 OK\r\ncontent-length: 2\r\n\r\n{}{\"more\":1}";
    // Names in any case with stray blanks, a folded line, repeats in order, and a body with a NUL.
    static const char kTidy[] =
        "HTTP/1.1 200 Fine\r\nCoNtEnT-TyPe:   application/json \t\r\nX-Repeat: one\r\nx-note: first\r\n  second\r\n"
        "x-REPEAT:two\r\nContent-Length: 7\r\nConnection: close\r\n\r\n{\"a\":\0}";
    return std::string(kTidy, sizeof kTidy - 1);
  });
  LogCapture log;
  const std::string secret = "/v2/auth/refresh_tokens/RT-SECRET/apply?sig=Q-SECRET";
  for (const char* kind : {"/garbage", "/status", "/short"}) {
    EXPECT_FALSE(Post(server.Url(kind + secret))) << kind;
  }
  // Bytes past the announced length are not part of the answer.
  auto longer = Post(server.Url("/long" + secret));
  ASSERT_TRUE(longer);
  EXPECT_EQ(longer->Body(), "{}");

  auto response = Post(server.Url("/tidy" + secret));
  ASSERT_TRUE(response);
  EXPECT_EQ(response->StatusCode(), 200);
  EXPECT_EQ(response->Body(), std::string("{\"a\":\0}", 7));
  EXPECT_EQ(response->FirstHeader("content-type").View(), "application/json");
  EXPECT_EQ(response->FirstHeader("x-note").View(), "first second");
  EXPECT_EQ(response->FirstHeader("x-repeat").View(), "one");
  EXPECT_EQ(response->LastHeader("x-repeat").View(), "two");

  const std::string logged = log.Text();
  EXPECT_NE(logged.find("HTTP request failed"), std::string::npos) << logged;
  EXPECT_NE(logged.find("127.0.0.1"), std::string::npos) << logged;
  EXPECT_EQ(logged.find("SECRET"), std::string::npos) << logged;
}

TEST(HttpWireTest, PostAnswersPastTheirBoundsFailCleanly) {
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  ScriptedServer server([&](const std::string& request) -> std::string {
    auto asked = [&](const char* path) { return request.find(path) != std::string::npos; };
    const std::string body(1001, 'x');
    if (asked("/announced")) return "HTTP/1.1 200 OK\r\nContent-Length: 1001\r\n\r\n" + body;
    if (asked("/unannounced")) return "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" + body;
    if (asked("/silent")) released.wait();  // answers only once the test is done with it
    return "HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n" + body.substr(1);
  });
  // A failed assertion must not leave the server waiting: its destructor joins it.
  std::shared_ptr<void> releaseOnExit(nullptr, [&](void*) { release.set_value(); });
  kelnet::Configuration bounded;
  bounded.maxAnswerBodyBytes = 1000;
  bounded.deadline = std::chrono::milliseconds(300);
  auto post = [&](const std::string& path) {
    Awaited awaited;
    EXPECT_TRUE(kelnet::POST(Guid::CreateUnique(), awaited.Completion(), ImmutableString(server.Url(path)), nullptr,
                             {}, bounded));
    return awaited.Get();
  };
  auto atTheLimit = post("/exact");
  ASSERT_TRUE(atTheLimit);
  EXPECT_EQ(atTheLimit->Body().size(), 1000u);
  for (const char* path : {"/announced", "/unannounced", "/silent"}) EXPECT_FALSE(post(path)) << path;
}

TEST(HttpWireTest, PostWithoutAContentTypeSendsNone) {
  std::mutex mutex;
  std::string seen;
  ScriptedServer server([&](const std::string& request) {
    std::lock_guard lock(mutex);
    seen = request;
    return std::string("HTTP/1.1 204 No Content\r\n\r\n");
  });
  Awaited awaited;
  ASSERT_TRUE(kelnet::POST(Guid::CreateUnique(), awaited.Completion(), ImmutableString(server.Url("/form")),
                           kelcore::allocator::RecycledMemory::Copy("a=1&b=2"), {}, kelnet::Configuration()));
  ASSERT_TRUE(awaited.Get());
  std::lock_guard lock(mutex);
  std::string head = seen.substr(0, seen.find("\r\n\r\n") + 2);
  for (char& c : head) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  EXPECT_EQ(head.rfind("post /form http/1.1\r\n", 0), 0u) << seen;
  EXPECT_EQ(head.find("\r\ncontent-type:"), std::string::npos) << seen;
  EXPECT_NE(head.find("\r\ncontent-length: 7\r\n"), std::string::npos) << seen;
  EXPECT_EQ(seen.substr(seen.size() - 7), "a=1&b=2");
}

// What one streaming GET delivered, and how it ended.
struct Streamed {
  std::vector<std::pair<std::size_t, std::string>> chunks;  // offset, bytes
  std::shared_ptr<kelnet::Response> response;
  std::string Joined() const {
    std::string all;
    for (const auto& chunk : chunks) all += chunk.second;
    return all;
  }
};

Streamed Get(const std::string& url) {
  Streamed streamed;
  Awaited awaited;
  EXPECT_TRUE(kelnet::StreamingGET(
      Guid::CreateUnique(),
      [&streamed](const Guid&, const void* data, std::size_t offset, std::size_t size, const kelnet::Progress&,
                  const kelnet::HeaderMap&) {
        streamed.chunks.emplace_back(offset, std::string(static_cast<const char*>(data), size));
      },
      awaited.Completion(), ImmutableString(url), {{"range", "bytes=10-19"}}, kelnet::Configuration()));
  streamed.response = awaited.Get();
  return streamed;
}

TEST(HttpWireTest, PartialAnswersThatDoNotAddUpNeverPlaceBytes) {
  // Bodies end with the connection (no length), so only the Content-Range says how long they are.
  ScriptedServer server([](const std::string& request) -> std::string {
    auto asked = [&](const char* path) { return request.find(path) != std::string::npos; };
    const std::string head = "HTTP/1.1 206 Partial Content\r\nConnection: close\r\n";
    if (asked("/no-range")) return head + "\r\n0123456789";
    if (asked("/unreadable")) return head + "Content-Range: bytes ten-19/*\r\n\r\n0123456789";
    if (asked("/backwards")) return head + "Content-Range: bytes 19-10/100\r\n\r\n0123456789";
    if (asked("/past-total")) return head + "Content-Range: bytes 0-10/10\r\n\r\n0123456789A";
    if (asked("/too-long")) return head + "Content-Range: bytes 10-19/100\r\n\r\n0123456789ABCDEFGHIJ";
    return head + "content-range:  bytes 10-19/100 \r\n\r\n0123456789";
  });
  for (const char* path : {"/no-range", "/unreadable", "/backwards", "/past-total"}) {
    auto streamed = Get(server.Url(path));
    EXPECT_FALSE(streamed.response) << path;
    EXPECT_TRUE(streamed.chunks.empty()) << path;
  }
  // The bytes the range announced arrive; what runs past it does not, and the answer fails.
  auto tooLong = Get(server.Url("/too-long"));
  EXPECT_FALSE(tooLong.response);
  EXPECT_EQ(tooLong.Joined(), "0123456789");
  EXPECT_EQ(tooLong.chunks.front().first, 10u);

  auto good = Get(server.Url("/good"));
  ASSERT_TRUE(good.response);
  EXPECT_EQ(good.response->StatusCode(), 206);
  EXPECT_EQ(good.Joined(), "0123456789");
  EXPECT_EQ(good.chunks.front().first, 10u);
}

TEST(HttpWireTest, ProxyFromTheEnvironmentAndCompressedAnswers) {
  std::mutex mutex;
  std::string seen;
  ScriptedServer proxy([&](const std::string& request) {
    std::lock_guard lock(mutex);
    seen = request;
    static const char kGzip[] =
        "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Encoding: gzip\r\nContent-Length: 39\r\n"
        "Connection: close\r\n\r\n\x1f\x8b\x08\x00\x00\x00\x00\x00\x02\x03\xab\x56\x4a\xce\xcf\x2d\x28\x4a\x2d\x2e"
        "\x4e\x4d\x51\xb2\x2a\x29\x2a\x4d\xad\x05\x00\xf1\xea\x39\x95\x13\x00\x00\x00";
    return std::string(kGzip, sizeof kGzip - 1);
  });
  ::unsetenv("no_proxy");
  ::unsetenv("NO_PROXY");
  ::setenv("http_proxy", proxy.Url("").c_str(), 1);
  auto response = Post("http://api.proxied.test/graphql");
  ::unsetenv("http_proxy");
  ASSERT_TRUE(response);
  EXPECT_EQ(response->Body(), R"({"compressed":true})");
  std::lock_guard lock(mutex);
  EXPECT_EQ(seen.rfind("POST http://api.proxied.test/graphql HTTP/1.1\r\n", 0), 0u) << seen;
  std::string lower;
  for (char c : seen) lower.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
  EXPECT_NE(lower.find("\r\naccept-encoding: "), std::string::npos) << seen;
}

}  // namespace
