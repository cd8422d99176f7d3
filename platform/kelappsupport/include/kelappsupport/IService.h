#pragma once
// IService: what a cloud service offers to the resources and providers that use it.

#include <functional>
#include <memory>

#include "kelcore/ClassRef.h"
#include "kelcore/Guid.h"
#include "kelcore/ImmutableString.h"
#include "kelcore/RecycledMemory.h"
#include "kelnet/Http.h"

namespace kelappsupport::cloudservice {

class IService : public virtual kelcore::classref::Unknown {
 public:
  ~IService() override = default;

  // Both return 0 when the request was started or queued, in which case the completion runs
  // exactly once, never on the network thread (see ServiceBase.h for where); a negative result
  // code when it was not (the completion is then never called).
  virtual int HttpPost(const kelcore::utility::Guid& requestId, kelnet::Completion completion,
                       const kelcore::ImmutableString& url,
                       std::shared_ptr<const kelcore::allocator::RecycledMemory> body, const kelnet::HeaderMap& headers,
                       const kelnet::Configuration& configuration, bool authorize) = 0;
  virtual int HttpStreamingGet(const kelcore::utility::Guid& requestId, kelnet::DataCallback onData,
                               kelnet::Completion completion, const kelcore::ImmutableString& url,
                               const kelnet::HeaderMap& headers, const kelnet::Configuration& configuration,
                               bool authorize) = 0;
  // The header sent with every authorised request from now on (the value as sent, e.g.
  // "Bearer abc"). An empty value stops sending it.
  virtual int SetAuthToken(const kelcore::ImmutableString& value, const kelcore::ImmutableString& headerName) = 0;
};

}  // namespace kelappsupport::cloudservice
