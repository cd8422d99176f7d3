#pragma once
// The network thread: one libcurl multi handle, driven by curl_multi_poll. Callers prepare a
// request on their own thread and hand it over through a locked queue; the network thread adds
// it, drives every transfer and hands each finished one on. One thread keeps connection reuse
// and multiplexing in one place and means no lock is taken while curl works.
//
// No caller's code runs on the network thread: POST completions and timer tasks go to the
// completion thread, streaming data and completions to the delivery thread.
//
// POSTs over kelnet's own HTTP/2 connections (Http2Client) are the exception to "one thread
// drives every transfer" (decision 045): the completion thread reads their answers, sleeping in
// poll() on their sockets when it has nothing to run, and writes the requests its completions
// start (batched_, SubmitBatch) once its batch has run. A round of answers and the requests they
// start so wake one thread once. The network thread still adds the requests other threads start,
// opens the connections and cancels; Http2Client's own mutex guards its connections.
//
// Threads: Submit, Cancel, Schedule and Shutdown run on any thread (mutex_ guards what they hand
// over); Run is the network thread; active_ and everything in a curl Request once handed over
// are the network thread's alone. The bytes of a streaming GET go to its consumer on the delivery
// thread (DeliveryQueue): the consumer writes them to disk, and a slow disk must neither stall
// the other transfers nor keep this transfer from receiving while the last chunk is written. The
// network thread never waits for the delivery thread.

#include <curl/curl.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "CaBundleCache.h"
#include "CompletionThread.h"
#include "DeliveryQueue.h"
#include "Http2Client.h"
#include "Request.h"

namespace kelnet {

class Transport {
 public:
  static Transport& Instance();

  bool Submit(const kelcore::utility::Guid& id, DataCallback onData, Completion completion,
              const kelcore::ImmutableString& url,
              std::shared_ptr<const kelcore::allocator::RecycledMemory> requestBody, const HeaderMap& headers,
              const Configuration& configuration, bool streaming);
  void Cancel(const kelcore::utility::Guid& id);
  bool Schedule(std::chrono::milliseconds delay, std::function<void()> task);
  void Shutdown();
  bool IsShutDown();
  bool IsNetworkThread() const { return std::this_thread::get_id() == threadId_.load(); }
  bool IsDeliveryThread() const { return std::this_thread::get_id() == delivery_.ThreadId(); }
  bool RunOnDeliveryThread(std::function<void()> task);

 private:
  using Clock = std::chrono::steady_clock;

  Transport();
  bool StartThreadLocked();
  void WakeLocked();
  void WakeNetwork();
  void SubmitBatch();
  void Run();
  void AttendStreams();
  void RunTimerTasks(std::vector<std::function<void()>>& due);
  void Finish(std::unique_ptr<Request> request, CURLcode code);
  // done: where the completion goes (finished_ on the network thread; the completion thread
  // queues its own).
  void FinishOwnHttp2(std::unique_ptr<Request> request, const char* error, std::vector<CompletionThread::Task>& done);
  void Complete(std::unique_ptr<Request> request, std::shared_ptr<Response> response,
                std::vector<CompletionThread::Task>& done);
  void ServeHttp2(std::vector<pollfd>& polled);
  void CollectHttp2();
  void TakeOwnHttp2Results();
  void HandToCurl(std::unique_ptr<Request> request);
  void HandOverCompletions();
  void CancelActive(const kelcore::utility::Guid& id);
  static bool ShouldRetryUnanswered(Request& request, CURLcode code);
  CURL* AcquireEasy();
  void ReleaseEasy(CURL* easy);

  std::mutex mutex_;
  bool shutdown_ = false;
  bool threadStarted_ = false;
  bool threadExited_ = false;
  bool wakePending_ = false;
  bool polling_ = false;  // the loop sleeps in curl_multi_poll, or is about to
  bool wakeDeferred_ = false;  // requests came from completions: woken once they have all run
  std::vector<std::unique_ptr<Request>> batched_;  // POSTs over HTTP/2 from completions, for SubmitBatch
  CURLM* multi_ = nullptr;
  std::thread thread_;
  std::atomic<std::thread::id> threadId_{};
  std::vector<std::unique_ptr<Request>> incoming_;
  std::vector<kelcore::utility::Guid> cancels_;
  std::multimap<Clock::time_point, std::function<void()>> timers_;

  std::mutex joinMutex_;

  std::mutex poolMutex_;
  std::vector<CURL*> pool_;

  CaBundleCache caBundles_;
  std::string curlCaFile_;  // curl's default trust, for the HTTP/2 client's TLS
  std::string curlCaPath_;
  DeliveryQueue delivery_{[this] { WakeNetwork(); }};
  CompletionThread completions_;

  // Network thread only.
  std::unordered_map<CURL*, std::unique_ptr<Request>> active_;
  std::vector<CompletionThread::Task> finished_;  // POST completions not yet handed over
  std::vector<Http2Client::Ended> networkEnds_;

  // Completion thread only: CollectHttp2's, kept with their room from one round to the next.
  std::vector<Http2Client::Ended> collectedEnds_;
  std::vector<CompletionThread::Task> collectedTasks_;
  std::vector<std::unique_ptr<Request>> submitting_;  // SubmitBatch's
  std::vector<std::unique_ptr<Request>> submittingCancelled_;
  Http2Client http2_;  // POSTs over HTTP/2: our own connections, read on the completion thread
};

}  // namespace kelnet
