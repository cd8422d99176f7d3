#pragma once
// One request as the network thread drives it: the easy handle's set-up and the callbacks
// through which curl hands over the answer.
//
// Threads: Prepare runs on the caller's thread, before the request is handed to the network
// thread; from then on everything here is the network thread's alone (OnHeader and OnWrite run
// inside curl_multi_perform), except the stream, which is shared with the delivery thread through
// the DeliveryQueue. The request body (requestBody) is what we send; the answer's head and body
// (answerHeaders, answerBody) are what the server sends back.

#include <curl/curl.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "DeliveryQueue.h"
#include "Http2Exchange.h"
#include "kelcore/RecycledMemory.h"
#include "kelnet/Http.h"
#include "kelnet/URL.h"

namespace kelnet {

// A streaming answer that is not streamed (an error status) keeps this much of its body.
constexpr std::size_t kMaxErrorBody = 1024 * 1024;
constexpr std::size_t kDefaultStreamingBuffer = 128 * 1024;

struct Request {
  kelcore::utility::Guid id;
  bool streaming = false;
  Completion completion;
  std::shared_ptr<Stream> stream;  // streaming requests only
  DeliveryQueue* delivery = nullptr;
  std::shared_ptr<const kelcore::allocator::RecycledMemory> requestBody;
  std::shared_ptr<const std::string> caBundle;
  curl_slist* requestHeaders = nullptr;
  CURL* easy = nullptr;
  // Set for a POST that goes over kelnet's own HTTP/2 connections (Http2Client) instead of curl.
  std::optional<Http2Exchange> http2;  // in place: one allocation less per POST
  std::string host;  // curl's, for the log (an HTTP/2 exchange has its own); never the path, query or user info
  std::string path;  // to keep them out of curl's error text in the log
  std::string query;
  std::string userInfo;
  bool cancelled = false;  // network thread only
  bool ending = false;     // in Finish: what curl still hands over is never paused again
  bool retried = false;

  int status = 0;
  HeaderMap answerHeaders;  // curl's answers
  std::string answerFields;  // our HTTP/2 answers: Response::ReceivedFields' text
  HeaderMap::iterator lastHeader;
  bool haveLastHeader = false;
  std::shared_ptr<const HeaderMap> deliveredHeaders;  // the answer's headers, as the consumer sees them
  std::string answerBody;
  bool bodyStarted = false;
  bool deliver = false;
  bool callbackFailed = false;
  const char* broken = nullptr;  // why we ended an answer that does not add up
  std::uint64_t offsetBase = 0;
  std::uint64_t received = 0;
  std::uint64_t total = 0;
  std::uint64_t rangeLength = 0;  // of a 206 answer: what its Content-Range announced; 0 otherwise
  std::size_t maxAnswerBodyBytes = 0;  // POST only
  // curl's error text; made for curl's requests only, so that a POST over HTTP/2 (the Request
  // and its exchange in one block) stays small enough for malloc's per-thread cache.
  std::unique_ptr<char[]> error;

  Request() = default;
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;
  ~Request() {
    if (requestHeaders) curl_slist_free_all(requestHeaders);
  }

  // Checks the caller's headers and builds the header list; false when one could split the
  // request. Then the easy handle's options; the handle is the request's from here on.
  // forCurl false: only the check (the HTTP/2 client builds its own head).
  bool PrepareHeaders(const HeaderMap& headers, bool& hasRange, bool forCurl = true);
  void PrepareEasy(CURL* handle, const kelcore::ImmutableString& url, const Configuration& configuration,
                   bool hasRange);

  // What of the URL must never reach the log: curl's error texts are checked against it.
  void KeepSecretsOfURL(const URLParts& parts) {
    path = parts.path == "/" ? std::string() : parts.path;
    query = parts.query;
    userInfo = parts.userInfo;
  }

  // Forgets the answer so far: the same request starts over on a fresh connection.
  void Restart();

  static size_t OnHeader(char* buffer, size_t size, size_t count, void* user);
  static size_t OnWrite(char* buffer, size_t size, size_t count, void* user);

 private:
  void StartBody();
  bool Enqueue(const char* data, std::size_t size);
};

}  // namespace kelnet
