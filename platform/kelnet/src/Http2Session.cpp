// One HTTP/2 client session's streams and nghttp2's callbacks. See Http2Session.h.

#include "Http2Session.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <optional>
#include <string_view>

#include "kelnet/Constants.h"
#include "kelnet/internal/HeaderParsing.h"

namespace kelnet {
namespace {

// An answer's head (names, values and HPACK's 32 bytes of overhead each) past this is refused.
constexpr std::size_t kMaxAnswerHeadBytes = 256 * 1024;
// What the server may send before we have handed on: the whole of a large answer at once.
constexpr int32_t kStreamWindow = 16 * 1024 * 1024;
constexpr int32_t kConnectionWindow = 64 * 1024 * 1024;

nghttp2_session_callbacks* Callbacks(
    nghttp2_on_header_callback onHeader, nghttp2_on_data_chunk_recv_callback onData,
    nghttp2_on_stream_close_callback onClose, nghttp2_on_frame_recv_callback onFrame,
    nghttp2_on_frame_send_callback onSent, nghttp2_on_frame_not_send_callback onNotSent) {
  // Built once and never changed: every session copies it.
  static nghttp2_session_callbacks* callbacks = [&] {
    nghttp2_session_callbacks* made = nullptr;
    nghttp2_session_callbacks_new(&made);
    nghttp2_session_callbacks_set_on_header_callback(made, onHeader);
    nghttp2_session_callbacks_set_on_data_chunk_recv_callback(made, onData);
    nghttp2_session_callbacks_set_on_stream_close_callback(made, onClose);
    nghttp2_session_callbacks_set_on_frame_recv_callback(made, onFrame);
    nghttp2_session_callbacks_set_on_frame_send_callback(made, onSent);
    nghttp2_session_callbacks_set_on_frame_not_send_callback(made, onNotSent);
    return made;
  }();
  return callbacks;
}

Request* StreamRequest(nghttp2_session* session, int32_t streamId) {
  return static_cast<Request*>(nghttp2_session_get_stream_user_data(session, streamId));
}

std::string_view View(const uint8_t* data, size_t length) {
  return std::string_view(reinterpret_cast<const char*>(data), length);
}

}  // namespace

Http2Session::~Http2Session() {
  if (session_) nghttp2_session_del(session_);
}

bool Http2Session::Start() {
  nghttp2_session_callbacks* callbacks =
      Callbacks(&OnHeader, &OnDataChunk, &OnStreamClose, &OnFrameReceived, &OnFrameSent, &OnFrameNotSent);
  if (!callbacks || nghttp2_session_client_new(&session_, callbacks, this) != 0) return false;
  const nghttp2_settings_entry settings[] = {
      {NGHTTP2_SETTINGS_ENABLE_PUSH, 0},
      {NGHTTP2_SETTINGS_INITIAL_WINDOW_SIZE, static_cast<uint32_t>(kStreamWindow)},
  };
  idleSince_ = Clock::now();
  return nghttp2_submit_settings(session_, NGHTTP2_FLAG_NONE, settings, 2) == 0 &&
         nghttp2_session_set_local_window_size(session_, NGHTTP2_FLAG_NONE, 0, kConnectionWindow) == 0;
}

bool Http2Session::Submit(std::unique_ptr<Request>& request) {
  if (failed_ || goawayReceived_) return false;
  const Http2Exchange& exchange = *request->http2;
  std::vector<nghttp2_nv>& head = head_;  // nghttp2 copies it: one vector serves every request
  head.clear();
  auto add = [&](std::string_view name, std::string_view value) {
    head.push_back({reinterpret_cast<uint8_t*>(const_cast<char*>(name.data())),
                    reinterpret_cast<uint8_t*>(const_cast<char*>(value.data())), name.size(), value.size(),
                    NGHTTP2_NV_FLAG_NONE});
  };
  add(":method", "POST");
  add(":scheme", "https");
  add(":authority", exchange.authority);
  add(":path", exchange.target);
  for (const auto& [name, value] : exchange.headers) add(name, value);
  const bool hasBody = request->requestBody && request->requestBody->Size() > 0;
  nghttp2_data_provider body{};
  body.read_callback = &ReadBody;
  const int32_t id =
      nghttp2_submit_request(session_, nullptr, head.data(), head.size(), hasBody ? &body : nullptr, request.get());
  if (id < 0) return false;
  streams_.emplace_back(id, std::move(request));
  return true;
}

std::vector<std::pair<int32_t, std::unique_ptr<Request>>>::iterator Http2Session::Find(int32_t streamId) {
  return std::find_if(streams_.begin(), streams_.end(), [&](const auto& stream) { return stream.first == streamId; });
}

std::vector<Request*> Http2Session::Requests() const {
  std::vector<Request*> all;
  for (const auto& [id, request] : streams_) all.push_back(request.get());
  return all;
}

std::unique_ptr<Request> Http2Session::Cancel(Request* request) {
  for (auto it = streams_.begin(); it != streams_.end(); ++it) {
    if (it->second.get() != request) continue;
    if (session_) {
      nghttp2_session_set_stream_user_data(session_, it->first, nullptr);
      nghttp2_submit_rst_stream(session_, NGHTTP2_FLAG_NONE, it->first, NGHTTP2_CANCEL);
    }
    auto taken = std::move(it->second);
    *it = std::move(streams_.back());
    streams_.pop_back();
    if (streams_.empty()) idleSince_ = Clock::now();
    taken->cancelled = true;
    return taken;
  }
  return nullptr;
}

bool Http2Session::Receive(const std::uint8_t* data, std::size_t size) {
  return !failed_ && nghttp2_session_mem_recv(session_, data, size) >= 0;
}

bool Http2Session::Produce(std::string& out, std::size_t until) {
  while (!failed_ && out.size() < until) {
    const uint8_t* data = nullptr;
    const ssize_t produced = nghttp2_session_mem_send(session_, &data);
    if (produced < 0) return false;
    if (produced == 0) break;
    out.append(reinterpret_cast<const char*>(data), static_cast<std::size_t>(produced));
  }
  return !failed_;
}

bool Http2Session::Finished() const {
  return failed_ || (!nghttp2_session_want_read(session_) && !nghttp2_session_want_write(session_));
}

void Http2Session::SubmitGoaway() {
  nghttp2_submit_goaway(session_, NGHTTP2_FLAG_NONE, nghttp2_session_get_last_proc_stream_id(session_),
                        NGHTTP2_NO_ERROR, nullptr, 0);
}

// Streams the server never took up go elsewhere. So does one that got nothing back on a
// connection that had answered before: the server may have closed it, idle, as we wrote (curl
// sends such a request again too).
void Http2Session::Fail(const char* why) {
  if (failed_) return;
  failed_ = true;
  while (!streams_.empty()) {
    auto& [id, request] = streams_.back();
    const bool unanswered = request->status == 0 && !request->bodyStarted;
    EndStream(id, why, !request->http2->sent || (unanswered && everAnswered_));
  }
}

void Http2Session::EndStream(int32_t streamId, const char* error, bool again) {
  auto it = Find(streamId);
  if (it == streams_.end()) return;
  std::unique_ptr<Request> request = std::move(it->second);
  *it = std::move(streams_.back());
  streams_.pop_back();
  if (!failed_) nghttp2_session_set_stream_user_data(session_, streamId, nullptr);
  if (!error) everAnswered_ = true;
  if (streams_.empty()) idleSince_ = Clock::now();
  ended_.push_back({std::move(request), error, again});
}

int Http2Session::OnHeader(nghttp2_session* session, const nghttp2_frame* frame, const uint8_t* name,
                              size_t nameLength, const uint8_t* value, size_t valueLength, uint8_t, void*) {
  if (frame->hd.type != NGHTTP2_HEADERS) return 0;
  Request* request = StreamRequest(session, frame->hd.stream_id);
  if (!request) return 0;
  Http2Exchange& exchange = *request->http2;
  exchange.headBytes += nameLength + valueLength + 32;
  if (exchange.headBytes > kMaxAnswerHeadBytes) {
    request->broken = "answer head larger than its limit";
    return NGHTTP2_ERR_TEMPORAL_CALLBACK_FAILURE;
  }
  const std::string_view field = View(name, nameLength);
  if (field == ":status") {
    // A new head (after an informational one): it replaces the earlier one.
    int status = 0;
    const auto text = View(value, valueLength);
    std::from_chars(text.data(), text.data() + text.size(), status);
    request->status = status;
    request->answerFields.clear();
    exchange.announcedLength.reset();
    exchange.encoding.reset();
    return 0;
  }
  if (field.empty() || field.front() == ':') return 0;
  // nghttp2 lets no NUL through in a name or value: it separates them here. Room for a usual
  // head at once, not grown field by field.
  if (request->answerFields.capacity() < 256) request->answerFields.reserve(256);
  request->answerFields.append(field).push_back('\0');
  request->answerFields.append(View(value, valueLength)).push_back('\0');
  if (field == kHEADER_CONTENT_LENGTH.View()) {
    if (!exchange.announcedLength) exchange.announcedLength.emplace(View(value, valueLength));
  } else if (field == kHEADER_CONTENT_ENCODING.View()) {
    if (!exchange.encoding) exchange.encoding.emplace(View(value, valueLength));
  }
  return 0;
}

int Http2Session::OnFrameReceived(nghttp2_session* session, const nghttp2_frame* frame, void* self) {
  auto* owner = static_cast<Http2Session*>(self);
  if (frame->hd.type == NGHTTP2_GOAWAY) {
    // Streams past its last id come back refused (OnStreamClose); the rest finish here.
    owner->goawayReceived_ = true;
    return 0;
  }
  if (frame->hd.type != NGHTTP2_HEADERS || frame->headers.cat != NGHTTP2_HCAT_RESPONSE) return 0;
  Request* request = StreamRequest(session, frame->hd.stream_id);
  if (!request) return 0;
  // A body announced larger than the limit fails now, before any of it is held.
  const Http2Exchange& exchange = *request->http2;
  if (!exchange.announcedLength || exchange.encoding) return 0;
  const auto announced = internal::ParseDecimal(*exchange.announcedLength);
  if (announced && *announced > request->maxAnswerBodyBytes) {
    request->broken = "answer larger than its limit";
    nghttp2_submit_rst_stream(session, NGHTTP2_FLAG_NONE, frame->hd.stream_id, NGHTTP2_CANCEL);
  } else if (announced && *announced > 0) {
    request->answerBody.reserve(static_cast<std::size_t>(*announced));
  }
  return 0;
}

int Http2Session::OnDataChunk(nghttp2_session* session, uint8_t, int32_t streamId, const uint8_t* data,
                                 size_t length, void*) {
  Request* request = StreamRequest(session, streamId);
  if (!request || request->broken) return 0;
  request->bodyStarted = true;
  auto& decoder = request->http2->decoder;
  if (!decoder) {
    const auto& encoding = request->http2->encoding;
    decoder.emplace(encoding ? std::string_view(*encoding) : std::string_view());
  }
  const char* broken = nullptr;
  if (!decoder->Append(request->answerBody, data, length, request->maxAnswerBodyBytes, broken)) {
    request->broken = broken;
    nghttp2_submit_rst_stream(session, NGHTTP2_FLAG_NONE, streamId, NGHTTP2_CANCEL);
  }
  return 0;
}

int Http2Session::OnStreamClose(nghttp2_session*, int32_t streamId, uint32_t errorCode, void* self) {
  auto* owner = static_cast<Http2Session*>(self);
  auto it = owner->Find(streamId);
  if (it == owner->streams_.end()) return 0;
  Request& request = *it->second;
  if (request.broken) {
    owner->EndStream(streamId, request.broken, false);
  } else if (errorCode == NGHTTP2_REFUSED_STREAM && request.status == 0 && !request.bodyStarted) {
    owner->EndStream(streamId, "stream refused", true);
  } else if (errorCode != NGHTTP2_NO_ERROR) {
    owner->EndStream(streamId, nghttp2_http2_strerror(errorCode), false);
  } else if (request.status < 200) {
    owner->EndStream(streamId, "stream closed without an answer", false);
  } else if (request.http2->decoder && !request.http2->decoder->Complete()) {
    owner->EndStream(streamId, "answer could not be decoded", false);
  } else {
    owner->EndStream(streamId, nullptr, false);
  }
  return 0;
}

int Http2Session::OnFrameSent(nghttp2_session* session, const nghttp2_frame* frame, void*) {
  if (frame->hd.type != NGHTTP2_HEADERS) return 0;
  if (Request* request = StreamRequest(session, frame->hd.stream_id)) request->http2->sent = true;
  return 0;
}

int Http2Session::OnFrameNotSent(nghttp2_session*, const nghttp2_frame* frame, int, void* self) {
  // A request that never left (the server said GOAWAY first) is safe to send elsewhere.
  if (frame->hd.type == NGHTTP2_HEADERS) {
    static_cast<Http2Session*>(self)->EndStream(frame->hd.stream_id, "stream not sent", true);
  }
  return 0;
}

ssize_t Http2Session::ReadBody(nghttp2_session* session, int32_t streamId, uint8_t* buffer, size_t length,
                                  uint32_t* flags, nghttp2_data_source*, void*) {
  Request* request = StreamRequest(session, streamId);
  if (!request) return NGHTTP2_ERR_TEMPORAL_CALLBACK_FAILURE;
  Http2Exchange& exchange = *request->http2;
  const std::size_t total = request->requestBody ? request->requestBody->Size() : 0;
  const std::size_t take = std::min(length, total - std::min(total, exchange.bodySent));
  if (take > 0) std::memcpy(buffer, static_cast<const uint8_t*>(request->requestBody->Data()) + exchange.bodySent, take);
  exchange.bodySent += take;
  if (exchange.bodySent >= total) *flags |= NGHTTP2_DATA_FLAG_EOF;
  return static_cast<ssize_t>(take);
}

}  // namespace kelnet
