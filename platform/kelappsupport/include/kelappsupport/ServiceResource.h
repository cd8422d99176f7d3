#pragma once
// ServiceResource: keeps the last answer, under a lock subclasses share for their own state.

#include <mutex>
#include <string_view>

#include "kelappsupport/IServiceResource.h"

namespace kelappsupport::cloudservice {

class ServiceResource : public virtual IServiceResource {
  KEL_CLASS_REGISTRATION(ServiceResource, IServiceResource)

  ~ServiceResource() override = default;

  // Stores the answer. A null answer is not stored and gives kErrorNoResponse.
  int SetServerResponse(const std::shared_ptr<kelnet::Response>& response,
                        const kelcore::classref::InterfaceRef<IService>& service) override;
  std::shared_ptr<kelnet::Response> GetResponse() const override;

  // Whether this resource can read a body of that content type; the base reads anything.
  virtual bool CanLoadContentType(const kelcore::ImmutableString& contentType) const;

 protected:
  mutable std::mutex resourceMutex;

 private:
  std::shared_ptr<kelnet::Response> response_;
};

}  // namespace kelappsupport::cloudservice
