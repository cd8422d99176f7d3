#pragma once
// kelnet's own HTTP/2 client for POSTs over TLS: one connection per origin (host, port and the
// CA bundle trusted), shared by every POST to it.
//
// curl still resolves the name and opens the TCP connection (a connect-only easy handle in the
// network thread's multi handle: its resolver, *.localhost, address fallback and connect
// timeout), and we take a duplicate of the socket; TLS and HTTP/2 are ours (Http2Connection). An
// origin whose TLS handshake does not pick "h2" is handed back to curl for good: its requests
// come out of TakeForCurl.
//
// Threads (decision 045): the completion thread reads and writes the connections. It sleeps in
// poll() on them (FillPoll, then Drive with the revents), ends what passed its deadline, and puts
// the requests its completions start straight on an open connection (SubmitNow), so that a round
// of answers and the requests they start wake one thread once. The network thread adds the
// requests other threads start, opens connections (StartConnects, OnConnected) and cancels; when
// that changes what the completion thread should watch, PollerMustLook says so. One mutex guards
// everything here, TLS and nghttp2 included; no thread holds it while it sleeps.

#include <curl/curl.h>
#include <openssl/ssl.h>
#include <poll.h>

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

  // Network thread: a request for a connection, written by the next Flush.
  void Add(std::unique_ptr<Request> request);
  void Flush();
  // Network thread: opens the connections origins asked for since the last call.
  void StartConnects();
  // Network thread: a connect-only handle of ours finished; false when the handle is not ours.
  bool OnConnected(CURL* easy, CURLcode code);
  void Cancel(const kelcore::utility::Guid& id);
  // Every request ends, cancelled, and every connection closes; SubmitNow places none from here on.
  void Stop();

  // Completion thread, before it sleeps: appends the sockets to watch and returns how long it
  // may sleep (milliseconds, -1: until woken), for the next deadline.
  int FillPoll(std::vector<pollfd>& into);
  // Completion thread, woken: reads and writes every connection (one the poll did not report is
  // not read), ends requests past their deadline.
  void Drive(const std::vector<pollfd>& polled);
  // Any thread, after changing what is here: whether the completion thread sleeps on a poll set
  // or a deadline that no longer fits, and must be woken.
  bool PollerMustLook();
  // Whether the network thread has work here: a connection to open, requests for curl.
  bool WantsNetworkThread() const;

  // Completion thread, once its batch of completions has run: puts the requests they started on
  // an open connection to their origin (the one the last request went to) and writes them. What
  // it could not place stays in requests, in order, for the network thread.
  void SubmitNow(std::vector<std::unique_ptr<Request>>& requests);

  bool Empty() const;

  // What ended since the last call, swapped into `into` (empty on entry): both vectors keep their
  // room, so a round of answers allocates nothing here.
  void TakeEnded(std::vector<Ended>& into);
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
    bool connectWanted = false;  // for the network thread's next StartConnects
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
  void Watch(std::vector<pollfd>& into) const;

  mutable std::mutex mutex_;
  bool stopped_ = false;
  CURLM* multi_ = nullptr;
  std::string caFile_;
  std::string caPath_;
  std::map<const std::string*, Trust> trust_;
  std::map<std::string, Origin> origins_;
  Origin* lastOrigin_ = nullptr;  // the one the last request went to: usually the next one's too
  std::unordered_map<CURL*, Origin*> connecting_;
  bool connectsWanted_ = false;
  bool unwritten_ = false;  // Add put requests on a connection: Flush writes them
  // What the completion thread sleeps on: the sockets and events, and the deadline.
  std::vector<pollfd> watched_;
  Clock::time_point watchedDeadline_ = Clock::time_point::max();
  std::vector<pollfd> scratch_;
  Clock::time_point nextDeadline_ = Clock::time_point::max();
  std::vector<Ended> ended_;
  std::vector<std::unique_ptr<Request>> forCurl_;
};

}  // namespace kelnet
