#pragma once
// Starts one streaming GET through a service's request pipeline.

#include "kelappsupport/IService.h"
#include "kelcore/ClassRef.h"
#include "kelnet/Http.h"

namespace ostriolib {

class IHttpStreamingGetProvider : public virtual kelcore::classref::Unknown {
 public:
  ~IHttpStreamingGetProvider() override = default;
  // The result of the service's HttpStreamingGet: negative when the request was not started.
  virtual int StreamingGet(const kelcore::classref::InterfaceRef<kelappsupport::cloudservice::IService>& service,
                           const kelnet::DataCallback& onData, const kelnet::Completion& onComplete,
                           const kelcore::ImmutableString& url, const kelnet::HeaderMap& headers) = 0;
};

class HttpStreamingGetProvider final : public IHttpStreamingGetProvider {
  KEL_CLASS_REGISTRATION(HttpStreamingGetProvider, IHttpStreamingGetProvider)

  int StreamingGet(const kelcore::classref::InterfaceRef<kelappsupport::cloudservice::IService>& service,
                   const kelnet::DataCallback& onData, const kelnet::Completion& onComplete,
                   const kelcore::ImmutableString& url, const kelnet::HeaderMap& headers) override;
};

}  // namespace ostriolib
