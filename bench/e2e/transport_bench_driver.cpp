// The client side of transport_bench.sh: small POSTs through ServiceBase, or one download through
// HttpStreamingGet, timed from the first request to the last completion. Prints one line of
// "key=value" pairs for the script to pick up.
//
//   transport_bench_driver post <url> <requests> <concurrency> <body> <authorization>
//   transport_bench_driver download <url> <segments> <output file, or "-" for none>
//   transport_bench_driver measure <stdout file> <command> [args...]
//
// measure runs any command (our own driver or a reference tool) as a child with its output in a
// file and prints the CPU time the whole child used (user + system, from wait4's rusage, in
// microseconds) and its peak RSS: both sides are measured by the same code, startup included.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>

#include "kelappsupport/ServiceBase.h"
#include "kelnet/Constants.h"

namespace {

using kelappsupport::cloudservice::ServiceBase;
using kelcore::ImmutableString;
using kelcore::utility::Guid;
using Clock = std::chrono::steady_clock;

long StatusKiB(const char* name) {
  std::ifstream status("/proc/self/status");
  std::string line;
  const std::string prefix = std::string(name) + ":";
  while (std::getline(status, line)) {
    if (line.rfind(prefix, 0) == 0) return std::stol(line.substr(prefix.size()));
  }
  return -1;
}

// The emulator's CA, as the script found it; the driver is the host and hands it down itself.
std::string BenchCABundle() {
  const char* path = std::getenv("BENCH_CABUNDLE");
  return path ? path : "";
}

// Counts completions without a lock each: only the last one takes it, to wake the waiter. A
// closed-loop client like h2load spends nothing per request on its own bookkeeping either.
struct Latch {
  explicit Latch(long count) : left(count) {}
  void CountDown() {
    if (left.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    std::lock_guard lock(mutex);
    done.notify_all();
  }
  void Wait() {
    std::unique_lock lock(mutex);
    done.wait(lock, [&] { return left.load(std::memory_order_acquire) == 0; });
  }
  std::mutex mutex;
  std::condition_variable done;
  std::atomic<long> left;
};

int Post(const std::string& url, long requests, int concurrency, const std::string& body, const std::string& auth) {
  ServiceBase service;
  service.ConfigureCABundle(BenchCABundle());
  // Configured as the library's GraphQL service configures it.
  service.ConfigureRequestThrottling(concurrency, concurrency);
  service.ConfigureForRecoverableErrorProcessor({502, 503, 504});
  service.ConfigureForAuthorizationProcessor(Guid::CreateUnique(), nullptr,
                                             kelappsupport::cloudservice::kConnectivityErrorRetry);
  service.SetAuthToken(ImmutableString(auth), kelnet::kHEADER_AUTHORIZATION);
  kelnet::Configuration configuration;
  if (std::getenv("BENCH_HTTP1")) configuration.allowHttp2 = false;
  const auto buffer = kelcore::allocator::RecycledMemory::Copy(body);
  const kelnet::HeaderMap headers{{kelnet::kHEADER_CONTENT_TYPE, kelnet::kHEADER_CONTENT_TYPE_APPLICATION_JSON}};
  const ImmutableString target(url);
  std::atomic<long> ok{0};

  // One round to open the connection, so both sides are timed on a warm one.
  {
    Latch warm(concurrency);
    for (int i = 0; i < concurrency; ++i) {
      if (service.HttpPost(Guid::CreateUnique(), [&](const Guid&, const auto&) { warm.CountDown(); }, target, buffer,
                           headers, configuration, true) < 0) {
        warm.CountDown();
      }
    }
    warm.Wait();
  }
  // A closed loop like h2load's: `concurrency` requests outstanding, each answer sends the next.
  // The completion captures one pointer, as a host's would its own object.
  Latch latch(requests);
  std::atomic<long> issued{0};
  std::function<void()> next;
  struct Loop {
    std::atomic<long>& ok;
    std::function<void()>& next;
    Latch& latch;
  } loop{ok, next, latch};
  next = [&] {
    if (issued.fetch_add(1) >= requests) return;
    const int started = service.HttpPost(
        Guid::CreateUnique(),
        [state = &loop](const Guid&, const std::shared_ptr<kelnet::Response>& response) {
          if (response && response->StatusCode() == 200) ++state->ok;
          state->next();
          state->latch.CountDown();
        },
        target, buffer, headers, configuration, true);
    // Not started: counted as a failure, so the run ends instead of waiting for it.
    if (started < 0) latch.CountDown();
  };
  const auto start = Clock::now();
  for (int i = 0; i < concurrency; ++i) next();
  latch.Wait();
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  std::printf("requests=%ld ok=%ld seconds=%.3f rps=%.1f\n", requests, ok.load(), seconds, requests / seconds);
  return ok == requests ? 0 : 1;
}

int Download(const std::string& url, int segments, const std::string& output) {
  ServiceBase service;
  service.ConfigureCABundle(BenchCABundle());
  service.ConfigureRequestThrottling(16, 16);
  service.ConfigureForRecoverableErrorProcessor({502, 503, 504});
  kelappsupport::cloudservice::DownloadPolicy policy;
  policy.maxSegments = segments;
  service.ConfigureDownloads(policy);
  const int fd = output == "-" ? -1 : ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  std::atomic<std::uint64_t> bytes{0};
  std::atomic<bool> writeFailed{false};
  Latch latch(1);
  std::shared_ptr<kelnet::Response> final;
  const auto start = Clock::now();
  const int started = service.HttpStreamingGet(
      Guid::CreateUnique(),
      [&](const Guid&, const void* data, std::size_t offset, std::size_t size, const kelnet::Progress&,
          const kelnet::HeaderMap&) {
        if (fd >= 0 && ::pwrite(fd, data, size, static_cast<off_t>(offset)) != static_cast<ssize_t>(size)) {
          writeFailed = true;
        }
        bytes += size;
      },
      [&](const Guid&, const std::shared_ptr<kelnet::Response>& response) {
        final = response;
        latch.CountDown();
      },
      ImmutableString(url), {}, kelnet::Configuration(), false);
  if (started != 0) return 2;
  latch.Wait();
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  if (fd >= 0) ::close(fd);
  const bool ok = final && final->IsSuccess() && !writeFailed;
  std::printf("bytes=%llu ok=%d seconds=%.3f mbps=%.1f vmhwm_kib=%ld\n", static_cast<unsigned long long>(bytes.load()),
              ok ? 1 : 0, seconds, bytes.load() / seconds / 1e6, StatusKiB("VmHWM"));
  return ok ? 0 : 1;
}

int Measure(const char* output, char** command) {
  const auto start = Clock::now();
  const pid_t child = ::fork();
  if (child < 0) return 2;
  if (child == 0) {
    const int fd = ::open(output, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || ::dup2(fd, STDOUT_FILENO) < 0) ::_exit(126);
    ::close(fd);
    ::execvp(command[0], command);
    ::_exit(127);
  }
  int status = 0;
  rusage usage{};
  if (::wait4(child, &status, 0, &usage) != child) return 2;
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  const long long cpu = (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000000LL + usage.ru_utime.tv_usec +
                        usage.ru_stime.tv_usec;
  std::printf("cpu_us=%lld user_us=%lld wall_s=%.3f maxrss_kib=%ld exit=%d\n", cpu,
              usage.ru_utime.tv_sec * 1000000LL + usage.ru_utime.tv_usec, seconds, usage.ru_maxrss,
              WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "post" && argc == 7) return Post(argv[2], std::atol(argv[3]), std::atoi(argv[4]), argv[5], argv[6]);
  if (mode == "download" && argc == 5) return Download(argv[2], std::atoi(argv[3]), argv[4]);
  if (mode == "measure" && argc >= 4) return Measure(argv[2], argv + 3);
  std::fprintf(stderr,
               "usage: %s post <url> <requests> <concurrency> <body> <authorization>\n"
               "       %s download <url> <segments> <output|->\n"
               "       %s measure <stdout file> <command> [args...]\n",
               argv[0], argv[0], argv[0]);
  return 64;
}
