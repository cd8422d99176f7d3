#pragma once
// Creates GraphQL services; the client holds one and asks it for a service per sign-in session.

#include "kelcore/ClassRef.h"
#include "ostriolib/IOstrioService.h"

namespace ostriolib {

class IOstrioServiceProvider : public virtual kelcore::classref::Unknown {
 public:
  ~IOstrioServiceProvider() override = default;
  virtual kelcore::classref::InterfaceRef<IOstrioService> CreateService() = 0;
};

class OstrioServiceProvider final : public IOstrioServiceProvider {
  KEL_CLASS_REGISTRATION(OstrioServiceProvider, IOstrioServiceProvider)

  kelcore::classref::InterfaceRef<IOstrioService> CreateService() override { return CreateOstrioService(); }
};

}  // namespace ostriolib
