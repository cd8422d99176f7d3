#pragma once
// The request pipeline behind ServiceBase: throttling, attempts, retry, authorization.
//
// An Exchange is one logical request and all its attempts. The pipeline admits it when the
// throttle has room (else queues it), stamps each attempt with the current authorization header,
// and judges each answer: retry after a back-off, notify the authorization processor, or hand
// the answer to the exchange's owner. Everything a pending exchange needs is held by the
// exchange and the pipeline, which the transport's callbacks keep alive.

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "kelappsupport/DownloadPolicy.h"
#include "kelappsupport/ITransport.h"
#include "kelappsupport/RetryPolicy.h"

namespace kelappsupport::cloudservice::detail {

using Clock = std::chrono::steady_clock;

// response: null when no complete answer arrived. deliveredData: whether the last attempt passed
// body bytes to the data callback (a streaming attempt that did cannot simply be repeated).
using ExchangeDone = std::function<void(const std::shared_ptr<kelnet::Response>& response, bool deliveredData)>;

struct ExchangePlan {
  kelcore::ImmutableString url;
  kelnet::HeaderMap headers;  // everything but the authorization header
  std::shared_ptr<const kelcore::allocator::RecycledMemory> body;
  kelnet::Configuration configuration;
  bool authorize = false;
  bool streaming = false;
  kelnet::DataCallback onData;  // streaming only; receives the attempt's id
};

class Exchange {
 public:
  enum class State { Queued, InFlight, Waiting, Done };

  ExchangePlan plan;
  kelcore::ImmutableString hostKey;  // scheme://host:port, the unit of per-host throttling
  kelcore::ImmutableString host;     // lower-case; empty when the URL did not parse
  bool secure = false;  // https
  ExchangeDone done;
  // Or the caller's own completion and id, called as they are: no wrapper to allocate per request.
  kelnet::Completion completion;
  kelcore::utility::Guid requestId;
  std::atomic<bool> delivered{false};

  // Guarded by the pipeline's mutex.
  State state = State::Queued;
  int attempts = 0;
  Clock::time_point firstStart;
  kelcore::utility::Guid attemptId;
  bool cancelled = false;
};

class RequestPipeline : public std::enable_shared_from_this<RequestPipeline> {
 public:
  RequestPipeline();

  void SetThrottling(int maxInFlight, int maxInFlightPerHost);
  void SetRecoverableStatuses(std::vector<int> statuses);
  void SetRetryPolicy(const RetryPolicy& policy);
  RetryPolicy GetRetryPolicy();
  void SetDownloadPolicy(const DownloadPolicy& policy);
  DownloadPolicy GetDownloadPolicy();
  void SetAuthorization(const kelcore::utility::Guid& id,
                        std::function<void(const kelcore::ImmutableString&)> onUnauthenticated,
                        int onConnectivityError);
  void SetAuthToken(const kelcore::ImmutableString& value, const kelcore::ImmutableString& headerName);
  void SetAuthorizedHosts(std::vector<std::string> hostSuffixes);
  void SetCABundle(std::string path);
  void SetTransport(std::shared_ptr<ITransport> transport);
  void SetScheduler(std::shared_ptr<IRetryScheduler> scheduler);
  std::shared_ptr<ITransport> GetTransport();
  std::shared_ptr<IRetryScheduler> GetScheduler();

  // Starts the exchange or queues it. Null when it was refused at once; done is then never called.
  std::shared_ptr<Exchange> Start(ExchangePlan plan, ExchangeDone done);
  // The same, ending with completion(requestId, response).
  std::shared_ptr<Exchange> Start(ExchangePlan plan, const kelcore::utility::Guid& requestId,
                                  kelnet::Completion completion);
  // Ends the exchange with a null response without further attempts, whatever its state.
  void Cancel(const std::shared_ptr<Exchange>& exchange);

 private:
  bool HasRoomLocked(const kelcore::ImmutableString& hostKey) const;
  void ReserveLocked(Exchange& exchange);
  std::shared_ptr<Exchange> Admit(std::shared_ptr<Exchange> exchange);
  void ReleaseLocked(const kelcore::ImmutableString& hostKey);
  bool Launch(const std::shared_ptr<Exchange>& exchange);
  void OnAttemptDone(const std::shared_ptr<Exchange>& exchange, const std::shared_ptr<kelnet::Response>& response);
  void Requeue(const std::shared_ptr<Exchange>& exchange);
  void Pump();
  void Finish(const std::shared_ptr<Exchange>& exchange, const std::shared_ptr<kelnet::Response>& response);
  void NotifyUnauthenticated();

  std::mutex mutex_;
  int maxInFlight_ = 0;  // 0: no limit
  int maxInFlightPerHost_ = 0;
  int inFlight_ = 0;
  std::unordered_map<kelcore::ImmutableString, int> inFlightPerHost_;
  std::deque<std::shared_ptr<Exchange>> queue_;

  std::vector<int> recoverableStatuses_;
  RetryPolicy retryPolicy_;
  DownloadPolicy downloadPolicy_;

  kelcore::utility::Guid authorizationId_;
  std::function<void(const kelcore::ImmutableString&)> onUnauthenticated_;
  int onConnectivityError_ = 0;
  kelcore::ImmutableString tokenValue_;
  kelcore::ImmutableString tokenHeader_;
  std::vector<std::string> authorizedHosts_;  // bare domains, lower-case; empty: every host
  std::string caBundlePath_;  // for requests whose configuration names no bundle

  std::shared_ptr<ITransport> transport_;
  std::shared_ptr<IRetryScheduler> scheduler_;
};

// An id per attempt, so one attempt can be cancelled without touching its siblings.
kelcore::utility::Guid NewAttemptId();

// Case-insensitive header-name comparison for the names callers spell their own way.
bool SameHeaderName(std::string_view a, std::string_view b);

}  // namespace kelappsupport::cloudservice::detail
