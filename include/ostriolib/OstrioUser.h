#pragma once
// The signed-in user.

#include "ostriolib/OstrioDictionaryResource.h"
#include "ostriolib/OstrioExport.h"
#include "ostriolib/OstrioRecords.h"

OSTRIOLIB_HEADER_OF_LAYER(OSTRIOLIB_LAYER_QUERIES);

namespace ostriolib {

class OSTRIOLIB_EXPORT OstrioUser : public OstrioDictionaryResource {
  OSTRIOLIB_RESOURCE_CLASS(OstrioUser)

  static kelcore::async::Future<kelcore::classref::InterfaceRef<OstrioUser>> LoadUser(
      kelcore::classref::InterfaceRef<IOstrioService> const& service);
  // Missing keys leave defaults; never throws.
  CurrentUser GetUser() const;
};

}  // namespace ostriolib
