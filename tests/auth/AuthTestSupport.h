#pragma once
// Shared pieces of the auth tests: token makers, a sign-in callback probe and a way to re-run
// this test binary as a fresh process. The doubles of other kinds live in tests/support.

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "OstrioAuthManager.h"
#include "kelcore/Executor.h"
#include "kelcore/Logging.h"
#include "kelcore/Strings.h"
#include "LogCapture.h"
#include "ScriptedPost.h"
#include "RecordingOSUtilsWrapper.h"
#include "ScratchFolders.h"

namespace ostriolib::testing {

inline constexpr auto kHangGuard = std::chrono::seconds(60);  // only stops a broken test from hanging

inline std::string Base64NoPadding(std::string_view bytes) {
  std::string text = kelcore::EncodeBinaryDataToBase64(bytes);
  while (!text.empty() && text.back() == '=') text.pop_back();
  return text;
}

// A JWT whose payload is `payloadJson` (the signature is not checked by the client).
inline std::string MakeJwt(std::string_view payloadJson) {
  return Base64NoPadding(R"({"alg":"HS256","typ":"JWT"})") + "." + Base64NoPadding(payloadJson) + ".c2lnbmF0dXJl";
}

inline std::string ClaimsJson(long long exp, bool withNbf = true) {
  std::string json = R"({"_correlation_id":"c-1","_version":2,"aud":"ostrio","exp":)" + std::to_string(exp) +
                     R"(,"iat":1700000000,"iss":"ostrio-test","jti":"j-1",)";
  if (withNbf) json += R"("nbf":1700000000,)";
  return json + R"("sub":"user-1","typ":"access"})";
}

inline std::shared_ptr<kelnet::Response> RefreshAnswer(int status, std::optional<std::string> authorization,
                                                       std::optional<std::string> refreshToken) {
  kelnet::HeaderMap headers;
  if (authorization) headers.emplace("authorization", *authorization);
  if (refreshToken) headers.emplace("x-refresh-token", *refreshToken);
  return std::make_shared<kelnet::Response>(status, std::move(headers), "");
}

using ::LogCapture;
using ::TemporaryDirectory;

// Runs the test `filter` of this binary in a new process with extra environment entries; its exit
// status (0 when its tests passed).
// Starts this test binary again, running only `filter`, with `environment` added; its pid or -1.
inline pid_t StartInNewProcess(const std::string& filter, const std::vector<std::string>& environment) {
  const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
  std::vector<std::string> args{self, "--gtest_filter=" + filter, "--gtest_also_run_disabled_tests"};
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  std::vector<std::string> env = environment;
  for (char** entry = ::environ; *entry; ++entry) env.emplace_back(*entry);
  std::vector<char*> envp;
  for (auto& entry : env) envp.push_back(entry.data());
  envp.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawn(&pid, self.c_str(), nullptr, nullptr, argv.data(), envp.data()) != 0) return -1;
  return pid;
}

// The exit status of a process StartInNewProcess started; -1 when it did not exit normally.
inline int WaitForProcess(pid_t pid) {
  if (pid < 0) return -1;
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

inline int RunInNewProcess(const std::string& filter, const std::vector<std::string>& environment) {
  return WaitForProcess(StartInNewProcess(filter, environment));
}

// Waits for the sign-in callback posted to the pre-termination executor.
class CallbackProbe {
 public:
  std::function<void(int)> Callback() {
    return [this](int result) {
      // Notified under the lock: the waiter may destroy the probe as soon as it sees the result.
      std::lock_guard lock(mutex_);
      results_.push_back(result);
      arrived_.notify_all();
    };
  }
  // The next result, or nullopt if none arrived (only after kHangGuard).
  std::optional<int> Next() {
    std::unique_lock lock(mutex_);
    if (!arrived_.wait_for(lock, kHangGuard, [&] { return taken_ < results_.size(); })) return std::nullopt;
    return results_[taken_++];
  }
  std::size_t Count() {
    std::lock_guard lock(mutex_);
    return results_.size();
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<int> results_;
  std::size_t taken_ = 0;
};

}  // namespace ostriolib::testing
