#pragma once
// HTTP POST and streaming GET on one network thread (libcurl multi).
//
// Completions and data callbacks run on the network thread, never on the caller's stack;
// keep them short and hand work on. A request that fails before an HTTP answer arrives
// (connection refused, TLS failure, timeout, reset, shutdown) completes with a null response;
// the reason goes to the log without the URL's path or query (they may carry tokens).

#include <functional>
#include <memory>

#include "kelcore/Guid.h"
#include "kelcore/ImmutableString.h"
#include "kelcore/RecycledMemory.h"
#include "kelnet/Response.h"

namespace kelnet {

using Completion = std::function<void(const kelcore::utility::Guid& requestId, const std::shared_ptr<Response>& response)>;
using DataCallback = std::function<void(const kelcore::utility::Guid& requestId, const void* data, std::size_t offset,
                                        std::size_t size, const Progress& progress, const HeaderMap& responseHeaders)>;

// Starts a POST; false when it could not be started (invalid URL, transport shut down).
bool POST(const kelcore::utility::Guid& requestId, Completion completion, const kelcore::ImmutableString& url,
          std::shared_ptr<const kelcore::allocator::RecycledMemory> body, const HeaderMap& headers,
          const Configuration& configuration);

// Starts a streaming GET: onData receives the body as it arrives, with each chunk's offset in
// the resource; the final Response carries status and headers and an empty body.
bool StreamingGET(const kelcore::utility::Guid& requestId, DataCallback onData, Completion completion,
                  const kelcore::ImmutableString& url, const HeaderMap& headers, const Configuration& configuration);

// Cancels every request in flight (each completes with a null response), stops and joins the
// network thread. Requests started afterwards are refused. Idempotent.
void Shutdown();

}  // namespace kelnet
