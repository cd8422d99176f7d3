#include "kelappsupport/ServiceResource.h"

#include "kelcore/ResultCodes.h"

namespace kelappsupport::cloudservice {

int ServiceResource::SetServerResponse(const std::shared_ptr<kelnet::Response>& response,
                                       const kelcore::classref::InterfaceRef<IService>& /*service*/) {
  if (!response) return kelcore::kErrorNoResponse;
  std::lock_guard lock(resourceMutex);
  response_ = response;
  return kelcore::kResultOK;
}

std::shared_ptr<kelnet::Response> ServiceResource::GetResponse() const {
  std::lock_guard lock(resourceMutex);
  return response_;
}

bool ServiceResource::CanLoadContentType(const kelcore::ImmutableString& /*contentType*/) const { return true; }

}  // namespace kelappsupport::cloudservice
