#include "kelappsupport/ServiceBase.h"

#include <algorithm>
#include <cctype>

#include "RequestPipeline.h"
#include "SegmentedDownload.h"
#include "kelcore/ResultCodes.h"
#include "kelnet/Constants.h"
#include "kelnet/URL.h"
#include "kelnet/internal/HeaderParsing.h"

namespace kelappsupport::cloudservice {

namespace {

bool HasHeader(const kelnet::HeaderMap& headers, std::string_view name) {
  return std::any_of(headers.begin(), headers.end(),
                     [&](const auto& entry) { return detail::SameHeaderName(entry.first.View(), name); });
}

}  // namespace

ServiceBase::ServiceBase() : pipeline_(std::make_shared<detail::RequestPipeline>()) {}

ServiceBase::~ServiceBase() = default;

int ServiceBase::ConfigureRequestThrottling(int maxInFlight, int maxInFlightPerHost) {
  if (maxInFlight <= 0 || maxInFlightPerHost <= 0) return kelcore::kErrorInvalidArgument;
  pipeline_->SetThrottling(maxInFlight, maxInFlightPerHost);
  return kelcore::kResultOK;
}

int ServiceBase::ConfigureForRecoverableErrorProcessor(std::vector<int> statuses) {
  for (int status : statuses) {
    if (status < 100 || status > 599) return kelcore::kErrorInvalidArgument;
  }
  pipeline_->SetRecoverableStatuses(std::move(statuses));
  return kelcore::kResultOK;
}

int ServiceBase::ConfigureRetryPolicy(const RetryPolicy& policy) {
  if (policy.maxAttempts < 1 || policy.multiplier < 1.0 || policy.initialBackoff.count() < 0 ||
      policy.maxBackoff.count() < 0 || policy.maxTotal.count() < 0) {
    return kelcore::kErrorInvalidArgument;
  }
  pipeline_->SetRetryPolicy(policy);
  return kelcore::kResultOK;
}

int ServiceBase::ConfigureForAuthorizationProcessor(
    const kelcore::utility::Guid& id, std::function<void(const kelcore::ImmutableString&)> onUnauthenticated,
    int onConnectivityError) {
  if (onConnectivityError != kConnectivityErrorReport && onConnectivityError != kConnectivityErrorRetry) {
    return kelcore::kErrorInvalidArgument;
  }
  pipeline_->SetAuthorization(id, std::move(onUnauthenticated), onConnectivityError);
  return kelcore::kResultOK;
}

int ServiceBase::ConfigureDownloads(const DownloadPolicy& policy) {
  if (policy.maxSegments < 1 || policy.maxResumes < 0 || policy.probeBytes == 0 || policy.pieceBytes == 0) {
    return kelcore::kErrorInvalidArgument;
  }
  pipeline_->SetDownloadPolicy(policy);
  return kelcore::kResultOK;
}

int ServiceBase::ConfigureAuthorizedHosts(const std::vector<std::string>& domains) {
  std::vector<std::string> bare;
  for (std::string domain : domains) {
    if (domain.starts_with('.')) domain.erase(0, 1);
    if (const auto colon = domain.find(':'); colon != std::string::npos) domain.erase(colon);
    std::transform(domain.begin(), domain.end(), domain.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (domain.empty()) return kelcore::kErrorInvalidArgument;
    bare.push_back(std::move(domain));
  }
  pipeline_->SetAuthorizedHosts(std::move(bare));
  return kelcore::kResultOK;
}

int ServiceBase::ConfigureCABundle(const std::string& path) {
  if (path.find('\0') != std::string::npos) return kelcore::kErrorInvalidArgument;
  pipeline_->SetCABundle(path);
  return kelcore::kResultOK;
}

void ServiceBase::SetTransport(std::shared_ptr<ITransport> transport) { pipeline_->SetTransport(std::move(transport)); }

void ServiceBase::SetRetryScheduler(std::shared_ptr<IRetryScheduler> scheduler) {
  pipeline_->SetScheduler(std::move(scheduler));
}

int ServiceBase::SetAuthToken(const kelcore::ImmutableString& value, const kelcore::ImmutableString& headerName) {
  if (!kelnet::internal::IsHeaderNameToken(headerName.View())) return kelcore::kErrorInvalidArgument;
  if (!kelnet::internal::IsSafeHeaderValue(value.View())) return kelcore::kErrorInvalidArgument;
  pipeline_->SetAuthToken(value, headerName);
  return kelcore::kResultOK;
}

void ServiceBase::AddCommonHeaders(kelnet::HeaderMap& /*headers*/) {}

kelnet::HeaderMap ServiceBase::BuildHeaders(const kelnet::HeaderMap& headers) {
  kelnet::HeaderMap common;
  AddCommonHeaders(common);
  kelnet::HeaderMap result = headers;
  for (auto& [name, value] : common) {
    if (!HasHeader(headers, name.View())) result.emplace(name, value);
  }
  return result;
}

int ServiceBase::HttpPost(const kelcore::utility::Guid& requestId, kelnet::Completion completion,
                          const kelcore::ImmutableString& url,
                          std::shared_ptr<const kelcore::allocator::RecycledMemory> body,
                          const kelnet::HeaderMap& headers, const kelnet::Configuration& configuration,
                          bool authorize) {
  if (!completion || !kelnet::ParseURLOfThread(url)) return kelcore::kErrorInvalidArgument;
  detail::ExchangePlan plan;
  plan.url = url;
  plan.headers = BuildHeaders(headers);
  plan.body = std::move(body);
  plan.configuration = configuration;
  plan.authorize = authorize;
  return pipeline_->Start(std::move(plan), requestId, std::move(completion)) ? kelcore::kResultOK
                                                                           : kelcore::kErrorFailed;
}

int ServiceBase::HttpStreamingGet(const kelcore::utility::Guid& requestId, kelnet::DataCallback onData,
                                  kelnet::Completion completion, const kelcore::ImmutableString& url,
                                  const kelnet::HeaderMap& headers, const kelnet::Configuration& configuration,
                                  bool authorize) {
  if (!onData || !completion || !kelnet::ParseURLOfThread(url)) return kelcore::kErrorInvalidArgument;
  kelnet::HeaderMap all = BuildHeaders(headers);
  if (HasHeader(all, kelnet::kHEADER_RANGE.View())) {
    // The caller wants a particular range: theirs to interpret, so it goes out as asked.
    detail::ExchangePlan plan;
    plan.url = url;
    plan.headers = std::move(all);
    plan.configuration = configuration;
    plan.authorize = authorize;
    plan.streaming = true;
    plan.onData = [requestId, onData = std::move(onData)](const kelcore::utility::Guid&, const void* data,
                                                           std::size_t offset, std::size_t size,
                                                           const kelnet::Progress& progress,
                                                           const kelnet::HeaderMap& responseHeaders) {
      onData(requestId, data, offset, size, progress, responseHeaders);
    };
    return pipeline_->Start(std::move(plan), requestId, std::move(completion)) ? kelcore::kResultOK
                                                                             : kelcore::kErrorFailed;
  }
  detail::SegmentedDownload::Request request;
  request.requestId = requestId;
  request.onData = std::move(onData);
  request.completion = std::move(completion);
  request.url = url;
  request.headers = std::move(all);
  request.configuration = configuration;
  request.authorize = authorize;
  auto download = std::make_shared<detail::SegmentedDownload>(pipeline_, std::move(request));
  return download->Start() ? kelcore::kResultOK : kelcore::kErrorFailed;
}

}  // namespace kelappsupport::cloudservice
