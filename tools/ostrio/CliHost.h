#pragma once
// CliHost: what makes the ostrio process a host of the library. It hands the library the host's
// parameters at process begin (client name, redirect URI = our URL scheme, company, version,
// build), which also registers the URL scheme for this executable, and installs a main-thread
// dispatcher whose loop runs on main's thread while a command waits.

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "CliError.h"
#include "kelcore/Executor.h"
#include "kelcore/Future.h"

namespace ostrio {

class CliHost {
 public:
  static constexpr const char* kClientName = "ostrio";
  static constexpr const char* kRedirectScheme = "ostrio-cli";
  static constexpr const char* kCompanyName = "Corvane";
  static constexpr const char* kBuildNumber = "1";

  CliHost();
  ~CliHost();
  CliHost(const CliHost&) = delete;
  CliHost& operator=(const CliHost&) = delete;

  // Begins the library's process (once). Throws CliError when an initialiser failed.
  void BeginLibrary();

  // The callback URL the sign-in page redirects to: "<scheme>://ostrio".
  static std::string CallbackPrefix();

  const std::shared_ptr<kelcore::async::MainThreadRunLoop>& Loop() const { return loop_; }

  // Runs the main loop until the future completes, then returns its value or throws CliError.
  template <class T>
  T Await(const kelcore::async::Future<T>& future) {
    WaitReady(future, std::nullopt);
    try {
      return future.Get();
    } catch (...) {
      throw CliError::FromException(std::current_exception());
    }
  }

  // As Await, bounded: false when the time ran out first.
  template <class T>
  bool WaitReady(const kelcore::async::Future<T>& future, std::optional<std::chrono::milliseconds> timeout) {
    // A completion on another thread has to wake the loop, which otherwise sleeps until a task.
    std::weak_ptr<kelcore::async::MainThreadRunLoop> weakLoop = loop_;
    future.Then(
        [weakLoop](const kelcore::async::Future<T>&) {
          if (auto loop = weakLoop.lock()) loop->Post([] {});
        },
        kelcore::async::GetInlineExecutor());
    const auto ready = [&future] { return future.IsReady(); };
    if (timeout) return loop_->RunUntil(ready, *timeout);
    return loop_->RunUntil(ready);
  }

 private:
  std::shared_ptr<kelcore::async::MainThreadRunLoop> loop_;
  bool begun_ = false;
};

}  // namespace ostrio
