#pragma once
// The service double: records the tokens it was given and the queries it was asked, answers each
// query at once with a scripted body (or with no response at all), and holds each download until
// the test drives it.

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kelcore/Future.h"
#include "ostriolib/IOstrioService.h"

namespace ostriolib {

class FakeService final : public IOstrioService {
  KEL_CLASS_REGISTRATION(FakeService, IOstrioService)

  int Initialize(const kelcore::ImmutableString&, const kelcore::ImmutableString& accessToken, const EnvironmentType&,
                 const kelcore::ImmutableString&,
                 const std::function<void(const kelcore::ImmutableString&)>& onUnauthenticated) override {
    std::lock_guard lock(mutex);
    tokens.push_back(accessToken.ToStdString());
    this->onUnauthenticated = onUnauthenticated;
    return initializeResult;
  }
  int SetAccessToken(const kelcore::ImmutableString& token) override {
    std::lock_guard lock(mutex);
    tokens.push_back(token.ToStdString());
    return 0;
  }
  void NotifyUnauthenticated() override {}
  kelcore::async::Future<std::shared_ptr<kelnet::Response>> Query(const kelcore::U8Str& query,
                                                                  const kelcore::utility::Dictionary&) override {
    std::lock_guard lock(mutex);
    queries.push_back(kelcore::ToStdString(query));
    if (answerNothing) return kelcore::async::MakeReadyFuture(std::shared_ptr<kelnet::Response>());
    return kelcore::async::MakeReadyFuture(std::make_shared<kelnet::Response>(
        200, kelnet::HeaderMap{{"content-type", "application/json"}}, answer));
  }
  int GetThrottleParameter1() override { return 16; }
  int GetThrottleParameter2() override { return 16; }
  kelcore::async::Future<std::shared_ptr<kelnet::Response>> StreamingGet(const kelcore::ImmutableString& url,
                                                                         const StreamingDataCallback& onData,
                                                                         const kelnet::HeaderMap&) const override {
    std::lock_guard lock(mutex);
    downloads.push_back({url.ToStdString(), onData, kelcore::async::Promise<std::shared_ptr<kelnet::Response>>()});
    return downloads.back().done.GetFuture();
  }

  struct Download {
    std::string url;
    StreamingDataCallback onData;
    kelcore::async::Promise<std::shared_ptr<kelnet::Response>> done;
  };
  mutable std::mutex mutex;
  int initializeResult = 0;
  std::string answer = "{\"data\":{\"answered\":true}}";
  bool answerNothing = false;  // a null response, which the real service never hands on
  std::vector<std::string> tokens;
  std::vector<std::string> queries;
  std::function<void(const kelcore::ImmutableString&)> onUnauthenticated;
  mutable std::deque<Download> downloads;
};

}  // namespace ostriolib
