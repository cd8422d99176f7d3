#include "HttpStreamingGetProvider.h"

#include "kelcore/KelException.h"

namespace ostriolib {

int HttpStreamingGetProvider::StreamingGet(
    const kelcore::classref::InterfaceRef<kelappsupport::cloudservice::IService>& service,
    const kelnet::DataCallback& onData, const kelnet::Completion& onComplete, const kelcore::ImmutableString& url,
    const kelnet::HeaderMap& headers) {
  KEL_THROW_IF_NULL(service, kelappsupport::cloudservice::IService);
  return service->HttpStreamingGet(kelcore::utility::Guid::CreateUnique(), onData, onComplete, url, headers,
                                   kelnet::Configuration(), true);
}

}  // namespace ostriolib
