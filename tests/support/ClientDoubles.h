#pragma once
// Doubles for the client's two collaborators: an auth manager whose token requests the test
// answers by hand, and a service provider whose services record what the client asked of them
// and whose downloads the test drives chunk by chunk. OstrioClientTestAccess builds a client on
// them, outside the process-wide singleton.

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "FakeService.h"
#include "OstrioServiceProvider.h"
#include "kelcore/Future.h"
#include "ostriolib/IOstrioAuthManager.h"
#include "ostriolib/OstrioClient.h"

namespace ostriolib {

class FakeAuthManager final : public IOstrioAuthManager {
  KEL_CLASS_REGISTRATION(FakeAuthManager, IOstrioAuthManager)

  int Initialize(const kelcore::ImmutableString&, const kelcore::ImmutableString&, const EnvironmentType&,
                 const kelcore::ImmutableString&) override {
    return 0;
  }
  int Login(const std::function<void(int)>& callback) override {
    std::lock_guard lock(mutex_);
    loginCallback = callback;
    return 0;
  }
  int ProcessRedirectedCallbackUrl(const kelcore::U8Str&) override { return 0; }
  bool IsUserSignedIn() override { return signedIn; }
  // Each call queues a promise the test completes with AnswerToken / FailToken.
  kelcore::async::Future<kelcore::ImmutableString> RefreshAccessTokenIfNeeded() override {
    std::lock_guard lock(mutex_);
    tokenRequests.emplace_back();
    return tokenRequests.back().GetFuture();
  }
  int Logout() override {
    signedIn = false;
    return 0;
  }
  void SetKeychainUtils(const kelcore::classref::InterfaceRef<kelcore::IKeychainUtils>&) override {}
  void SetOSUtilsWrapper(const kelcore::classref::InterfaceRef<kelcore::IOSUtilsWrapper>&) override {}
  kelcore::ImmutableString GetAccessToken() override { return {}; }
  kelcore::ImmutableString GetRefreshToken() override { return {}; }

  std::size_t TokenRequestCount() {
    std::lock_guard lock(mutex_);
    return tokenRequests.size();
  }
  // Completes the oldest unanswered token request.
  void AnswerToken(const char* token) { Next().SetValue(kelcore::ImmutableString(token)); }
  void FailToken(int code) { Next().SetError(code); }

  std::atomic<bool> signedIn{true};
  std::function<void(int)> loginCallback;

 private:
  kelcore::async::Promise<kelcore::ImmutableString> Next() {
    std::lock_guard lock(mutex_);
    auto promise = tokenRequests[answered_++];
    return promise;
  }
  std::mutex mutex_;
  std::deque<kelcore::async::Promise<kelcore::ImmutableString>> tokenRequests;
  std::size_t answered_ = 0;
};

class FakeServiceProvider final : public IOstrioServiceProvider {
  KEL_CLASS_REGISTRATION(FakeServiceProvider, IOstrioServiceProvider)

  kelcore::classref::InterfaceRef<IOstrioService> CreateService() override {
    auto service = kelcore::classref::AllocateClassInstance<FakeService>();
    service->initializeResult = nextInitializeResult;
    std::lock_guard lock(mutex_);
    created.push_back(service);
    return service;
  }
  std::vector<kelcore::classref::InterfaceRef<FakeService>> Created() {
    std::lock_guard lock(mutex_);
    return created;
  }
  int nextInitializeResult = 0;

 private:
  std::mutex mutex_;
  std::vector<kelcore::classref::InterfaceRef<FakeService>> created;
};

struct OstrioClientTestAccess {
  static std::shared_ptr<OstrioClient> Make(kelcore::classref::InterfaceRef<IOstrioAuthManager> auth,
                                            kelcore::classref::InterfaceRef<IOstrioServiceProvider> provider) {
    return std::shared_ptr<OstrioClient>(new OstrioClient(std::move(auth), std::move(provider)));
  }
  static void TokenExpired(OstrioClient& client) { client.OnAccessTokenExpired(); }
};

}  // namespace ostriolib
