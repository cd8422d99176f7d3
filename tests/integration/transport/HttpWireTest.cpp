// kelnet against a loopback server that answers with scripted bytes: broken status lines, lying
// lengths, answers past their bounds, ranges that do not add up, untidy headers. Each must end in
// a null response (and a logged reason without the URL's secrets) or in exactly the bytes the
// server sent, at their true offsets; never in bytes at the wrong place.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <optional>
#include <thread>

#include "LogCapture.h"
#include "TransportTestSupport.h"
#include "kelnet/Http.h"

namespace {

using kelcore::ImmutableString;
using kelcore::utility::Guid;
using transport_test::Awaited;
using Answer = std::optional<std::string>;  // nullopt: no answer, ever

// Reads each connection's one request (head and body), answers a request for "/<n>..." with the
// n-th scripted answer and closes the connection (or holds it open while the server lives).
class ScriptedServer {
 public:
  explicit ScriptedServer(std::function<Answer(std::size_t n)> answer) : answer_(std::move(answer)) {
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
    for (int connection : held_) ::close(connection);
  }
  std::string Url(std::size_t answer, const std::string& path = "") const {
    return "http://127.0.0.1:" + std::to_string(port_) + "/" + std::to_string(answer) + path;
  }

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
      const Answer answer = answer_(std::strtoul(request.c_str() + request.find(" /") + 2, nullptr, 10));
      if (!answer) {
        held_.push_back(connection);
        continue;
      }
      // The client may have given up on this answer already: no SIGPIPE for that.
      for (std::size_t sent = 0; sent < answer->size();) {
        const ssize_t n = ::send(connection, answer->data() + sent, answer->size() - sent, MSG_NOSIGNAL);
        if (n <= 0) break;
        sent += static_cast<std::size_t>(n);
      }
      ::close(connection);
    }
  }

  int listener_ = -1;
  int port_ = 0;
  std::thread thread_;
  std::vector<int> held_;
  const std::function<Answer(std::size_t)> answer_;
};

TEST(HttpWireTest, PostAnswersAreReadExactlyOrFailWithoutLeakingTheUrl) {
  struct Row {
    Answer answer;
    std::optional<std::string> body;  // nullopt: the request fails
  };
  const std::string x(1001, 'x');
  // Names in any case with stray blanks, a folded line, repeats in order, and a body with a NUL.
  static const char kTidy[] =
      "HTTP/1.1 200 Fine\r\nCoNtEnT-TyPe:   application/json \t\r\nX-Repeat: one\r\nx-note: first\r\n  second\r\n"
      "x-REPEAT:two\r\nContent-Length: 7\r\nConnection: close\r\n\r\n{\"a\":\0}";
  const std::vector<Row> rows = {
      {"HTTP/1.1 2x0 OK\r\ncontent-length: 0\r\n\r\n", std::nullopt},
      {"HTTP/1.1 200 OK\r\ncontent-length: 100\r\n\r\n{\"data\":", std::nullopt},
      {"HTTP/1.1 200 OK\r\ncontent-length: 2\r\n\r\n{}{\"more\":1}", "{}"},  // what runs past is not the answer's
      // At most maxAnswerBodyBytes (here 1000), announced or not, within the deadline.
      {"HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n" + x.substr(1), x.substr(1)},
      {"HTTP/1.1 200 OK\r\nContent-Length: 1001\r\n\r\n" + x, std::nullopt},
      {"HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" + x, std::nullopt},
      {std::nullopt, std::nullopt},
      {std::string(kTidy, sizeof kTidy - 1), std::string("{\"a\":\0}", 7)}};
  ScriptedServer server([&](std::size_t n) { return n < rows.size() ? rows[n].answer : Answer(); });
  kelnet::Configuration bounded;
  bounded.maxAnswerBodyBytes = 1000;
  bounded.deadline = std::chrono::seconds(1);
  LogCapture log;
  std::shared_ptr<kelnet::Response> response;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    Awaited awaited;
    EXPECT_TRUE(kelnet::POST(Guid::CreateUnique(), awaited.Completion(),
                             ImmutableString(server.Url(i, "/v2/auth/refresh_tokens/RT-SECRET/apply?sig=Q-SECRET")),
                             kelcore::allocator::RecycledMemory::Copy("{}"), {{"content-type", "application/json"}},
                             bounded));
    response = awaited.Get();
    EXPECT_EQ(response ? std::optional(response->Body()) : std::nullopt, rows[i].body) << i;
  }
  ASSERT_TRUE(response);
  EXPECT_EQ(response->FirstHeader("content-type").View(), "application/json");
  EXPECT_EQ(response->FirstHeader("x-note").View(), "first second");
  EXPECT_EQ(response->FirstHeader("x-repeat").View(), "one");
  EXPECT_EQ(response->LastHeader("x-repeat").View(), "two");
  const std::string logged = log.AllText();
  EXPECT_NE(logged.find("HTTP request failed"), std::string::npos) << logged;
  EXPECT_NE(logged.find("127.0.0.1"), std::string::npos) << logged;
  EXPECT_EQ(logged.find("SECRET"), std::string::npos) << logged;
}

// A partial answer places its bytes at its Content-Range's offset, or none at all when the range
// does not add up; what runs past the range is cut off and fails the answer. An error status
// streams nothing: its body is the response's. Bodies of partial answers end with the
// connection, so only the Content-Range says how long they are.
TEST(HttpWireTest, StreamedAnswersNeverPlaceBytesWhereTheyDoNotBelong) {
  struct Row {
    Answer answer;
    std::string bytes;  // placed from offset 10
    int status;         // 0: the request fails
  };
  const std::string partial = "HTTP/1.1 206 Partial Content\r\nConnection: close\r\n";
  const std::vector<Row> rows = {
      {partial + "\r\n0123456789", "", 0},
      {partial + "Content-Range: bytes ten-19/*\r\n\r\n0123456789", "", 0},
      {partial + "Content-Range: bytes 19-10/100\r\n\r\n0123456789", "", 0},
      {partial + "Content-Range: bytes 0-10/10\r\n\r\n0123456789A", "", 0},
      {partial + "Content-Range: bytes 10-19/100\r\n\r\n0123456789ABCDEFGHIJ", "0123456789", 0},
      {partial + "content-range:  bytes 10-19/100 \r\n\r\n0123456789", "0123456789", 206},
      {"HTTP/1.1 404 Not Found\r\nContent-Length: 9\r\n\r\nnot found", "", 404}};
  ScriptedServer server([&](std::size_t n) { return n < rows.size() ? rows[n].answer : Answer(); });
  for (std::size_t i = 0; i < rows.size(); ++i) {
    std::string bytes;
    std::size_t firstOffset = 10;
    Awaited awaited;
    EXPECT_TRUE(kelnet::StreamingGET(
        Guid::CreateUnique(),
        [&](const Guid&, const void* data, std::size_t offset, std::size_t size, const kelnet::Progress&,
            const kelnet::HeaderMap&) {
          if (bytes.empty()) firstOffset = offset;
          bytes.append(static_cast<const char*>(data), size);
        },
        awaited.Completion(), ImmutableString(server.Url(i)), {{"range", "bytes=10-19"}}, {}));
    auto response = awaited.Get();
    EXPECT_EQ(bytes, rows[i].bytes) << i;
    EXPECT_EQ(firstOffset, 10u) << i;
    EXPECT_EQ(response ? response->StatusCode() : 0, rows[i].status) << i;
  }
}

}  // namespace
