#pragma once
// CliError: how a command fails. One line on stderr, "ostrio: <message> (0xXXXXXXXX)", and an exit
// status a script can branch on.

#include <exception>
#include <stdexcept>
#include <string>

#include "kelcore/ResultCodes.h"

namespace ostrio {

// Exit statuses; documented in README.md and in `ostrio --help`.
enum ExitStatus : int {
  kExitOK = 0,
  kExitFailure = 1,
  kExitUsage = 2,
  kExitNotSignedIn = 3,
  kExitNetwork = 4,
};

class CliError : public std::runtime_error {
 public:
  CliError(kelcore::Result result, const std::string& message, ExitStatus status);
  // A failure the library reported: its own message and code, the exit status the code belongs to.
  static CliError FromResult(kelcore::Result result, const std::string& message);
  // Whatever a future or call threw: a kel_exception keeps its code and text; anything else is
  // kErrorFailed with its what().
  static CliError FromException(const std::exception_ptr& error);
  // Bad input caught before any request: kErrorInvalidArgument, exit status 2.
  static CliError Usage(const std::string& message);

  kelcore::Result Result() const noexcept { return result_; }
  ExitStatus Status() const noexcept { return status_; }
  // "ostrio: <message> (0xXXXXXXXX)"
  std::string Line() const;

 private:
  kelcore::Result result_;
  ExitStatus status_;
};

// The exit status a library result code belongs to.
ExitStatus ExitStatusForResult(kelcore::Result result);
// "0xBB590002"
std::string ResultHex(kelcore::Result result);

}  // namespace ostrio
