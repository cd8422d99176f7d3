#pragma once
// The HTTP/2 side of one of our client connections: an nghttp2 client session and the POSTs on
// its streams. Bytes in and out only; the connection (Http2Connection) moves them over TLS.
//
// A request handed to Submit belongs to the session until it comes back through TakeEnded:
// answered, failed, or to be sent again elsewhere (never sent, or refused by the server unseen).
//
// Threads: one at a time, under Http2Client's mutex.

#include <nghttp2/nghttp2.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Request.h"

namespace kelnet {

class Http2Session {
 public:
  using Clock = std::chrono::steady_clock;

  struct Ended {
    std::unique_ptr<Request> request;
    const char* error = nullptr;  // null: answered
    bool again = false;           // the server never saw it or refused it unseen: safe to send again
  };

  Http2Session() = default;
  ~Http2Session();
  Http2Session(const Http2Session&) = delete;
  Http2Session& operator=(const Http2Session&) = delete;

  // Our SETTINGS and windows; false when nghttp2 could not start.
  bool Start();
  // False (request untouched) when nghttp2 refuses it.
  bool Submit(std::unique_ptr<Request>& request);
  // Ends a stream at once (an RST_STREAM goes out): its request comes back from here, cancelled.
  std::unique_ptr<Request> Cancel(Request* request);
  std::vector<Request*> Requests() const;

  // The server's bytes; false on a protocol error (the connection must end).
  bool Receive(const std::uint8_t* data, std::size_t size);
  // Appends what is to be sent until out holds at least `until` bytes or nothing is left; false
  // on a protocol error.
  bool Produce(std::string& out, std::size_t until);
  // Neither side has anything more to say: the connection may close.
  bool Finished() const;
  bool GoawayReceived() const { return goawayReceived_; }
  void SubmitGoaway();
  // Ends every stream with why; those the server cannot have acted on are to go again.
  void Fail(const char* why);

  std::size_t StreamCount() const { return streams_.size(); }
  Clock::time_point IdleSince() const { return idleSince_; }
  std::vector<Ended>& TakeEnded() { return ended_; }

 private:
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

  nghttp2_session* session_ = nullptr;
  bool failed_ = false;
  bool goawayReceived_ = false;
  bool everAnswered_ = false;  // a stream was answered here: a later loss is of a reused connection
  Clock::time_point idleSince_ = Clock::now();
  // The open streams and their requests. A flat list, searched: a connection carries a few dozen
  // streams at most (the service throttles its requests), and a list keeps its room where a map
  // allocates a node per request.
  std::vector<std::pair<int32_t, std::unique_ptr<Request>>> streams_;
  std::vector<std::pair<int32_t, std::unique_ptr<Request>>>::iterator Find(int32_t streamId);
  std::vector<Ended> ended_;
  std::vector<nghttp2_nv> head_;
};

}  // namespace kelnet
