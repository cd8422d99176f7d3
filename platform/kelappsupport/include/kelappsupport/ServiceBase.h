#pragma once
// ServiceBase: the request pipeline a cloud service is built on.
//
// Per request, in order: the caller's headers, then the common headers of the service
// (AddCommonHeaders; a caller's header of the same name wins); then per attempt the
// authorization header (so a retry carries the newest token); then throttling, the transport,
// and the verdict on the answer: recoverable statuses and, if so configured, connectivity
// failures are retried under the retry policy; a 401 notifies the authorization processor.
//
// Threads: no callback runs on kelnet's network thread. POST completions run on kelnet's
// completion thread (where its timers fire, so a retry's end runs there too); a streaming GET's
// data callbacks and its completion on kelnet's delivery thread, chunks before the completion,
// whether the transfer, a resume timer or a refusal ends it (a test transport uses its own thread
// for both). The authorization callback runs on kelcore's default executor.

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kelappsupport/DownloadPolicy.h"
#include "kelappsupport/IService.h"
#include "kelappsupport/ITransport.h"
#include "kelappsupport/RetryPolicy.h"

namespace kelappsupport::cloudservice {

namespace detail {
class RequestPipeline;
}

// What ConfigureForAuthorizationProcessor's third argument asks for when a request fails without
// any answer (refused, reset, timed out).
enum ConnectivityErrorHandling : int {
  kConnectivityErrorReport = 0,  // the caller gets the null response at once
  kConnectivityErrorRetry = 1,   // retried under the retry policy, like a recoverable status
};

class ServiceBase : public virtual IService {
  KEL_CLASS_REGISTRATION(ServiceBase, IService)

  ServiceBase();
  ~ServiceBase() override;
  ServiceBase(const ServiceBase&) = delete;
  ServiceBase& operator=(const ServiceBase&) = delete;

  // maxInFlight: requests of this service on the wire at once, whatever their host.
  // maxInFlightPerHost: of those, to any one host (scheme, host and port).
  // Requests beyond either limit wait in one first-come-first-served queue; a request whose host
  // is at its limit does not hold up requests to other hosts behind it. A retry goes back to the
  // head of the queue. Both must be positive; until configured there is no limit.
  int ConfigureRequestThrottling(int maxInFlight, int maxInFlightPerHost);

  // HTTP statuses that are retried under the retry policy (502, 503, 504 for the service).
  int ConfigureForRecoverableErrorProcessor(std::vector<int> statuses);
  int ConfigureRetryPolicy(const RetryPolicy& policy);

  // onUnauthenticated runs (with an empty string) once for every 401 answer, on the default
  // executor; the 401 answer itself still reaches the caller. onConnectivityError is one of
  // ConnectivityErrorHandling. id names the processor in the log.
  int ConfigureForAuthorizationProcessor(const kelcore::utility::Guid& id,
                                         std::function<void(const kelcore::ImmutableString&)> onUnauthenticated,
                                         int onConnectivityError);

  int ConfigureDownloads(const DownloadPolicy& policy);
  // Where the token set by SetAuthToken may go. It never goes over plain http, except to this
  // machine (localhost, *.localhost, an IPv4 address in 127.0.0.0/8, ::1; never a name that
  // merely starts with "127."). With domains named here ("ostrio.io", ".ostrio.io" or
  // ".ostrio.localhost:8443": a leading dot and a port are ignored) it goes only to those hosts
  // and their subdomains; until then to every https host. Other requests still go out, without
  // the token.
  int ConfigureAuthorizedHosts(const std::vector<std::string>& domains);

  // An extra CA bundle (PEM file) trusted by every request of this service whose Configuration
  // names none; empty: the system store only. The owner decides where it comes from (a setting of
  // its product); the platform reads none.
  int ConfigureCABundle(const std::string& path);

  // Seams for tests; the defaults are kelnet's.
  void SetTransport(std::shared_ptr<ITransport> transport);
  void SetRetryScheduler(std::shared_ptr<IRetryScheduler> scheduler);

  int SetAuthToken(const kelcore::ImmutableString& value, const kelcore::ImmutableString& headerName) override;

  // The body buffer is shared by every attempt; it is never copied.
  int HttpPost(const kelcore::utility::Guid& requestId, kelnet::Completion completion,
               const kelcore::ImmutableString& url, std::shared_ptr<const kelcore::allocator::RecycledMemory> body,
               const kelnet::HeaderMap& headers, const kelnet::Configuration& configuration,
               bool authorize) override;

  // Streams the resource into onData, each chunk with its offset; chunks of a segmented download
  // arrive out of order. A caller-supplied Range header turns segmentation off (the answer is
  // passed on as it is). Otherwise the final response is a 200 only when every byte of the
  // resource was delivered; a resource that changed mid-way ends with 412, a break-off that could
  // not be resumed with a null response, an error status with that answer.
  int HttpStreamingGet(const kelcore::utility::Guid& requestId, kelnet::DataCallback onData,
                       kelnet::Completion completion, const kelcore::ImmutableString& url,
                       const kelnet::HeaderMap& headers, const kelnet::Configuration& configuration,
                       bool authorize) override;

 protected:
  // Adds the headers every request of this service carries. Runs on the caller's thread, once
  // per request (not per attempt).
  virtual void AddCommonHeaders(kelnet::HeaderMap& headers);

 private:
  kelnet::HeaderMap BuildHeaders(const kelnet::HeaderMap& headers);

  // Shared with the requests in flight, which may outlive the service.
  std::shared_ptr<detail::RequestPipeline> pipeline_;
};

}  // namespace kelappsupport::cloudservice
