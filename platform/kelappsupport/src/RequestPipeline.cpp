#include "RequestPipeline.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>

#include "RetryVerdict.h"
#include "kelappsupport/ServiceBase.h"
#include "kelcore/Executor.h"
#include "kelcore/Logging.h"
#include "kelnet/Constants.h"
#include "kelnet/URL.h"

namespace kelappsupport::cloudservice::detail {
namespace {

// The throttling key (scheme, host and port) and whether the token may go there, from one parse.
void ClassifyDestination(const kelcore::ImmutableString& url, Exchange& exchange) {
  // A thread's requests mostly go where its last one went: the key is made once per URL, and
  // handed out as shared strings.
  thread_local struct {
    kelcore::ImmutableString url;
    kelcore::ImmutableString hostKey;
    kelcore::ImmutableString host;
    bool secure = false;
  } last;
  if (!(last.url == url) || last.url.empty()) {
    const auto& parts = kelnet::ParseURLOfThread(url);
    if (!parts) return;
    const unsigned port = parts->port ? *parts->port : (parts->scheme == "https" ? 443u : 80u);
    last.hostKey = kelcore::ImmutableString(parts->scheme + "://" + parts->host + ":" + std::to_string(port));
    last.host = kelcore::ImmutableString(parts->host);
    last.secure = parts->scheme == "https";
    last.url = url;
  }
  exchange.hostKey = last.hostKey;
  exchange.secure = last.secure;
  exchange.host = last.host;
}

// This machine by name or by number: a name like "127.attacker.example" is anyone's.
bool IsLoopbackHost(const std::string& host) {
  if (host == "localhost" || host.ends_with(".localhost")) return true;
  in_addr v4{};
  if (::inet_pton(AF_INET, host.c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
  in6_addr v6{};
  return ::inet_pton(AF_INET6, host.c_str(), &v6) == 1 && IN6_IS_ADDR_LOOPBACK(&v6);
}

// Whether our token may go to this host: never in clear text, except to this machine (the
// emulator's plain-HTTP mode); and once the service has named its hosts, only to those (a media
// URL may point at a third party's CDN).
bool MayCarryToken(const Exchange& exchange, const std::vector<std::string>& authorizedHosts) {
  const std::string_view host = exchange.host.View();
  if (host.empty()) return false;
  if (!exchange.secure && !IsLoopbackHost(exchange.host.ToStdString())) return false;
  if (authorizedHosts.empty()) return true;
  return std::any_of(authorizedHosts.begin(), authorizedHosts.end(), [&](const std::string& domain) {
    return host == domain ||
           (host.size() > domain.size() && host.ends_with(domain) && host[host.size() - domain.size() - 1] == '.');
  });
}

void LogWarning(std::string message, std::vector<std::pair<std::string, std::string>> fields) {
  kelcore::logging::LogWarning("kelappsupport", std::move(message), std::move(fields));
}

}  // namespace

kelcore::utility::Guid NewAttemptId() {
  // Cheap: Guids come from a per-thread reserve of random bytes, not a system call each.
  return kelcore::utility::Guid::CreateUnique();
}

bool SameHeaderName(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    char x = a[i];
    char y = b[i];
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
    if (x != y) return false;
  }
  return true;
}

RequestPipeline::RequestPipeline()
    : transport_(GetDefaultTransport()), scheduler_(GetDefaultRetryScheduler()) {}

void RequestPipeline::SetThrottling(int maxInFlight, int maxInFlightPerHost) {
  {
    std::lock_guard lock(mutex_);
    maxInFlight_ = maxInFlight;
    maxInFlightPerHost_ = maxInFlightPerHost;
  }
  Pump();
}

void RequestPipeline::SetRecoverableStatuses(std::vector<int> statuses) {
  std::lock_guard lock(mutex_);
  recoverableStatuses_ = std::move(statuses);
}

void RequestPipeline::SetRetryPolicy(const RetryPolicy& policy) {
  std::lock_guard lock(mutex_);
  retryPolicy_ = policy;
}

RetryPolicy RequestPipeline::GetRetryPolicy() {
  std::lock_guard lock(mutex_);
  return retryPolicy_;
}

void RequestPipeline::SetDownloadPolicy(const DownloadPolicy& policy) {
  std::lock_guard lock(mutex_);
  downloadPolicy_ = policy;
}

DownloadPolicy RequestPipeline::GetDownloadPolicy() {
  std::lock_guard lock(mutex_);
  return downloadPolicy_;
}

void RequestPipeline::SetAuthorization(const kelcore::utility::Guid& id,
                                       std::function<void(const kelcore::ImmutableString&)> onUnauthenticated,
                                       int onConnectivityError) {
  std::lock_guard lock(mutex_);
  authorizationId_ = id;
  onUnauthenticated_ = std::move(onUnauthenticated);
  onConnectivityError_ = onConnectivityError;
}

void RequestPipeline::SetAuthToken(const kelcore::ImmutableString& value, const kelcore::ImmutableString& headerName) {
  std::lock_guard lock(mutex_);
  tokenValue_ = value;
  tokenHeader_ = headerName;
}

void RequestPipeline::SetAuthorizedHosts(std::vector<std::string> hostSuffixes) {
  std::lock_guard lock(mutex_);
  authorizedHosts_ = std::move(hostSuffixes);
}

void RequestPipeline::SetCABundle(std::string path) {
  std::lock_guard lock(mutex_);
  caBundlePath_ = std::move(path);
}

void RequestPipeline::SetTransport(std::shared_ptr<ITransport> transport) {
  std::lock_guard lock(mutex_);
  transport_ = transport ? std::move(transport) : GetDefaultTransport();
}

void RequestPipeline::SetScheduler(std::shared_ptr<IRetryScheduler> scheduler) {
  std::lock_guard lock(mutex_);
  scheduler_ = scheduler ? std::move(scheduler) : GetDefaultRetryScheduler();
}

std::shared_ptr<ITransport> RequestPipeline::GetTransport() {
  std::lock_guard lock(mutex_);
  return transport_;
}

std::shared_ptr<IRetryScheduler> RequestPipeline::GetScheduler() {
  std::lock_guard lock(mutex_);
  return scheduler_;
}

bool RequestPipeline::HasRoomLocked(const kelcore::ImmutableString& hostKey) const {
  if (maxInFlight_ > 0 && inFlight_ >= maxInFlight_) return false;
  if (maxInFlightPerHost_ > 0) {
    auto it = inFlightPerHost_.find(hostKey);
    if (it != inFlightPerHost_.end() && it->second >= maxInFlightPerHost_) return false;
  }
  return true;
}

void RequestPipeline::ReserveLocked(Exchange& exchange) {
  ++inFlight_;
  ++inFlightPerHost_[exchange.hostKey];
  exchange.state = Exchange::State::InFlight;
  ++exchange.attempts;
  exchange.attemptId = NewAttemptId();
  exchange.delivered = false;
}

void RequestPipeline::ReleaseLocked(const kelcore::ImmutableString& hostKey) {
  --inFlight_;
  auto it = inFlightPerHost_.find(hostKey);
  if (it != inFlightPerHost_.end() && --it->second <= 0) inFlightPerHost_.erase(it);
}

std::shared_ptr<Exchange> RequestPipeline::Start(ExchangePlan plan, ExchangeDone done) {
  auto exchange = std::make_shared<Exchange>();
  ClassifyDestination(plan.url, *exchange);
  exchange->plan = std::move(plan);
  exchange->done = std::move(done);
  return Admit(std::move(exchange));
}

std::shared_ptr<Exchange> RequestPipeline::Start(ExchangePlan plan, const kelcore::utility::Guid& requestId,
                                                 kelnet::Completion completion) {
  auto exchange = std::make_shared<Exchange>();
  ClassifyDestination(plan.url, *exchange);
  exchange->plan = std::move(plan);
  exchange->requestId = requestId;
  exchange->completion = std::move(completion);
  return Admit(std::move(exchange));
}

std::shared_ptr<Exchange> RequestPipeline::Admit(std::shared_ptr<Exchange> exchange) {
  bool launchNow = false;
  {
    std::lock_guard lock(mutex_);
    exchange->firstStart = scheduler_->Now();
    if (exchange->plan.configuration.caBundlePath.empty()) exchange->plan.configuration.caBundlePath = caBundlePath_;
    // Requests already waiting for this host go first; waiting requests for other hosts are
    // held by their own host's limit, not by this one's.
    const bool hostWaiting = std::any_of(queue_.begin(), queue_.end(),
                                         [&](const auto& queued) { return queued->hostKey == exchange->hostKey; });
    if (!hostWaiting && HasRoomLocked(exchange->hostKey)) {
      ReserveLocked(*exchange);
      launchNow = true;
    } else {
      exchange->state = Exchange::State::Queued;
      queue_.push_back(exchange);
    }
  }
  if (launchNow && !Launch(exchange)) {
    {
      std::lock_guard lock(mutex_);
      ReleaseLocked(exchange->hostKey);
      exchange->state = Exchange::State::Done;
    }
    Pump();
    return nullptr;
  }
  return exchange;
}

bool RequestPipeline::Launch(const std::shared_ptr<Exchange>& exchange) {
  kelnet::HeaderMap headers = exchange->plan.headers;
  kelcore::utility::Guid attemptId;
  std::shared_ptr<ITransport> transport;
  {
    std::lock_guard lock(mutex_);
    attemptId = exchange->attemptId;
    transport = transport_;
    // Read per attempt: a retry goes out with the token set since the first attempt.
    if (exchange->plan.authorize && !tokenHeader_.empty() && !tokenValue_.empty() &&
        MayCarryToken(*exchange, authorizedHosts_)) {
      for (auto it = headers.begin(); it != headers.end();) {
        it = SameHeaderName(it->first.View(), tokenHeader_.View()) ? headers.erase(it) : std::next(it);
      }
      headers.emplace(tokenHeader_, tokenValue_);
    }
  }
  auto self = shared_from_this();
  auto completion = [self, exchange](const kelcore::utility::Guid&, const std::shared_ptr<kelnet::Response>& response) {
    self->OnAttemptDone(exchange, response);
  };
  if (!exchange->plan.streaming) {
    return transport->Post(attemptId, std::move(completion), exchange->plan.url, exchange->plan.body, headers,
                           exchange->plan.configuration);
  }
  // The exchange is owned through the completion; the data callback only needs to see it.
  std::weak_ptr<Exchange> weak = exchange;
  auto onData = [weak](const kelcore::utility::Guid& id, const void* data, std::size_t offset, std::size_t size,
                       const kelnet::Progress& progress, const kelnet::HeaderMap& responseHeaders) {
    auto strong = weak.lock();
    if (!strong) return;
    strong->delivered = true;
    strong->plan.onData(id, data, offset, size, progress, responseHeaders);
  };
  return transport->StreamingGet(attemptId, std::move(onData), std::move(completion), exchange->plan.url, headers,
                                 exchange->plan.configuration);
}

void RequestPipeline::OnAttemptDone(const std::shared_ptr<Exchange>& exchange,
                                    const std::shared_ptr<kelnet::Response>& response) {
  FailedAttempt attempt;
  attempt.response = response;
  RetryPolicy policy;
  std::shared_ptr<IRetryScheduler> scheduler;
  bool unauthorized = false;
  bool waiting = false;  // requests wait for the room this attempt leaves
  {
    std::lock_guard lock(mutex_);
    ReleaseLocked(exchange->hostKey);
    waiting = !queue_.empty();
    attempt.failures = exchange->attempts;
    attempt.firstStart = exchange->firstStart;
    policy = retryPolicy_;
    scheduler = scheduler_;
    if (exchange->cancelled) {
      attempt.retryable = false;
    } else if (response) {
      const int status = response->StatusCode();
      attempt.retryable = std::find(recoverableStatuses_.begin(), recoverableStatuses_.end(), status) !=
                          recoverableStatuses_.end();
      unauthorized = status == kelnet::kStatusUnauthorized;
    } else {
      // A streaming attempt that already delivered bytes is the download's to resume.
      attempt.retryable = onConnectivityError_ == kConnectivityErrorRetry && !exchange->delivered;
    }
  }
  if (waiting) Pump();
  if (unauthorized) NotifyUnauthenticated();

  const RetryVerdict verdict = JudgeAttempt(policy, attempt, *scheduler);
  if (verdict.retry) {
    {
      std::lock_guard lock(mutex_);
      exchange->state = Exchange::State::Waiting;
    }
    auto self = shared_from_this();
    if (scheduler->ScheduleAfter(verdict.delay, [self, exchange] { self->Requeue(exchange); })) return;
  }
  Finish(exchange, response);
}

void RequestPipeline::Requeue(const std::shared_ptr<Exchange>& exchange) {
  bool launchNow = false;
  {
    std::lock_guard lock(mutex_);
    if (exchange->cancelled) {
      exchange->state = Exchange::State::Done;
    } else if (HasRoomLocked(exchange->hostKey)) {
      ReserveLocked(*exchange);
      launchNow = true;
    } else {
      // It was admitted once already: it goes ahead of requests that have not been.
      exchange->state = Exchange::State::Queued;
      queue_.push_front(exchange);
      return;
    }
  }
  if (!launchNow) {
    Finish(exchange, nullptr);
    return;
  }
  if (!Launch(exchange)) {
    {
      std::lock_guard lock(mutex_);
      ReleaseLocked(exchange->hostKey);
    }
    Finish(exchange, nullptr);
    Pump();
  }
}

void RequestPipeline::Pump() {
  while (true) {
    std::vector<std::shared_ptr<Exchange>> ready;
    {
      std::lock_guard lock(mutex_);
      for (auto it = queue_.begin(); it != queue_.end();) {
        if (maxInFlight_ > 0 && inFlight_ >= maxInFlight_) break;
        if (HasRoomLocked((*it)->hostKey)) {
          ReserveLocked(**it);
          ready.push_back(std::move(*it));
          it = queue_.erase(it);
        } else {
          ++it;
        }
      }
    }
    if (ready.empty()) return;
    bool refused = false;
    for (auto& exchange : ready) {
      if (Launch(exchange)) continue;
      // Refused (the transport is shut down): the request ends here, and its slot goes to the next.
      {
        std::lock_guard lock(mutex_);
        ReleaseLocked(exchange->hostKey);
      }
      Finish(exchange, nullptr);
      refused = true;
    }
    if (!refused) return;
  }
}

void RequestPipeline::Cancel(const std::shared_ptr<Exchange>& exchange) {
  if (!exchange) return;
  kelcore::utility::Guid attemptId;
  std::shared_ptr<ITransport> transport;
  {
    std::lock_guard lock(mutex_);
    if (exchange->cancelled || exchange->state == Exchange::State::Done) return;
    exchange->cancelled = true;
    switch (exchange->state) {
      case Exchange::State::Queued: {
        auto it = std::find(queue_.begin(), queue_.end(), exchange);
        if (it != queue_.end()) queue_.erase(it);
        break;
      }
      case Exchange::State::InFlight:
        attemptId = exchange->attemptId;
        transport = transport_;
        break;
      case Exchange::State::Waiting:  // the timer finds it cancelled
      case Exchange::State::Done:
        return;
    }
  }
  if (transport) {
    transport->Cancel(attemptId);
  } else {
    Finish(exchange, nullptr);
  }
}

void RequestPipeline::Finish(const std::shared_ptr<Exchange>& exchange,
                             const std::shared_ptr<kelnet::Response>& response) {
  ExchangeDone done;
  kelnet::Completion completion;
  std::shared_ptr<ITransport> transport;
  {
    std::lock_guard lock(mutex_);
    exchange->state = Exchange::State::Done;
    done = std::move(exchange->done);
    completion = std::move(exchange->completion);
    transport = transport_;
  }
  if (!done && !completion) return;
  auto run = [exchange, response, done = std::move(done), completion = std::move(completion)] {
    try {
      if (done) {
        done(response, exchange->delivered);
      } else {
        completion(exchange->requestId, response);
      }
    } catch (const std::exception& error) {
      LogWarning("request completion threw", {{"what", error.what()}});
    } catch (...) {
      LogWarning("request completion threw", {});
    }
  };
  // A streaming request ends where its data went, whichever way it ends (a timer, a refusal).
  if (exchange->plan.streaming) {
    transport->RunWithStreamingCallbacks(std::move(run));
  } else {
    run();
  }
}

void RequestPipeline::NotifyUnauthenticated() {
  std::function<void(const kelcore::ImmutableString&)> callback;
  kelcore::utility::Guid id;
  {
    std::lock_guard lock(mutex_);
    callback = onUnauthenticated_;
    id = authorizationId_;
  }
  if (!callback) return;
  LogWarning("request unauthorized", {{"processor", id.ToString()}});
  auto run = [callback] {
    try {
      callback(kelcore::ImmutableString());
    } catch (...) {
      LogWarning("unauthenticated handler threw", {});
    }
  };
  // The handler is the application's: it runs on an executor thread, not the network thread.
  if (auto executor = kelcore::async::GetDefaultExecutor()) {
    executor->Post(std::move(run));
  } else {
    run();
  }
}

}  // namespace kelappsupport::cloudservice::detail
