#pragma once
// The URL opener double: records every URL and answers with a set result.

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "kelcore/OSUtilsWrapper.h"

class RecordingOSUtilsWrapper final : public kelcore::IOSUtilsWrapper {
 public:
  bool OpenURL(const std::string& url) override {
    std::lock_guard lock(mutex_);
    urls_.push_back(url);
    return result;
  }

  std::vector<std::string> Urls() const {
    std::lock_guard lock(mutex_);
    return urls_;
  }
  std::atomic<bool> result = true;  // what every OpenURL answers

  KEL_CLASS_REGISTRATION(RecordingOSUtilsWrapper, kelcore::IOSUtilsWrapper)

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> urls_;
};
