#include "ostriolib/OstrioDictionaryResource.h"

#include <string_view>

#include "kelcore/Executor.h"
#include "kelcore/KelException.h"
#include "kelnet/Constants.h"
#include "ostriolib/IDictionaryUtils.h"
#include "ostriolib/OstrioKeys.h"

namespace ostriolib {
namespace {

// The places the query path's failures report, as hosts know them.
constexpr std::string_view kSourcePath = "service/src/OstrioDictionaryResource";
constexpr std::string_view kGenericQuery = "ostriolib::OstrioDictionaryResource::GenericQuery";
constexpr int kLineNoResponse = 51;
constexpr int kLineRejected = 54;

}  // namespace

kelcore::async::Future<kelcore::classref::InterfaceRef<OstrioDictionaryResource>> OstrioDictionaryResource::GenericQuery(
    const kelcore::classref::InterfaceRef<IOstrioService>& service, const kelcore::U8Str& query,
    const kelcore::utility::Dictionary& variables) {
  using Ref = kelcore::classref::InterfaceRef<OstrioDictionaryResource>;
  if (!service) return kelcore::async::MakeFailedFuture<Ref>(kelcore::kErrorServiceUnavailable);
  Ref resource = CreateClassRef();
  return service->Query(query, variables)
      .ThenOnSuccess(
          [resource, service](const std::shared_ptr<kelnet::Response>& inResponse) {
            KEL_THROW_IF_AT(!inResponse, kelcore::kErrorPreconditionFailed, "",
                            kelcore::ContinuationSite(kSourcePath, kLineNoResponse, kGenericQuery, 1));
            const int result =
                resource->SetServerResponse(inResponse, service.Query<kelappsupport::cloudservice::IService>());
            KEL_THROW_IF_AT(kelcore::ResultFailed(result), result, "",
                            kelcore::ContinuationSite(kSourcePath, kLineRejected, kGenericQuery, 1));
            return resource;
          },
          kelcore::async::GetDefaultExecutor());
}

int OstrioDictionaryResource::SetServerResponse(
    const std::shared_ptr<kelnet::Response>& response,
    const kelcore::classref::InterfaceRef<kelappsupport::cloudservice::IService>& service) {
  int result = ServiceResource::SetServerResponse(response, service);
  if (kelcore::ResultFailed(result)) return result;
  result = SetDictionaryFromResponse(response);
  if (auto ostrioService = service.Query<IOstrioService>(); ostrioService && result == kelcore::kErrorUnauthenticated) {
    ostrioService->NotifyUnauthenticated();
  }
  return result;
}

OstrioDictionaryResource::operator kelcore::classref::InterfaceRef<kelcore::classref::UnknownBase>() {
  return kelcore::classref::InterfaceRef<kelcore::classref::UnknownBase>(
      SharedFromThisAs<kelcore::classref::UnknownBase>());
}

int OstrioDictionaryResource::ValidateResponse(const std::shared_ptr<kelnet::Response>& response) {
  if (!response) return kelcore::kErrorNoResponse;
  if (static_cast<unsigned>(response->StatusCode() - 200) > 99u) return kelcore::kErrorRequestFailed;
  if (!CanLoadContentType(response->FirstHeader(kelnet::kHEADER_CONTENT_TYPE.View()))) {
    return kelcore::kErrorUnsupportedContentType;
  }
  return kelcore::kResultOK;
}

bool OstrioDictionaryResource::CanLoadContentType(const kelcore::ImmutableString& contentType) const {
  const std::string_view text = contentType.View();
  return text.find(kelnet::kHEADER_CONTENT_TYPE_APPLICATION_VND_API_JSON.View()) != std::string_view::npos ||
         text.find(kelnet::kHEADER_CONTENT_TYPE_APPLICATION_JSON.View()) != std::string_view::npos;
}

int OstrioDictionaryResource::SetDictionaryFromResponse(const std::shared_ptr<kelnet::Response>& response) {
  const int result = ValidateResponse(response);
  if (kelcore::ResultFailed(result)) return result;
  const std::string& body = response->Body();
  const auto parsed = kelcore::utility::JSONParseToDictionaryValue(body.data(), body.size());
  kelcore::utility::Dictionary parsedDictionary;
  if (parsed && parsed->IsObject()) parsedDictionary = parsed->AsDictionary();
  {
    std::lock_guard lock(resourceMutex);
    dictionary = parsedDictionary;
  }

  auto utils = CreateDictionaryUtils();
  KEL_THROW_IF_NULL(utils, IDictionaryUtils);
  const auto errors = utils->GetArray(parsedDictionary, kKeyErrors);
  if (!errors) return result;
  for (const auto& element : *errors) {
    const auto error = utils->ToDictionary(element);
    if (error.empty()) continue;
    if (error.GetImmutableString(kKeyMessage.View()) == kValUnauthenticated) return kelcore::kErrorUnauthenticated;
  }
  return kelcore::kErrorRequestFailed;
}

kelcore::utility::Dictionary OstrioDictionaryResource::GetDictionary() const { return dictionary; }

kelcore::U8Str OstrioDictionaryResource::GetJSON() const { return kelcore::utility::JSONWriteU8(dictionary); }

std::shared_ptr<kelnet::Response> OstrioDictionaryResource::GetResponse() const {
  return ServiceResource::GetResponse();
}

}  // namespace ostriolib
