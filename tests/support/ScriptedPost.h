#pragma once
// The HTTP POST double: stands in for kelnet::POST where a caller takes the function as a seam.

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kelcore/Executor.h"
#include "kelnet/Http.h"

// Records each POST and holds its completion until the test answers it, on the default executor
// (never on the caller's stack, as the real transport does).
class ScriptedPost {
 public:
  struct Request {
    kelcore::ImmutableString url;
    kelnet::HeaderMap headers;
    kelnet::Completion completion;
  };

  // In kelnet::POST's shape.
  auto Post() {
    return [this](const auto&, kelnet::Completion completion, const kelcore::ImmutableString& url, const auto&,
                  const kelnet::HeaderMap& headers, const auto&) {
      std::function<std::shared_ptr<kelnet::Response>()> answer;
      {
        std::lock_guard lock(mutex_);
        if (!startResult) return false;
        requests_.push_back({url, headers, completion});
        answer = autoAnswer;
      }
      if (answer) Complete(completion, answer());
      return true;
    };
  }

  static void Complete(kelnet::Completion completion, std::shared_ptr<kelnet::Response> response) {
    kelcore::async::GetDefaultExecutor()->Post(
        [completion = std::move(completion), response] { completion(kelcore::utility::Guid(), response); });
  }

  std::vector<Request> Requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
  }

  bool startResult = true;
  std::function<std::shared_ptr<kelnet::Response>()> autoAnswer;  // set before use

 private:
  mutable std::mutex mutex_;
  std::vector<Request> requests_;
};
