#include "OstrioService.h"

#include <string_view>
#include <vector>

#include "LibraryConfiguration.h"
#include "PlatformSettings.h"
#include "kelcore/ClassRef.h"
#include "kelcore/KelException.h"
#include "kelnet/Constants.h"
#include "kelnet/URL.h"

namespace ostriolib {
namespace {

const kelcore::ImmutableString kGraphQLEndpoint("https://api:domain/graphql");
const kelcore::ImmutableString kHeaderClientName("apollographql-client-name");
const kelcore::ImmutableString kHeaderClientVersion("apollographql-client-version");
const kelcore::ImmutableString kHeaderPreviewEnvironment("x-preview-environment");
const kelcore::ImmutableString kBodyQuery("query");
const kelcore::ImmutableString kBodyVariables("variables");
// The label of the API host; the token goes to this host only (see Initialize).
constexpr std::string_view kApiHostLabel = "api";

using Response = std::shared_ptr<kelnet::Response>;

// Both completions: a missing response is a failure of the request, never a success without one.
// The completion keeps the service alive until the answer is in.
kelnet::Completion Fulfil(kelcore::async::Promise<Response> promise,
                          kelcore::classref::InterfaceRef<kelappsupport::cloudservice::IService> service) {
  return [promise, service](const kelcore::utility::Guid&, const Response& response) {
    if (response) {
      promise.SetValue(response);
    } else {
      promise.SetError(kelcore::kErrorFailed);
    }
  };
}

}  // namespace

kelcore::classref::InterfaceRef<IOstrioService> CreateOstrioService() {
  auto service = kelcore::classref::AllocateClassInstance<OstrioService>();
  kelcore::classref::ClassWatcher::AddObject(service.Shared());
  return service.Query<IOstrioService>();
}

OstrioService::OstrioService()
    : postProvider_(kelcore::classref::AllocateClassInstance<HttpPostProvider>()),
      streamingGetProvider_(kelcore::classref::AllocateClassInstance<HttpStreamingGetProvider>()) {
  // The extra CA the library is told to trust (the emulator's, a company proxy's) serves every
  // request of the service; it is read once, as the service is made for a session.
  ConfigureCABundle(PlatformSettings::CaBundlePath());
}

OstrioService::~OstrioService() = default;

int OstrioService::Initialize(const kelcore::ImmutableString& clientId, const kelcore::ImmutableString& accessToken,
                              const EnvironmentType& environmentType, const kelcore::ImmutableString& previewValue,
                              const std::function<void(const kelcore::ImmutableString&)>& onUnauthenticated) {
  environmentType_ = environmentType;
  previewValue_ = previewValue;
  onUnauthenticated_ = onUnauthenticated;

  int result = ConfigureRequestThrottling(GetThrottleParameter1(), GetThrottleParameter2());
  if (kelcore::ResultFailed(result)) return result;
  result = ConfigureForRecoverableErrorProcessor({502, 503, 504});
  if (kelcore::ResultFailed(result)) return result;

  // The endpoint's domain is the one sign-in and refresh resolve (debug-database overrides
  // included), and the bearer token may go to its host alone: media links the API hands out
  // are signed URLs on other hosts, and a token sent along would leak to them.
  const kelcore::ImmutableString suffix = GetDomainSuffix(static_cast<EnvironmentType>(environmentType_));
  endpoint_ = kelnet::ReplaceInURL(kGraphQLEndpoint.View(), {{kDomain, suffix}}).Text();
  result = ConfigureAuthorizedHosts({std::string(kApiHostLabel) + std::string(suffix.View())});
  if (kelcore::ResultFailed(result)) return result;

  result = ConfigureForAuthorizationProcessor(kelcore::utility::Guid::CreateUnique(), onUnauthenticated_,
                                              kelappsupport::cloudservice::kConnectivityErrorRetry);
  if (kelcore::ResultFailed(result)) return result;
  clientId_ = clientId;
  // Without a usable token the service still works for requests that need none; the next
  // SetAccessToken replaces it, so its failure is not this call's.
  SetAccessToken(accessToken);
  return result;
}

int OstrioService::SetAccessToken(const kelcore::ImmutableString& token) {
  {
    std::lock_guard lock(tokenMutex_);
    if (token == accessToken_) return kelcore::kResultOK;
    accessToken_ = token;
  }
  const std::string_view prefix = kelnet::kBearerTokenPrefix.View();
  const std::string_view text = token.View();
  const kelcore::ImmutableString value =
      text.find(prefix) != std::string_view::npos ? token : kelcore::ImmutableString(std::string(prefix) + std::string(text));
  return SetAuthToken(value, kelnet::kHEADER_AUTHORIZATION);
}

void OstrioService::NotifyUnauthenticated() {
  if (onUnauthenticated_) onUnauthenticated_(kelcore::ImmutableString());
}

kelcore::async::Future<Response> OstrioService::Query(const kelcore::U8Str& queryText,
                                                      const kelcore::utility::Dictionary& variables) {
  kelcore::utility::Dictionary body;
  body.Set(kBodyQuery, kelcore::utility::DictionaryValue(queryText));
  if (!variables.empty()) body.Set(kBodyVariables, kelcore::utility::DictionaryValue(variables));
  const std::string json = kelcore::utility::JSONWrite(body);
  return Post(endpoint_, kelcore::allocator::RecycledMemory::Copy(json), kelnet::HeaderMap());
}

kelcore::classref::InterfaceRef<kelappsupport::cloudservice::IService> OstrioService::Self() const {
  // The pipeline only reads through this reference; const is this interface's promise to callers.
  auto* self = const_cast<OstrioService*>(this);
  return kelcore::classref::InterfaceRef<kelappsupport::cloudservice::IService>(
      self->SharedFromThisAs<kelappsupport::cloudservice::IService>());
}

kelcore::async::Future<Response> OstrioService::Post(
    const kelcore::ImmutableString& url, const std::shared_ptr<const kelcore::allocator::RecycledMemory>& body,
    const kelnet::HeaderMap& headers) {
  KEL_THROW_IF_NULL(postProvider_, IHttpPostProvider);
  kelcore::async::Promise<Response> promise(kelcore::async::GetDefaultExecutor());
  const int result = postProvider_->Post(Self(), url, headers, body, Fulfil(promise, Self()));
  if (kelcore::ResultFailed(result)) return kelcore::async::MakeFailedFuture<Response>(kelcore::kErrorFailed);
  return promise.GetFuture();
}

kelcore::async::Future<Response> OstrioService::StreamingGet(const kelcore::ImmutableString& url,
                                                             const StreamingDataCallback& onData,
                                                             const kelnet::HeaderMap& headers) const {
  KEL_THROW_IF_NULL(streamingGetProvider_, IHttpStreamingGetProvider);
  kelcore::async::Promise<Response> promise(kelcore::async::GetDefaultExecutor());
  const int result = streamingGetProvider_->StreamingGet(Self(), onData, Fulfil(promise, Self()), url, headers);
  if (kelcore::ResultFailed(result)) return kelcore::async::MakeFailedFuture<Response>(kelcore::kErrorFailed);
  return promise.GetFuture();
}

void OstrioService::AddCommonHeaders(kelnet::HeaderMap& headers) {
  // "name/version", or "name/extra/version": the middle is not ours to send.
  const std::string_view id = clientId_.View();
  const auto firstSlash = id.find('/');
  if (firstSlash == std::string_view::npos) {
    headers.emplace(kHeaderClientName, clientId_);
  } else {
    headers.emplace(kHeaderClientName, kelcore::ImmutableString(id.substr(0, firstSlash)));
    headers.emplace(kHeaderClientVersion, kelcore::ImmutableString(id.substr(id.rfind('/') + 1)));
  }
  if (environmentType_ == kEnvironmentDevelopment && !previewValue_.empty()) {
    headers.emplace(kHeaderPreviewEnvironment, previewValue_);
  }
  headers.emplace(kelnet::kHEADER_CONTENT_TYPE, kelnet::kHEADER_CONTENT_TYPE_APPLICATION_JSON_UTF_8);
}

}  // namespace ostriolib
