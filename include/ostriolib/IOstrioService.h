#pragma once
// The GraphQL service: the one object through which the library talks HTTP to the service's API.

#include <cstddef>
#include <functional>
#include <memory>

#include "kelcore/ClassRef.h"
#include "kelcore/Dictionary.h"
#include "kelcore/Future.h"
#include "kelcore/Guid.h"
#include "kelcore/ImmutableString.h"
#include "kelcore/Strings.h"
#include "kelnet/Response.h"
#include "ostriolib/OstrioConfiguration.h"
#include "ostriolib/OstrioExport.h"

OSTRIOLIB_HEADER_OF_LAYER(OSTRIOLIB_LAYER_SERVICE);

namespace ostriolib {

// A streamed chunk: its bytes and their position in the resource.
using StreamingDataCallback =
    std::function<void(const kelcore::utility::Guid& requestId, const void* data, std::size_t offset, std::size_t size,
                       const kelnet::Progress& progress, const kelnet::HeaderMap& responseHeaders)>;

class OSTRIOLIB_EXPORT IOstrioService : public virtual kelcore::classref::Unknown {
 public:
  ~IOstrioService() override = default;

  // Called once, right after creation; later token changes go through SetAccessToken.
  virtual int Initialize(const kelcore::ImmutableString& clientId, const kelcore::ImmutableString& accessToken,
                         const EnvironmentType& environmentType, const kelcore::ImmutableString& previewValue,
                         const std::function<void(const kelcore::ImmutableString&)>& onUnauthenticated) = 0;
  // 0 when the token is the one already set (nothing is re-sent).
  virtual int SetAccessToken(const kelcore::ImmutableString& token) = 0;
  // Runs the token-expired handler given to Initialize, if any.
  virtual void NotifyUnauthenticated() = 0;
  // POSTs {"query", "variables"} to the API; the future carries the raw answer, unvalidated.
  virtual kelcore::async::Future<std::shared_ptr<kelnet::Response>> Query(
      const kelcore::U8Str& queryText, const kelcore::utility::Dictionary& variables) = 0;
  virtual int GetThrottleParameter1() = 0;
  virtual int GetThrottleParameter2() = 0;
  // Streams url into onData; the future carries the final answer.
  virtual kelcore::async::Future<std::shared_ptr<kelnet::Response>> StreamingGet(
      const kelcore::ImmutableString& url, const StreamingDataCallback& onData,
      const kelnet::HeaderMap& headers) const = 0;
};

// A new, uninitialised service; empty if it cannot be looked up as IOstrioService.
OSTRIOLIB_EXPORT kelcore::classref::InterfaceRef<IOstrioService> CreateOstrioService();

}  // namespace ostriolib
