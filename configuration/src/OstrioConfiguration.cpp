// The library's process-wide configuration: the host's parameters, the client ID, the service
// environment and its domain. Written at process begin and by the start-up initialiser, read from
// any thread afterwards.

#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "kelcore/Configuration.h"
#include "kelcore/KelException.h"
#include "kelcore/Logging.h"
#include "kelcore/Strings.h"
#include "ostriolib/OstrioConfiguration.h"
#include "LibraryConfiguration.h"

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

const kelcore::config::ProcessBeginEndNotificationRegistrar sProcessRegistrar(OnProcessBegin);

// The getters' failures name the client's source file and the getter: hosts and their tests look
// for that place, wherever the code lives in this tree.
constexpr std::string_view kConfigurationSource = "src/OstrioClient";

}  // namespace

std::string GetOstrioClientName() {
  std::lock_guard lock(ConfigurationMutex());
  KEL_THROW_IF_AT(sOstrioClientName.empty(), kelcore::kErrorOperationFailed, "Ostrio client name not set",
                  (kelcore::SourceSite{kConfigurationSource, __LINE__, "ostriolib::GetOstrioClientName"}));
  return sOstrioClientName;
}

std::string GetOstrioRedirectURI() {
  std::lock_guard lock(ConfigurationMutex());
  KEL_THROW_IF_AT(sOstrioRedirectURI.empty(), kelcore::kErrorOperationFailed, "Ostrio redirect URI not set",
                  (kelcore::SourceSite{kConfigurationSource, __LINE__, "ostriolib::GetOstrioRedirectURI"}));
  return sOstrioRedirectURI;
}

void SetOstrioClientID(const kelcore::ImmutableString& clientId) {
  std::lock_guard lock(ConfigurationMutex());
  sOstrioClientID = clientId;
}

kelcore::ImmutableString GetOstrioClientID() {
  std::lock_guard lock(ConfigurationMutex());
  KEL_THROW_IF_AT(sOstrioClientID.empty(), kelcore::kErrorOperationFailed, "Ostrio client ID not set",
                  (kelcore::SourceSite{kConfigurationSource, __LINE__, "ostriolib::GetOstrioClientID"}));
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
