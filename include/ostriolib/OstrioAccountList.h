#pragma once
// The signed-in user's accounts: the first 100, in the order the service gives them.

#include <vector>

#include "ostriolib/OstrioDictionaryResource.h"
#include "ostriolib/OstrioExport.h"
#include "ostriolib/OstrioRecords.h"

OSTRIOLIB_HEADER_OF_LAYER(OSTRIOLIB_LAYER_QUERIES);

namespace ostriolib {

class OSTRIOLIB_EXPORT OstrioAccountList : public OstrioDictionaryResource {
  OSTRIOLIB_RESOURCE_CLASS(OstrioAccountList)

  static kelcore::async::Future<kelcore::classref::InterfaceRef<OstrioAccountList>> LoadAccountList(
      kelcore::classref::InterfaceRef<IOstrioService> const& service);
  std::vector<Account> GetAccountList() const;
};

}  // namespace ostriolib
