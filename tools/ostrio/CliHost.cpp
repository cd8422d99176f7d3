#include "CliHost.h"

#include "ostriolib/OstrioConfiguration.h"

#ifndef OSTRIO_CLI_VERSION
#define OSTRIO_CLI_VERSION "0.1"
#endif

namespace ostrio {

CliHost::CliHost() : loop_(std::make_shared<kelcore::async::MainThreadRunLoop>()) {
  kelcore::async::InstallMainThreadDispatcher(loop_);
}

CliHost::~CliHost() {
  if (begun_) OstrioLibEndProcess();
  kelcore::async::UninstallMainThreadDispatcher();
}

void CliHost::BeginLibrary() {
  if (begun_) return;
  const std::string redirect = kRedirectScheme;
  const OstrioHostParameter parameters[] = {
      {"ostriolib.OstrioClientName", kClientName},
      {"ostriolib.OstrioRedirectURI", redirect.c_str()},
  };
  const int result = OstrioLibBeginProcess(kCompanyName, OSTRIO_CLI_VERSION, kBuildNumber, parameters,
                                           sizeof parameters / sizeof parameters[0]);
  begun_ = true;
  if (result < 0) throw CliError::FromResult(result, "the library could not be initialised");
}

std::string CliHost::CallbackPrefix() { return std::string(kRedirectScheme) + "://ostrio"; }

}  // namespace ostrio
