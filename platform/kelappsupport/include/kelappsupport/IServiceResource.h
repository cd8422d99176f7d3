#pragma once
// IServiceResource: an object filled from one server answer.

#include <memory>

#include "kelappsupport/IService.h"
#include "kelcore/ClassRef.h"
#include "kelnet/Response.h"

namespace kelappsupport::cloudservice {

class IServiceResource : public virtual kelcore::classref::Unknown {
 public:
  ~IServiceResource() override = default;
  // Takes the answer; a negative result code when it is unusable.
  virtual int SetServerResponse(const std::shared_ptr<kelnet::Response>& response,
                                const kelcore::classref::InterfaceRef<IService>& service) = 0;
  virtual std::shared_ptr<kelnet::Response> GetResponse() const = 0;
};

}  // namespace kelappsupport::cloudservice
