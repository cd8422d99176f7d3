#pragma once
// HTTP POST and streaming GET on one network thread (libcurl multi; POSTs over HTTP/2 on
// connections of kelnet's own, decision 043).
//
// No callback ever runs on the network thread. Completions of POSTs and the tasks of ScheduleAfter
// run on kelnet's completion thread, one at a time: keep them short (one that blocks holds up the
// others, never a transfer). A streaming GET's data callback and its completion run on kelnet's
// delivery thread, in order: every chunk in the order received, then the completion. A slow data
// callback holds up delivery, not receiving: each transfer queues a few MiB and pauses while its
// queue is full. Streaming GETs always go over HTTP/1.1 (decision 044), so a paused one holds no
// more than its queue and the socket buffer. None ever runs on the caller's stack. A request
// that fails without a complete HTTP answer (connection refused, TLS failure, timeout, reset
// mid-body, cancellation, shutdown) completes with a null response; the reason goes to the log
// with the host only, never the URL's path or query (they may carry tokens).
//
// Each accepted request completes exactly once; a request that was refused (false returned)
// never calls its completion.

#include <chrono>
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

// Starts a POST; false when it could not be started (invalid URL, malformed header, peer
// verification turned off, transport shut down). A null requestBody posts zero bytes. It is sent
// in place, so every attempt of a retried request shares it. The answer's body is the Response's.
bool POST(const kelcore::utility::Guid& requestId, Completion completion, const kelcore::ImmutableString& url,
          std::shared_ptr<const kelcore::allocator::RecycledMemory> requestBody, const HeaderMap& headers,
          const Configuration& configuration);

// Starts a streaming GET: onData receives a 2xx body as it arrives, with each chunk's offset in
// the resource (the Content-Range start for a 206 answer, else 0, plus the bytes before it);
// nothing is accumulated. A 206 answer whose Content-Range is missing or unreadable delivers
// nothing, and one that runs past its Content-Range delivers up to there: both then complete
// with a null response. Bodies of other statuses are not streamed: the final Response carries
// them (the first 1 MiB), so an error page never lands in the caller's file. For a 2xx answer
// the final Response carries status and headers and an empty body.
bool StreamingGET(const kelcore::utility::Guid& requestId, DataCallback onData, Completion completion,
                  const kelcore::ImmutableString& url, const HeaderMap& headers, const Configuration& configuration);

// Cancels every request started with this id: each completes with a null response, and what was
// queued for it is dropped. Called from a data callback, no further chunk of that request is
// delivered; called elsewhere, at most the chunk being handed over at that moment.
void Cancel(const kelcore::utility::Guid& requestId);

// Runs task on the completion thread once delay has passed (retry back-off, without a sleeping
// thread). False once the transport is shut down; timers pending at shutdown run at once.
bool ScheduleAfter(std::chrono::milliseconds delay, std::function<void()> task);

// Cancels every request in flight (each completes with a null response), runs pending timers,
// stops and joins the network, delivery and completion threads. Requests started afterwards are
// refused. Idempotent; also runs at process exit. Called on one of those threads it stops them
// without joining.
void Shutdown();
bool IsShutDown();

// Whether the calling thread is kelnet's network thread, where no caller's callback ever runs.
bool IsNetworkThread();
bool IsDeliveryThread();
// Runs task on the delivery thread, after what is queued there for the consumers now: for a
// streaming completion reached some other way than through the transfer (a timer, a refusal).
// False when the transport is shut down and the delivery thread has ended (the task is not run).
bool RunOnDeliveryThread(std::function<void()> task);

}  // namespace kelnet
