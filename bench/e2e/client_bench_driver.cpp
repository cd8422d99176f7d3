// The client's side of bench/e2e/client_bench.sh: the whole pipeline as a host uses it (token,
// service, resource, records), linked against the public library only.
//
//   client_bench_driver queries N IN_FLIGHT FOLDER_ID   -> "qps=.. p50_ms=.. p99_ms=.."
//   client_bench_driver download ASSET_ID PATH          -> "mbps=.. bytes=.. peak_kib=.."
//
// The signed-in session comes as a credential record in OSTRIO_BENCH_RECORD (the emulator's
// POST /_emulator/session); the service and CA from the library's own settings.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include "kelcore/Executor.h"
#include "ostriolib/OstrioClient.h"
#include "ostriolib/OstrioConfiguration.h"

namespace {

using Clock = std::chrono::steady_clock;

long PeakKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmHWM:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  }
  return 0;
}

int Queries(ostriolib::OstrioClient& client, int count, int inFlight, const kelcore::utility::Guid& folder) {
  std::mutex mutex;
  std::condition_variable changed;
  int running = 0, done = 0, failed = 0;
  std::vector<double> latencies;
  latencies.reserve(static_cast<std::size_t>(count));
  const auto start = Clock::now();
  for (int i = 0; i < count; ++i) {
    {
      std::unique_lock lock(mutex);
      changed.wait(lock, [&] { return running < inFlight; });
      ++running;
    }
    const auto sent = Clock::now();
    client.GetFolderAssets(folder, 50, {}, 50, {}).Then(
        [&, sent](const auto& finished) {
          const double ms = std::chrono::duration<double, std::milli>(Clock::now() - sent).count();
          std::lock_guard lock(mutex);
          failed += finished.GetException() != nullptr;
          latencies.push_back(ms);
          --running;
          ++done;
          changed.notify_all();
        },
        kelcore::async::GetInlineExecutor());
  }
  std::unique_lock lock(mutex);
  changed.wait(lock, [&] { return done == count; });
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  std::sort(latencies.begin(), latencies.end());
  auto at = [&](double q) { return latencies[static_cast<std::size_t>(q * (latencies.size() - 1))]; };
  std::printf("qps=%.1f p50_ms=%.2f p99_ms=%.2f failed=%d\n", count / seconds, at(0.5), at(0.99), failed);
  return failed == 0 ? 0 : 1;
}

int Download(ostriolib::OstrioClient& client, const kelcore::utility::Guid& asset, const char* path) {
  std::atomic<std::uint64_t> bytes{0};
  const auto start = Clock::now();
  auto done = client.DownloadVideoAsset(asset, ostriolib::Original, kelcore::filesupport::File(path),
                                        [&](const ostriolib::DownloadProgress& p) { bytes = p.bytesWritten; });
  done.Wait();
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  if (done.GetException()) {
    std::fprintf(stderr, "download failed: %s\n", kelcore::ExtractMessageFromException(done.GetException()).c_str());
    return 1;
  }
  std::printf("mbps=%.1f bytes=%llu peak_kib=%ld\n", static_cast<double>(bytes) / seconds / 1e6,
              static_cast<unsigned long long>(bytes.load()), PeakKiB());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  const char* record = std::getenv("OSTRIO_BENCH_RECORD");
  if (!record || !((mode == "queries" && argc == 5) || (mode == "download" && argc == 4))) {
    std::fprintf(stderr, "usage: client_bench_driver queries N IN_FLIGHT FOLDER | download ASSET PATH\n");
    return 2;
  }
  const OstrioHostParameter parameters[] = {{"ostriolib.OstrioClientName", "Bench"},
                                            {"ostriolib.OstrioRedirectURI", "ostrio-bench"}};
  if (OstrioLibBeginProcess("Bench", "1.0", "1", parameters, 2) < 0) return 1;
  auto loop = std::make_shared<kelcore::async::MainThreadRunLoop>();
  kelcore::async::InstallMainThreadDispatcher(loop);
  const std::string callback = std::string("ostrio-bench://ostrio#") + record;
  if (ostriolib::GetOstrioAuthManager()->ProcessRedirectedCallbackUrl(kelcore::ToU8Str(callback)) != 0) return 1;
  auto client = ostriolib::OstrioClient::GetInstance();
  // The first query makes the service and its connection; the measure starts after it.
  auto warmUp = client->GetCurrentUser();
  warmUp.Wait();
  if (warmUp.GetResult() != 0) return 1;
  const int result = mode == "queries"
                         ? Queries(*client, std::atoi(argv[2]), std::max(1, std::atoi(argv[3])),
                                   kelcore::utility::Guid(argv[4]))
                         : Download(*client, kelcore::utility::Guid(argv[2]), argv[3]);
  kelcore::async::UninstallMainThreadDispatcher();
  return result;
}
