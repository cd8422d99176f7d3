// kelnet's own HTTP/2 connections for POSTs. See Http2Client.h.

#include "Http2Client.h"

#include <fcntl.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <poll.h>

#include <algorithm>
#include <utility>

namespace kelnet {
namespace {

// A request goes out at most this often: again after a GOAWAY or the loss of a reused connection
// before any answer, never more (a server that refuses everything must not be hammered).
constexpr int kMaxAttempts = 3;
// curl's own limit for keeping an idle connection (CURLOPT_MAXAGE_CONN).
constexpr auto kMaxIdle = std::chrono::seconds(118);

}  // namespace

Http2Client::~Http2Client() {
  for (auto& [pem, trust] : trust_) SSL_CTX_free(trust.context);
}

void Http2Client::Attach(CURLM* multi, std::string caFile, std::string caPath) {
  multi_ = multi;
  caFile_ = std::move(caFile);
  caPath_ = std::move(caPath);
}

SSL_CTX* Http2Client::Context(const std::shared_ptr<const std::string>& pem) {
  auto it = trust_.find(pem.get());
  if (it != trust_.end()) return it->second.context;
  SSL_CTX* context = SSL_CTX_new(TLS_client_method());
  if (!context) return nullptr;
  SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
  // http/1.1 too: a server with no protocol in common ends the handshake, where one that picks
  // http/1.1 tells us the origin is curl's.
  static const unsigned char kAlpn[] = {2, 'h', '2', 8, 'h', 't', 't', 'p', '/', '1', '.', '1'};
  bool ok = SSL_CTX_set_alpn_protos(context, kAlpn, sizeof kAlpn) == 0;
  if (pem) {
    // The same trust curl is given: the bundle (which carries the system bundle where curl has no
    // CA directory), and curl's CA directory besides.
    BIO* bio = BIO_new_mem_buf(pem->data(), static_cast<int>(pem->size()));
    STACK_OF(X509_INFO)* entries = bio ? PEM_X509_INFO_read_bio(bio, nullptr, nullptr, nullptr) : nullptr;
    X509_STORE* store = SSL_CTX_get_cert_store(context);
    int added = 0;
    for (int i = 0; entries && i < sk_X509_INFO_num(entries); ++i) {
      X509_INFO* entry = sk_X509_INFO_value(entries, i);
      if (entry->x509 && X509_STORE_add_cert(store, entry->x509) == 1) ++added;
    }
    if (entries) sk_X509_INFO_pop_free(entries, X509_INFO_free);
    if (bio) BIO_free(bio);
    if (!caPath_.empty()) SSL_CTX_load_verify_locations(context, nullptr, caPath_.c_str());
    ok = ok && added > 0;
  } else if (!caFile_.empty() || !caPath_.empty()) {
    ok = ok && SSL_CTX_load_verify_locations(context, caFile_.empty() ? nullptr : caFile_.c_str(),
                                             caPath_.empty() ? nullptr : caPath_.c_str()) == 1;
  } else {
    ok = ok && SSL_CTX_set_default_verify_paths(context) == 1;
  }
  if (!ok) {
    SSL_CTX_free(context);
    return nullptr;
  }
  trust_.emplace(pem.get(), Trust{pem, context});
  return context;
}

void Http2Client::Add(std::unique_ptr<Request> request) {
  std::lock_guard lock(mutex_);
  Http2Exchange& exchange = *request->http2;
  Origin* found = lastOrigin_;
  if (!found || found->port != exchange.port || found->pem != request->caBundle || found->host != exchange.host) {
    std::string key = exchange.host + ":" + std::to_string(exchange.port) + "|" +
                      std::to_string(reinterpret_cast<std::uintptr_t>(request->caBundle.get()));
    auto [it, created] = origins_.try_emplace(std::move(key));
    found = &it->second;
    if (created) {
      found->host = exchange.host;
      found->port = exchange.port;
      found->pem = request->caBundle;
      found->context = Context(request->caBundle);
    }
    lastOrigin_ = found;
  }
  Origin& origin = *found;
  if (origin.curlOnly) {
    forCurl_.push_back(std::move(request));
    return;
  }
  if (!origin.context) {
    ended_.push_back({std::move(request), "TLS set-up failed", false});
    return;
  }
  nextDeadline_ = std::min(nextDeadline_, exchange.deadline);
  ++exchange.attempts;
  for (auto& connection : origin.connections) {
    if (connection->GetState() == Http2Connection::State::Open && connection->Submit(request)) {
      unwritten_ = true;  // written by Flush, once for every request of the turn
      return;
    }
  }
  origin.waiting.push_back(std::move(request));
  Settle(origin);
}

void Http2Client::Flush() {
  std::lock_guard lock(mutex_);
  if (!unwritten_) return;
  unwritten_ = false;
  for (auto& [key, origin] : origins_) {
    for (auto& connection : origin.connections) connection->Drive(false);
    Settle(origin);
  }
}

// Any thread: the connect-only handle lives in the network thread's multi handle, so that thread
// opens it (StartConnects).
void Http2Client::Connect(Origin& origin) {
  origin.connectWanted = true;
  connectsWanted_ = true;
}

void Http2Client::StartConnects() {
  std::lock_guard lock(mutex_);
  if (!connectsWanted_) return;
  connectsWanted_ = false;
  for (auto& [key, origin] : origins_) {
    if (!origin.connectWanted) continue;
    origin.connectWanted = false;
    if (origin.waiting.empty() || origin.connecting) continue;
    CURL* easy = curl_easy_init();
    if (!easy) {
      Fail(origin.waiting, "could not connect");
      continue;
    }
    const bool literalV6 = origin.host.find(':') != std::string::npos;
    const std::string url = "http://" + (literalV6 ? "[" + origin.host + "]" : origin.host) + ":" +
                            std::to_string(origin.port) + "/";
    const auto timeout = origin.waiting.front()->http2->connectTimeout;
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy, CURLOPT_CONNECT_ONLY, 1L);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http");
    // Requests with a proxy are curl's: this path connects directly, whatever the environment says.
    curl_easy_setopt(easy, CURLOPT_PROXY, "");
    curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);
    if (timeout.count() > 0) curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(timeout.count()));
    if (curl_multi_add_handle(multi_, easy) != CURLM_OK) {
      curl_easy_cleanup(easy);
      Fail(origin.waiting, "could not connect");
      continue;
    }
    origin.connecting = easy;
    connecting_.emplace(easy, &origin);
  }
}

bool Http2Client::OnConnected(CURL* easy, CURLcode code) {
  std::lock_guard lock(mutex_);
  auto it = connecting_.find(easy);
  if (it == connecting_.end()) return false;
  Origin& origin = *it->second;
  connecting_.erase(it);
  origin.connecting = nullptr;
  curl_socket_t socket = CURL_SOCKET_BAD;
  if (code == CURLE_OK) curl_easy_getinfo(easy, CURLINFO_ACTIVESOCKET, &socket);
  // Ours from here: curl closes its own descriptor with the handle.
  const int fd = socket == CURL_SOCKET_BAD ? -1 : ::fcntl(socket, F_DUPFD_CLOEXEC, 0);
  curl_multi_remove_handle(multi_, easy);
  curl_easy_cleanup(easy);
  if (fd < 0) {
    Fail(origin.waiting, code == CURLE_OK ? "could not connect" : curl_easy_strerror(code));
    Settle(origin);
    return true;
  }
  ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
  const auto timeout = origin.waiting.empty() ? std::chrono::milliseconds(15000)
                                              : origin.waiting.front()->http2->connectTimeout;
  origin.connections.push_back(std::make_unique<Http2Connection>(fd, origin.context, origin.host,
                                                                 Clock::now() + timeout));
  origin.connections.back()->Drive(true);
  Settle(origin);
  return true;
}

// After a connection moved: what it ended goes on, what waits goes to an open connection (or a
// new one), and closed connections go.
void Http2Client::Settle(Origin& origin) {
  for (auto& connection : origin.connections) {
    for (auto& ended : connection->TakeEnded()) {
      if (ended.again && ended.request->http2->attempts < kMaxAttempts && !ended.request->cancelled) {
        ended.request->Restart();
        ++ended.request->http2->attempts;
        origin.waiting.push_back(std::move(ended.request));
      } else {
        ended_.push_back({std::move(ended.request), ended.error, false});
      }
    }
    connection->TakeEnded().clear();
  }
  Http2Connection* open = nullptr;
  bool handshaking = false;
  for (auto& connection : origin.connections) {
    switch (connection->GetState()) {
      case Http2Connection::State::Open:
        if (!open) open = connection.get();
        break;
      case Http2Connection::State::Handshaking:
        handshaking = true;
        break;
      case Http2Connection::State::NoHttp2:
        origin.curlOnly = true;
        break;
      case Http2Connection::State::Closed:
        // A connection that never opened fails what waits for it: connecting again would only
        // fail the same way.
        if (connection->Failure() && !connection->Opened()) Fail(origin.waiting, connection->Failure());
        break;
      case Http2Connection::State::Draining:
        break;
    }
  }
  std::erase_if(origin.connections, [](const auto& connection) {
    const auto state = connection->GetState();
    return state == Http2Connection::State::Closed || state == Http2Connection::State::NoHttp2;
  });
  if (origin.curlOnly) {
    for (auto& request : origin.waiting) forCurl_.push_back(std::move(request));
    origin.waiting.clear();
    return;
  }
  if (open) {
    while (!origin.waiting.empty()) {
      if (!open->Submit(origin.waiting.front())) break;
      origin.waiting.pop_front();
    }
    open->Drive(false);
  }
  if (!origin.waiting.empty() && !open && !handshaking && !origin.connecting && !origin.connectWanted) Connect(origin);
}

void Http2Client::Fail(std::deque<std::unique_ptr<Request>>& requests, const char* why) {
  for (auto& request : requests) ended_.push_back({std::move(request), why, false});
  requests.clear();
}

void Http2Client::EndExpired(Clock::time_point now) {
  if (now < nextDeadline_) return;
  nextDeadline_ = Clock::time_point::max();
  for (auto& [key, origin] : origins_) {
    for (auto it = origin.waiting.begin(); it != origin.waiting.end();) {
      if ((*it)->http2->deadline <= now) {
        ended_.push_back({std::move(*it), "deadline passed", false});
        it = origin.waiting.erase(it);
      } else {
        nextDeadline_ = std::min(nextDeadline_, (*it)->http2->deadline);
        ++it;
      }
    }
    for (auto& connection : origin.connections) {
      for (Request* request : connection->Requests()) {
        if (request->http2->deadline > now) {
          nextDeadline_ = std::min(nextDeadline_, request->http2->deadline);
          continue;
        }
        auto taken = connection->Cancel(request);
        taken->cancelled = false;
        ended_.push_back({std::move(taken), "deadline passed", false});
      }
    }
  }
}

void Http2Client::Drive(const std::vector<pollfd>& polled) {
  std::lock_guard lock(mutex_);
  const auto now = Clock::now();
  EndExpired(now);
  auto readable = [&](int fd) {
    for (const auto& entry : polled) {
      if (entry.fd == fd) return entry.revents != 0;
    }
    return true;  // opened since the poll set was made
  };
  for (auto& [key, origin] : origins_) {
    for (auto& connection : origin.connections) {
      if (connection->GetState() == Http2Connection::State::Open && connection->StreamCount() == 0 &&
          now - connection->IdleSince() > kMaxIdle) {
        connection->Drain();
        continue;
      }
      connection->Drive(readable(connection->Fd()));
    }
    Settle(origin);
  }
}

void Http2Client::Cancel(const kelcore::utility::Guid& id) {
  std::lock_guard lock(mutex_);
  for (auto& [key, origin] : origins_) {
    for (auto it = origin.waiting.begin(); it != origin.waiting.end();) {
      if ((*it)->id != id) {
        ++it;
        continue;
      }
      (*it)->cancelled = true;
      ended_.push_back({std::move(*it), nullptr, false});
      it = origin.waiting.erase(it);
    }
    for (auto& connection : origin.connections) {
      bool any = false;
      for (Request* request : connection->Requests()) {
        if (request->id != id) continue;
        ended_.push_back({connection->Cancel(request), nullptr, false});
        any = true;
      }
      // The RST_STREAM goes now, not at the next read.
      if (any) connection->Drive(false);
    }
    Settle(origin);
  }
}

void Http2Client::Stop() {
  std::lock_guard lock(mutex_);
  stopped_ = true;
  for (auto& [key, origin] : origins_) {
    for (auto& connection : origin.connections) {
      for (Request* request : connection->Requests()) ended_.push_back({connection->Cancel(request), nullptr, false});
    }
    origin.connections.clear();
    for (auto& request : origin.waiting) {
      request->cancelled = true;
      ended_.push_back({std::move(request), nullptr, false});
    }
    origin.waiting.clear();
  }
  for (auto& [easy, origin] : connecting_) {
    curl_multi_remove_handle(multi_, easy);
    curl_easy_cleanup(easy);
    origin->connecting = nullptr;
  }
  connecting_.clear();
  for (auto& [key, origin] : origins_) origin.connectWanted = false;
  connectsWanted_ = false;
}

void Http2Client::TakeEnded(std::vector<Ended>& into) {
  std::lock_guard lock(mutex_);
  into.swap(ended_);
}

std::vector<std::unique_ptr<Request>> Http2Client::TakeForCurl() {
  std::lock_guard lock(mutex_);
  return std::exchange(forCurl_, {});
}

void Http2Client::SubmitNow(std::vector<std::unique_ptr<Request>>& requests) {
  std::lock_guard lock(mutex_);
  if (stopped_ || !lastOrigin_) return;
  Origin& origin = *lastOrigin_;
  Http2Connection* open = nullptr;
  for (auto& connection : origin.connections) {
    if (connection->GetState() == Http2Connection::State::Open) {
      open = connection.get();
      break;
    }
  }
  if (!open) return;
  std::size_t kept = 0;
  for (auto& request : requests) {
    Http2Exchange& exchange = *request->http2;
    const bool sameOrigin =
        origin.port == exchange.port && origin.pem == request->caBundle && origin.host == exchange.host;
    ++exchange.attempts;
    if (sameOrigin && open->Submit(request)) {
      nextDeadline_ = std::min(nextDeadline_, exchange.deadline);
      continue;
    }
    --exchange.attempts;
    requests[kept++] = std::move(request);
  }
  requests.resize(kept);
  open->Drive(false);
  Settle(origin);
}

void Http2Client::Watch(std::vector<pollfd>& into) const {
  for (const auto& [key, origin] : origins_) {
    for (const auto& connection : origin.connections) {
      const short events = connection->PollEvents();
      if (events) into.push_back({connection->Fd(), events, 0});
    }
  }
}

int Http2Client::FillPoll(std::vector<pollfd>& into) {
  std::lock_guard lock(mutex_);
  watched_.clear();
  Watch(watched_);
  into.insert(into.end(), watched_.begin(), watched_.end());
  watchedDeadline_ = nextDeadline_;
  // A connection also needs looking at without events: its idle time and its handshake's
  // deadline are checked at least once a second.
  long wait = watched_.empty() ? -1 : 1000;
  if (nextDeadline_ != Clock::time_point::max()) {
    const auto until = std::chrono::duration_cast<std::chrono::milliseconds>(nextDeadline_ - Clock::now());
    const long left = static_cast<long>(until.count()) + 1;
    wait = std::clamp<long>(wait < 0 ? left : std::min(wait, left), 0, 1000);
  }
  return static_cast<int>(wait);
}

bool Http2Client::PollerMustLook() {
  std::lock_guard lock(mutex_);
  if (nextDeadline_ < watchedDeadline_) return true;
  scratch_.clear();
  Watch(scratch_);
  if (scratch_.size() != watched_.size()) return true;
  for (std::size_t i = 0; i < scratch_.size(); ++i) {
    if (scratch_[i].fd != watched_[i].fd || scratch_[i].events != watched_[i].events) return true;
  }
  return false;
}

bool Http2Client::WantsNetworkThread() const {
  std::lock_guard lock(mutex_);
  return connectsWanted_ || !forCurl_.empty();
}

bool Http2Client::Empty() const {
  std::lock_guard lock(mutex_);
  for (const auto& [key, origin] : origins_) {
    if (!origin.waiting.empty() || origin.connecting || origin.connectWanted) return false;
    for (const auto& connection : origin.connections) {
      if (connection->StreamCount() > 0) return false;
    }
  }
  return true;
}

}  // namespace kelnet
