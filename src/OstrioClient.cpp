// The library's process-wide configuration: the host's parameters, the client ID, the service
// environment and its domain, and the start-up hooks that set them.

#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "kelcore/Configuration.h"
#include "kelcore/KelException.h"
#include "kelcore/Logging.h"
#include "kelcore/Strings.h"
#include "ostriolib/IOstrioAuthManager.h"
#include "ostriolib/OstrioConfiguration.h"
#include "src/OstrioClientConfiguration.h"

namespace ostriolib {

const kelcore::ImmutableString kDomain(":domain");
const kelcore::ImmutableString kProdDomain(OSTRIOLIB_DOMAIN_PRODUCTION);
const kelcore::ImmutableString kStageDomain(OSTRIOLIB_DOMAIN_STAGING);
const kelcore::ImmutableString kDevDomain(OSTRIOLIB_DOMAIN_DEVELOPMENT);

namespace {

constexpr std::string_view kClientNameParameter = "ostriolib.OstrioClientName";
constexpr std::string_view kRedirectURIParameter = "ostriolib.OstrioRedirectURI";
constexpr std::string_view kEnvironmentKey = "ostriolib.environment";
constexpr std::string_view kPreviewKey = "ostriolib.preview";

// Written once at process begin / initialisation, read from any thread afterwards; the lock
// keeps a host that initialises on one thread and queries on another free of data races.
std::mutex& ConfigurationMutex() {
  static std::mutex mutex;
  return mutex;
}
std::string sOstrioClientName;
std::string sOstrioRedirectURI;
kelcore::ImmutableString sOstrioClientID;
// The library keeps the auth manager alive for its whole life once initialised.
kelcore::classref::InterfaceRef<IOstrioAuthManager> sOstrioAuthManager;

// First parameter of that exact name; only a string-typed value counts.
std::string StringParameter(const kelcore::config::detail::Parameter* parameters, std::size_t count,
                            std::string_view name) {
  for (std::size_t i = 0; i < count; ++i) {
    const auto& parameter = parameters[i];
    if (parameter.name == nullptr || name != parameter.name) continue;
    if (parameter.type != kelcore::config::detail::kParameterTypeString || parameter.stringValue == nullptr) {
      return {};
    }
    return parameter.stringValue;
  }
  return {};
}

void OnProcessBegin(const kelcore::config::detail::Parameter* parameters, std::size_t count) {
  std::string clientName = kelcore::Std8ToUTF8String(StringParameter(parameters, count, kClientNameParameter));
  std::string redirectURI = kelcore::Std8ToUTF8String(StringParameter(parameters, count, kRedirectURIParameter));
  std::lock_guard lock(ConfigurationMutex());
  sOstrioClientName = std::move(clientName);
  sOstrioRedirectURI = std::move(redirectURI);
}

void OnProcessEnd() {
  kelcore::classref::InterfaceRef<IOstrioAuthManager> released;
  std::lock_guard lock(ConfigurationMutex());
  released = std::move(sOstrioAuthManager);
}

bool InitializeOstrioLib() {
  const std::string buildNumber(kelcore::config::GetClientBuildNumber().View());
  const std::string version(kelcore::config::GetClientVersion().View());
  const std::string clientName = GetOstrioClientName();
  const std::string company = kelcore::ToLowerUTF8(kelcore::config::GetCompanyName().View());

  const kelcore::ImmutableString clientId(company + "+" + clientName + "/" + version + "." + buildNumber);
  {
    std::lock_guard lock(ConfigurationMutex());
    sOstrioClientID = clientId;
  }

  auto authManager = GetOstrioAuthManager();
  {
    std::lock_guard lock(ConfigurationMutex());
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

const kelcore::config::ProcessBeginEndNotificationRegistrar sProcessRegistrar(OnProcessBegin, OnProcessEnd);
const kelcore::config::InitializerRegistrar sOstrioLibInitializer("OstrioLib", 4, InitializeOstrioLib);

}  // namespace

std::string GetOstrioClientName() {
  std::lock_guard lock(ConfigurationMutex());
  KEL_THROW_IF_IN(sOstrioClientName.empty(), kelcore::kErrorOperationFailed, "Ostrio client name not set",
                  "ostriolib::GetOstrioClientName");
  return sOstrioClientName;
}

std::string GetOstrioRedirectURI() {
  std::lock_guard lock(ConfigurationMutex());
  KEL_THROW_IF_IN(sOstrioRedirectURI.empty(), kelcore::kErrorOperationFailed, "Ostrio redirect URI not set",
                  "ostriolib::GetOstrioRedirectURI");
  return sOstrioRedirectURI;
}

kelcore::ImmutableString GetOstrioClientID() {
  std::lock_guard lock(ConfigurationMutex());
  KEL_THROW_IF_IN(sOstrioClientID.empty(), kelcore::kErrorOperationFailed, "Ostrio client ID not set",
                  "ostriolib::GetOstrioClientID");
  return sOstrioClientID;
}

EnvironmentType GetEnvironmentType() {
  const auto text = kelcore::config::DebugDatabase::Instance().GetEntry(kEnvironmentKey, "0");
  std::istringstream stream{std::string(text.View())};
  long long value = 0;
  if (!(stream >> value)) value = 0;
  // The type is one byte wide: a number that does not fit would wrap onto another
  // environment (258 onto development), so it counts as production instead.
  if (value < 0 || value > 255) value = 0;
  return static_cast<EnvironmentType>(value);
}

kelcore::ImmutableString GetDevPreviewHeaderValue() {
  return kelcore::config::DebugDatabase::Instance().GetEntry(kPreviewKey, "");
}

kelcore::ImmutableString GetDomainSuffix(EnvironmentType environment) {
  const auto& database = kelcore::config::DebugDatabase::Instance();
  switch (environment) {
    case kEnvironmentStaging:
      return database.GetEntry("ostriolib.domain.staging", kStageDomain.View());
    case kEnvironmentDevelopment:
      return database.GetEntry("ostriolib.domain.development", kDevDomain.View());
    case kEnvironmentProduction:
    default:
      return database.GetEntry("ostriolib.domain.production", kProdDomain.View());
  }
}

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
