// An HTTP/2 client connection over TLS on the network thread. See Http2Connection.h.

#include "Http2Connection.h"

#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <unistd.h>

#include <cstring>

namespace kelnet {
namespace {

// Frames gathered per TLS write; SSL_write cuts them into records of 16 KiB.
constexpr std::size_t kWriteBatch = 64 * 1024;

}  // namespace

Http2Connection::Http2Connection(int fd, SSL_CTX* context, const std::string& host,
                                 Clock::time_point handshakeDeadline)
    : fd_(fd), handshakeDeadline_(handshakeDeadline) {
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
  session_.reset();
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
    session_.emplace();
    if (!session_->Start()) {
      Fail("HTTP/2 set-up failed");
      return;
    }
    state_ = State::Open;
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

bool Http2Connection::Submit(std::unique_ptr<Request>& request) {
  return state_ == State::Open && session_->Submit(request);
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
  if (state_ == State::Open && session_->GoawayReceived()) state_ = State::Draining;
  Write();
  if (state_ != State::Open && state_ != State::Draining) return;
  const bool flushed = outSent_ == out_.size();
  if (session_->Finished() && flushed) {
    Fail("connection closed");
  } else if (state_ == State::Draining && session_->StreamCount() == 0 && flushed) {
    state_ = State::Closed;
  }
}

void Http2Connection::Read() {
  uint8_t buffer[32 * 1024];
  while (state_ == State::Open || state_ == State::Draining) {
    ERR_clear_error();
    const int read = SSL_read(ssl_, buffer, sizeof buffer);
    if (read > 0) {
      if (!session_->Receive(buffer, static_cast<std::size_t>(read))) {
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
      if (!session_->Produce(out_, kWriteBatch)) {
        Fail("HTTP/2 protocol error");
        return;
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
  if (session_->StreamCount() == 0) {
    session_->SubmitGoaway();
    Write();
    state_ = State::Closed;
  }
}

void Http2Connection::Fail(const char* why) {
  if (state_ == State::Closed) return;
  state_ = State::Closed;
  failure_ = why;
  if (session_) session_->Fail(why);
}

}  // namespace kelnet
