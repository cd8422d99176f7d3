// One request's easy-handle set-up and curl callbacks. Threads: Prepare* on the caller's thread
// before hand-over; OnHeader, OnWrite and Restart on the network thread only.

#include "Request.h"

#include <algorithm>

#include "kelnet/Constants.h"
#include "kelnet/internal/HeaderParsing.h"

namespace kelnet {

using internal::HeaderLine;

bool Request::PrepareHeaders(const HeaderMap& headers, bool& hasRange, bool forCurl) {
  hasRange = false;
  bool hasContentType = false;
  for (const auto& [name, value] : headers) {
    if (!internal::IsHeaderNameToken(name.View()) || !internal::IsSafeHeaderValue(value.View())) return false;
    if (!forCurl) continue;
    std::string line(name.View());
    std::string lower;
    for (char c : line) lower.push_back((c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c);
    if (lower == "range") hasRange = true;
    if (lower == "content-type") hasContentType = true;
    // "name;" is curl's way of sending a header whose value is empty.
    if (value.empty()) {
      line += ";";
    } else {
      line += ": ";
      line.append(value.View());
    }
    requestHeaders = curl_slist_append(requestHeaders, line.c_str());
  }
  if (forCurl && !streaming) {
    // No 100-continue round trip, and no form content type the caller did not ask for.
    requestHeaders = curl_slist_append(requestHeaders, "Expect:");
    if (!hasContentType) requestHeaders = curl_slist_append(requestHeaders, "Content-Type:");
  }
  return true;
}

void Request::PrepareEasy(CURL* handle, const kelcore::ImmutableString& url, const Configuration& configuration,
                          bool hasRange) {
  easy = handle;
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_PRIVATE, this);
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &Request::OnHeader);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Request::OnWrite);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
  if (!error) error = std::make_unique<char[]>(CURL_ERROR_SIZE);  // zeroed
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, error.get());
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
  if (caBundle) {
    curl_blob blob{const_cast<char*>(caBundle->data()), caBundle->size(), CURL_BLOB_NOCOPY};
    curl_easy_setopt(easy, CURLOPT_CAINFO_BLOB, &blob);
  }
  // A stream goes over HTTP/1.1 whatever the configuration says: paused, it is held back by TCP
  // after its queue and the socket buffer, where this curl would take up to 32 MiB more over
  // HTTP/2 and hold up the POSTs sharing the connection's window (doc/decisions/044).
  if (configuration.allowHttp2 && !streaming) {
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
    // Wait for a connection that may multiplex rather than open one per request in a burst.
    curl_easy_setopt(easy, CURLOPT_PIPEWAIT, 1L);
  } else {
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    // This curl hands a request that may multiplex a connection an HTTP/1.1 transfer still holds
    // (a paused download range, say), and that request then reads the range's bytes as its
    // answer. curl reuses a connection only for a request with the same TLS settings, so these
    // transfers carry a flag of their own: one the OpenSSL backend ignores (it is Schannel's).
    curl_easy_setopt(easy, CURLOPT_SSL_OPTIONS, static_cast<long>(CURLSSLOPT_NO_REVOKE));
  }
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(configuration.connectTimeout.count()));
  if (configuration.lowSpeedBytesPerSecond > 0 && configuration.lowSpeedTime.count() > 0) {
    const long seconds = static_cast<long>((configuration.lowSpeedTime.count() + 999) / 1000);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, static_cast<long>(configuration.lowSpeedBytesPerSecond));
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, seconds);
  }
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, configuration.followRedirects ? 1L : 0L);
  curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 5L);
  if (configuration.acceptCompressed && !hasRange) curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
  const std::string userAgent =
      configuration.userAgent.empty() ? std::string("ostriolib/" KELNET_VERSION) : configuration.userAgent;
  curl_easy_setopt(easy, CURLOPT_USERAGENT, userAgent.c_str());
  if (!configuration.proxy.empty()) curl_easy_setopt(easy, CURLOPT_PROXY, configuration.proxy.c_str());
  curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);
  std::size_t buffer = configuration.receiveBufferSize;
  if (buffer == 0 && streaming) buffer = kDefaultStreamingBuffer;
  if (buffer) curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, static_cast<long>(buffer));
  if (streaming) {
    curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
  } else {
    maxAnswerBodyBytes = configuration.maxAnswerBodyBytes;
    if (configuration.deadline.count() > 0) {
      curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, static_cast<long>(configuration.deadline.count()));
    }
    curl_easy_setopt(easy, CURLOPT_POST, 1L);
    const auto* data = requestBody ? reinterpret_cast<const char*>(requestBody->Data()) : "";
    const auto size = requestBody ? static_cast<curl_off_t>(requestBody->Size()) : 0;
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, size);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, data);
  }
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, requestHeaders);
}

void Request::Restart() {
  answerHeaders.clear();
  answerFields.clear();
  answerBody.clear();
  broken = nullptr;
  if (http2) http2->Restart();
  haveLastHeader = false;
  bodyStarted = false;
  status = 0;
  if (error) error[0] = '\0';
}

size_t Request::OnHeader(char* buffer, size_t size, size_t count, void* user) {
  auto* request = static_cast<Request*>(user);
  const size_t length = size * count;
  HeaderLine line = internal::ParseHeaderLine(std::string_view(buffer, length));
  switch (line.kind) {
    case HeaderLine::Kind::Status:
      // A new answer (after a 100 Continue or a redirect): its headers replace the earlier ones.
      request->answerHeaders.clear();
      request->haveLastHeader = false;
      request->bodyStarted = false;
      if (line.status) request->status = line.status;
      break;
    case HeaderLine::Kind::Continuation:
      if (request->haveLastHeader) {
        std::string joined(request->lastHeader->second.View());
        joined += ' ';
        joined.append(line.value);
        request->lastHeader->second = kelcore::ImmutableString(joined);
      }
      break;
    case HeaderLine::Kind::Field:
      request->lastHeader = request->answerHeaders.emplace(kelcore::ImmutableString(line.name),
                                                           kelcore::ImmutableString(line.value));
      request->haveLastHeader = true;
      break;
    case HeaderLine::Kind::End:
    case HeaderLine::Kind::Other:
      break;
  }
  return length;
}

void Request::StartBody() {
  bodyStarted = true;
  long answerStatus = 0;
  curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &answerStatus);
  status = static_cast<int>(answerStatus);
  received = 0;
  offsetBase = 0;
  total = 0;
  rangeLength = 0;
  const bool success = answerStatus >= 200 && answerStatus <= 299;
  deliver = streaming && success;
  // The delivery thread reads them while curl may still add trailers here.
  if (deliver) deliveredHeaders = std::make_shared<const HeaderMap>(answerHeaders);
  if (deliver && answerStatus == kStatusPartialContent) {
    // Part of a resource: without a readable Content-Range there is no telling where its bytes
    // belong, so none of them are handed on.
    auto header = answerHeaders.find(kHEADER_CONTENT_RANGE);
    const auto range =
        header == answerHeaders.end() ? std::nullopt : internal::ParseContentRange(header->second.View());
    if (!range) {
      broken = "partial answer without a readable Content-Range";
      return;
    }
    offsetBase = range->first;
    total = range->total.value_or(0);
    rangeLength = range->last - range->first + 1;
  } else if (deliver) {
    if (answerHeaders.find(kHEADER_CONTENT_ENCODING) == answerHeaders.end()) {
      curl_off_t contentLength = -1;
      curl_easy_getinfo(easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &contentLength);
      if (contentLength > 0) total = static_cast<std::uint64_t>(contentLength);
    }
  } else if (!streaming) {
    curl_off_t contentLength = -1;
    curl_easy_getinfo(easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &contentLength);
    if (contentLength > 0 && static_cast<std::uint64_t>(contentLength) > maxAnswerBodyBytes &&
        answerHeaders.find(kHEADER_CONTENT_ENCODING) == answerHeaders.end()) {
      broken = "answer larger than its limit";
      return;
    }
    if (contentLength > 0) {
      answerBody.reserve(static_cast<std::size_t>(std::min<curl_off_t>(contentLength, 64 * 1024 * 1024)));
    }
  }
}

// Copies the bytes into the transfer's queue and pauses the transfer when the queue is full;
// false when the consumer is done with the transfer.
bool Request::Enqueue(const char* data, std::size_t size) {
  Progress progress;
  progress.bytesReceived = received + size;
  progress.totalBytes = total;
  switch (delivery->Enqueue(stream, data, size, offsetBase + received, progress, deliveredHeaders, !ending)) {
    case DeliveryQueue::Taken::ConsumerFailed:
      callbackFailed = true;
      return false;
    case DeliveryQueue::Taken::Cancelled:
      cancelled = true;
      return false;
    case DeliveryQueue::Taken::QueuedAndFull:
      // These bytes are taken; what curl receives from now on it holds until we resume.
      curl_easy_pause(easy, CURLPAUSE_RECV);
      return true;
    case DeliveryQueue::Taken::Queued:
      return true;
  }
  return true;
}

size_t Request::OnWrite(char* buffer, size_t size, size_t count, void* user) {
  auto* request = static_cast<Request*>(user);
  const size_t length = size * count;
  if (request->cancelled) return 0;
  if (!request->bodyStarted) {
    request->StartBody();
    if (request->broken) return 0;
  }
  if (request->deliver) {
    // Bytes past the end the Content-Range announced belong to no offset we could name.
    std::size_t take = length;
    if (request->rangeLength) take = std::min<std::uint64_t>(length, request->rangeLength - request->received);
    if (take > 0) {
      if (!request->Enqueue(buffer, take)) return 0;
      request->received += take;
    }
    if (take < length) {
      request->broken = "answer longer than its Content-Range";
      return 0;
    }
    return length;
  }
  if (request->streaming) {
    const size_t room = kMaxErrorBody - std::min(kMaxErrorBody, request->answerBody.size());
    request->answerBody.append(buffer, std::min(room, length));
  } else {
    if (length > request->maxAnswerBodyBytes - std::min(request->maxAnswerBodyBytes, request->answerBody.size())) {
      request->broken = "answer larger than its limit";
      return 0;
    }
    request->answerBody.append(buffer, length);
  }
  return length;
}

}  // namespace kelnet
