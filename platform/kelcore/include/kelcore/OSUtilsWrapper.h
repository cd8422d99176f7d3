#pragma once
// Operating-system utilities the library needs: opening a URL in the user's browser.

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "kelcore/ClassRef.h"

namespace kelcore {

class IOSUtilsWrapper : public classref::Unknown {
 public:
  ~IOSUtilsWrapper() override = default;

  // Opens the URL (UTF-8) in the user's default browser. true when the opener was started and did
  // not report a failure: a non-zero exit within a short wait counts as failure; an opener still
  // running after that wait (some wait for the browser itself) counts as success.
  virtual bool OpenURL(const std::string& url) = 0;
};

// How long an open waits for the opener's verdict. Openers that hand the URL to a running desktop
// answer well within it; one that runs the browser in the foreground is taken as started once
// it is up. The caller (often a UI thread signing in) blocks for at most this long.
inline constexpr std::chrono::milliseconds kDefaultOpenerExitWait{3000};

class OSUtilsWrapper {
 public:
  // Opens URLs with the command in the debug-database entry "ostriolib.browser" if set, else with
  // xdg-open. The entry is read on every call.
  static classref::InterfaceRef<IOSUtilsWrapper> GetOSUtilsWrapper();
  // Opens URLs with `command`: split into words like a shell would (quotes and backslashes, no
  // expansions); "%u" in a word is replaced by the URL, else the URL is appended as one more word.
  // Started directly (no shell), so the URL never meets shell syntax. `exitWait` bounds how long
  // an open waits for the opener's exit status.
  static classref::InterfaceRef<IOSUtilsWrapper> CreateCommandOpener(
      std::string command, std::chrono::milliseconds exitWait = kDefaultOpenerExitWait);
  // The words `command` runs for `url` (the rule above); empty when the command is empty or its
  // quotes do not close.
  static std::vector<std::string> CommandLineFor(std::string_view command, std::string_view url);
};

// A test double: records every URL and answers with a set result; an optional hook sees each URL
// (on the caller's thread) before the answer is given.
class RecordingOSUtilsWrapper final : public IOSUtilsWrapper {
 public:
  explicit RecordingOSUtilsWrapper(bool result = true) : result_(result) {}

  bool OpenURL(const std::string& url) override {
    std::function<void(const std::string&)> hook;
    bool result;
    {
      std::lock_guard lock(mutex_);
      urls_.push_back(url);
      hook = hook_;
      result = result_;
    }
    if (hook) hook(url);
    return result;
  }

  std::vector<std::string> Urls() const {
    std::lock_guard lock(mutex_);
    return urls_;
  }
  void SetResult(bool result) {
    std::lock_guard lock(mutex_);
    result_ = result;
  }
  void SetHook(std::function<void(const std::string&)> hook) {
    std::lock_guard lock(mutex_);
    hook_ = std::move(hook);
  }

  KEL_CLASS_REGISTRATION(RecordingOSUtilsWrapper, IOSUtilsWrapper)

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> urls_;
  std::function<void(const std::string&)> hook_;
  bool result_;
};

}  // namespace kelcore
