// The network thread: one libcurl multi handle, driven by curl_multi_poll. Callers prepare an
// easy handle on their own thread and hand it over through a locked queue; the network thread
// adds it, drives every transfer, and runs completions and data callbacks. One thread keeps
// connection reuse and HTTP/2 multiplexing in one place and means no lock is taken while curl
// works.

#include <curl/curl.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "kelcore/Configuration.h"
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

void LogWarning(std::string message, std::vector<std::pair<std::string, std::string>> fields) {
  if (!kelcore::logging::IsLoggingEnabled(kelcore::logging::Level::Warning)) return;
  kelcore::logging::Record record;
  record.level = kelcore::logging::Level::Warning;
  record.category = "kelnet";
  record.message = std::move(message);
  record.fields = std::move(fields);
  kelcore::logging::Log(std::move(record));
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

// The debug-database key "ostriolib.cabundle". Its variable is looked at on every request; the
// files behind it (read only when the variable is unset) at most once a second, since opening
// them on every request would cost more than the request's own work.
std::string DebugCaBundlePath() {
  static const std::string variable = kelcore::config::DebugDatabase::EnvironmentNameForKey("ostriolib.cabundle");
  if (const char* value = std::getenv(variable.c_str())) return value;
  static std::mutex mutex;
  static Clock::time_point readAt;
  static std::string cached;
  std::lock_guard lock(mutex);
  const auto now = Clock::now();
  if (readAt == Clock::time_point() || now - readAt > std::chrono::seconds(1)) {
    cached = kelcore::config::DebugDatabase::Instance().GetEntry("ostriolib.cabundle", "").ToStdString();
    readAt = now;
  }
  return cached;
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

struct Request {
  Guid id;
  bool streaming = false;
  Completion completion;
  DataCallback onData;
  std::shared_ptr<const kelcore::allocator::RecycledMemory> body;
  std::shared_ptr<const std::string> caBundle;
  curl_slist* requestHeaders = nullptr;
  CURL* easy = nullptr;
  std::string host;  // for the log; never the path, query or user info
  std::string path;  // to keep them out of curl's error text in the log
  std::string query;
  std::string userInfo;
  bool cancelled = false;  // network thread only
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
  void Run();
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
  std::atomic<std::thread::id> threadId_{};
  std::vector<std::unique_ptr<Request>> incoming_;
  std::vector<Guid> cancels_;
  std::multimap<Clock::time_point, std::function<void()>> timers_;

  std::mutex joinMutex_;

  std::mutex poolMutex_;
  std::vector<CURL*> pool_;

  CaBundleCache caBundles_;

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
  request->onData = std::move(onData);
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

  const std::string caPath = configuration.caBundlePath.empty() ? DebugCaBundlePath() : configuration.caBundlePath;
  if (!caPath.empty()) request->caBundle = caBundles_.Get(caPath);

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
  thread_ = std::thread([this] { Run(); });
  threadId_ = thread_.get_id();
  return true;
}

void Transport::WakeLocked() {
  if (wakePending_ || !multi_ || threadExited_) return;
  wakePending_ = true;
  curl_multi_wakeup(multi_);
}

void Transport::Cancel(const Guid& id) {
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
  if (std::this_thread::get_id() == threadId_) return;  // the loop ends after this callback
  std::lock_guard join(joinMutex_);
  if (thread_.joinable()) thread_.join();
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
      active_.emplace(easy, std::move(request));
    }
    for (const Guid& id : cancels) CancelActive(id);
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

    long timeout = kMaxPollMilliseconds;
    {
      std::lock_guard lock(mutex_);
      if (!incoming_.empty() || !cancels_.empty() || shutdown_) {
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
  std::lock_guard lock(poolMutex_);
  for (CURL* easy : pool_) curl_easy_cleanup(easy);
  pool_.clear();
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
      Progress progress;
      progress.bytesReceived = request->received + take;
      progress.totalBytes = request->total;
      try {
        request->onData(request->id, buffer, static_cast<std::size_t>(request->offsetBase + request->received), take,
                        progress, request->headers);
      } catch (...) {
        request->callbackFailed = true;
        return 0;
      }
      request->received += take;
    }
    if (take < length) {
      request->broken = "answer longer than its Content-Range";
      return 0;
    }
    // The callback may have cancelled its own request.
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
