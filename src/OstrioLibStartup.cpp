// The library's start-up: the "OstrioLib" initialiser that assembles the client ID and sets up
// the auth manager, and the entry points for hosts without the platform's own process start-up.
// It lives with the client because it reaches the auth manager, which the configuration below it
// may not.

#include <mutex>
#include <string>
#include <vector>

#include "LibraryConfiguration.h"
#include "kelcore/Configuration.h"
#include "kelcore/Strings.h"
#include "ostriolib/IOstrioAuthManager.h"
#include "ostriolib/OstrioConfiguration.h"

namespace ostriolib {
namespace {

std::mutex sAuthManagerMutex;
// The library keeps the auth manager alive for its whole life once initialised.
kelcore::classref::InterfaceRef<IOstrioAuthManager> sOstrioAuthManager;

bool InitializeOstrioLib() {
  const std::string buildNumber(kelcore::config::GetClientBuildNumber().View());
  const std::string version(kelcore::config::GetClientVersion().View());
  const std::string clientName = GetOstrioClientName();
  const std::string company = kelcore::ToLowerUTF8(kelcore::config::GetCompanyName().View());

  const kelcore::ImmutableString clientId(company + "+" + clientName + "/" + version + "." + buildNumber);
  SetOstrioClientID(clientId);

  auto authManager = GetOstrioAuthManager();
  {
    std::lock_guard lock(sAuthManagerMutex);
    sOstrioAuthManager = authManager;
  }

  const kelcore::ImmutableString preview = GetDevPreviewHeaderValue();
  const EnvironmentType environment = GetEnvironmentType();
  const kelcore::ImmutableString redirectURI(GetOstrioRedirectURI());
  if (authManager) {
    // Its failures show later, through the auth manager's own results.
    authManager->Initialize(clientId, redirectURI, environment, preview);
  }
  return true;
}

void OnProcessEnd() {
  kelcore::classref::InterfaceRef<IOstrioAuthManager> released;
  std::lock_guard lock(sAuthManagerMutex);
  released = std::move(sOstrioAuthManager);
}

const kelcore::config::ProcessBeginEndNotificationRegistrar sProcessEndRegistrar({}, OnProcessEnd);
const kelcore::config::InitializerRegistrar sOstrioLibInitializer("OstrioLib", 4, InitializeOstrioLib);

}  // namespace
}  // namespace ostriolib

extern "C" int OstrioLibBeginProcess(const char* companyName, const char* version, const char* buildNumber,
                                     const OstrioHostParameter* parameters, std::size_t count) {
  kelcore::config::HostInformation host;
  host.companyName = companyName ? companyName : "";
  host.version = version ? version : "";
  host.buildNumber = buildNumber ? buildNumber : "";
  if (!parameters) count = 0;
  std::vector<kelcore::config::detail::Parameter> converted;
  converted.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    kelcore::config::detail::Parameter parameter;
    parameter.name = parameters[i].name;
    parameter.type = kelcore::config::detail::kParameterTypeString;
    parameter.stringValue = parameters[i].value;
    converted.push_back(parameter);
  }
  if (!kelcore::config::BeginProcess(host, converted.data(), converted.size())) return 0;
  return kelcore::config::InitializerFailed("OstrioLib") ? kelcore::kErrorOperationFailed : 0;
}

extern "C" void OstrioLibEndProcess() { kelcore::config::EndProcess(); }
