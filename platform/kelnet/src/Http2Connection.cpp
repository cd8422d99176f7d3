// An HTTP/2 client connection over TLS on the network thread. See Http2Connection.h.

#include "Http2Connection.h"

#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <unistd.h>

#include <charconv>
#include <cstring>
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
// Frames gathered per TLS write; SSL_write cuts them into records of 16 KiB.
constexpr std::size_t kWriteBatch = 64 * 1024;

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

Http2Connection::Http2Connection(int fd, SSL_CTX* context, const std::string& host,
                                 Clock::time_point handshakeDeadline)
    : fd_(fd), handshakeDeadline_(handshakeDeadline), idleSince_(Clock::now()) {
  ssl_ = context ? SSL_new(context) : nullptr;
  if (!ssl_ || SSL_set_fd(ssl_, fd_) != 1) {
    Fail("TLS set-up failed");
    return;
  }
  SSL_set_mode(ssl_, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  SSL_set_connect_state(ssl_);
  X509_VERIFY_PARAM* verify = SSL_get0_param(ssl_);
  if (host.find(':') != std::string::npos || host.find_first_not_of("0123456789.") == std::string::npos) {
    // An address literal: checked against the certificate's IP entries, and no SNI.
    if (X509_VERIFY_PARAM_set1_ip_asc(verify, host.c_str()) != 1) Fail("TLS set-up failed");
  } else {
    X509_VERIFY_PARAM_set_hostflags(verify, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    if (SSL_set_tlsext_host_name(ssl_, host.c_str()) != 1 || SSL_set1_host(ssl_, host.c_str()) != 1) {
      Fail("TLS set-up failed");
    }
  }
}

Http2Connection::~Http2Connection() {
  if (session_) nghttp2_session_del(session_);
  if (ssl_) SSL_free(ssl_);
  if (fd_ >= 0) ::close(fd_);
}

short Http2Connection::PollEvents() const {
  if (state_ == State::Closed || state_ == State::NoHttp2) return 0;
  return static_cast<short>(POLLIN | (wantWrite_ ? POLLOUT : 0));
}

void Http2Connection::Handshake() {
  ERR_clear_error();
  const int result = SSL_do_handshake(ssl_);
  if (result == 1) {
    const unsigned char* protocol = nullptr;
    unsigned int length = 0;
    SSL_get0_alpn_selected(ssl_, &protocol, &length);
    if (length != 2 || std::memcmp(protocol, "h2", 2) != 0) {
      state_ = State::NoHttp2;
      return;
    }
    wantWrite_ = false;
    if (StartSession()) state_ = State::Open;
    return;
  }
  const int error = SSL_get_error(ssl_, result);
  if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
    wantWrite_ = error == SSL_ERROR_WANT_WRITE;
    return;
  }
  const long verify = SSL_get_verify_result(ssl_);
  // OpenSSL's texts are static: they outlive the connection.
  Fail(verify != X509_V_OK ? X509_verify_cert_error_string(verify) : "TLS handshake failed");
}

bool Http2Connection::StartSession() {
  nghttp2_session_callbacks* callbacks =
      Callbacks(&OnHeader, &OnDataChunk, &OnStreamClose, &OnFrameReceived, &OnFrameSent, &OnFrameNotSent);
  if (!callbacks || nghttp2_session_client_new(&session_, callbacks, this) != 0) {
    Fail("HTTP/2 set-up failed");
    return false;
  }
  const nghttp2_settings_entry settings[] = {
      {NGHTTP2_SETTINGS_ENABLE_PUSH, 0},
      {NGHTTP2_SETTINGS_INITIAL_WINDOW_SIZE, static_cast<uint32_t>(kStreamWindow)},
  };
  if (nghttp2_submit_settings(session_, NGHTTP2_FLAG_NONE, settings, 2) != 0 ||
      nghttp2_session_set_local_window_size(session_, NGHTTP2_FLAG_NONE, 0, kConnectionWindow) != 0) {
    Fail("HTTP/2 set-up failed");
    return false;
  }
  idleSince_ = Clock::now();
  return true;
}

bool Http2Connection::Submit(std::unique_ptr<Request>& request) {
  if (state_ != State::Open) return false;
  const Http2Exchange& exchange = *request->http2;
  std::vector<nghttp2_nv> head;
  head.reserve(4 + exchange.headers.size());
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
  streams_.emplace(id, std::move(request));
  return true;
}

std::vector<Request*> Http2Connection::Requests() const {
  std::vector<Request*> all;
  for (const auto& [id, request] : streams_) all.push_back(request.get());
  return all;
}

std::unique_ptr<Request> Http2Connection::Cancel(Request* request) {
  for (auto it = streams_.begin(); it != streams_.end(); ++it) {
    if (it->second.get() != request) continue;
    if (session_) {
      nghttp2_session_set_stream_user_data(session_, it->first, nullptr);
      nghttp2_submit_rst_stream(session_, NGHTTP2_FLAG_NONE, it->first, NGHTTP2_CANCEL);
    }
    auto taken = std::move(it->second);
    streams_.erase(it);
    if (streams_.empty()) idleSince_ = Clock::now();
    taken->cancelled = true;
    return taken;
  }
  return nullptr;
}

void Http2Connection::Drive(bool readable) {
  if (state_ == State::Handshaking) {
    if (Clock::now() >= handshakeDeadline_) {
      Fail("connection timed out in the TLS handshake");
      return;
    }
    Handshake();
    if (state_ != State::Open) return;
    readable = true;
  }
  if (state_ != State::Open && state_ != State::Draining) return;
  if (readable || wantWrite_) Read();
  Write();
  if (state_ != State::Open && state_ != State::Draining) return;
  const bool flushed = outSent_ == out_.size();
  if (!nghttp2_session_want_read(session_) && !nghttp2_session_want_write(session_) && flushed) {
    Fail("connection closed");
  } else if (state_ == State::Draining && streams_.empty() && flushed) {
    state_ = State::Closed;
  }
}

void Http2Connection::Read() {
  uint8_t buffer[32 * 1024];
  while (state_ == State::Open || state_ == State::Draining) {
    ERR_clear_error();
    const int read = SSL_read(ssl_, buffer, sizeof buffer);
    if (read > 0) {
      if (nghttp2_session_mem_recv(session_, buffer, static_cast<size_t>(read)) < 0) {
        Fail("HTTP/2 protocol error");
        return;
      }
      continue;
    }
    const int error = SSL_get_error(ssl_, read);
    if (error == SSL_ERROR_WANT_READ) return;
    if (error == SSL_ERROR_WANT_WRITE) {
      wantWrite_ = true;
      return;
    }
    Fail(error == SSL_ERROR_ZERO_RETURN ? "connection closed by the server" : "connection lost");
    return;
  }
}

void Http2Connection::Write() {
  while (state_ == State::Open || state_ == State::Draining) {
    if (outSent_ == out_.size()) {
      out_.clear();
      outSent_ = 0;
      while (out_.size() < kWriteBatch) {
        const uint8_t* data = nullptr;
        const ssize_t produced = nghttp2_session_mem_send(session_, &data);
        if (produced < 0) {
          Fail("HTTP/2 protocol error");
          return;
        }
        if (produced == 0) break;
        out_.append(reinterpret_cast<const char*>(data), static_cast<std::size_t>(produced));
      }
      if (out_.empty()) {
        wantWrite_ = false;
        return;
      }
    }
    ERR_clear_error();
    const int written = SSL_write(ssl_, out_.data() + outSent_, static_cast<int>(out_.size() - outSent_));
    if (written > 0) {
      outSent_ += static_cast<std::size_t>(written);
      wantWrite_ = false;
      continue;
    }
    const int error = SSL_get_error(ssl_, written);
    if (error == SSL_ERROR_WANT_WRITE) {
      wantWrite_ = true;
      return;
    }
    if (error == SSL_ERROR_WANT_READ) return;
    Fail("connection lost");
    return;
  }
}

void Http2Connection::Drain() {
  if (state_ == State::Handshaking) {
    state_ = State::Closed;
    return;
  }
  if (state_ != State::Open) return;
  state_ = State::Draining;
  if (streams_.empty()) {
    nghttp2_submit_goaway(session_, NGHTTP2_FLAG_NONE, nghttp2_session_get_last_proc_stream_id(session_),
                          NGHTTP2_NO_ERROR, nullptr, 0);
    Write();
    state_ = State::Closed;
  }
}

void Http2Connection::Abort(const char* why) { Fail(why); }

// Streams the server never took up go elsewhere. So does one that got nothing back on a
// connection that had answered before: the server may have closed it, idle, as we wrote (curl
// sends such a request again too).
void Http2Connection::Fail(const char* why) {
  if (state_ == State::Closed) return;
  state_ = State::Closed;
  failure_ = why;
  while (!streams_.empty()) {
    auto& [id, request] = *streams_.begin();
    const bool unanswered = request->status == 0 && !request->bodyStarted;
    EndStream(id, why, !request->http2->sent || (unanswered && everAnswered_));
  }
}

void Http2Connection::EndStream(int32_t streamId, const char* error, bool again) {
  auto node = streams_.extract(streamId);
  if (node.empty()) return;
  if (session_ && state_ != State::Closed) nghttp2_session_set_stream_user_data(session_, streamId, nullptr);
  if (!error) everAnswered_ = true;
  if (streams_.empty()) idleSince_ = Clock::now();
  ended_.push_back({std::move(node.mapped()), error, again});
}

int Http2Connection::OnHeader(nghttp2_session* session, const nghttp2_frame* frame, const uint8_t* name,
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
    request->answerHeaders.clear();
    return 0;
  }
  if (field.empty() || field.front() == ':') return 0;
  request->answerHeaders.emplace(kelcore::ImmutableString(field),
                                 kelcore::ImmutableString(View(value, valueLength)));
  return 0;
}

int Http2Connection::OnFrameReceived(nghttp2_session* session, const nghttp2_frame* frame, void* self) {
  auto* connection = static_cast<Http2Connection*>(self);
  if (frame->hd.type == NGHTTP2_GOAWAY) {
    // Streams past its last id come back refused (OnStreamClose); the rest finish here.
    if (connection->state_ == State::Open) connection->state_ = State::Draining;
    return 0;
  }
  if (frame->hd.type != NGHTTP2_HEADERS || frame->headers.cat != NGHTTP2_HCAT_RESPONSE) return 0;
  Request* request = StreamRequest(session, frame->hd.stream_id);
  if (!request) return 0;
  // A body announced larger than the limit fails now, before any of it is held.
  const auto& headers = request->answerHeaders;
  auto length = headers.find(kHEADER_CONTENT_LENGTH);
  if (length == headers.end() || headers.count(kelcore::ImmutableString("content-encoding"))) return 0;
  const auto announced = internal::ParseDecimal(length->second.View());
  if (announced && *announced > request->maxAnswerBodyBytes) {
    request->broken = "answer larger than its limit";
    nghttp2_submit_rst_stream(session, NGHTTP2_FLAG_NONE, frame->hd.stream_id, NGHTTP2_CANCEL);
  } else if (announced && *announced > 0) {
    request->answerBody.reserve(static_cast<std::size_t>(*announced));
  }
  return 0;
}

int Http2Connection::OnDataChunk(nghttp2_session* session, uint8_t, int32_t streamId, const uint8_t* data,
                                 size_t length, void*) {
  Request* request = StreamRequest(session, streamId);
  if (!request || request->broken) return 0;
  request->bodyStarted = true;
  const char* broken = nullptr;
  if (!request->http2->AppendBody(request->answerBody, request->answerHeaders, data, length,
                                  request->maxAnswerBodyBytes, broken)) {
    request->broken = broken;
    nghttp2_submit_rst_stream(session, NGHTTP2_FLAG_NONE, streamId, NGHTTP2_CANCEL);
  }
  return 0;
}

int Http2Connection::OnStreamClose(nghttp2_session*, int32_t streamId, uint32_t errorCode, void* self) {
  auto* connection = static_cast<Http2Connection*>(self);
  auto it = connection->streams_.find(streamId);
  if (it == connection->streams_.end()) return 0;
  Request& request = *it->second;
  if (request.broken) {
    connection->EndStream(streamId, request.broken, false);
  } else if (errorCode == NGHTTP2_REFUSED_STREAM && request.status == 0 && !request.bodyStarted) {
    connection->EndStream(streamId, "stream refused", true);
  } else if (errorCode != NGHTTP2_NO_ERROR) {
    connection->EndStream(streamId, nghttp2_http2_strerror(errorCode), false);
  } else if (request.status < 200) {
    connection->EndStream(streamId, "stream closed without an answer", false);
  } else if (!request.http2->BodyComplete()) {
    connection->EndStream(streamId, "answer could not be decoded", false);
  } else {
    connection->EndStream(streamId, nullptr, false);
  }
  return 0;
}

int Http2Connection::OnFrameSent(nghttp2_session* session, const nghttp2_frame* frame, void*) {
  if (frame->hd.type != NGHTTP2_HEADERS) return 0;
  if (Request* request = StreamRequest(session, frame->hd.stream_id)) request->http2->sent = true;
  return 0;
}

int Http2Connection::OnFrameNotSent(nghttp2_session*, const nghttp2_frame* frame, int, void* self) {
  // A request that never left (the server said GOAWAY first) is safe to send elsewhere.
  if (frame->hd.type == NGHTTP2_HEADERS) {
    static_cast<Http2Connection*>(self)->EndStream(frame->hd.stream_id, "stream not sent", true);
  }
  return 0;
}

ssize_t Http2Connection::ReadBody(nghttp2_session* session, int32_t streamId, uint8_t* buffer, size_t length,
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
