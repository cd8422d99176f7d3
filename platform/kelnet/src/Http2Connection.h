#pragma once
// One HTTP/2 connection over TLS for POSTs: OpenSSL on a connected non-blocking socket and an
// nghttp2 client session, driven by the network thread alone.
//
// Why our own and not curl's: curl 7.88 writes each request's HEADERS and DATA as TLS records of
// their own, with a poll between them, and walks every transfer on every turn; on small queries
// that is five times the CPU of a client that gathers a turn's frames into one write
// (doc/decisions/043). Here everything nghttp2 has to send after a turn goes out in one SSL_write
// (TLS records of up to 16 KiB), and everything the socket holds is read before it is handled.
//
// A request handed to Submit belongs to the connection until it comes back through TakeEnded:
// answered, failed, or to be sent again elsewhere (never sent, or refused by the server unseen).

#include <nghttp2/nghttp2.h>
#include <openssl/ssl.h>

#include <chrono>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "Request.h"

namespace kelnet {

class Http2Connection {
 public:
  using Clock = std::chrono::steady_clock;

  enum class State {
    Handshaking,
    Open,      // takes new streams
    Draining,  // the server sent GOAWAY, or we close it: no new streams, the open ones finish
    NoHttp2,   // the handshake ended without "h2": the origin is curl's
    Closed,
  };

  struct Ended {
    std::unique_ptr<Request> request;
    const char* error = nullptr;  // null: answered
    bool again = false;           // the server never saw it or refused it unseen: safe to send again
  };

  // Takes the socket. The handshake must end by handshakeDeadline.
  Http2Connection(int fd, SSL_CTX* context, const std::string& host, Clock::time_point handshakeDeadline);
  ~Http2Connection();
  Http2Connection(const Http2Connection&) = delete;
  Http2Connection& operator=(const Http2Connection&) = delete;

  State GetState() const { return state_; }
  const char* Failure() const { return failure_; }  // why it closed without finishing its work
  bool Opened() const { return session_ != nullptr; }  // the handshake picked "h2" and the session started
  std::size_t StreamCount() const { return streams_.size(); }
  Clock::time_point IdleSince() const { return idleSince_; }
  int Fd() const { return fd_; }
  // What to poll for: POLLIN always, POLLOUT while TLS waits to write.
  short PollEvents() const;

  // Open only. False (request untouched) when nghttp2 refuses it.
  bool Submit(std::unique_ptr<Request>& request);
  // Ends a stream at once: its request comes back from here, marked cancelled.
  std::unique_ptr<Request> Cancel(Request* request);
  std::vector<Request*> Requests() const;
  // Reads what the socket holds (readable false: poll said there is nothing), handles it, writes
  // what nghttp2 has to send.
  void Drive(bool readable);
  // Sends GOAWAY and takes no new streams; closes once the open ones finished.
  void Drain();
  // Fails every stream it still has and closes.
  void Abort(const char* why);
  std::vector<Ended>& TakeEnded() { return ended_; }

 private:
  void Handshake();
  bool StartSession();
  void Read();
  void Write();
  void Fail(const char* why);
  void EndStream(int32_t streamId, const char* error, bool again);

  static int OnHeader(nghttp2_session*, const nghttp2_frame* frame, const uint8_t* name, size_t nameLength,
                      const uint8_t* value, size_t valueLength, uint8_t flags, void* self);
  static int OnDataChunk(nghttp2_session*, uint8_t flags, int32_t streamId, const uint8_t* data, size_t length,
                         void* self);
  static int OnStreamClose(nghttp2_session*, int32_t streamId, uint32_t errorCode, void* self);
  static int OnFrameReceived(nghttp2_session*, const nghttp2_frame* frame, void* self);
  static int OnFrameSent(nghttp2_session*, const nghttp2_frame* frame, void* self);
  static int OnFrameNotSent(nghttp2_session*, const nghttp2_frame* frame, int errorCode, void* self);
  static ssize_t ReadBody(nghttp2_session*, int32_t streamId, uint8_t* buffer, size_t length, uint32_t* flags,
                          nghttp2_data_source* source, void* self);

  int fd_;
  SSL* ssl_ = nullptr;
  nghttp2_session* session_ = nullptr;
  State state_ = State::Handshaking;
  const char* failure_ = nullptr;
  Clock::time_point handshakeDeadline_;
  Clock::time_point idleSince_;
  bool wantWrite_ = false;   // TLS needs the socket writable to go on
  bool everAnswered_ = false;  // a stream was answered here: a later loss is of a reused connection
  std::string out_;          // frames nghttp2 produced, not yet taken by SSL_write
  std::size_t outSent_ = 0;
  std::unordered_map<int32_t, std::unique_ptr<Request>> streams_;
  std::vector<Ended> ended_;
};

}  // namespace kelnet
