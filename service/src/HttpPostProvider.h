#pragma once
// Sends one POST through a service's request pipeline.

#include <memory>

#include "kelappsupport/IService.h"
#include "kelcore/ClassRef.h"
#include "kelnet/Http.h"

namespace ostriolib {

class IHttpPostProvider : public virtual kelcore::classref::Unknown {
 public:
  ~IHttpPostProvider() override = default;
  // The result of the service's HttpPost: negative when the request was not started.
  virtual int Post(const kelcore::classref::InterfaceRef<kelappsupport::cloudservice::IService>& service,
                   const kelcore::ImmutableString& url, const kelnet::HeaderMap& headers,
                   const std::shared_ptr<const kelcore::allocator::RecycledMemory>& body,
                   const kelnet::Completion& onComplete) = 0;
};

class HttpPostProvider final : public IHttpPostProvider {
  KEL_CLASS_REGISTRATION(HttpPostProvider, IHttpPostProvider)

  int Post(const kelcore::classref::InterfaceRef<kelappsupport::cloudservice::IService>& service,
           const kelcore::ImmutableString& url, const kelnet::HeaderMap& headers,
           const std::shared_ptr<const kelcore::allocator::RecycledMemory>& body,
           const kelnet::Completion& onComplete) override;
};

}  // namespace ostriolib
