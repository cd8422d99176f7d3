#pragma once
// Operating-system utilities the library needs: opening a URL in the user's browser.

#include <chrono>
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
  // Opens URLs with the desktop's own opener (xdg-open on freedesktop systems).
  static classref::InterfaceRef<IOSUtilsWrapper> GetOSUtilsWrapper();
  // Opens URLs with `command`: split into words like a shell would (quotes and backslashes, no
  // expansions); "%u" in a word is replaced by the URL, else the URL is appended as one more word.
  // Started directly (no shell), so the URL never meets shell syntax. `exitWait` bounds how long
  // an open waits for the opener's exit status. Null for an empty command.
  static classref::InterfaceRef<IOSUtilsWrapper> CreateCommandOpener(
      std::string command, std::chrono::milliseconds exitWait = kDefaultOpenerExitWait);
  // The words `command` runs for `url` (the rule above); empty when the command is empty or its
  // quotes do not close.
  static std::vector<std::string> CommandLineFor(std::string_view command, std::string_view url);
};

}  // namespace kelcore
