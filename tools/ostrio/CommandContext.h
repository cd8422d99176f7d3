#pragma once
// CommandContext: what every command runs with: the host (library, main loop), the output mode,
// and the client once the library has begun.

#include <iosfwd>
#include <memory>
#include <string>

#include "CliHost.h"
#include "kelcore/Dictionary.h"
#include "ostriolib/OstrioClient.h"

namespace ostrio {

class CommandContext {
 public:
  CommandContext(CliHost& host, bool json) : host_(host), json_(json) {}

  CliHost& Host() { return host_; }
  bool Json() const { return json_; }

  // Begins the library on first use and returns the process-wide client.
  std::shared_ptr<ostriolib::OstrioClient> Client();
  // Throws CliError (kErrorNotSignedIn, exit 3) unless a user is signed in.
  void RequireSignedIn();

  template <class T>
  T Await(const kelcore::async::Future<T>& future) {
    return host_.Await(future);
  }

  // One JSON document and a newline on stdout.
  static void PrintJson(const kelcore::utility::DictionaryValue& value);
  // A line of human-readable output on stdout (for --json runs commands print only the document).
  static void PrintLine(const std::string& line);
  // Progress and notes for a person: stderr, so stdout stays clean for pipes.
  static void Note(const std::string& line);

 private:
  CliHost& host_;
  bool json_;
  std::shared_ptr<ostriolib::OstrioClient> client_;
};

}  // namespace ostrio
