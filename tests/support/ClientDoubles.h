#pragma once
// Doubles for the client's two collaborators: an auth manager whose token requests the test
// answers by hand, and a service provider whose services record what the client asked of them
// and whose downloads the test drives chunk by chunk. OstrioClientTestAccess builds a client on
// them, outside the process-wide singleton. BeginClientProcess is the process set-up every
// client suite shares.

#include <stdlib.h>

#include <atomic>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "FakeService.h"
#include "OstrioServiceProvider.h"
#include "kelcore/Future.h"
#include "ostriolib/IOstrioAuthManager.h"
#include "ostriolib/OstrioClient.h"
#include "ostriolib/OstrioConfiguration.h"

namespace ostriolib {

// Configuration and credentials below scratch (memory keychain, no debug database), then the
// library's start-up for a host of that name and redirect scheme.
inline void BeginClientProcess(const std::filesystem::path& scratch, const char* clientName, const char* scheme) {
  for (const char* name : {"XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_STATE_HOME"}) {
    ::setenv(name, (scratch / name).c_str(), 1);
  }
  ::setenv("OSTRIOLIB_KEYCHAIN", "memory", 1);
  ::setenv("OSTRIOLIB_DEBUG_DB", "/dev/null", 1);
  const OstrioHostParameter parameters[] = {{"ostriolib.OstrioClientName", clientName},
                                            {"ostriolib.OstrioRedirectURI", scheme}};
  OstrioLibBeginProcess("Acme", "2.0", "9", parameters, 2);
}

class FakeAuthManager final : public IOstrioAuthManager {
  KEL_CLASS_REGISTRATION(FakeAuthManager, IOstrioAuthManager)
  using Text = kelcore::ImmutableString;

  int Initialize(const Text&, const Text&, const EnvironmentType&, const Text&) override { return 0; }
  int Login(const std::function<void(int)>& callback) override {
    loginCallback = callback;
    return 0;
  }
  int ProcessRedirectedCallbackUrl(const kelcore::U8Str&) override { return 0; }
  bool IsUserSignedIn() override { return signedIn; }
  // Each call queues a promise the test completes with AnswerToken / FailToken, unless the test
  // has every request answered at once.
  kelcore::async::Future<Text> RefreshAccessTokenIfNeeded() override {
    if (answerAtOnce) return kelcore::async::MakeReadyFuture(Text(answerAtOnce));
    std::lock_guard lock(mutex_);
    return tokenRequests_.emplace_back().GetFuture();
  }
  int Logout() override {
    signedIn = false;
    return 0;
  }
  void SetKeychainUtils(const kelcore::classref::InterfaceRef<kelcore::IKeychainUtils>&) override {}
  void SetOSUtilsWrapper(const kelcore::classref::InterfaceRef<kelcore::IOSUtilsWrapper>&) override {}
  Text GetAccessToken() override { return {}; }
  Text GetRefreshToken() override { return {}; }

  std::size_t TokenRequestCount() {
    std::lock_guard lock(mutex_);
    return tokenRequests_.size();
  }
  // Complete the oldest unanswered token request.
  void AnswerToken(const char* token) { Next().SetValue(Text(token)); }
  void FailToken(int code) { Next().SetError(code); }

  std::atomic<bool> signedIn{true};
  std::atomic<const char*> answerAtOnce{nullptr};
  std::function<void(int)> loginCallback;

 private:
  kelcore::async::Promise<Text> Next() {
    std::lock_guard lock(mutex_);
    return tokenRequests_[answered_++];
  }
  std::mutex mutex_;
  std::deque<kelcore::async::Promise<Text>> tokenRequests_;
  std::size_t answered_ = 0;
};

class FakeServiceProvider final : public IOstrioServiceProvider {
  KEL_CLASS_REGISTRATION(FakeServiceProvider, IOstrioServiceProvider)

  kelcore::classref::InterfaceRef<IOstrioService> CreateService() override {
    auto service = kelcore::classref::AllocateClassInstance<FakeService>();
    service->initializeResult = nextInitializeResult;
    std::lock_guard lock(mutex_);
    created_.push_back(service);
    return service;
  }
  // The services made so far, oldest first.
  std::vector<kelcore::classref::InterfaceRef<FakeService>> Created() {
    std::lock_guard lock(mutex_);
    return created_;
  }
  std::atomic<int> nextInitializeResult{0};

 private:
  std::mutex mutex_;
  std::vector<kelcore::classref::InterfaceRef<FakeService>> created_;
};

struct OstrioClientTestAccess {
  static std::shared_ptr<OstrioClient> Make(kelcore::classref::InterfaceRef<IOstrioAuthManager> auth,
                                            kelcore::classref::InterfaceRef<IOstrioServiceProvider> provider) {
    return std::shared_ptr<OstrioClient>(new OstrioClient(std::move(auth), std::move(provider)));
  }
};

}  // namespace ostriolib
