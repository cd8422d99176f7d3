#pragma once
// One HTTP/2 connection over TLS for POSTs: OpenSSL on a connected non-blocking socket, carrying
// an Http2Session, driven under Http2Client's mutex (by the completion thread, mostly: see Http2Client.h).
//
// Why our own and not curl's: curl 7.88 writes each request's HEADERS and DATA as TLS records of
// their own, with a poll between them, and walks every transfer on every turn; on small queries
// that is five times the CPU of a client that gathers a turn's frames into one write
// (doc/decisions/043). Here everything the session has to send after a turn goes out in one
// SSL_write (TLS records of up to 16 KiB), and everything the socket holds is read before it is
// handled.

#include <openssl/ssl.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Http2Session.h"

namespace kelnet {

class Http2Connection {
 public:
  using Clock = std::chrono::steady_clock;
  using Ended = Http2Session::Ended;

  enum class State {
    Handshaking,
    Open,      // takes new streams
    Draining,  // the server sent GOAWAY, or we close it: no new streams, the open ones finish
    NoHttp2,   // the handshake ended without "h2": the origin is curl's
    Closed,
  };

  // Takes the socket. The handshake must end by handshakeDeadline.
  Http2Connection(int fd, SSL_CTX* context, const std::string& host, Clock::time_point handshakeDeadline);
  ~Http2Connection();
  Http2Connection(const Http2Connection&) = delete;
  Http2Connection& operator=(const Http2Connection&) = delete;

  State GetState() const { return state_; }
  const char* Failure() const { return failure_; }  // why it closed without finishing its work
  bool Opened() const { return session_.has_value(); }  // the handshake picked "h2"
  std::size_t StreamCount() const { return session_ ? session_->StreamCount() : 0; }
  Clock::time_point IdleSince() const { return session_ ? session_->IdleSince() : Clock::now(); }
  int Fd() const { return fd_; }
  // What to poll for: POLLIN always, POLLOUT while TLS waits to write.
  short PollEvents() const;

  // Open only. False (request untouched) when the session refuses it.
  bool Submit(std::unique_ptr<Request>& request);
  std::unique_ptr<Request> Cancel(Request* request) { return session_ ? session_->Cancel(request) : nullptr; }
  std::vector<Request*> Requests() const { return session_ ? session_->Requests() : std::vector<Request*>(); }
  // Reads what the socket holds (readable false: poll said there is nothing), hands it to the
  // session, writes what the session has to send.
  void Drive(bool readable);
  // Sends GOAWAY and takes no new streams; closes once the open ones finished.
  void Drain();
  std::vector<Ended>& TakeEnded() { return session_ ? session_->TakeEnded() : noneEnded_; }

 private:
  void Handshake();
  void Read();
  void Write();
  void Fail(const char* why);

  int fd_;
  SSL* ssl_ = nullptr;
  std::optional<Http2Session> session_;
  State state_ = State::Handshaking;
  const char* failure_ = nullptr;
  Clock::time_point handshakeDeadline_;
  bool wantWrite_ = false;  // TLS needs the socket writable to go on
  std::string out_;         // frames the session produced, not yet taken by SSL_write
  std::size_t outSent_ = 0;
  std::vector<Ended> noneEnded_;
};

}  // namespace kelnet
