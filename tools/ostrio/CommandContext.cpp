#include "CommandContext.h"

#include <cstdio>

#include "CliError.h"

namespace ostrio {

std::shared_ptr<ostriolib::OstrioClient> CommandContext::Client() {
  if (!client_) {
    host_.BeginLibrary();
    client_ = ostriolib::OstrioClient::GetInstance();
  }
  return client_;
}

void CommandContext::RequireSignedIn() {
  if (!Client()->IsOstrioUserSignedIn()) {
    throw CliError(kelcore::kErrorNotSignedIn, "not signed in (run `ostrio login`)", kExitNotSignedIn);
  }
}

void CommandContext::PrintJson(const kelcore::utility::DictionaryValue& value) {
  const std::string text = kelcore::utility::JSONWrite(value);
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

void CommandContext::PrintLine(const std::string& line) {
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

void CommandContext::Note(const std::string& line) {
  std::fprintf(stderr, "%s\n", line.c_str());
  std::fflush(stderr);
}

}  // namespace ostrio
