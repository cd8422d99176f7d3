#pragma once
// ArgumentChecks: command-line input turned into what the library takes, or a clear usage error
// (CliError, exit status 2) before any request is sent.

#include <filesystem>
#include <string>

#include "kelcore/Guid.h"

namespace ostrio {

class ArgumentChecks {
 public:
  // An id in the Guid text form (8-4-4-4-12 hex, any letter case, braces allowed); what names
  // the argument in the message ("ACCOUNT").
  static kelcore::utility::Guid Id(const std::string& what, const std::string& text);
  // A page size: at least 1.
  static int PageSize(const std::string& option, int value);
  // A page cursor as the service handed it out: printable, at most 4 KiB.
  static std::string Cursor(const std::string& option, const std::string& text);
  // A file the command may create or replace: its folder exists and is writable, and the path
  // is not a folder. Returns the absolute path.
  static std::filesystem::path WritableFile(const std::string& text);
  // An http(s) URL without blanks or control characters.
  static std::string HttpUrl(const std::string& text);
};

}  // namespace ostrio
