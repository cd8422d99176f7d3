#pragma once
// The service double: records the tokens it was given and the queries it was asked, answers each
// query at once with a scripted body (or with no response at all), and holds each download until
// the test drives it. Outcome reads how an operation on it (or on anything else) ended; KnownQuery
// is a document as the emulator knows it.

#include <deque>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <regex>
#include <iterator>
#include <string>
#include <vector>

#include "kelcore/Future.h"
#include "kelcore/KelException.h"
#include "kelcore/ResultCodes.h"
#include "ostriolib/IOstrioService.h"

namespace ostriolib {

class FakeService final : public IOstrioService {
  KEL_CLASS_REGISTRATION(FakeService, IOstrioService)
  using Text = kelcore::ImmutableString;
  using Answer = kelcore::async::Future<std::shared_ptr<kelnet::Response>>;

  int Initialize(const Text&, const Text& accessToken, const EnvironmentType&, const Text&,
                 const std::function<void(const Text&)>& onUnauthenticated) override {
    this->onUnauthenticated = onUnauthenticated;
    return SetAccessToken(accessToken) == 0 ? initializeResult : -1;
  }
  int SetAccessToken(const Text& token) override {
    std::lock_guard lock(mutex);
    tokens.push_back(token.ToStdString());
    return 0;
  }
  void NotifyUnauthenticated() override {}
  Answer Query(const kelcore::U8Str& query, const kelcore::utility::Dictionary&) override {
    std::lock_guard lock(mutex);
    queries.push_back(kelcore::ToStdString(query));
    if (answerNothing) return kelcore::async::MakeReadyFuture(std::shared_ptr<kelnet::Response>());
    return kelcore::async::MakeReadyFuture(std::make_shared<kelnet::Response>(
        200, kelnet::HeaderMap{{"content-type", "application/json"}}, answer));
  }
  int GetThrottleParameter1() override { return 16; }
  int GetThrottleParameter2() override { return 16; }
  Answer StreamingGet(const Text&, const StreamingDataCallback& onData, const kelnet::HeaderMap&) const override {
    std::lock_guard lock(mutex);
    downloads.push_back({onData, kelcore::async::Promise<std::shared_ptr<kelnet::Response>>()});
    return downloads.back().done.GetFuture();
  }

  struct Download {
    StreamingDataCallback onData;
    kelcore::async::Promise<std::shared_ptr<kelnet::Response>> done;
  };
  mutable std::mutex mutex;
  int initializeResult = 0;
  std::string answer = "{\"data\":{\"answered\":true}}";
  bool answerNothing = false;  // a null response, which the real service never hands on
  std::vector<std::string> tokens;
  std::vector<std::string> queries;
  std::function<void(const Text&)> onUnauthenticated;
  mutable std::deque<Download> downloads;
};

// The failure a future ends with (result 0 when it succeeded), waiting for it a bounded while.
template <class T>
kelcore::kel_exception Outcome(const kelcore::async::Future<T>& future) {
  if (!future.WaitFor(std::chrono::seconds(30))) return kelcore::kel_exception(kelcore::kErrorFailed, "never ended");
  try {
    future.Get();
  } catch (const kelcore::kel_exception& e) {
    return e;
  }
  return kelcore::kel_exception(0);
}

// The document of that name in the emulator's list of known documents, the one it checks live
// requests against byte for byte.
inline std::string KnownQuery(const std::string& name) {
  std::ifstream file(std::string(OSTRIO_EMULATOR_DIR) + "/lib/knownQueries.js");
  const std::string source{std::istreambuf_iterator<char>(file), {}};
  std::smatch found;
  const std::regex entry(name + R"re(:\s*\n\s*"([^"]*)")re");
  return std::regex_search(source, found, entry) ? found[1].str() : "<no document named " + name + ">";
}

}  // namespace ostriolib
