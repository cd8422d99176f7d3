#pragma once
// Library configuration: client ID, service environment, preview header value, domains.

#include <cstddef>
#include <cstdint>

#include "kelcore/ImmutableString.h"
#include "ostriolib/OstrioExport.h"

OSTRIOLIB_HEADER_OF_LAYER(OSTRIOLIB_LAYER_CONFIGURATION);

namespace ostriolib {

// 0 production, 1 staging, 2 development; any other value is treated as production.
enum EnvironmentType : std::uint8_t {
  kEnvironmentProduction = 0,
  kEnvironmentStaging = 1,
  kEnvironmentDevelopment = 2,
};

// "<lower-cased company>+<client name>/<version>.<build>"; throws kel_exception
// (kErrorOperationFailed, "Ostrio client ID not set") before the library is initialised.
OSTRIOLIB_EXPORT kelcore::ImmutableString GetOstrioClientID();
// The debug-database entry "ostriolib.environment", read afresh on every call.
OSTRIOLIB_EXPORT EnvironmentType GetEnvironmentType();
// The debug-database entry "ostriolib.preview" (empty by default).
OSTRIOLIB_EXPORT kelcore::ImmutableString GetDevPreviewHeaderValue();

// URL templates carry kDomain where the environment's domain suffix goes.
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kDomain;      // ":domain"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kProdDomain;  // build-time default suffixes
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kStageDomain;
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kDevDomain;

}  // namespace ostriolib

extern "C" {

// For hosts without the platform's own process start-up: hands the library its parameters
// ("ostriolib.OstrioClientName", "ostriolib.OstrioRedirectURI", each as a string) and the host
// information, then runs the library's initialisers once. Returns 0, or a negative result code
// when an initialiser failed (for example a missing client name). Later calls return 0 and
// change nothing.
struct OstrioHostParameter {
  const char* name;
  const char* value;
};
OSTRIOLIB_EXPORT int OstrioLibBeginProcess(const char* companyName, const char* version, const char* buildNumber,
                                           const OstrioHostParameter* parameters, std::size_t count);
// Ends the process for the library: runs the end notifications.
OSTRIOLIB_EXPORT void OstrioLibEndProcess();
}
