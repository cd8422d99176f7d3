#include "HttpPostProvider.h"

#include "kelcore/KelException.h"

namespace ostriolib {

int HttpPostProvider::Post(const kelcore::classref::InterfaceRef<kelappsupport::cloudservice::IService>& service,
                           const kelcore::ImmutableString& url, const kelnet::HeaderMap& headers,
                           const std::shared_ptr<const kelcore::allocator::RecycledMemory>& body,
                           const kelnet::Completion& onComplete) {
  KEL_THROW_IF_NULL(service, kelappsupport::cloudservice::IService);
  return service->HttpPost(kelcore::utility::Guid::CreateUnique(), onComplete, url, body, headers,
                           kelnet::Configuration(), true);
}

}  // namespace ostriolib
