#pragma once
// kelnet's own HTTP/2 client for POSTs over TLS: one connection per origin (host, port and the
// CA bundle trusted), shared by every POST to it, on the network thread.
//
// curl still resolves the name and opens the TCP connection (a connect-only easy handle in the
// network thread's multi handle: its resolver, *.localhost, address fallback and connect
// timeout), and we take a duplicate of the socket; TLS and HTTP/2 are ours (Http2Connection). An
// origin whose TLS handshake does not pick "h2" is handed back to curl for good: its requests
// come out of TakeForCurl.
//
// Threads: the network thread drives it; the completion thread puts the requests its completions
// start straight on an open connection and writes them when its batch is done (SubmitNow), so
// that a round of answers and the requests they start cost one wake-up of the network thread
// instead of two. One mutex guards everything here, TLS and nghttp2
// included; the network thread holds it while it reads, never while it sleeps.

#include <curl/curl.h>
#include <openssl/ssl.h>

#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "Http2Connection.h"
#include "Request.h"

namespace kelnet {

class Http2Client {
 public:
  using Clock = std::chrono::steady_clock;
  using Ended = Http2Connection::Ended;  // again is always false here

  Http2Client() = default;
  ~Http2Client();
  Http2Client(const Http2Client&) = delete;
  Http2Client& operator=(const Http2Client&) = delete;

  // curl's default trust (its CA file and directory); the multi handle connections are opened in.
  void Attach(CURLM* multi, std::string caFile, std::string caPath);

  void Add(std::unique_ptr<Request> request);
  // A connect-only handle of ours finished; false when the handle is not ours.
  bool OnConnected(CURL* easy, CURLcode code);
  // Reads and writes every connection, ends requests past their deadline. polled: the poll set's
  // revents are this turn's (a connection without events is not read).
  void Drive(bool polled);
  void Cancel(const kelcore::utility::Guid& id);
  // Every request ends, cancelled, and every connection closes; SubmitNow places none from here on.
  void Stop();

  // Completion thread, once its batch of completions has run: puts the requests they started on
  // an open connection to their origin (the one the last request went to) and writes them. What
  // it could not place stays in requests, in order, for the network thread. True when the
  // network thread must look: a write waits for the socket, a stream ended, or a deadline is
  // earlier than it knows of.
  bool SubmitNow(std::vector<std::unique_ptr<Request>>& requests);

  // Network thread: the sockets to poll, written into by curl_multi_poll; their revents are read
  // by the next Drive(true).
  std::vector<curl_waitfd>& PollSet();
  Clock::time_point NextDeadline() const;
  bool Empty() const;

  std::vector<Ended> TakeEnded();
  std::vector<std::unique_ptr<Request>> TakeForCurl();

 private:
  struct Origin {
    std::string host;
    std::uint16_t port = 443;
    // The trust it was opened with (null: curl's default); held, so that its address, part of the
    // origin's key, is never another bundle's.
    std::shared_ptr<const std::string> pem;
    SSL_CTX* context = nullptr;
    std::vector<std::unique_ptr<Http2Connection>> connections;
    std::deque<std::unique_ptr<Request>> waiting;  // for a connection to open
    CURL* connecting = nullptr;
    bool curlOnly = false;
  };
  struct Trust {
    std::shared_ptr<const std::string> pem;  // kept: its address is the key
    SSL_CTX* context = nullptr;
  };

  SSL_CTX* Context(const std::shared_ptr<const std::string>& pem);
  void Connect(Origin& origin);
  void Settle(Origin& origin);
  void Fail(std::deque<std::unique_ptr<Request>>& requests, const char* why);
  void EndExpired(Clock::time_point now);

  mutable std::mutex mutex_;
  bool stopped_ = false;
  CURLM* multi_ = nullptr;
  std::string caFile_;
  std::string caPath_;
  std::map<const std::string*, Trust> trust_;
  std::map<std::string, Origin> origins_;
  Origin* lastOrigin_ = nullptr;  // the one the last request went to: usually the next one's too
  std::unordered_map<CURL*, Origin*> connecting_;
  std::vector<curl_waitfd> pollSet_;
  Clock::time_point nextDeadline_ = Clock::time_point::max();
  std::vector<Ended> ended_;
  std::vector<std::unique_ptr<Request>> forCurl_;
};

}  // namespace kelnet
