// The network loop: see Transport.h for the thread model. The GOAWAY note at
// ShouldRetryUnanswered is the one condition under which a request is sent again.

#include "Transport.h"

#include <algorithm>
#include <cstdlib>

#include "kelcore/Logging.h"
#include "kelnet/Http.h"
#include "kelnet/URL.h"

namespace kelnet {
namespace {

using kelcore::utility::Guid;

constexpr std::size_t kMaxPooledHandles = 64;
constexpr long kMaxPollMilliseconds = 1000;

void LogWarning(std::string message, std::vector<std::pair<std::string, std::string>> fields) {
  kelcore::logging::LogWarning("kelnet", std::move(message), std::move(fields));
}

// The proxy variables curl reads for an https URL: a request they may apply to stays curl's.
// Read again at most once a second per thread: a scan of the environment per request shows.
bool ProxyInEnvironment(std::chrono::steady_clock::time_point now) {
  thread_local std::chrono::steady_clock::time_point readAt;
  thread_local bool set = false;
  if (readAt != std::chrono::steady_clock::time_point() && now - readAt < std::chrono::seconds(1)) return set;
  readAt = now;
  set = false;
  for (const char* name : {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
    const char* value = std::getenv(name);
    if (value && *value) set = true;
  }
  return set;
}

}  // namespace

Transport::Transport() {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  if (CURL* probe = curl_easy_init()) {
    char* capath = nullptr;
    char* cainfo = nullptr;
    curl_easy_getinfo(probe, CURLINFO_CAPATH, &capath);
    curl_easy_getinfo(probe, CURLINFO_CAINFO, &cainfo);
    if (!capath && cainfo) caBundles_.SetSystemBundle(cainfo);
    if (cainfo) curlCaFile_ = cainfo;
    if (capath) curlCaPath_ = capath;
    curl_easy_cleanup(probe);
  }
}

Transport& Transport::Instance() {
  // Never destroyed: the network thread may outlive static destruction when the process ends
  // from one of its own callbacks. Registered at creation, the exit hook runs before the
  // destructors of everything that existed before the transport, so completions run at exit
  // still find what their callers set up.
  static std::once_flag once;
  static Transport* transport = nullptr;
  std::call_once(once, [] {
    transport = new Transport();
    std::atexit([] { transport->Shutdown(); });
  });
  return *transport;
}

// On the completion thread, never here: a task is a caller's code.
void Transport::RunTimerTasks(std::vector<std::function<void()>>& due) {
  for (auto& task : due) {
    auto run = [task = std::move(task)] {
      try {
        task();
      } catch (...) {
        LogWarning("timer task threw", {});
      }
    };
    if (!completions_.Post(run)) run();
  }
}

bool Transport::RunOnDeliveryThread(std::function<void()> task) {
  {
    std::lock_guard lock(mutex_);
    if (!threadStarted_ && (shutdown_ || !StartThreadLocked())) return false;
  }
  return delivery_.Post(std::move(task));
}

bool Transport::IsShutDown() {
  std::lock_guard lock(mutex_);
  return shutdown_;
}

CURL* Transport::AcquireEasy() {
  {
    std::lock_guard lock(poolMutex_);
    if (!pool_.empty()) {
      CURL* easy = pool_.back();
      pool_.pop_back();
      return easy;
    }
  }
  return curl_easy_init();
}

void Transport::ReleaseEasy(CURL* easy) {
  if (!easy) return;
  curl_easy_reset(easy);
  std::lock_guard lock(poolMutex_);
  if (pool_.size() < kMaxPooledHandles && !threadExited_) {
    pool_.push_back(easy);
    return;
  }
  curl_easy_cleanup(easy);
}

bool Transport::Submit(const Guid& id, DataCallback onData, Completion completion,
                       const kelcore::ImmutableString& url,
                       std::shared_ptr<const kelcore::allocator::RecycledMemory> requestBody, const HeaderMap& headers,
                       const Configuration& configuration, bool streaming) {
  if (!configuration.verifyPeer) return false;
  const auto& parts = ParseURLOfThread(url);
  if (!parts) return false;
  // One reading of the clock for everything below that asks for the time.
  const auto now = Clock::now();

  auto request = std::make_unique<Request>();
  request->id = id;
  request->streaming = streaming;
  request->delivery = &delivery_;
  if (streaming) {
    request->stream = std::make_shared<Stream>();
    request->stream->id = id;
    request->stream->onData = std::move(onData);
    request->stream->request = request.get();
  }
  request->completion = std::move(completion);
  request->requestBody = std::move(requestBody);

  // POSTs over HTTP/2 go over our own connections (Http2Client.h): what that client does not do
  // (a proxy, credentials in the URL, redirects, plain http) stays curl's.
  const bool ownHttp2 = !streaming && configuration.allowHttp2 && parts->scheme == "https" &&
                        parts->userInfo.empty() && configuration.proxy.empty() && !configuration.followRedirects &&
                        !ProxyInEnvironment(now);
  bool hasRange = false;
  if (!request->PrepareHeaders(headers, hasRange, !ownHttp2)) return false;
  if (!configuration.caBundlePath.empty()) request->caBundle = caBundles_.Get(configuration.caBundlePath, now);

  CURL* easy = nullptr;
  if (ownHttp2) {
    request->http2.emplace();
    request->http2->url = url;
    request->http2->configuration = configuration;
    request->http2->Prepare(*parts, headers, request->requestBody ? request->requestBody->Size() : 0, now);
    request->maxAnswerBodyBytes = configuration.maxAnswerBodyBytes;
  } else {
    request->host = parts->host;
    request->KeepSecretsOfURL(*parts);
    easy = AcquireEasy();
    if (!easy) return false;
    request->PrepareEasy(easy, url, configuration, hasRange);
  }

  const bool onCompletionThread = std::this_thread::get_id() == completions_.ThreadId();
  std::lock_guard lock(mutex_);
  if (ownHttp2 && onCompletionThread && !shutdown_) {
    // Written by the completion thread itself once its batch is done (SubmitBatch).
    batched_.push_back(std::move(request));
    return true;
  }
  if (shutdown_ || !StartThreadLocked()) {
    request->easy = nullptr;
    if (easy) curl_easy_cleanup(easy);
    return false;
  }
  incoming_.push_back(std::move(request));
  // A completion that starts the next request is usually one of several handed over together:
  // the network thread is woken once, when the completion thread has run them all, and sends the
  // requests they started in one write.
  if (onCompletionThread) {
    wakeDeferred_ = true;
  } else {
    WakeLocked();
  }
  return true;
}

bool Transport::StartThreadLocked() {
  if (threadStarted_) return !threadExited_;
  multi_ = curl_multi_init();
  if (!multi_) return false;
  curl_multi_setopt(multi_, CURLMOPT_PIPELINING, CURLPIPE_MULTIPLEX);
  http2_.Attach(multi_, curlCaFile_, curlCaPath_);
  threadStarted_ = true;
  // The delivery and completion threads first: the network thread may hand them work at once.
  delivery_.Start();
  completions_.Start({[this] { SubmitBatch(); }, [this](std::vector<pollfd>& into) { return http2_.FillPoll(into); },
                      [this](std::vector<pollfd>& polled) { ServeHttp2(polled); }});
  thread_ = std::thread([this] { Run(); });
  threadId_ = thread_.get_id();
  return true;
}

void Transport::WakeLocked() {
  // multi_ is cleared without the lock once the thread has exited: look at it only before.
  if (wakePending_ || threadExited_ || !multi_) return;
  wakePending_ = true;
  // The loop reads wakePending_ under this lock before it sleeps, so a busy loop needs no more.
  // curl's wake-up (a write to its socket pair, and two reads to drain it) is for a loop that
  // sleeps, or has decided to (10 000 POSTs, 16 in flight: 77k system calls instead of 89k).
  if (polling_) curl_multi_wakeup(multi_);
}

// Completion thread, its batch run: the POSTs those completions started go straight onto an open
// connection; the rest (and any request for another origin) to the network thread.
void Transport::SubmitBatch() {
  std::vector<std::unique_ptr<Request>>& batch = submitting_;
  std::vector<std::unique_ptr<Request>>& cancelled = submittingCancelled_;
  {
    std::lock_guard lock(mutex_);
    for (auto& request : batched_) (request->cancelled ? cancelled : batch).push_back(std::move(request));
    batched_.clear();
  }
  if (!batch.empty()) http2_.SubmitNow(batch);
  for (auto& request : cancelled) batch.push_back(std::move(request));
  cancelled.clear();
  CollectHttp2();
  std::vector<std::unique_ptr<Request>> refused;
  {
    std::lock_guard lock(mutex_);
    if (threadExited_) {
      refused.swap(batch);
    } else {
      for (auto& request : batch) incoming_.push_back(std::move(request));
      if (!batch.empty() || http2_.WantsNetworkThread()) wakeDeferred_ = true;
    }
    if (wakeDeferred_) {
      wakeDeferred_ = false;
      WakeLocked();
    }
  }
  batch.clear();
  // Accepted, but the network thread has ended: they complete here, without an answer.
  for (auto& request : refused) {
    if (request->completion) request->completion(request->id, nullptr);
  }
}

// Completion thread, woken by its poll: answers are read and their completions queued behind
// what runs now.
void Transport::ServeHttp2(std::vector<pollfd>& polled) {
  http2_.Drive(polled);
  CollectHttp2();
  if (http2_.WantsNetworkThread()) WakeNetwork();
}

// Completion thread: what the HTTP/2 client ended completes here, after what is queued.
void Transport::CollectHttp2() {
  std::vector<Http2Client::Ended>& ended = collectedEnds_;
  http2_.TakeEnded(ended);
  if (ended.empty()) return;
  std::vector<CompletionThread::Task>& done = collectedTasks_;
  for (auto& each : ended) FinishOwnHttp2(std::move(each.request), each.error, done);
  ended.clear();
  if (!completions_.PostAll(done)) {
    for (auto& task : done) CompletionThread::Run(task);
  }
  done.clear();
}

void Transport::WakeNetwork() {
  std::lock_guard lock(mutex_);
  WakeLocked();
}

void Transport::Cancel(const Guid& id) {
  // Whatever is queued for the consumer goes now, wherever Cancel is called from: from a data
  // callback no further chunk of the request may arrive.
  delivery_.Cancel(id);
  std::lock_guard lock(mutex_);
  // Not yet on a connection: SubmitBatch hands these to the network thread, which ends them.
  for (auto& request : batched_) {
    if (request->id == id) request->cancelled = true;
  }
  if (threadExited_ || !threadStarted_) return;
  cancels_.push_back(id);
  WakeLocked();
}

bool Transport::Schedule(std::chrono::milliseconds delay, std::function<void()> task) {
  std::lock_guard lock(mutex_);
  if (shutdown_ || !StartThreadLocked()) return false;
  timers_.emplace(Clock::now() + std::max(delay, std::chrono::milliseconds(0)), std::move(task));
  WakeLocked();
  return true;
}

void Transport::Shutdown() {
  {
    std::lock_guard lock(mutex_);
    shutdown_ = true;
    WakeLocked();
  }
  // The loops end after this callback; a later call (at the latest the one at exit) joins them.
  const auto self = std::this_thread::get_id();
  if (self == threadId_ || self == delivery_.ThreadId() || self == completions_.ThreadId()) return;
  std::lock_guard join(joinMutex_);
  if (thread_.joinable()) thread_.join();
  delivery_.Join();
  completions_.Join();
}

// An HTTP/2 connection the server shut down (GOAWAY) fails the streams it never took up: with
// this curl they end in an HTTP/2 error before any part of an answer arrived, where the protocol
// would have them retried on a new connection. We do that once, and only when nothing of an
// answer came back, so a request the server may have acted on is never sent twice.
bool Transport::ShouldRetryUnanswered(Request& request, CURLcode code) {
  if (code != CURLE_HTTP2 || request.cancelled || request.retried || request.status != 0 || request.bodyStarted) {
    return false;
  }
  request.retried = true;
  return true;
}

void Transport::CancelActive(const Guid& id) {
  std::vector<CURL*> matching;
  for (auto& [easy, request] : active_) {
    if (request->id == id) matching.push_back(easy);
  }
  for (CURL* easy : matching) {
    auto node = active_.extract(easy);
    node.mapped()->cancelled = true;
    Finish(std::move(node.mapped()), CURLE_ABORTED_BY_CALLBACK);
  }
  http2_.Cancel(id);
  TakeOwnHttp2Results();
}

void Transport::Finish(std::unique_ptr<Request> request, CURLcode code) {
  if (request->stream) {
    const auto settled = delivery_.Settle(*request->stream);
    if (settled.failed) request->callbackFailed = true;
    if (settled.cancelled) request->cancelled = true;
    if (settled.wasPaused) {
      // What curl holds for a paused transfer is freed only when it is handed on, not when the
      // handle is removed or reset. Bytes of a transfer that ended well are queued; those of a
      // cancelled one OnWrite refuses.
      request->ending = true;
      curl_easy_pause(request->easy, CURLPAUSE_CONT);
    }
  }
  curl_multi_remove_handle(multi_, request->easy);
  std::shared_ptr<Response> response;
  if (code == CURLE_OK && !request->cancelled && !request->callbackFailed && !request->broken) {
    long status = 0;
    curl_easy_getinfo(request->easy, CURLINFO_RESPONSE_CODE, &status);
    long version = 0;
    curl_easy_getinfo(request->easy, CURLINFO_HTTP_VERSION, &version);
    const char* versionText = version == CURL_HTTP_VERSION_2_0   ? "2"
                              : version == CURL_HTTP_VERSION_3   ? "3"
                              : version == CURL_HTTP_VERSION_1_0 ? "1.0"
                                                                 : "1.1";
    response = std::make_shared<Response>(static_cast<int>(status), std::move(request->answerHeaders),
                                          std::move(request->answerBody), versionText);
  } else if (!request->cancelled) {
    // curl's text for an answer we ended ourselves would only say that a write failed.
    std::string detail = request->broken || request->callbackFailed || !request->error ? "" : request->error.get();
    for (const std::string* secret : {&request->path, &request->query, &request->userInfo}) {
      if (!secret->empty() && detail.find(*secret) != std::string::npos) detail.clear();
    }
    const char* error = request->broken           ? request->broken
                        : request->callbackFailed ? "callback failed"
                                                  : curl_easy_strerror(code);
    LogWarning("HTTP request failed", {{"host", request->host}, {"error", error}, {"detail", detail}});
  }
  ReleaseEasy(request->easy);
  request->easy = nullptr;
  Complete(std::move(request), std::move(response), finished_);
}

void Transport::FinishOwnHttp2(std::unique_ptr<Request> request, const char* error,
                               std::vector<CompletionThread::Task>& done) {
  std::shared_ptr<Response> response;
  if (!error && !request->cancelled) {
    response = std::make_shared<Response>(request->status, Response::ReceivedFields{std::move(request->answerFields)},
                                          std::move(request->answerBody), "2");
  } else if (!request->cancelled) {
    LogWarning("HTTP request failed", {{"host", request->http2 ? request->http2->host : request->host},
                                       {"error", error},
                                       {"detail", ""}});
  }
  Complete(std::move(request), std::move(response), done);
}

// What the HTTP/2 client ended goes to its caller; what it handed back (an origin without "h2")
// goes to curl.
void Transport::TakeOwnHttp2Results() {
  http2_.TakeEnded(networkEnds_);
  for (auto& each : networkEnds_) FinishOwnHttp2(std::move(each.request), each.error, finished_);
  networkEnds_.clear();
  for (auto& request : http2_.TakeForCurl()) HandToCurl(std::move(request));
}

void Transport::HandToCurl(std::unique_ptr<Request> request) {
  CURL* easy = AcquireEasy();
  if (!easy) {
    FinishOwnHttp2(std::move(request), "could not start the request", finished_);
    return;
  }
  auto exchange = std::move(request->http2);
  request->http2.reset();
  request->host = exchange->host;
  if (auto parts = ParseURL(exchange->url.View())) request->KeepSecretsOfURL(*parts);
  bool hasRange = false;
  request->PrepareHeaders(HeaderMap(exchange->callerHeaders.begin(), exchange->callerHeaders.end()), hasRange);
  request->PrepareEasy(easy, exchange->url, exchange->configuration, hasRange);
  if (curl_multi_add_handle(multi_, easy) != CURLM_OK) {
    Finish(std::move(request), CURLE_FAILED_INIT);
    return;
  }
  active_.emplace(easy, std::move(request));
}

void Transport::Complete(std::unique_ptr<Request> request, std::shared_ptr<Response> response,
                         std::vector<CompletionThread::Task>& done) {
  Completion completion = std::move(request->completion);
  if (request->stream) {
    std::shared_ptr<Stream> stream = std::move(request->stream);
    stream->request = nullptr;
    const bool cancelled = request->cancelled;
    request.reset();
    delivery_.HandOver(std::move(stream), cancelled, std::move(completion), std::move(response));
    return;
  }
  const Guid id = request->id;
  request.reset();
  if (!completion) return;
  done.push_back({nullptr, std::move(completion), id, std::move(response)});
}

// The completions of one turn of the loop go over in one hand-off (one lock, at most one wake-up).
void Transport::HandOverCompletions() {
  if (finished_.empty()) return;
  // The completion thread ends after this thread, so this only fails if it could not start.
  if (!completions_.PostAll(finished_)) {
    for (auto& task : finished_) CompletionThread::Run(task);
  }
  finished_.clear();
}

void Transport::Run() {
  bool stopping = false;
  while (true) {
    std::vector<std::unique_ptr<Request>> incoming;
    std::vector<Guid> cancels;
    std::vector<std::function<void()>> due;
    {
      std::lock_guard lock(mutex_);
      wakePending_ = false;
      polling_ = false;
      incoming.swap(incoming_);
      cancels.swap(cancels_);
      stopping = shutdown_;
      const auto now = Clock::now();
      auto end = stopping ? timers_.end() : timers_.upper_bound(now);
      for (auto it = timers_.begin(); it != end; ++it) due.push_back(std::move(it->second));
      timers_.erase(timers_.begin(), end);
    }

    if (stopping) {
      // Everything still waiting completes with a null response; what those completions start
      // is refused, so this converges.
      for (auto& request : incoming) {
        request->cancelled = true;
        Finish(std::move(request), CURLE_ABORTED_BY_CALLBACK);
      }
      std::vector<CURL*> all;
      for (auto& [easy, request] : active_) all.push_back(easy);
      for (CURL* easy : all) {
        auto node = active_.extract(easy);
        node.mapped()->cancelled = true;
        Finish(std::move(node.mapped()), CURLE_ABORTED_BY_CALLBACK);
      }
      http2_.Stop();
      http2_.TakeEnded(networkEnds_);
      for (auto& each : networkEnds_) FinishOwnHttp2(std::move(each.request), nullptr, finished_);
      networkEnds_.clear();
      for (auto& request : http2_.TakeForCurl()) {
        request->cancelled = true;
        FinishOwnHttp2(std::move(request), nullptr, finished_);
      }
      HandOverCompletions();
      RunTimerTasks(due);
      std::lock_guard lock(mutex_);
      if (incoming_.empty() && timers_.empty() && active_.empty() && http2_.Empty()) {
        threadExited_ = true;
        break;
      }
      continue;
    }

    for (auto& request : incoming) {
      if (request->http2) {
        if (request->cancelled) {
          FinishOwnHttp2(std::move(request), nullptr, finished_);  // cancelled before it reached a connection
        } else {
          http2_.Add(std::move(request));
        }
        continue;
      }
      CURL* easy = request->easy;
      if (curl_multi_add_handle(multi_, easy) != CURLM_OK) {
        Finish(std::move(request), CURLE_FAILED_INIT);
        continue;
      }
      if (request->stream) delivery_.Track(request->stream);
      active_.emplace(easy, std::move(request));
    }
    for (const Guid& id : cancels) CancelActive(id);
    http2_.Flush();
    http2_.StartConnects();
    AttendStreams();
    HandOverCompletions();
    RunTimerTasks(due);

    int running = 0;
    curl_multi_perform(multi_, &running);
    int queued = 0;
    std::vector<CURL*> again;
    while (CURLMsg* message = curl_multi_info_read(multi_, &queued)) {
      if (message->msg != CURLMSG_DONE) continue;
      if (http2_.OnConnected(message->easy_handle, message->data.result)) continue;
      auto it = active_.find(message->easy_handle);
      if (it == active_.end()) continue;
      if (ShouldRetryUnanswered(*it->second, message->data.result)) {
        again.push_back(message->easy_handle);
        continue;
      }
      auto node = active_.extract(it);
      Finish(std::move(node.mapped()), message->data.result);
    }
    for (CURL* easy : again) {
      // Same handle, same options, a fresh connection: the request starts over.
      Request& request = *active_[easy];
      curl_multi_remove_handle(multi_, easy);
      request.Restart();
      if (curl_multi_add_handle(multi_, easy) != CURLM_OK) {
        auto node = active_.extract(easy);
        Finish(std::move(node.mapped()), CURLE_FAILED_INIT);
      }
    }

    TakeOwnHttp2Results();
    HandOverCompletions();
    // Adds, connections and cancels here may change what the completion thread sleeps on.
    if (http2_.PollerMustLook()) completions_.Wake();
    delivery_.Flush();
    long timeout = kMaxPollMilliseconds;
    {
      std::lock_guard lock(mutex_);
      if (!incoming_.empty() || !cancels_.empty() || shutdown_ || wakePending_) {
        timeout = 0;
      } else if (!timers_.empty()) {
        const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(timers_.begin()->first - Clock::now());
        timeout = std::clamp<long>(static_cast<long>(wait.count()) + 1, 0, kMaxPollMilliseconds);
      }
      polling_ = timeout > 0;
    }
    if (timeout > 0) curl_multi_poll(multi_, nullptr, 0, static_cast<int>(timeout), nullptr);
  }

  curl_multi_cleanup(multi_);
  multi_ = nullptr;
  // Every transfer has been handed over by now: the other two threads run what is left and end.
  delivery_.Stop();
  completions_.Stop();
  std::lock_guard lock(poolMutex_);
  for (CURL* easy : pool_) curl_easy_cleanup(easy);
  pool_.clear();
}


// Network thread: resumes the transfers the delivery thread drained, and ends those whose
// consumer is done with them.
void Transport::AttendStreams() {
  for (auto& stream : delivery_.TakeAttention()) {
    // Null once the transfer ended here, perhaps earlier in this very loop.
    Request* request = stream->request;
    if (!request) continue;
    const auto attention = delivery_.Attend(*stream);
    CURLcode code = CURLE_OK;
    // Unpausing hands curl's held bytes to OnWrite at once, which may pause the transfer again.
    if (attention.resume) code = curl_easy_pause(request->easy, CURLPAUSE_CONT);
    if (attention.end || code != CURLE_OK) {
      auto node = active_.extract(request->easy);
      if (node.empty()) continue;
      Finish(std::move(node.mapped()), attention.end ? CURLE_WRITE_ERROR : code);
    }
  }
}

bool POST(const kelcore::utility::Guid& requestId, Completion completion, const kelcore::ImmutableString& url,
          std::shared_ptr<const kelcore::allocator::RecycledMemory> requestBody, const HeaderMap& headers,
          const Configuration& configuration) {
  return Transport::Instance().Submit(requestId, nullptr, std::move(completion), url, std::move(requestBody), headers,
                                      configuration, false);
}

bool StreamingGET(const kelcore::utility::Guid& requestId, DataCallback onData, Completion completion,
                  const kelcore::ImmutableString& url, const HeaderMap& headers, const Configuration& configuration) {
  if (!onData) return false;
  return Transport::Instance().Submit(requestId, std::move(onData), std::move(completion), url, nullptr, headers,
                                      configuration, true);
}

void Cancel(const kelcore::utility::Guid& requestId) { Transport::Instance().Cancel(requestId); }

bool ScheduleAfter(std::chrono::milliseconds delay, std::function<void()> task) {
  if (!task) return false;
  return Transport::Instance().Schedule(delay, std::move(task));
}

void Shutdown() { Transport::Instance().Shutdown(); }

bool IsShutDown() { return Transport::Instance().IsShutDown(); }

bool IsNetworkThread() { return Transport::Instance().IsNetworkThread(); }

bool IsDeliveryThread() { return Transport::Instance().IsDeliveryThread(); }

bool RunOnDeliveryThread(std::function<void()> task) {
  if (!task) return false;
  return Transport::Instance().RunOnDeliveryThread(std::move(task));
}

}  // namespace kelnet
