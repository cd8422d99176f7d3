// An HTTP/2 server's bytes into a client session carrying three POSTs, one of them offering to
// take a compressed answer. Whatever the server sends: every request comes back exactly once
// (answered, failed or to be sent again), an answer is never larger than its limit, and one
// marked answered has a final status and its fields, each name and value whole.

#include <algorithm>
#include <cstdint>
#include <memory>
#include <set>
#include <string>

#include "FuzzCheck.h"
#include "Http2Session.h"
#include "kelcore/RecycledMemory.h"

namespace {

constexpr std::size_t kLimit = 4096;

std::unique_ptr<kelnet::Request> MakeRequest(const char* body) {
  auto request = std::make_unique<kelnet::Request>();
  request->http2.emplace();
  request->http2->authority = "api.example";
  request->http2->target = "/graphql";
  request->http2->headers = {{"accept-encoding", "deflate, gzip"}};
  if (*body) request->requestBody = kelcore::allocator::RecycledMemory::Copy(body);
  request->maxAnswerBodyBytes = kLimit;
  return request;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kelnet::Http2Session session;
  FUZZ_CHECK(session.Start());
  std::set<const kelnet::Request*> submitted;
  for (const char* body : {"{}", "", "{\"query\":\"q\"}"}) {
    auto request = MakeRequest(body);
    const auto* raw = request.get();
    FUZZ_CHECK(session.Submit(request));
    submitted.insert(raw);
  }
  std::string out;
  FUZZ_CHECK(session.Produce(out, 1 << 20));
  // In two reads, split where the first byte says: frames cut anywhere must read the same.
  const std::size_t cut = size ? std::min<std::size_t>(data[0], size - 1) + 1 : 0;
  bool ok = session.Receive(data, cut);
  if (ok) ok = session.Receive(data + cut, size - cut);
  out.clear();
  if (ok) session.Produce(out, 1 << 20);
  if (!ok) session.Fail("protocol error");

  std::size_t ended = 0;
  for (auto& end : session.TakeEnded()) {
    FUZZ_CHECK(submitted.erase(end.request.get()) == 1);
    FUZZ_CHECK(end.request->answerBody.size() <= kLimit);
    if (!end.error) {
      FUZZ_CHECK(end.request->status >= 200 && end.request->status <= 999);
      // The fields are kept NUL-separated: no NUL may have come inside a name or value.
      const std::string& fields = end.request->answerFields;
      const auto nuls = static_cast<std::size_t>(std::count(fields.begin(), fields.end(), '\0'));
      const kelnet::Response response(end.request->status, kelnet::Response::ReceivedFields{fields}, "", "2");
      FUZZ_CHECK(nuls % 2 == 0 && response.Headers().size() == nuls / 2);
    }
    ++ended;
  }
  FUZZ_CHECK(ended + session.StreamCount() == 3);
  session.TakeEnded().clear();
  session.Fail("end");
  FUZZ_CHECK(session.TakeEnded().size() + ended == 3);
  return 0;
}
