// The network thread: one libcurl multi handle, driven by curl_multi_poll. Callers prepare an
// easy handle on their own thread and hand it over through a locked queue; the network thread
// adds it, drives every transfer, and runs the completions of POSTs. One thread keeps connection
// reuse and HTTP/2 multiplexing in one place and means no lock is taken while curl works.
//
// The bytes of a streaming GET go to its data callback on a second thread, the delivery thread:
// the consumer writes them to disk, and a slow disk must neither stall the other transfers nor
// keep this transfer from receiving while the last chunk is written. The network thread copies
// what curl hands it into the transfer's queue and pauses the transfer once the queue holds
// kHighWater bytes; the delivery thread asks for it to be resumed when the queue has drained to
// kLowWater. The network thread never waits for the delivery thread.

#include <curl/curl.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "kelcore/Logging.h"
#include "kelnet/Constants.h"
#include "kelnet/Http.h"
#include "kelnet/URL.h"

namespace kelnet {
namespace {

using kelcore::utility::Guid;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kMaxErrorBody = 1024 * 1024;
constexpr std::size_t kMaxPooledHandles = 64;
constexpr std::size_t kDefaultStreamingBuffer = 128 * 1024;
constexpr long kMaxPollMilliseconds = 1000;

// Per streaming transfer. 4 MiB is about 10 ms of a fast loopback stream: enough to ride out a
// stall of the consumer's disk (page allocation, writeback) without pausing, and eight segments
// queue no more than 32 MiB even when the consumer stops altogether. Resuming at a quarter leaves
// the consumer 3 MiB of work while the first bytes after the pause come in.
constexpr std::size_t kHighWater = 4 * 1024 * 1024;
constexpr std::size_t kLowWater = kHighWater / 4;
// curl hands over at most 16 KiB at a time; the consumer gets them joined up to this size, so a
// disk write costs one call per 256 KiB rather than per TLS record.
constexpr std::size_t kChunkBytes = 256 * 1024;
// Chunk buffers kept for reuse: a fresh buffer costs a page fault per 4 KiB on first touch.
constexpr std::size_t kMaxSpareChunks = 8;

void LogWarning(std::string message, std::vector<std::pair<std::string, std::string>> fields) {
  kelcore::logging::LogWarning("kelnet", std::move(message), std::move(fields));
}

char LowerASCII(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool IsTokenChar(char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  return std::strchr("!#$%&'*+-.^_`|~", c) != nullptr && c != '\0';
}

bool IsValidHeaderName(std::string_view name) {
  return !name.empty() && std::all_of(name.begin(), name.end(), IsTokenChar);
}

// CR, LF or NUL in a value would end the header early and let the rest pose as headers of its own.
bool IsValidHeaderValue(std::string_view value) {
  return std::none_of(value.begin(), value.end(), [](char c) { return c == '\r' || c == '\n' || c == '\0'; });
}

std::string_view Trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r' || text.back() == '\n')) {
    text.remove_suffix(1);
  }
  return text;
}

bool ParseUnsigned(std::string_view text, std::uint64_t& out) {
  text = Trim(text);
  if (text.empty()) return false;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
  return ec == std::errc() && end == text.data() + text.size();
}

// "bytes <first>-<last>/<total>", total "*" when unknown (0 here). A range that runs backwards
// or past its own total is as unreadable as a missing one.
bool ParseContentRange(std::string_view value, std::uint64_t& first, std::uint64_t& last, std::uint64_t& total) {
  value = Trim(value);
  if (value.substr(0, 6) != "bytes ") return false;
  value.remove_prefix(6);
  const auto dash = value.find('-');
  const auto slash = value.find('/');
  if (dash == std::string_view::npos || slash == std::string_view::npos || slash < dash) return false;
  if (!ParseUnsigned(value.substr(0, dash), first) || !ParseUnsigned(value.substr(dash + 1, slash - dash - 1), last) ||
      last < first) {
    return false;
  }
  std::string_view totalText = Trim(value.substr(slash + 1));
  if (totalText == "*") {
    total = 0;
    return true;
  }
  return ParseUnsigned(totalText, total) && last < total;
}

// The extra CA bundle, read once per file version. The blob is handed to curl without copying,
// so each request keeps its bundle alive for as long as its easy handle may look at it.
class CaBundleCache {
 public:
  std::shared_ptr<const std::string> Get(const std::string& path) {
    const auto now = Clock::now();
    {
      // A file checked in the last second is taken as it was: a stat per request costs more than
      // the rest of the request's set-up.
      std::lock_guard lock(mutex_);
      auto it = entries_.find(path);
      if (it != entries_.end() && it->second.pem && now - it->second.checkedAt < std::chrono::seconds(1)) {
        return it->second.pem;
      }
    }
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
      LogWarning("CA bundle not readable", {{"path", path}});
      return nullptr;
    }
    std::lock_guard lock(mutex_);
    auto& entry = entries_[path];
    if (entry.pem && entry.device == info.st_dev && entry.inode == info.st_ino && entry.size == info.st_size &&
        entry.mtime == info.st_mtim.tv_sec && entry.mtimeNs == info.st_mtim.tv_nsec) {
      entry.checkedAt = now;
      return entry.pem;
    }
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    if (!in.good() && !in.eof()) {
      LogWarning("CA bundle not readable", {{"path", path}});
      return nullptr;
    }
    std::string pem = text.str();
    // curl's blob replaces its default CA file; the default CA directory stays in use. Where
    // this curl has no default directory, the system bundle travels in the blob as well.
    if (!systemBundle_.empty()) {
      std::ifstream system(systemBundle_, std::ios::binary);
      std::ostringstream systemText;
      systemText << system.rdbuf();
      pem += "\n";
      pem += systemText.str();
    }
    entry = Entry{std::make_shared<const std::string>(std::move(pem)), info.st_dev, info.st_ino, info.st_size,
                  info.st_mtim.tv_sec, info.st_mtim.tv_nsec, now};
    return entry.pem;
  }

  void SetSystemBundle(std::string path) {
    std::lock_guard lock(mutex_);
    systemBundle_ = std::move(path);
  }

 private:
  struct Entry {
    std::shared_ptr<const std::string> pem;
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    time_t mtime = 0;
    long mtimeNs = 0;
    Clock::time_point checkedAt;
  };
  std::mutex mutex_;
  std::map<std::string, Entry> entries_;
  std::string systemBundle_;
};

struct Request;

struct Chunk {
  std::unique_ptr<char[]> data;
  std::size_t capacity = 0;
  std::size_t size = 0;
  std::uint64_t offset = 0;
  Progress progress;
  std::shared_ptr<const HeaderMap> headers;
};

// What the delivery thread knows of one streaming transfer. The flags and queue are guarded by
// Transport::deliveryMutex_; onData is the delivery thread's alone once the transfer is handed
// over, and request is the network thread's alone (null once the transfer finished there).
struct Stream {
  Guid id;
  DataCallback onData;
  Request* request = nullptr;

  std::deque<Chunk> chunks;
  std::size_t queued = 0;     // bytes in chunks
  bool scheduled = false;     // in the delivery thread's ready queue
  bool paused = false;        // receiving paused because the queue was full
  bool resumeAsked = false;   // waiting in the network thread's attention list for a resume
  bool cancelled = false;     // nothing more is delivered; completes with a null response
  bool failed = false;        // onData threw; the same
  bool done = false;          // the transfer finished; completion and response are set
  bool completed = false;
  Completion completion;
  std::shared_ptr<Response> response;
};

struct Request {
  Guid id;
  bool streaming = false;
  Completion completion;
  std::shared_ptr<Stream> stream;  // streaming requests only
  std::shared_ptr<const HeaderMap> answerHeaders;  // of the answer being delivered
  std::shared_ptr<const kelcore::allocator::RecycledMemory> body;
  std::shared_ptr<const std::string> caBundle;
  curl_slist* requestHeaders = nullptr;
  CURL* easy = nullptr;
  std::string host;  // for the log; never the path, query or user info
  std::string path;  // to keep them out of curl's error text in the log
  std::string query;
  std::string userInfo;
  bool cancelled = false;  // network thread only
  bool ending = false;     // in Finish: what curl still hands over is never paused again
  bool retried = false;

  int status = 0;
  HeaderMap headers;
  HeaderMap::iterator lastHeader;
  bool haveLastHeader = false;
  std::string body_;
  bool bodyStarted = false;
  bool deliver = false;
  bool callbackFailed = false;
  const char* broken = nullptr;  // why we ended an answer that does not add up
  std::uint64_t offsetBase = 0;
  std::uint64_t received = 0;
  std::uint64_t total = 0;
  std::uint64_t rangeLength = 0;  // of a 206 answer: what its Content-Range announced; 0 otherwise
  char error[CURL_ERROR_SIZE] = {};

  ~Request() {
    if (requestHeaders) curl_slist_free_all(requestHeaders);
  }
};

class Transport {
 public:
  Transport() {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    if (CURL* probe = curl_easy_init()) {
      char* capath = nullptr;
      char* cainfo = nullptr;
      curl_easy_getinfo(probe, CURLINFO_CAPATH, &capath);
      curl_easy_getinfo(probe, CURLINFO_CAINFO, &cainfo);
      if (!capath && cainfo) caBundles_.SetSystemBundle(cainfo);
      curl_easy_cleanup(probe);
    }
  }

  static Transport& Instance() {
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

  bool Submit(const Guid& id, DataCallback onData, Completion completion, const kelcore::ImmutableString& url,
              std::shared_ptr<const kelcore::allocator::RecycledMemory> body, const HeaderMap& headers,
              const Configuration& configuration, bool streaming);
  void Cancel(const Guid& id);
  bool Schedule(std::chrono::milliseconds delay, std::function<void()> task);
  void Shutdown();
  bool IsShutDown() {
    std::lock_guard lock(mutex_);
    return shutdown_;
  }

 private:
  bool StartThreadLocked();
  void WakeLocked();
  void WakeNetwork();
  void Run();
  void Deliver();
  bool Enqueue(Request& request, const char* data, std::size_t size);
  void HandOver(std::unique_ptr<Request> request, Completion completion, std::shared_ptr<Response> response);
  void AttendStreams();
  void FlushDelivery();
  void DropChunksLocked(Stream& stream);
  void RecycleLocked(Chunk& chunk);
  void Finish(std::unique_ptr<Request> request, CURLcode code);
  void CancelActive(const Guid& id);
  static bool ShouldRetryUnanswered(Request& request, CURLcode code);
  CURL* AcquireEasy();
  void ReleaseEasy(CURL* easy);

  static size_t OnHeader(char* buffer, size_t size, size_t count, void* user);
  static size_t OnWrite(char* buffer, size_t size, size_t count, void* user);

  std::mutex mutex_;
  bool shutdown_ = false;
  bool threadStarted_ = false;
  bool threadExited_ = false;
  bool wakePending_ = false;
  CURLM* multi_ = nullptr;
  std::thread thread_;
  std::thread deliveryThread_;
  std::atomic<std::thread::id> threadId_{};
  std::atomic<std::thread::id> deliveryThreadId_{};
  std::vector<std::unique_ptr<Request>> incoming_;
  std::vector<Guid> cancels_;
  std::multimap<Clock::time_point, std::function<void()>> timers_;

  std::mutex joinMutex_;

  std::mutex poolMutex_;
  std::vector<CURL*> pool_;

  CaBundleCache caBundles_;

  // Never held across a call into curl or a callback, and never together with mutex_.
  std::mutex deliveryMutex_;
  std::condition_variable deliveryReady_;
  bool deliveryStop_ = false;
  bool deliveryWaiting_ = false;
  bool wakeDeliveryLater_ = false;
  std::deque<std::shared_ptr<Stream>> ready_;      // streams with a chunk or their completion due
  std::vector<std::shared_ptr<Stream>> attention_;  // to resume, or to end because onData threw
  std::vector<std::shared_ptr<Stream>> live_;       // handed to curl and not yet completed
  std::vector<std::unique_ptr<char[]>> spare_;

  // Network thread only.
  std::unordered_map<CURL*, std::unique_ptr<Request>> active_;
};

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
                       std::shared_ptr<const kelcore::allocator::RecycledMemory> body, const HeaderMap& headers,
                       const Configuration& configuration, bool streaming) {
  if (!configuration.verifyPeer) return false;
  auto parts = ParseURL(url.View());
  if (!parts) return false;

  auto request = std::make_unique<Request>();
  request->id = id;
  request->streaming = streaming;
  if (streaming) {
    request->stream = std::make_shared<Stream>();
    request->stream->id = id;
    request->stream->onData = std::move(onData);
    request->stream->request = request.get();
  }
  request->completion = std::move(completion);
  request->body = std::move(body);
  request->host = parts->host;
  request->path = parts->path == "/" ? std::string() : parts->path;
  request->query = parts->query;
  request->userInfo = parts->userInfo;

  bool hasRange = false;
  bool hasContentType = false;
  for (const auto& [name, value] : headers) {
    if (!IsValidHeaderName(name.View()) || !IsValidHeaderValue(value.View())) return false;
    std::string line(name.View());
    std::string lower;
    for (char c : line) lower.push_back(LowerASCII(c));
    if (lower == "range") hasRange = true;
    if (lower == "content-type") hasContentType = true;
    // "name;" is curl's way of sending a header whose value is empty.
    if (value.empty()) {
      line += ";";
    } else {
      line += ": ";
      line.append(value.View());
    }
    request->requestHeaders = curl_slist_append(request->requestHeaders, line.c_str());
  }
  if (!streaming) {
    // No 100-continue round trip, and no form content type the caller did not ask for.
    request->requestHeaders = curl_slist_append(request->requestHeaders, "Expect:");
    if (!hasContentType) request->requestHeaders = curl_slist_append(request->requestHeaders, "Content-Type:");
  }

  if (!configuration.caBundlePath.empty()) request->caBundle = caBundles_.Get(configuration.caBundlePath);

  CURL* easy = AcquireEasy();
  if (!easy) return false;
  request->easy = easy;
  Request* r = request.get();
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_PRIVATE, r);
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &Transport::OnHeader);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, r);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Transport::OnWrite);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, r);
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, r->error);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
  if (r->caBundle) {
    curl_blob blob{const_cast<char*>(r->caBundle->data()), r->caBundle->size(), CURL_BLOB_NOCOPY};
    curl_easy_setopt(easy, CURLOPT_CAINFO_BLOB, &blob);
  }
  if (configuration.allowHttp2) {
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
    // Wait for a connection that may multiplex rather than open one per request in a burst.
    curl_easy_setopt(easy, CURLOPT_PIPEWAIT, 1L);
  } else {
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  }
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(configuration.connectTimeout.count()));
  if (configuration.lowSpeedBytesPerSecond > 0 && configuration.lowSpeedTime.count() > 0) {
    const long seconds = static_cast<long>((configuration.lowSpeedTime.count() + 999) / 1000);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, static_cast<long>(configuration.lowSpeedBytesPerSecond));
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, seconds);
  }
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, configuration.followRedirects ? 1L : 0L);
  curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 5L);
  if (configuration.acceptCompressed && !hasRange) curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
  const std::string userAgent =
      configuration.userAgent.empty() ? std::string("ostriolib/" KELNET_VERSION) : configuration.userAgent;
  curl_easy_setopt(easy, CURLOPT_USERAGENT, userAgent.c_str());
  if (!configuration.proxy.empty()) curl_easy_setopt(easy, CURLOPT_PROXY, configuration.proxy.c_str());
  curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);
  std::size_t buffer = configuration.receiveBufferSize;
  if (buffer == 0 && streaming) buffer = kDefaultStreamingBuffer;
  if (buffer) curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, static_cast<long>(buffer));
  if (streaming) {
    curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
  } else {
    curl_easy_setopt(easy, CURLOPT_POST, 1L);
    const auto* data = r->body ? reinterpret_cast<const char*>(r->body->Data()) : "";
    const auto size = r->body ? static_cast<curl_off_t>(r->body->Size()) : 0;
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, size);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, data);
  }
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, r->requestHeaders);

  std::lock_guard lock(mutex_);
  if (shutdown_ || !StartThreadLocked()) {
    request->easy = nullptr;
    curl_easy_cleanup(easy);
    return false;
  }
  incoming_.push_back(std::move(request));
  // From a completion on the network thread no wake-up is needed: the loop looks at the queue
  // before it polls again.
  if (std::this_thread::get_id() != threadId_) WakeLocked();
  return true;
}

bool Transport::StartThreadLocked() {
  if (threadStarted_) return !threadExited_;
  multi_ = curl_multi_init();
  if (!multi_) return false;
  curl_multi_setopt(multi_, CURLMOPT_PIPELINING, CURLPIPE_MULTIPLEX);
  threadStarted_ = true;
  // The delivery thread first: the network thread may hand it a transfer at once.
  deliveryThread_ = std::thread([this] { Deliver(); });
  deliveryThreadId_ = deliveryThread_.get_id();
  thread_ = std::thread([this] { Run(); });
  threadId_ = thread_.get_id();
  return true;
}

void Transport::WakeLocked() {
  // multi_ is cleared without the lock once the thread has exited: look at it only before.
  if (wakePending_ || threadExited_ || !multi_) return;
  wakePending_ = true;
  curl_multi_wakeup(multi_);
}

void Transport::WakeNetwork() {
  std::lock_guard lock(mutex_);
  WakeLocked();
}

void Transport::Cancel(const Guid& id) {
  {
    // Whatever is queued for the consumer goes now, wherever Cancel is called from: from a data
    // callback no further chunk of the request may arrive.
    std::lock_guard lock(deliveryMutex_);
    for (auto& stream : live_) {
      if (stream->id == id && !stream->cancelled) {
        stream->cancelled = true;
        DropChunksLocked(*stream);
      }
    }
  }
  if (std::this_thread::get_id() == threadId_) {
    // From a callback of ours: stop delivery now, not after the current round of transfers.
    for (auto& [easy, request] : active_) {
      if (request->id == id) request->cancelled = true;
    }
  }
  std::lock_guard lock(mutex_);
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
  if (self == threadId_ || self == deliveryThreadId_) return;
  std::lock_guard join(joinMutex_);
  if (thread_.joinable()) thread_.join();
  if (deliveryThread_.joinable()) deliveryThread_.join();
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
}

void Transport::Finish(std::unique_ptr<Request> request, CURLcode code) {
  if (request->stream) {
    bool paused = false;
    {
      std::lock_guard lock(deliveryMutex_);
      if (request->stream->failed) request->callbackFailed = true;
      if (request->stream->cancelled) request->cancelled = true;
      paused = request->stream->paused;
      request->stream->paused = false;
    }
    if (paused) {
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
    response = std::make_shared<Response>(static_cast<int>(status), std::move(request->headers),
                                          std::move(request->body_), versionText);
  } else if (!request->cancelled) {
    // curl's text for an answer we ended ourselves would only say that a write failed.
    std::string detail = request->broken || request->callbackFailed ? "" : request->error;
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
  Completion completion = std::move(request->completion);
  if (request->stream) {
    HandOver(std::move(request), std::move(completion), std::move(response));
    return;
  }
  const Guid id = request->id;
  request.reset();
  if (!completion) return;
  try {
    completion(id, response);
  } catch (const std::exception& error) {
    LogWarning("HTTP completion threw", {{"what", error.what()}});
  } catch (...) {
    LogWarning("HTTP completion threw", {});
  }
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
      for (auto& task : due) {
        try {
          task();
        } catch (...) {
          LogWarning("timer task threw", {});
        }
      }
      std::lock_guard lock(mutex_);
      if (incoming_.empty() && timers_.empty() && active_.empty()) {
        threadExited_ = true;
        break;
      }
      continue;
    }

    for (auto& request : incoming) {
      CURL* easy = request->easy;
      if (curl_multi_add_handle(multi_, easy) != CURLM_OK) {
        Finish(std::move(request), CURLE_FAILED_INIT);
        continue;
      }
      if (request->stream) {
        std::lock_guard lock(deliveryMutex_);
        live_.push_back(request->stream);
      }
      active_.emplace(easy, std::move(request));
    }
    for (const Guid& id : cancels) CancelActive(id);
    AttendStreams();
    for (auto& task : due) {
      try {
        task();
      } catch (...) {
        LogWarning("timer task threw", {});
      }
    }

    int running = 0;
    curl_multi_perform(multi_, &running);
    int queued = 0;
    std::vector<CURL*> again;
    while (CURLMsg* message = curl_multi_info_read(multi_, &queued)) {
      if (message->msg != CURLMSG_DONE) continue;
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
      request.headers.clear();
      request.haveLastHeader = false;
      request.bodyStarted = false;
      request.status = 0;
      request.error[0] = '\0';
      if (curl_multi_add_handle(multi_, easy) != CURLM_OK) {
        auto node = active_.extract(easy);
        Finish(std::move(node.mapped()), CURLE_FAILED_INIT);
      }
    }

    FlushDelivery();
    long timeout = kMaxPollMilliseconds;
    {
      std::lock_guard lock(mutex_);
      if (!incoming_.empty() || !cancels_.empty() || shutdown_ || wakePending_) {
        timeout = 0;
      } else if (!timers_.empty()) {
        const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(timers_.begin()->first - Clock::now());
        timeout = std::clamp<long>(static_cast<long>(wait.count()) + 1, 0, kMaxPollMilliseconds);
      }
    }
    if (timeout > 0) curl_multi_poll(multi_, nullptr, 0, static_cast<int>(timeout), nullptr);
  }

  curl_multi_cleanup(multi_);
  multi_ = nullptr;
  {
    // Every transfer has been handed over by now: the delivery thread runs what is left and ends.
    std::lock_guard lock(deliveryMutex_);
    deliveryStop_ = true;
    attention_.clear();
  }
  deliveryReady_.notify_one();
  std::lock_guard lock(poolMutex_);
  for (CURL* easy : pool_) curl_easy_cleanup(easy);
  pool_.clear();
}

void Transport::DropChunksLocked(Stream& stream) {
  for (auto& chunk : stream.chunks) RecycleLocked(chunk);
  stream.chunks.clear();
  stream.queued = 0;
}

void Transport::RecycleLocked(Chunk& chunk) {
  if (chunk.data && chunk.capacity == kChunkBytes && spare_.size() < kMaxSpareChunks) {
    spare_.push_back(std::move(chunk.data));
  }
  chunk.data.reset();
}

// Network thread. Copies the bytes into the transfer's queue and pauses the transfer when the
// queue is full; false when the consumer is done with the transfer.
bool Transport::Enqueue(Request& request, const char* data, std::size_t size) {
  Stream& stream = *request.stream;
  const std::uint64_t offset = request.offsetBase + request.received;
  Progress progress;
  progress.bytesReceived = request.received + size;
  progress.totalBytes = request.total;
  bool notify = false;
  bool pause = false;
  {
    std::lock_guard lock(deliveryMutex_);
    if (stream.failed) {
      request.callbackFailed = true;
      return false;
    }
    if (stream.cancelled) {
      request.cancelled = true;
      return false;
    }
    Chunk* tail = stream.chunks.empty() ? nullptr : &stream.chunks.back();
    if (tail && tail->headers == request.answerHeaders && tail->offset + tail->size == offset &&
        tail->capacity - tail->size >= size) {
      std::memcpy(tail->data.get() + tail->size, data, size);
      tail->size += size;
      tail->progress = progress;
    } else {
      Chunk chunk;
      chunk.capacity = std::max(size, kChunkBytes);
      if (chunk.capacity == kChunkBytes && !spare_.empty()) {
        chunk.data = std::move(spare_.back());
        spare_.pop_back();
      } else {
        chunk.data.reset(new char[chunk.capacity]);
      }
      std::memcpy(chunk.data.get(), data, size);
      chunk.size = size;
      chunk.offset = offset;
      chunk.progress = progress;
      chunk.headers = request.answerHeaders;
      stream.chunks.push_back(std::move(chunk));
    }
    stream.queued += size;
    if (!stream.scheduled) {
      stream.scheduled = true;
      ready_.push_back(request.stream);
    }
    // Waking the delivery thread for every 16 KiB would cost more than copying them: it is woken
    // for a chunk's worth, and for the rest before the network thread waits (FlushDelivery).
    if (deliveryWaiting_) {
      notify = stream.queued >= kChunkBytes;
      wakeDeliveryLater_ = !notify;
    }
    if (stream.queued >= kHighWater && !stream.paused && !request.ending) {
      stream.paused = true;
      stream.resumeAsked = false;
      pause = true;
    }
  }
  if (notify) deliveryReady_.notify_one();
  // These bytes are taken; what curl receives from now on it holds until we resume.
  if (pause) curl_easy_pause(request.easy, CURLPAUSE_RECV);
  return true;
}

// Network thread: the transfer is over here; its completion follows its last chunk.
void Transport::HandOver(std::unique_ptr<Request> request, Completion completion,
                         std::shared_ptr<Response> response) {
  std::shared_ptr<Stream> stream = std::move(request->stream);
  stream->request = nullptr;
  const bool cancelled = request->cancelled;
  request.reset();
  {
    std::lock_guard lock(deliveryMutex_);
    if (cancelled && !stream->cancelled) {
      stream->cancelled = true;
      DropChunksLocked(*stream);
    }
    stream->done = true;
    stream->completion = std::move(completion);
    stream->response = std::move(response);
    if (stream->scheduled) return;
    stream->scheduled = true;
    ready_.push_back(std::move(stream));
  }
  deliveryReady_.notify_one();
}

// Network thread, before it waits: bytes queued since the delivery thread was last woken go now.
void Transport::FlushDelivery() {
  {
    std::lock_guard lock(deliveryMutex_);
    if (!wakeDeliveryLater_) return;
    wakeDeliveryLater_ = false;
    if (!deliveryWaiting_ || ready_.empty()) return;
  }
  deliveryReady_.notify_one();
}

// Network thread: resumes the transfers the delivery thread drained, and ends those whose
// consumer threw.
void Transport::AttendStreams() {
  std::vector<std::shared_ptr<Stream>> attention;
  {
    std::lock_guard lock(deliveryMutex_);
    attention.swap(attention_);
  }
  for (auto& stream : attention) {
    Request* request = stream->request;
    if (!request) continue;
    bool resume = false;
    bool end = false;
    {
      std::lock_guard lock(deliveryMutex_);
      end = stream->failed || stream->cancelled;
      if (!end && stream->paused) {
        stream->paused = false;
        stream->resumeAsked = false;
        resume = true;
      }
    }
    CURLcode code = CURLE_OK;
    // Unpausing hands curl's held bytes to OnWrite at once, which may pause the transfer again.
    if (resume) code = curl_easy_pause(request->easy, CURLPAUSE_CONT);
    if (end || code != CURLE_OK) {
      auto node = active_.extract(request->easy);
      if (node.empty()) continue;
      Finish(std::move(node.mapped()), end ? CURLE_WRITE_ERROR : code);
    }
  }
}

// The delivery thread: one chunk at a time, taking turns between transfers, so that one
// transfer's consumer cannot starve another's.
void Transport::Deliver() {
  std::unique_lock lock(deliveryMutex_);
  while (true) {
    deliveryWaiting_ = true;
    deliveryReady_.wait(lock, [this] { return !ready_.empty() || deliveryStop_; });
    deliveryWaiting_ = false;
    if (ready_.empty()) break;
    std::shared_ptr<Stream> stream = std::move(ready_.front());
    ready_.pop_front();
    Stream& s = *stream;
    s.scheduled = false;
    if (!s.chunks.empty()) {
      Chunk chunk = std::move(s.chunks.front());
      s.chunks.pop_front();
      s.queued -= chunk.size;
      bool wake = false;
      if (s.paused && !s.resumeAsked && s.queued <= kLowWater) {
        s.resumeAsked = true;
        attention_.push_back(stream);
        wake = true;
      }
      if (!s.chunks.empty() || s.done) {
        s.scheduled = true;
        ready_.push_back(stream);
      }
      lock.unlock();
      if (wake) WakeNetwork();
      bool threw = false;
      try {
        s.onData(s.id, chunk.data.get(), static_cast<std::size_t>(chunk.offset), chunk.size, chunk.progress,
                 *chunk.headers);
      } catch (...) {
        threw = true;
      }
      lock.lock();
      RecycleLocked(chunk);
      if (threw && !s.cancelled && !s.failed) {
        s.failed = true;
        DropChunksLocked(s);
        if (!s.done) {
          attention_.push_back(stream);
          lock.unlock();
          WakeNetwork();
          lock.lock();
        }
      }
      continue;
    }
    if (!s.done || s.completed) continue;
    s.completed = true;
    Completion completion = std::move(s.completion);
    std::shared_ptr<Response> response = std::move(s.response);
    if (s.cancelled) response.reset();
    if (s.failed) {
      if (response) LogWarning("HTTP request failed", {{"error", "callback failed"}});
      response.reset();
    }
    live_.erase(std::remove(live_.begin(), live_.end(), stream), live_.end());
    lock.unlock();
    // The consumer's state goes with its callbacks, here rather than on the network thread.
    s.onData = nullptr;
    if (completion) {
      try {
        completion(s.id, response);
      } catch (const std::exception& error) {
        LogWarning("HTTP completion threw", {{"what", error.what()}});
      } catch (...) {
        LogWarning("HTTP completion threw", {});
      }
    }
    completion = nullptr;
    response.reset();
    stream.reset();
    lock.lock();
  }
}

size_t Transport::OnHeader(char* buffer, size_t size, size_t count, void* user) {
  auto* request = static_cast<Request*>(user);
  const size_t length = size * count;
  std::string_view line(buffer, length);
  while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.remove_suffix(1);
  if (line.substr(0, 5) == "HTTP/") {
    // A new answer (after a 100 Continue or a redirect): its headers replace the earlier ones.
    request->headers.clear();
    request->haveLastHeader = false;
    request->bodyStarted = false;
    const auto space = line.find(' ');
    std::uint64_t status = 0;
    if (space != std::string_view::npos && ParseUnsigned(line.substr(space + 1, 3), status)) {
      request->status = static_cast<int>(status);
    }
    return length;
  }
  if (line.empty()) return length;
  if ((line.front() == ' ' || line.front() == '\t') && request->haveLastHeader) {
    std::string joined(request->lastHeader->second.View());
    joined += ' ';
    joined.append(Trim(line));
    request->lastHeader->second = kelcore::ImmutableString(joined);
    return length;
  }
  const auto colon = line.find(':');
  if (colon == std::string_view::npos) return length;
  std::string name;
  name.reserve(colon);
  for (char c : Trim(line.substr(0, colon))) name.push_back(LowerASCII(c));
  request->lastHeader =
      request->headers.emplace(kelcore::ImmutableString(name), kelcore::ImmutableString(Trim(line.substr(colon + 1))));
  request->haveLastHeader = true;
  return length;
}

size_t Transport::OnWrite(char* buffer, size_t size, size_t count, void* user) {
  auto* request = static_cast<Request*>(user);
  const size_t length = size * count;
  if (request->cancelled) return 0;
  if (!request->bodyStarted) {
    request->bodyStarted = true;
    long status = 0;
    curl_easy_getinfo(request->easy, CURLINFO_RESPONSE_CODE, &status);
    request->status = static_cast<int>(status);
    request->received = 0;
    request->offsetBase = 0;
    request->total = 0;
    request->rangeLength = 0;
    const bool success = status >= 200 && status <= 299;
    request->deliver = request->streaming && success;
    // The delivery thread reads them while curl may still add trailers here.
    if (request->deliver) request->answerHeaders = std::make_shared<const HeaderMap>(request->headers);
    if (request->deliver && status == kStatusPartialContent) {
      // Part of a resource: without a readable Content-Range there is no telling where its bytes
      // belong, so none of them are handed on.
      auto range = request->headers.find(kHEADER_CONTENT_RANGE);
      std::uint64_t first = 0;
      std::uint64_t last = 0;
      std::uint64_t total = 0;
      if (range == request->headers.end() || !ParseContentRange(range->second.View(), first, last, total)) {
        request->broken = "partial answer without a readable Content-Range";
        return 0;
      }
      request->offsetBase = first;
      request->total = total;
      request->rangeLength = last - first + 1;
    } else if (request->deliver) {
      if (request->headers.find(kelcore::ImmutableString("content-encoding")) == request->headers.end()) {
        curl_off_t contentLength = -1;
        curl_easy_getinfo(request->easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &contentLength);
        if (contentLength > 0) request->total = static_cast<std::uint64_t>(contentLength);
      }
    } else if (!request->streaming) {
      curl_off_t contentLength = -1;
      curl_easy_getinfo(request->easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &contentLength);
      if (contentLength > 0) {
        request->body_.reserve(static_cast<std::size_t>(std::min<curl_off_t>(contentLength, 64 * 1024 * 1024)));
      }
    }
  }
  if (request->deliver) {
    // Bytes past the end the Content-Range announced belong to no offset we could name.
    std::size_t take = length;
    if (request->rangeLength) take = std::min<std::uint64_t>(length, request->rangeLength - request->received);
    if (take > 0) {
      if (!Transport::Instance().Enqueue(*request, buffer, take)) return 0;
      request->received += take;
    }
    if (take < length) {
      request->broken = "answer longer than its Content-Range";
      return 0;
    }
    // A completion on this thread may have cancelled the request since.
    return request->cancelled ? 0 : length;
  }
  if (request->streaming) {
    const size_t room = kMaxErrorBody - std::min(kMaxErrorBody, request->body_.size());
    request->body_.append(buffer, std::min(room, length));
  } else {
    request->body_.append(buffer, length);
  }
  return length;
}

}  // namespace

bool POST(const kelcore::utility::Guid& requestId, Completion completion, const kelcore::ImmutableString& url,
          std::shared_ptr<const kelcore::allocator::RecycledMemory> body, const HeaderMap& headers,
          const Configuration& configuration) {
  return Transport::Instance().Submit(requestId, nullptr, std::move(completion), url, std::move(body), headers,
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

}  // namespace kelnet
